// The OCSP query when memory runs short: no record or the right one, and nothing left behind.
#include <optional>

#include "fakes/allocator.h"
#include "fakes/failures.h"
#include "support/descriptors.h"
#include "unit/verifier/cert_verifier/ocsp_support.h"
#include "unit/verifier/crl_cache/decide_support.h"

using namespace ocsp_support;

namespace {

class OcspAllocation : public ocsp_query_test {
 protected:
  void SetUp() override {
    ocsp_query_test::SetUp();
    if (!fake_allocator::available())
      GTEST_SKIP() << "this build's allocator cannot be replaced";
  }

  static support::cert copy_of(const support::cert &cert) {
    std::string octets = support::der(cert);
    const auto *in = reinterpret_cast<const unsigned char *>(octets.data());
    return support::cert(d2i_X509(nullptr, &in, static_cast<long>(octets.size())), X509_free);
  }
  // What OpenSSL looked at when memory was short is not used again.
  void renew() {
    device = copy_of(device);
    issuer = copy_of(issuer);
    if (configured)
      configured = copy_of(configured);
    if (untrusted) {
      untrusted = copy_of(untrusted);
      trust.emplace(decide_support::certs(), decide_support::certs{untrusted});
      context = trust->get();
    }
    support::empty_store();
    zv_cv_clear_cert_sts_info_cache();
    support::clear_openssl_errors();
    clear_log();
  }

  // A line that says why there is no record.
  static bool has_reason() {
    for (const log_entry &entry : captured_log())
      if (entry.level == 3 || entry.level == 4)
        return true;
    return false;
  }

  // Lets an allocation of the query fail, each `step`th in turn; `right_status` is the record's,
  // or -1 when there is none even with all the memory.
  // With `last`, of the last so many.
  void sweep(ocsp_responder &responder, int right_status, size_t step, bool stay_failed = false,
             size_t last = 0) {
    std::string url = responder.url("/ocsp");
    // OpenSSL and the resolver fill their caches, also the ones for logging errors.
    EXPECT_EQ(right_status, status_of(query(url))) << log_dump();
    support::raise_openssl_error(ERR_R_MALLOC_FAILURE);
    log_openssl_errors(3);
    const auto open_before = support::open_descriptors();
    size_t failures = 0;
    bool completed = false;
    size_t first = last ? count_allocations(url) - last : 1;
    for (size_t n = first; n < 100000 && !completed; n += step) {
      renew();
      pki::ocsp_locator locator = {pki::locator_ocsp_url, url.data(), configured.get(), ocsp_flag};
      fake_allocator::fail_at(n, stay_failed);
      record info = cache_support::hold(pki::zv_cv_ocsp_get_sts_info(
          &locator, device.get(), issuer.get(), context, internet, depth));
      completed = !fake_allocator::has_failed();
      fake_allocator::stop_failing();
      failures += !completed;
      if (completed) {
        EXPECT_EQ(right_status, status_of(info)) << n;
      } else {
        EXPECT_TRUE(!info || info->status == right_status) << n << ": " << status_of(info);
      }
      EXPECT_TRUE(info || has_reason()) << n << log_dump();
      if (info) {
        EXPECT_EQ(device.get(), info->cert) << n;
        EXPECT_EQ(0, ASN1_TIME_cmp_time_t(info->valid_until, start + 3600)) << n;
        EXPECT_EQ(1u, info->ref_count) << n;
      }
    }
    EXPECT_TRUE(completed);
    EXPECT_GT(failures, 50u / step);
    // The responder may still be closing its end.
    EXPECT_LE(support::open_descriptors(), open_before + 1);
    renew();
  }

  size_t count_allocations(const std::string &url) {
    renew();
    fake_allocator::stop_failing();
    (void)query(url);
    return fake_allocator::allocations();
  }

  // By a stranger's key under the key hash of somebody whose word counts. He is not collected: the
  // answer brings another of his issuer and serial number first.
  static ocsp_options forged_for(const support::cert &believed, const X509_NAME *by, long serial) {
    unsigned char hash[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    X509_pubkey_digest(believed.get(), EVP_sha1(), hash, &length);
    support::cert_options made = valid_options("double", serial, device_key);
    made.issuer = support::name(X509_NAME_dup(by), X509_NAME_free);
    ocsp_options options;
    options.signing_key = support::test_key(forger_key);
    options.signer = support::make_cert(valid_options("forger", 5, forger_key));
    options.responder_id =
        support::tlv(0xA2, support::tlv(V_ASN1_OCTET_STRING, std::string(hash, hash + length)));
    options.certs = {support::make_cert(made)};
    return options;
  }
  void expect_forgery_fails(const support::cert &believed) {
    ocsp_options options = forged_for(believed, X509_get_issuer_name(believed.get()),
                                      ASN1_INTEGER_get(X509_get0_serialNumber(believed.get())));
    ocsp_responder with_peers(options);
    untrusted = believed;
    sweep(with_peers, -1, fake_allocator::sweep_step(usual_step), false, behind_the_download);
    untrusted.reset();
    trust.reset();
    context = nullptr;
    options.certs.push_back(believed);
    ocsp_responder with_answers(options);
    sweep(with_answers, -1, fake_allocator::sweep_step(usual_step), false, behind_the_download);
  }

  static constexpr int forger_key = 4;
  static constexpr size_t behind_the_download = 250;
  support::cert untrusted;  // the context's
  std::optional<decide_support::trust_context> trust;

  // Each of them where that takes less than a second.
  static constexpr size_t usual_step = 1, costly_step = 3, nested_step = 7;
};

TEST_F(OcspAllocation, IssuersGoodAnswerIsThatOrNone) {
  ocsp_responder responder(by_issuer());
  sweep(responder, PKI_CERT_OK, fake_allocator::sweep_step(usual_step));
}

TEST_F(OcspAllocation, IssuersRevokedAnswerIsThatOrNone) {
  ocsp_responder responder(by_issuer(V_OCSP_CERTSTATUS_REVOKED));
  sweep(responder, PKI_CERT_REVOKED, fake_allocator::sweep_step(usual_step));
}

TEST_F(OcspAllocation, MemoryThatStaysShortGivesTheRightRecordOrNone) {
  ocsp_responder responder(by_issuer());
  sweep(responder, PKI_CERT_OK, fake_allocator::sweep_step(usual_step), true);
}

TEST_F(OcspAllocation, DelegatedRespondersAnswerIsThatOrNone) {
  ocsp_options options = by(issue_responder());
  options.single.status = V_OCSP_CERTSTATUS_REVOKED;
  ocsp_responder responder(options);
  sweep(responder, PKI_CERT_REVOKED, fake_allocator::sweep_step(costly_step));
}

TEST_F(OcspAllocation, ResponderByKeyHashIsBelievedOrNot) {
  ocsp_options options = by(issue_responder());
  options.by_key = true;
  ocsp_responder responder(options);
  sweep(responder, PKI_CERT_OK, fake_allocator::sweep_step(costly_step));
}

TEST_F(OcspAllocation, ConfiguredSignerIsBelievedOrNot) {
  configured = support::make_cert(valid_options("stranger", 77, stranger_key));
  ocsp_flag = 1;
  ocsp_options options = by(configured, stranger_key);
  options.certs.clear();
  ocsp_responder responder(options);
  sweep(responder, PKI_CERT_OK, fake_allocator::sweep_step(usual_step));
}

TEST_F(OcspAllocation, NestedCheckGivesTheRightRecordOrNone) {
  ocsp_responder second(by_issuer());
  ocsp_responder first(by(issue_responder({ocsp_signing, ask_at(second.url())})));
  sweep(first, PKI_CERT_OK, fake_allocator::sweep_step(nested_step));
}

TEST_F(OcspAllocation, ReferenceThatCannotBeTakenGivesTheRightRecordOrNone) {
  ocsp_options options = by(issue_responder());
  options.single.status = V_OCSP_CERTSTATUS_REVOKED;
  ocsp_responder responder(options);
  size_t without = 0;
  for (int after = 0; after < 10; after++) {
    renew();
    fake_failures::fail_x509_up_ref(after);
    record info = ask(responder);
    fake_failures::reset();
    EXPECT_TRUE(!info || info->status == PKI_CERT_REVOKED) << after;
    EXPECT_TRUE(info || has_reason()) << after;
    without += !info;
  }
  EXPECT_GT(without, 0u);
}

// ---- want of memory does not make an answer credible ----

TEST_F(OcspAllocation, DamagedSignatureStaysOne) {
  ocsp_options options = by_issuer();
  options.damaged_signature = true;
  ocsp_responder responder(options);
  sweep(responder, -1, fake_allocator::sweep_step(usual_step));
}

TEST_F(OcspAllocation, ForgedWordOfTheIssuerStaysOne) {
  expect_forgery_fails(issuer);
}

TEST_F(OcspAllocation, ForgedWordOfTheConfiguredSignerStaysOne) {
  configured = support::make_cert(valid_options("stranger", 77, stranger_key));
  ocsp_flag = 1;
  expect_forgery_fails(configured);
}

TEST_F(OcspAllocation, WrongNonceStaysOne) {
  ocsp_options options = by_issuer();
  options.nonce = ocsp_nonce::changed;
  ocsp_responder responder(options);
  sweep(responder, -1, fake_allocator::sweep_step(usual_step));
}

TEST_F(OcspAllocation, UnknownCriticalExtensionStaysOne) {
  ocsp_options options = by_issuer();
  options.single.extensions = support::ocsp_extension("1.2.3.4.5", true);
  ocsp_responder responder(options);
  sweep(responder, -1, fake_allocator::sweep_step(usual_step));
}

TEST_F(OcspAllocation, StrangersWordAboutTheConfiguredResponderStaysOne) {
  ocsp_responder second(by_issuer());
  configured =
      issue("configured", 77, stranger_key, {ask_at(second.url())}, "authority", authority_key);
  ocsp_responder first(by(configured, stranger_key));
  sweep(first, -1, fake_allocator::sweep_step(nested_step));
}

TEST_F(OcspAllocation, ResponderWithoutUsageStaysOne) {
  ocsp_responder responder(by(issue_responder({no_check})));
  sweep(responder, -1, fake_allocator::sweep_step(costly_step));
}

TEST_F(OcspAllocation, StrangersResponderStaysOne) {
  support::cert_options made = valid_options("responder", responder_serial, responder_key);
  made.issuer = support::common_name("issuer");
  made.signing_key = support::test_key(stranger_key);
  made.extensions = {ocsp_signing, no_check};
  ocsp_responder responder(by(support::make_cert(made)));
  sweep(responder, -1, fake_allocator::sweep_step(costly_step));
}

TEST_F(OcspAllocation, RevokedResponderIsNeverBelieved) {
  ocsp_responder second(by_issuer(V_OCSP_CERTSTATUS_REVOKED));
  ocsp_responder first(by(issue_responder({ocsp_signing, ask_at(second.url())})));
  sweep(first, -1, fake_allocator::sweep_step(nested_step));
}

}  // namespace
