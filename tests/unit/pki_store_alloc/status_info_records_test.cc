// Status rules and OCSP responders.
#include <gtest/gtest.h>
#include <libpki/records.h>
#include <libpki/util.h>

#include <string>
#include <vector>

#include "fakes/allocator.h"
#include "fakes/log_capture.h"
#include "support/certs.h"
#include "unit/pki_store_alloc/destruction.h"
#include "unit/pki_store_alloc/unsupported.h"

namespace {

using support::reference;
using support::unsupported;
using support::watch;
using lines = std::vector<log_entry>;

cert_match_rule *subject_rule() {
  cert_match_rule *rule = alloc_cert_match_rule();
  rule->type = PKI_MATCH_SUBJECT;
  return rule;
}

class StatusInfoRecord : public testing::Test {
 protected:
  void SetUp() override { clear_log(); }
};
class OcspInfoRecord : public StatusInfoRecord {};

TEST_F(StatusInfoRecord, StartsWithAnEmptyRuleListAndNothingElse) {
  cert_status_info *info = alloc_cert_status_info();
  ASSERT_NE(info, nullptr);
  ASSERT_NE(info->rules, nullptr);
  EXPECT_EQ(OPENSSL_sk_num(info->rules), 0);
  EXPECT_EQ(info->flags, 0u);
  EXPECT_EQ(info->mechanism, 0);
  EXPECT_EQ(info->data, nullptr);
  EXPECT_EQ(info->ref_count, 1);
  info->mechanism = PKI_STATUS_AOK;
  free_cert_status_info(info);
}

TEST_F(StatusInfoRecord, OcspMechanismComesWithAnEmptyResponder) {
  cert_status_info *info = alloc_cert_status_info_m(1);
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(info->mechanism, 1);
  EXPECT_EQ(info->flags, 0u);
  auto *ocsp = static_cast<ocsp_info *>(info->data);
  ASSERT_NE(ocsp, nullptr);
  EXPECT_EQ(ocsp->url, nullptr);
  EXPECT_EQ(ocsp->responder_cert, nullptr);
  EXPECT_EQ(ocsp->option, 0u);
  EXPECT_EQ(ocsp->ref_count, 1);
  free_cert_status_info(info);
  EXPECT_EQ(log_dump(), "");
}

TEST_F(StatusInfoRecord, CrlMechanismComesWithAnEmptyList) {
  cert_status_info *info = alloc_cert_status_info_m(2);
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(info->mechanism, 2);
  ASSERT_NE(info->data, nullptr);
  EXPECT_EQ(OPENSSL_sk_num(static_cast<STACK *>(info->data)), 0);
  free_cert_status_info(info);
  EXPECT_EQ(log_dump(), "");
}

TEST_F(StatusInfoRecord, AlwaysGoodMechanismHasNoData) {
  cert_match_rule *rule = subject_rule();
  cert_status_info *info = alloc_cert_status_info_m(3);
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(info->mechanism, 3);
  EXPECT_EQ(info->data, nullptr);
  OPENSSL_sk_push(info->rules, dup_cert_match_rule(rule));
  free_cert_status_info(info);
  EXPECT_EQ(rule->ref_count, 1);
  EXPECT_EQ(log_dump(), "");
  free_cert_match_rule(rule);
}

TEST_F(StatusInfoRecord, UnknownMechanismIsLoggedAndGivesNoRecord) {
  for (int mechanism : {0, 4, -1}) {
    clear_log();
    EXPECT_EQ(alloc_cert_status_info_m(mechanism), nullptr);
    EXPECT_EQ(captured_log(), unsupported(mechanism)) << log_dump();
  }
}

TEST_F(StatusInfoRecord, ReleaseDropsOneReferenceToTheResponder) {
  cert_status_info *info = alloc_cert_status_info_m(1);
  ocsp_info *ocsp = dup_ocsp_info(static_cast<ocsp_info *>(info->data));
  free_cert_status_info(info);
  EXPECT_EQ(ocsp->ref_count, 1);
  free_ocsp_info(ocsp);
}

TEST_F(StatusInfoRecord, ReleaseDropsOneReferenceToEveryCrlSource) {
  crl_info *first = alloc_crl_info(), *second = alloc_crl_info();
  cert_status_info *info = alloc_cert_status_info_m(2);
  OPENSSL_sk_push(static_cast<STACK *>(info->data), dup_crl_info(first));
  OPENSSL_sk_push(static_cast<STACK *>(info->data), dup_crl_info(second));
  free_cert_status_info(info);
  EXPECT_EQ(first->ref_count, 1);
  EXPECT_EQ(second->ref_count, 1);
  free_crl_info(first);
  free_crl_info(second);
}

TEST_F(StatusInfoRecord, MechanismWithoutItsDataIsReleased) {
  for (int mechanism : {1, 2}) {
    cert_status_info *info = alloc_cert_status_info();
    info->mechanism = mechanism;
    free_cert_status_info(info);
  }
  EXPECT_EQ(log_dump(), "");
}

TEST_F(StatusInfoRecord, ReleaseOfAnUnknownMechanismIsLoggedAndLeavesTheDataAlone) {
  cert_match_rule *rule = subject_rule();
  ocsp_info *data = alloc_ocsp_info();
  cert_status_info *info = alloc_cert_status_info();
  info->mechanism = 7;
  info->data = data;
  OPENSSL_sk_push(info->rules, dup_cert_match_rule(rule));
  free_cert_status_info(info);
  EXPECT_EQ(captured_log(), unsupported(7)) << log_dump();
  EXPECT_EQ(rule->ref_count, 1);
  EXPECT_EQ(data->ref_count, 1);
  free_cert_match_rule(rule);
  free_ocsp_info(data);
}

TEST_F(StatusInfoRecord, AllocatorsGiveNullWhenMemoryRunsOut) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "the allocator cannot be made to fail in this build";
  for (int mechanism : {1, 2}) {
    cert_status_info *made = nullptr;
    size_t failures = fake_allocator::sweep(
        [&] {
          made = alloc_cert_status_info_m(mechanism);
          fake_allocator::pause no_failures;
          if (!fake_allocator::has_failed())
            free_cert_status_info(made);
        },
        [&](size_t n) { EXPECT_EQ(made, nullptr) << mechanism << " allocation " << n; });
    EXPECT_GE(failures, 3u);
  }
  EXPECT_EQ(log_dump(), "");
}

TEST_F(StatusInfoRecord, PlainAllocatorGivesNullWhenTheRuleListCannotBeMade) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "the allocator cannot be made to fail in this build";
  cert_status_info *made = nullptr;
  size_t failures = fake_allocator::sweep(
      [&] {
        made = alloc_cert_status_info();
        fake_allocator::pause no_failures;
        if (made && !fake_allocator::has_failed()) {
          made->mechanism = PKI_STATUS_AOK;
          free_cert_status_info(made);
        }
      },
      [&](size_t n) { EXPECT_EQ(made, nullptr) << "allocation " << n; });
  EXPECT_GE(failures, 2u);
}

TEST_F(OcspInfoRecord, StartsEmpty) {
  ocsp_info *info = alloc_ocsp_info();
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(info->url, nullptr);
  EXPECT_EQ(info->responder_cert, nullptr);
  EXPECT_EQ(info->option, 0u);
  free_ocsp_info(info);
}

TEST_F(OcspInfoRecord, ReleasesItsCertificateOnlyWithTheLastReference) {
  support::cert cert = support::make_ca("responder");
  auto destroyed = watch(cert);
  ocsp_info *info = alloc_ocsp_info();
  info->url = pki_strdup("http://ocsp.example/");
  info->responder_cert = reference(cert);
  cert.reset();
  dup_ocsp_info(info);
  free_ocsp_info(info);
  EXPECT_EQ(*destroyed, 0);
  free_ocsp_info(info);
  EXPECT_EQ(*destroyed, 1);
}

}  // namespace
