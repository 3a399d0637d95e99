// Verifications that run out of memory: what has to be rejected is never accepted.
#include "../extension_der.h"
#include "fakes/allocator.h"
#include "validator_support.h"

using namespace validator_support;

namespace {

class ValidatorMemory : public chain_test {
 protected:
  void SetUp() override {
    chain_test::SetUp();
    if (!fake_allocator::available())
      GTEST_SKIP() << "the allocator cannot be replaced in this build";
  }

  // Verifies `what` with the internet flavour and each allocation failing in turn. Returns how
  // many of the runs that had a failure accepted it; the last run, without one, is to accept or
  // not as `accepted` says. `prepare_run` comes before each run.
  size_t sweep(
      const verification &what, bool accepted, bool stay_failed,
      const std::function<void()> &prepare_run = [] {}) {
    x509_store store = make_x509_store(what.trusted);
    stack untrusted = make_stack(what.untrusted);
    int result = -1;
    size_t accepting = 0;
    auto run = [&] {
      {
        fake_allocator::pause no_failures;
        start_over();
        prepare_run();
      }
      result = verify_once(store.get(), untrusted.get(), what);
    };
    run();  // OpenSSL fetches its algorithms
    size_t failures = fake_allocator::sweep(
        run, [&](size_t) { accepting += result == 1; }, stay_failed);
    EXPECT_GT(failures, 20U);
    EXPECT_EQ(accepted, result == 1);
    return accepting;
  }

  void expect_never_accepted(
      const verification &what, const std::function<void()> &prepare_run = [] {}) {
    for (bool stay_failed : {false, true})
      EXPECT_EQ(0U, sweep(what, false, stay_failed, prepare_run)) << stay_failed;
  }

 private:
  static void start_over() {
    zv_cv_clear_cert_sts_info_cache();
    support::empty_store();
    support::clear_openssl_errors();
    clear_log();
  }
  static int verify_once(X509_STORE *store, STACK_OF(X509) * untrusted, const verification &what) {
    X509_STORE_CTX *ctx = X509_STORE_CTX_new();
    if (!ctx)
      return 0;
    int result = 0;
    if (X509_STORE_CTX_init(ctx, store, what.leaf.get(), untrusted) == 1) {
      set_parameters(ctx, what);
      X509_STORE_CTX_set_verify_cb(ctx, internet);
      result = X509_verify_cert(ctx);
    }
    X509_STORE_CTX_free(ctx);
    return result;
  }
};

TEST_F(ValidatorMemory, GoodChainIsAcceptedOrNot) {
  for (bool stay_failed : {false, true})
    sweep(chain(), true, stay_failed, [] { add_always_ok(); });
}

TEST_F(ValidatorMemory, GoodChainWithoutSourcesIsAcceptedOrNot) {
  for (bool stay_failed : {false, true})
    sweep(chain(), true, stay_failed);
}

TEST_F(ValidatorMemory, RevokedOneIsNeverAccepted) {
  record info = hold(cv_alloc_cert_sts_info(PKI_CERT_REVOKED, leaf_.get(),
                                            support::make_time(time(nullptr) + 3600).get()));
  expect_never_accepted(chain(), [&] {
    add_always_ok();
    zv_cv_add_cert_sts_info_cache(info.get());
  });
}

TEST_F(ValidatorMemory, UnknownOneIsNeverAccepted) {
  cert leaf = make_leaf({extension_der::aia({"ldap://nobody/"})});
  expect_never_accepted(chain_of(inter_, leaf));
}

TEST_F(ValidatorMemory, OneOfUnknownDistributionPointsIsNeverAccepted) {
  cert leaf = make_leaf({extension_der::crl_dp_of(
      extension_der::point(extension_der::full_name(extension_der::general_name(2))))});
  expect_never_accepted(chain_of(inter_, leaf));
}

TEST_F(ValidatorMemory, OneWithAConfiguredSourceIsNeverAccepted) {
  expect_never_accepted(chain(), [] { add_ocsp("ldap://nobody/", false, false, "leaf"); });
}

TEST_F(ValidatorMemory, OneWhoseConfiguredSourceIsFinalIsNeverAccepted) {
  expect_never_accepted(chain(), [] {
    add_ocsp("ldap://nobody/", false, true, "leaf");
    add_always_ok("inter", true);
  });
}

TEST_F(ValidatorMemory, MalformedSourcesAreNeverAccepted) {
  cert leaf = make_leaf({extension_der::raw("authorityInfoAccess", "x")});
  expect_never_accepted(chain_of(inter_, leaf));
}

TEST_F(ValidatorMemory, UnsupportedCriticalExtensionIsNeverAccepted) {
  cert leaf = make_leaf({{"certificatePolicies", critical_policies}});
  expect_never_accepted(chain_of(inter_, leaf), [] { add_always_ok(); });
}

TEST_F(ValidatorMemory, IssuerWithoutCrlSignIsNeverAccepted) {
  cert inter = make_bare_inter(
      {{"basicConstraints", "critical,CA:TRUE"}, {"keyUsage", "critical,keyCertSign"}});
  expect_never_accepted(chain_of(inter, leaf_), [] { add_always_ok(); });
}

TEST_F(ValidatorMemory, ExpiredOneIsNeverAccepted) {
  time_t now = time(nullptr);
  cert leaf = make({.subject = "leaf",
                    .issuer = "inter",
                    .key = 2,
                    .issuer_key = 1,
                    .not_before = now - 200,
                    .not_after = now - 100});
  expect_never_accepted(chain_of(inter_, leaf), [] { add_always_ok(); });
}

TEST_F(ValidatorMemory, StrangersChainIsNeverAccepted) {
  expect_never_accepted({.leaf = leaf_, .untrusted = {inter_, root_}}, [] { add_always_ok(); });
}

TEST_F(ValidatorMemory, CheckTimeIsNeverAccepted) {
  verification what = chain();
  what.check_time = time(nullptr);
  expect_never_accepted(what, [] { add_always_ok(); });
}

// OpenSSL has always looked at a certificate before it asks about it; here nobody has, so that
// reading its extensions needs memory too.
class ValidatorMemoryFresh : public validator_test {
 protected:
  void SetUp() override {
    validator_test::SetUp();
    if (!fake_allocator::available())
      GTEST_SKIP() << "the allocator cannot be replaced in this build";
  }

  static cert fresh(const cert &model) {
    std::string octets = support::der(model);
    const auto *in = reinterpret_cast<const unsigned char *>(octets.data());
    return cert(d2i_X509(nullptr, &in, static_cast<long>(octets.size())), X509_free);
  }

  void expect_never_accepted(const cert &inter, int depth) {
    cert leaf = make_leaf(), root = make_root();
    certs models = {leaf, inter, inter, inter, root};
    int result = -1;
    for (bool stay_failed : {false, true}) {
      size_t n = 1;
      for (bool failed = true; failed; n++) {
        certs chain;
        for (const cert &each : models)
          chain.push_back(fresh(each));
        context ctx = prepare(chain, depth);
        fake_allocator::fail_at(n, stay_failed);
        result = local(1, ctx.get());
        fake_allocator::stop_failing();
        failed = fake_allocator::has_failed();
        EXPECT_EQ(0, result) << n;
        support::clear_openssl_errors();
      }
      EXPECT_GT(n, 2U);
    }
  }
};

TEST_F(ValidatorMemoryFresh, IssuerWithoutCrlSignIsNeverAccepted) {
  expect_never_accepted(make_bare_inter({{"basicConstraints", "critical,CA:TRUE"},
                                         {"keyUsage", "critical,keyCertSign"}}),
                        1);
}

TEST_F(ValidatorMemoryFresh, IssuerWithoutCaFlagIsNeverAccepted) {
  expect_never_accepted(make_bare_inter({{"basicConstraints", "CA:FALSE"}}), 1);
}

TEST_F(ValidatorMemoryFresh, IssuerWithoutBasicConstraintsIsNeverAccepted) {
  expect_never_accepted(make_bare_inter({}), 1);
}

TEST_F(ValidatorMemoryFresh, ExceededPathLengthIsNeverAccepted) {
  expect_never_accepted(make_bare_inter({{"basicConstraints", "critical,CA:TRUE,pathlen:0"},
                                         {"keyUsage", "critical,keyCertSign,cRLSign"}}),
                        2);
}

TEST_F(ValidatorMemoryFresh, UnsupportedCriticalExtensionIsNeverAccepted) {
  expect_never_accepted(make_inter({{"certificatePolicies", critical_policies}}), 1);
}

}  // namespace
