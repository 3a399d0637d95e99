// Decisions by CRLs when memory runs short: the right record or none, and nothing left behind.
#include <netdb.h>
#include <openssl/err.h>

#include <cerrno>
#include <functional>
#include <iterator>

#include "fakes/allocator.h"
#include "fakes/failures.h"
#include "support/descriptors.h"
#include "unit/verifier/crl_cache/decide_support.h"

using namespace decide_support;

namespace {

std::atomic<int> living_crls{0}, decoded_crls{0};
int count_decoded(X509_CRL *crl) {
  X509_CRL_set_meth_data(crl, &living_crls);
  living_crls++;
  decoded_crls++;
  return 1;
}
int count_released(X509_CRL *crl) {
  if (X509_CRL_get_meth_data(crl))
    living_crls--;
  X509_CRL_set_meth_data(crl, nullptr);
  return 1;
}

// Counts decoded CRLs while it lives.
struct crl_count {
  crl_count() : method(X509_CRL_METHOD_new(count_decoded, count_released, nullptr, nullptr)) {
    X509_CRL_set_default_method(method);
    living_crls = decoded_crls = 0;
  }
  crl_count(const crl_count &) = delete;
  crl_count &operator=(const crl_count &) = delete;
  ~crl_count() {
    X509_CRL_set_default_method(nullptr);
    X509_CRL_METHOD_free(method);
  }
  X509_CRL_METHOD *method;
};

class DecideAllocation : public decide_both_ways {
 protected:
  void SetUp() override {
    decide_both_ways::SetUp();
    if (!fake_allocator::available())
      GTEST_SKIP() << "this build's allocator cannot be replaced";
  }

  static support::cert copy_of(const support::cert &cert) {
    return crl_objects::decode<X509>(support::der(cert), d2i_X509, X509_free);
  }
  // What OpenSSL looked at when memory was short is not used again.
  void renew() {
    support::empty_store();
    zv_cv_clear_crl_cache();
    zv_cv_clear_cert_sts_info_cache();
    device = copy_of(device);
    issuer = copy_of(issuer);
    know(issuer);
    if (authority) {
      authority = copy_of(authority);
      know(authority);
    }
    trust = std::make_shared<trust_context>(certs{issuer});
    prepare();
    support::clear_openssl_errors();
    clear_log();
  }

  void sweep(const std::vector<place> &places, int right, size_t usual_step,
             bool stay_failed = false) {
    points dps = make_list(places), none = make_list({});
    pki::dist_points_locator locator = {pki::locator_dist_points, dps.get(), none.get()};
    sweep_locator(&locator, right, usual_step, stay_failed);
  }
  void sweep(const crl_objects::source_list &sources, int right, size_t usual_step,
             bool stay_failed = false) {
    pki::crls_locator locator = {pki::locator_crls, sources.get()};
    sweep_locator(&locator, right, usual_step, stay_failed);
  }

  // Lets an allocation of the decision fail, each `step`th in turn; `right` is the status of the
  // record, or that there is none even with all the memory.
  void sweep_locator(void *locator, int right, size_t usual_step, bool stay_failed) {
    const size_t step = fake_allocator::sweep_step(usual_step);
    // OpenSSL and the resolver fill their caches, also the ones for logging errors.
    renew();
    ASSERT_EQ(right, status_of(ask(locator))) << log_dump();
    support::raise_openssl_error(ERR_R_MALLOC_FAILURE);
    log_openssl_errors(3);
    const auto open_before = support::open_descriptors();
    crl_count counting;
    size_t failures = 0;
    bool completed = false;
    for (size_t n = 1; n < 100000 && !completed; n += step) {
      renew();
      X509_STORE_CTX *context = trust->get();
      fake_allocator::fail_at(n, stay_failed);
      record info = cache_support::hold(pki::zv_cv_crl_get_sts_info(
          locator, device.get(), issuer.get(), context, issuer_trusted, depth));
      completed = !fake_allocator::has_failed();
      fake_allocator::stop_failing();
      failures += !completed;
      if (completed) {
        EXPECT_EQ(right, status_of(info)) << n << "\n" << log_dump();
      } else {
        EXPECT_TRUE(!info || info->status == right) << n << ": " << status_of(info) << "\n"
                                                    << log_dump();
      }
      if (info) {
        EXPECT_EQ(device.get(), info->cert) << n;
        EXPECT_EQ(1u, info->ref_count) << n;
      }
      info.reset();
      zv_cv_clear_crl_cache();
      EXPECT_EQ(0, living_crls) << n;
      living_crls = 0;
    }
    EXPECT_TRUE(completed);
    EXPECT_GT(failures, 50u / step);
    EXPECT_GT(decoded_crls, 0);
    // The server may still be closing its end.
    EXPECT_LE(support::open_descriptors(), open_before + 1);
    prepare = [] {};
    renew();
  }

  void publish_indirect(const std::string &entries) {
    server.publish("/crl", crl_of(entries, support::issuing_dist_point({.indirect = true}),
                                  authority_key, "authority"));
  }
  const std::vector<place> direct = {{"/crl"}}, by_authority = {{"/crl", {}, "authority"}};
  support::cert authority;
  std::function<void()> prepare = [] {};
};
INSTANTIATE_TEST_SUITE_P(Decoded, DecideAllocation, testing::Bool(), way_name);

TEST_P(DecideAllocation, RevokedIsThatOrUnknown) {
  server.publish("/crl", crl_of(crl_entry(9) + crl_entry(device_serial, support::reason_code(1))));
  sweep(direct, PKI_CERT_REVOKED, 1);
}

TEST_P(DecideAllocation, MemoryThatStaysShortGivesRevokedOrUnknown) {
  server.publish("/crl", revoking_crl());
  sweep(direct, PKI_CERT_REVOKED, 1, true);
}

TEST_P(DecideAllocation, GoodIsThatOrUnknown) {
  server.publish("/crl", crl_of(crl_entry(9)));
  sweep(direct, PKI_CERT_OK, 1);
}

TEST_P(DecideAllocation, RevokedByDeltaIsThatOrUnknown) {
  // Without its delta, the base is outdated.
  crl_fields base = crl_of(crl_entry(9), support::crl_number(5) + freshest("/delta"));
  base.next_update = support::der_utc_time(start - 1800);
  server.publish("/crl", base);
  server.publish("/delta", crl_of(crl_entry(device_serial),
                                  support::crl_number(6) + support::delta_crl_indicator(5)));
  sweep(direct, PKI_CERT_REVOKED, 3);
}

TEST_P(DecideAllocation, RevokedByDeltaOfACachedBaseIsThatOrUnknown) {
  crl_fields base = crl_of(crl_entry(9), support::crl_number(5) + freshest("/delta"));
  base.next_update = support::der_utc_time(start - 1800);
  server.publish("/delta", crl_of(crl_entry(device_serial),
                                  support::crl_number(6) + support::delta_crl_indicator(5)));
  prepare = [this, base] { cache(base, issuer); };
  sweep(direct, PKI_CERT_REVOKED, 3);
}

TEST_P(DecideAllocation, RevokedByBaseWithADeltaIsThatOrUnknown) {
  server.publish("/crl",
                 crl_of(crl_entry(device_serial), support::crl_number(5) + freshest("/delta")));
  server.publish("/delta",
                 crl_of(crl_entry(8), support::crl_number(6) + support::delta_crl_indicator(5)));
  sweep(direct, PKI_CERT_REVOKED, 3);
}

TEST_P(DecideAllocation, RevokedByIndirectCrlIsThatOrUnknown) {
  authority = issue("authority", 20, authority_key, {crl_sign});
  publish_indirect(crl_entry(300, support::certificate_issuer("issuer")) + crl_entry(9) +
                   crl_entry(device_serial));
  sweep(by_authority, PKI_CERT_REVOKED, 3);
}

TEST_P(DecideAllocation, EntryOfAnotherIssuerNeverRevokes) {
  authority = issue("authority", 20, authority_key, {crl_sign});
  publish_indirect(crl_entry(300, support::certificate_issuer("other")) + crl_entry(device_serial));
  sweep(by_authority, PKI_CERT_OK, 3);
}

TEST_P(DecideAllocation, RevokedByTheSecondCrlIsThatOrUnknown) {
  server.publish("/a", crl_of("", some_reasons(0x1F)));
  server.publish("/b", crl_of(crl_entry(device_serial), some_reasons(0x1E0)));
  sweep({{"/a", 0x1F}, {"/b", 0x1E0}}, PKI_CERT_REVOKED, 3);
}

// A list that could not be read for want of memory is not passed over for an older one.
TEST_P(DecideAllocation, RevokedIsNotHiddenByTheNextPlace) {
  server.publish("/a", revoking_crl());
  server.publish("/b", crl_of());
  sweep({{"/a"}, {"/b"}}, PKI_CERT_REVOKED, 1);
}

TEST_P(DecideAllocation, RevokedIsNotHiddenByTheNextPlaceWhereTheWayToTheFirstLacksMemory) {
  server.publish("/a", revoking_crl());
  server.publish("/b", crl_of());
  fake_failures::fail_resolver(EAI_MEMORY, ENOMEM);
  EXPECT_EQ(no_answer, status_of(decide_at({{"/a"}, {"/b"}}))) << log_dump();
  for (int error : {ENOMEM, ENOBUFS}) {
    fake_failures::fail_socket(error);
    EXPECT_EQ(no_answer, status_of(decide_at({{"/a"}, {"/b"}}))) << log_dump();
    fake_failures::fail_connect(error);
    EXPECT_EQ(no_answer, status_of(decide_at({{"/a"}, {"/b"}}))) << log_dump();
  }
  // What cannot be reached for another reason is passed over.
  fake_failures::fail_connect(ECONNREFUSED);
  EXPECT_EQ(PKI_CERT_OK, status_of(decide_at({{"/a"}, {"/b"}}))) << log_dump();
}

TEST_P(DecideAllocation, OneOfTwoCrlsStaysNotEnough) {
  server.publish("/a", crl_of("", some_reasons(0x1F)));
  sweep({{"/a", 0x1F}, {"/b", 0x1E0}}, no_answer, 3);
}

TEST_P(DecideAllocation, SignersOwnPathIsBelievedOrNot) {
  issuer_trusted = 0;
  server.publish("/crl", revoking_crl());
  sweep(direct, PKI_CERT_REVOKED, 3);
}

// ---- configured CRLs ----

TEST_P(DecideAllocation, RevokedByAConfiguredCrlIsThatOrUnknown) {
  server.publish("/a", crl_of("", some_reasons(0x1F)));
  server.publish("/b", crl_of(crl_entry(device_serial), some_reasons(0x1E0)));
  crl_objects::source_list sources;
  sources.add(server.url("/a"), 0, 0x1F);
  sources.add(server.url("/b"), 0, 0x1E0);
  sweep(sources, PKI_CERT_REVOKED, 3);
}

TEST_P(DecideAllocation, RevokedByAConfiguredSignerIsThatOrUnknown) {
  server.publish("/crl", crl_of(crl_entry(device_serial), "", authority_key, "deputy"));
  support::cert deputy = make_issuer("deputy", authority_key, 30);
  crl_objects::source_list sources;
  OPENSSL_sk_push(sources.get(),
                  create_crl_info(server.url("/crl").c_str(), 0, 0, 0, nullptr, deputy.get()));
  sweep(sources, PKI_CERT_REVOKED, 3);
}

TEST_P(DecideAllocation, ConfiguredForgeryStaysOne) {
  server.publish("/crl", crl_of("", "", stranger_key));
  crl_objects::source_list sources;
  sources.add(server.url("/crl"));
  sweep(sources, no_answer, 3);
}

// ---- want of memory does not make a CRL credible ----

TEST_P(DecideAllocation, ForgedCrlStaysOne) {
  authority = issue("authority", 20, authority_key, {crl_sign}, "issuer", stranger_key);
  publish_indirect("");
  sweep(by_authority, no_answer, 3);
}

TEST_P(DecideAllocation, RevokedSignerStaysOne) {
  authority = issue("authority", 20, authority_key, {crl_sign});
  publish_indirect("");
  prepare = [this] { set_status(authority, PKI_CERT_REVOKED); };
  sweep(by_authority, no_answer, 3);
}

TEST_P(DecideAllocation, SignerWithoutUsageStaysOne) {
  authority = issue("authority", 20, authority_key, {no_crl_sign});
  publish_indirect("");
  sweep(by_authority, no_answer, 3);
}

TEST_P(DecideAllocation, DamagedSignatureStaysOne) {
  crl_fields fields = crl_of();
  fields.signature = support::der_tlv(0x03, std::string(129, '\0'));
  server.publish("/crl", fields);
  sweep(direct, no_answer, 1);
}

TEST_P(DecideAllocation, OutOfScopeStaysThat) {
  server.publish("/crl", crl_of("", support::issuing_dist_point({.ca_certs = true})));
  sweep(direct, no_answer, 3);
}

TEST_P(DecideAllocation, DeltaStaysNoBase) {
  server.publish("/crl", crl_of("", support::crl_number(6) + support::delta_crl_indicator(5)));
  sweep(direct, no_answer, 3);
}

TEST_P(DecideAllocation, UnknownCriticalExtensionStaysThat) {
  server.publish("/crl", crl_of("", support::unknown_extension(true)));
  sweep(direct, no_answer, 3);
}

// ---- what is logged ----

TEST_P(DecideAllocation, ListThatCannotBeMadeIsLogged) {
  points dps = make_list(direct), none = make_list({});
  pki::dist_points_locator locator = {pki::locator_dist_points, dps.get(), none.get()};
  size_t logged = 0;
  for (size_t n = 1; n <= 10; n++) {
    clear_log();
    fake_allocator::fail_at(n, true);
    cert_sts_info *info = pki::zv_cv_crl_get_sts_info(&locator, device.get(), issuer.get(), nullptr,
                                                      issuer_trusted, depth);
    fake_allocator::stop_failing();
    EXPECT_EQ(nullptr, info);
    cv_free_cert_sts_info(info);
    if (was_logged(3, "Failed to copy dp to crl-info: OUT OF MEMORY")) {
      logged++;
      EXPECT_EQ("", server.asked()) << n;
    }
  }
  EXPECT_GT(logged, 0u);
}

TEST_P(DecideAllocation, ConfiguredListThatCannotBeCopiedIsLogged) {
  crl_objects::source_list sources;
  sources.add(server.url("/crl"), 0, 0x1F);
  sources.add(server.url("/crl"));
  server.publish("/crl", revoking_crl());
  pki::crls_locator locator = {pki::locator_crls, sources.get()};
  // Which allocations are the copy's: of the two records, with their URLs, and of the list.
  size_t logged = 0;
  for (size_t n = 1; n <= 10; n++) {
    const std::string reason = cache_support::queue_error();
    clear_log();
    fake_allocator::fail_at(n, true);
    cert_sts_info *info = pki::zv_cv_crl_get_sts_info(&locator, device.get(), issuer.get(), nullptr,
                                                      issuer_trusted, depth);
    fake_allocator::stop_failing();
    EXPECT_EQ(nullptr, info) << n;
    cv_free_cert_sts_info(info);
    if (logged_containing(7, "Not enough CRL's found")) {
      support::clear_openssl_errors();
      continue;
    }
    logged++;
    EXPECT_TRUE(was_logged(3, reason)) << n << "\n" << log_dump();
    EXPECT_EQ(0u, ERR_peek_error()) << n;
    EXPECT_EQ("", server.asked()) << n;
  }
  EXPECT_GE(logged, 4u);
}

TEST_P(DecideAllocation, PathThatCannotBeCheckedIsLogged) {
  issuer_trusted = 0;
  server.publish("/crl", revoking_crl());
  points dps = make_list(direct), none = make_list({});
  pki::dist_points_locator locator = {pki::locator_dist_points, dps.get(), none.get()};
  size_t logged = 0;
  bool completed = false;
  for (size_t n = 1; n < 100000 && !completed; n++) {
    renew();
    fake_allocator::fail_at(n);
    record info = cache_support::hold(pki::zv_cv_crl_get_sts_info(
        &locator, device.get(), issuer.get(), trust->get(), issuer_trusted, depth));
    completed = !fake_allocator::has_failed();
    fake_allocator::stop_failing();
    if (was_logged(3, "failed to duplicate trust-info - out-of-memory")) {
      logged++;
      EXPECT_EQ(no_answer, status_of(info)) << n;
      EXPECT_TRUE(was_logged(6, nobody_trusted)) << n;
    }
  }
  EXPECT_GT(logged, 0u);
  renew();
}

// ---- references and locks ----

TEST_P(DecideAllocation, ReferenceThatCannotBeTakenGivesTheRightRecordOrNone) {
  server.publish("/crl", revoking_crl());
  for (int after = 0; after < 10; after++) {
    renew();
    fake_failures::fail_x509_up_ref(after);
    record info = decide("/crl");
    fake_failures::reset();
    EXPECT_TRUE(!info || info->status == PKI_CERT_REVOKED) << after;
    renew();
    fake_failures::fail_x509_crl_up_ref(after);
    info = decide("/crl");
    fake_failures::reset();
    EXPECT_TRUE(!info || info->status == PKI_CERT_REVOKED) << after;
  }
  renew();
}

TEST_P(DecideAllocation, CacheThatCannotBeLockedIsNoneAtAll) {
  server.publish("/crl", revoking_crl());
  // Which look-up is the cache's is its own affair: each lock fails in turn.
  for (int after = 0; after < 10; after++) {
    renew();
    fake_failures::fail_rdlock(EAGAIN, after);
    record info = decide("/crl");
    fake_failures::reset();
    EXPECT_TRUE(!info || info->status == PKI_CERT_REVOKED) << after;
    renew();
    fake_failures::fail_wrlock(EAGAIN, after);
    info = decide("/crl");
    fake_failures::reset();
    EXPECT_TRUE(!info || info->status == PKI_CERT_REVOKED) << after;
  }
  renew();
}

}  // namespace
