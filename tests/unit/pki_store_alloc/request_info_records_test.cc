// Enrollment and look-up methods.
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

class CertReqInfoRecord : public testing::Test {
 protected:
  void SetUp() override { clear_log(); }
};
class CertQueryInfoRecord : public CertReqInfoRecord {};

TEST_F(CertReqInfoRecord, StartsEmptyWithoutAMechanism) {
  cert_req_info *info = alloc_cert_req_info();
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(info->mechanism, 0);
  EXPECT_EQ(info->data, nullptr);
  EXPECT_EQ(info->ref_count, 1);
  free_cert_req_info(info);
}

TEST_F(CertReqInfoRecord, ScepMechanismComesWithItsEmptyRecord) {
  cert_req_info *info = alloc_cert_req_info_m(1);
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(info->mechanism, 1);
  auto *scep = static_cast<scep_req_info *>(info->data);
  ASSERT_NE(scep, nullptr);
  EXPECT_EQ(scep->url, nullptr);
  EXPECT_EQ(scep->ca_cert, nullptr);
  EXPECT_EQ(scep->digest, nullptr);
  EXPECT_EQ(scep->cipher, nullptr);
  free_cert_req_info(info);
  EXPECT_EQ(log_dump(), "");
}

TEST_F(CertReqInfoRecord, UnknownMechanismIsLoggedAndGivesNoRecord) {
  for (int mechanism : {0, 2, 3, -1}) {
    clear_log();
    EXPECT_EQ(alloc_cert_req_info_m(mechanism), nullptr);
    EXPECT_EQ(captured_log(), unsupported(mechanism)) << log_dump();
  }
}

TEST_F(CertReqInfoRecord, ReleaseFreesTheScepRecord) {
  support::cert cert = support::make_ca("ca");
  auto destroyed = watch(cert);
  cert_req_info *info = alloc_cert_req_info_m(1);
  auto *scep = static_cast<scep_req_info *>(info->data);
  scep->url = pki_strdup("http://scep.example/");
  scep->ca_cert = reference(cert);
  scep->digest = pki_strdup("SHA256");
  scep->cipher = pki_strdup("DES-EDE3-CBC");
  cert.reset();
  EXPECT_EQ(*destroyed, 0);
  free_cert_req_info(info);
  EXPECT_EQ(*destroyed, 1);
}

TEST_F(CertReqInfoRecord, ScepMechanismWithoutItsRecordIsReleased) {
  cert_req_info *info = alloc_cert_req_info();
  info->mechanism = 1;
  free_cert_req_info(info);
  EXPECT_EQ(log_dump(), "");
}

TEST_F(CertReqInfoRecord, ReleaseOfAnUnknownMechanismIsLoggedAndLeavesTheDataAlone) {
  cert_req_info *info = alloc_cert_req_info();
  scep_req_info *data = alloc_scep_req_info();
  info->mechanism = 2;
  info->data = data;
  free_cert_req_info(info);
  EXPECT_EQ(captured_log(), unsupported(2)) << log_dump();
  free_scep_req_info(data);
}

TEST_F(CertReqInfoRecord, UnknownMechanismIsNotLoggedBeforeTheLastRelease) {
  cert_req_info *info = alloc_cert_req_info();
  info->mechanism = 9;
  dup_cert_req_info(info);
  free_cert_req_info(info);
  EXPECT_EQ(log_dump(), "");
  free_cert_req_info(info);
  EXPECT_EQ(captured_log(), unsupported(9)) << log_dump();
}

TEST_F(CertReqInfoRecord, ReleasingNoScepRecordDoesNothing) {
  free_scep_req_info(nullptr);
  EXPECT_EQ(log_dump(), "");
}

TEST_F(CertQueryInfoRecord, StartsEmptyWithoutAMechanism) {
  cert_query_info *info = alloc_cert_query_info();
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(info->mechanism, 0);
  EXPECT_EQ(info->data, nullptr);
  EXPECT_EQ(info->ref_count, 1);
  free_cert_query_info(info);
}

TEST_F(CertQueryInfoRecord, ScepMechanismComesWithItsEmptyRecord) {
  cert_query_info *info = alloc_cert_query_info_m(1);
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(info->mechanism, 1);
  auto *scep = static_cast<scep_query_info *>(info->data);
  ASSERT_NE(scep, nullptr);
  EXPECT_EQ(scep->url, nullptr);
  EXPECT_EQ(scep->ca_cert, nullptr);
  free_cert_query_info(info);
  EXPECT_EQ(log_dump(), "");
}

TEST_F(CertQueryInfoRecord, LdapMechanismComesWithItsEmptyRecord) {
  cert_query_info *info = alloc_cert_query_info_m(3);
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(info->mechanism, 3);
  auto *ldap = static_cast<ldap_query_info *>(info->data);
  ASSERT_NE(ldap, nullptr);
  EXPECT_EQ(ldap->url, nullptr);
  free_cert_query_info(info);
  EXPECT_EQ(log_dump(), "");
}

TEST_F(CertQueryInfoRecord, UnknownMechanismIsLoggedAndGivesNoRecord) {
  for (int mechanism : {0, 2, 4, -1}) {
    clear_log();
    EXPECT_EQ(alloc_cert_query_info_m(mechanism), nullptr);
    EXPECT_EQ(captured_log(), unsupported(mechanism)) << log_dump();
  }
}

TEST_F(CertQueryInfoRecord, ReleaseFreesTheScepRecord) {
  support::cert cert = support::make_ca("ca");
  auto destroyed = watch(cert);
  cert_query_info *info = alloc_cert_query_info_m(1);
  auto *scep = static_cast<scep_query_info *>(info->data);
  scep->url = pki_strdup("http://scep.example/");
  scep->ca_cert = reference(cert);
  cert.reset();
  EXPECT_EQ(*destroyed, 0);
  free_cert_query_info(info);
  EXPECT_EQ(*destroyed, 1);
}

// A sanitizer or the C library would object if the URL were taken for another kind of record.
TEST_F(CertQueryInfoRecord, ReleaseFreesTheLdapRecord) {
  cert_query_info *info = alloc_cert_query_info_m(3);
  static_cast<ldap_query_info *>(info->data)->url = pki_strdup("ldap://directory.example/");
  free_cert_query_info(info);
  EXPECT_EQ(log_dump(), "");
}

TEST_F(CertQueryInfoRecord, ReleaseOfAnUnknownMechanismIsLoggedAndLeavesTheDataAlone) {
  cert_query_info *info = alloc_cert_query_info();
  ldap_query_info *data = alloc_ldap_query_info();
  info->mechanism = 2;
  info->data = data;
  free_cert_query_info(info);
  EXPECT_EQ(captured_log(), unsupported(2)) << log_dump();
  free_ldap_query_info(data);
}

TEST_F(CertQueryInfoRecord, ReleasingNoVariantRecordDoesNothing) {
  free_scep_query_info(nullptr);
  free_ldap_query_info(nullptr);
  EXPECT_EQ(log_dump(), "");
}

TEST_F(CertQueryInfoRecord, ScepAllocatorsGiveNullWhenMemoryRunsOut) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "the allocator cannot be made to fail in this build";
  cert_query_info *made = nullptr;
  size_t failures = fake_allocator::sweep(
      [&] {
        made = alloc_cert_query_info_m(1);
        fake_allocator::pause no_failures;
        if (!fake_allocator::has_failed())
          free_cert_query_info(made);
      },
      [&](size_t n) { EXPECT_EQ(made, nullptr) << "allocation " << n; });
  EXPECT_GE(failures, 2u);
  EXPECT_EQ(log_dump(), "");
}

TEST_F(CertQueryInfoRecord, VariantAllocatorsGiveNullWhenMemoryRunsOut) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "the allocator cannot be made to fail in this build";
  fake_allocator::fail_at(1, true);
  scep_req_info *req = alloc_scep_req_info();
  scep_query_info *query = alloc_scep_query_info();
  ldap_query_info *ldap = alloc_ldap_query_info();
  cert_req_info *plain_req = alloc_cert_req_info();
  cert_query_info *plain_query = alloc_cert_query_info();
  fake_allocator::stop_failing();
  EXPECT_EQ(req, nullptr);
  EXPECT_EQ(query, nullptr);
  EXPECT_EQ(ldap, nullptr);
  EXPECT_EQ(plain_req, nullptr);
  EXPECT_EQ(plain_query, nullptr);
}

}  // namespace
