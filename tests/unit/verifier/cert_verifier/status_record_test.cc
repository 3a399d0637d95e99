// Certificate-status records: what they hold, how they are shared, and the names of the statuses.
#include <cstddef>
#include <cstdint>

#include "../cache_support.h"
#include "fakes/allocator.h"
#include "fakes/failures.h"

using namespace cache_support;

namespace {

class StatusRecord : public cache_test {};

TEST(StatusText, NamesTheThreeStatuses) {
  EXPECT_STREQ("unknown", zv_cv_cert_sts_to_str(0));
  EXPECT_STREQ("ok", zv_cv_cert_sts_to_str(1));
  EXPECT_STREQ("revoked", zv_cv_cert_sts_to_str(2));
}

TEST(StatusText, AnyOtherNumberIsInvalid) {
  for (int status : {3, -1, 255, 256, INT32_MIN, INT32_MAX})
    EXPECT_STREQ("<invalid cert status>", zv_cv_cert_sts_to_str(status)) << status;
}

TEST(StatusText, IsStatic) {
  EXPECT_EQ(zv_cv_cert_sts_to_str(1), zv_cv_cert_sts_to_str(1));
  EXPECT_EQ(zv_cv_cert_sts_to_str(3), zv_cv_cert_sts_to_str(-1));
}

TEST(StatusConstants, HaveTheirNumbers) {
  EXPECT_EQ(0, PKI_CERT_UNKNOWN);
  EXPECT_EQ(1, PKI_CERT_OK);
  EXPECT_EQ(2, PKI_CERT_REVOKED);
}

TEST(StatusRecordLayout, FieldsAreInTheirOrder) {
  EXPECT_EQ(0U, offsetof(cert_sts_info, status));
  EXPECT_LT(offsetof(cert_sts_info, status), offsetof(cert_sts_info, cert));
  EXPECT_LT(offsetof(cert_sts_info, cert), offsetof(cert_sts_info, valid_until));
  EXPECT_LT(offsetof(cert_sts_info, valid_until), offsetof(cert_sts_info, ref_count));
  EXPECT_LT(offsetof(cert_sts_info, ref_count), offsetof(cert_sts_info, link));
  EXPECT_LT(offsetof(cert_sts_info, link), offsetof(cert_sts_info, hits));
}

TEST_F(StatusRecord, StartsWithOneHolderNoHitsAndNoLink) {
  support::cert cert = support::simple_cert("issuer", "device", 1);
  record info = make_record(cert, start + 10, PKI_CERT_REVOKED);
  ASSERT_TRUE(info);
  EXPECT_EQ(PKI_CERT_REVOKED, info->status);
  EXPECT_EQ(cert.get(), info->cert);
  EXPECT_EQ(1U, info->ref_count);
  EXPECT_EQ(0U, info->hits);
  EXPECT_EQ(nullptr, info->link.next);
  EXPECT_EQ(nullptr, info->link.previous);
}

TEST_F(StatusRecord, KeepsEachStatusAsGiven) {
  support::cert cert = support::simple_cert("issuer", "device", 1);
  for (int status : {0, 1, 2, 3, -1}) {
    record info = make_record(cert, start + 10, status);
    ASSERT_TRUE(info);
    EXPECT_EQ(status, info->status);
  }
}

TEST_F(StatusRecord, CopiesTheTime) {
  support::cert cert = support::simple_cert("issuer", "device", 1);
  support::asn1_time time = support::make_time(start + 10);
  record info = hold(cv_alloc_cert_sts_info(PKI_CERT_OK, cert.get(), time.get()));
  ASSERT_TRUE(info);
  EXPECT_NE(time.get(), info->valid_until);
  ASN1_TIME_set(time.get(), start + 500);
  EXPECT_EQ(0, ASN1_TIME_cmp_time_t(info->valid_until, start + 10));
}

TEST_F(StatusRecord, KeepsTheKindOfTime) {
  support::cert cert = support::simple_cert("issuer", "device", 1);
  record early = make_record(cert, start);
  support::asn1_time after_2050 = support::make_time(start);
  ASSERT_EQ(1, ASN1_TIME_set_string(after_2050.get(), "20961002070640Z"));
  record late = hold(cv_alloc_cert_sts_info(PKI_CERT_OK, cert.get(), after_2050.get()));
  EXPECT_EQ(V_ASN1_UTCTIME, ASN1_STRING_type(early->valid_until));
  EXPECT_EQ(V_ASN1_GENERALIZEDTIME, ASN1_STRING_type(late->valid_until));
}

TEST_F(StatusRecord, HoldsTheCertificateUntilItsLastHolderGoes) {
  watched_cert watched = make_watched_cert();
  record info = make_record(watched.cert);
  watched.cert.reset();
  EXPECT_FALSE(*watched.freed);
  info.reset();
  EXPECT_TRUE(*watched.freed);
}

TEST_F(StatusRecord, NeedsACertificateAndATime) {
  support::cert cert = support::simple_cert("issuer", "device", 1);
  support::asn1_time time = support::make_time(start + 10);
  EXPECT_EQ(nullptr, cv_alloc_cert_sts_info(PKI_CERT_OK, nullptr, time.get()));
  EXPECT_EQ(nullptr, cv_alloc_cert_sts_info(PKI_CERT_OK, cert.get(), nullptr));
}

TEST_F(StatusRecord, IsNotMadeWithoutAReferenceToTheCertificate) {
  watched_cert watched = make_watched_cert();
  support::asn1_time time = support::make_time(start + 10);
  fake_failures::fail_x509_up_ref();
  EXPECT_EQ(nullptr, cv_alloc_cert_sts_info(PKI_CERT_OK, watched.cert.get(), time.get()));
  EXPECT_FALSE(*watched.freed);
  watched.cert.reset();
  EXPECT_TRUE(*watched.freed);
}

TEST_F(StatusRecord, DuplicateIsTheSameRecordWithOneMoreHolder) {
  watched_cert watched = make_watched_cert();
  record info = make_record(watched.cert);
  watched.cert.reset();
  record duplicate = hold(cv_dup_cert_sts_info(info.get()));
  EXPECT_EQ(info.get(), duplicate.get());
  EXPECT_EQ(2U, info->ref_count);
  info.reset();
  EXPECT_EQ(1U, duplicate->ref_count);
  EXPECT_FALSE(*watched.freed);
  duplicate.reset();
  EXPECT_TRUE(*watched.freed);
}

// A count that went wrong must not keep a record for ever.
TEST_F(StatusRecord, RecordWithoutHoldersIsDestroyedWhenFreed) {
  watched_cert watched = make_watched_cert();
  record info = make_record(watched.cert);
  watched.cert.reset();
  info->ref_count = 0;
  info.reset();
  EXPECT_TRUE(*watched.freed);
}

TEST_F(StatusRecord, NullIsDuplicatedAndFreedAsNull) {
  EXPECT_EQ(nullptr, cv_dup_cert_sts_info(nullptr));
  cv_free_cert_sts_info(nullptr);
}

TEST_F(StatusRecord, EveryAllocationFailureGivesNullAndLeavesTheCertificate) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "the allocator cannot be replaced in this build";
  watched_cert watched = make_watched_cert();
  support::asn1_time time = support::make_time(start + 10);
  cert_sts_info *made = nullptr;
  size_t failures = fake_allocator::sweep(
      [&] {
        made = cv_alloc_cert_sts_info(PKI_CERT_OK, watched.cert.get(), time.get());
        cv_free_cert_sts_info(made);
      },
      [&](size_t n) { EXPECT_EQ(nullptr, made) << n; });
  EXPECT_GE(failures, 2U);  // the record and the time
  EXPECT_FALSE(*watched.freed);
  watched.cert.reset();
  EXPECT_TRUE(*watched.freed);
}

}  // namespace
