// Entering records into the status cache: what is taken, what is refused.
#include <cerrno>

#include "../cache_support.h"
#include "fakes/failures.h"
#include "fakes/log_capture.h"

using namespace cache_support;

namespace {

class StatusCacheAdd : public cache_test {};

TEST_F(StatusCacheAdd, TakesItsOwnReference) {
  record info = make_record(1);
  EXPECT_EQ(0, zv_cv_add_cert_sts_info_cache(info.get()));
  EXPECT_TRUE(is_cached(info));
  EXPECT_EQ(2U, info->ref_count);
  EXPECT_EQ(0U, info->hits);
}

TEST_F(StatusCacheAdd, LogsNothing) {
  record info = make_record(1);
  EXPECT_EQ(0, zv_cv_add_cert_sts_info_cache(info.get()));
  EXPECT_EQ("", log_dump());
}

TEST_F(StatusCacheAdd, KeepsTheRecordAfterTheCallerLeft) {
  watched_cert watched = make_watched_cert();
  record info = make_record(watched.cert);
  cert_sts_info *address = info.get();
  EXPECT_EQ(0, zv_cv_add_cert_sts_info_cache(info.get()));
  info.reset();
  record found = hold(zv_cv_find_cert_sts_info_cache(watched.cert.get()));
  EXPECT_EQ(address, found.get());
}

TEST_F(StatusCacheAdd, NullIsRefused) {
  EXPECT_EQ(63, zv_cv_add_cert_sts_info_cache(nullptr));
}

TEST_F(StatusCacheAdd, ExpiredRecordIsPassedOver) {
  record info = make_record(1, start - 1);
  EXPECT_EQ(0, zv_cv_add_cert_sts_info_cache(info.get()));
  EXPECT_FALSE(is_cached(info));
  EXPECT_EQ(1U, info->ref_count);
  EXPECT_EQ(nullptr, zv_cv_find_cert_sts_info_cache(info->cert));
}

TEST_F(StatusCacheAdd, RecordThatEndsThisSecondIsPassedOver) {
  record info = make_record(1, start);
  EXPECT_EQ(0, zv_cv_add_cert_sts_info_cache(info.get()));
  EXPECT_FALSE(is_cached(info));
}

TEST_F(StatusCacheAdd, RecordThatEndsInASecondIsTaken) {
  record info = make_record(1, start + 1);
  EXPECT_EQ(0, zv_cv_add_cert_sts_info_cache(info.get()));
  EXPECT_TRUE(is_cached(info));
}

TEST_F(StatusCacheAdd, TimeAfter2050IsUnderstood) {
  record info = make_record(1);
  ASSERT_EQ(1, ASN1_TIME_set_string(info->valid_until, "20961002070640Z"));
  EXPECT_EQ(0, zv_cv_add_cert_sts_info_cache(info.get()));
  EXPECT_TRUE(is_cached(info));
}

TEST_F(StatusCacheAdd, UnreadableTimeCountsAsExpired) {
  record info = make_record(1);
  make_unreadable(info->valid_until);
  EXPECT_EQ(0, zv_cv_add_cert_sts_info_cache(info.get()));
  EXPECT_FALSE(is_cached(info));
  EXPECT_EQ(1U, info->ref_count);
}

TEST_F(StatusCacheAdd, ExpiryIsLookedAtBeforeTheLock) {
  record info = make_record(1, start - 1);
  fake_failures::fail_wrlock(EDEADLK);
  EXPECT_EQ(0, zv_cv_add_cert_sts_info_cache(info.get()));
}

TEST_F(StatusCacheAdd, RecordOfACertificateThatDoesNotEncodeIsPassedOver) {
  support::cert unfinished(X509_new(), X509_free);
  record info = make_record(unfinished);
  EXPECT_EQ(0, zv_cv_add_cert_sts_info_cache(info.get()));
  EXPECT_FALSE(is_cached(info));
  EXPECT_EQ(1U, info->ref_count);
  EXPECT_EQ(nullptr, zv_cv_find_cert_sts_info_cache(unfinished.get()));
  EXPECT_EQ(nullptr,
            zv_cv_find_cert_sts_info_cache(support::simple_cert("issuer", "device", 1).get()));
}

TEST_F(StatusCacheAdd, RecordThatIsPassedOverLeavesNothingInOpensslsQueue) {
  support::cert unfinished(X509_new(), X509_free);
  record info = make_record(unfinished);
  EXPECT_EQ(0, zv_cv_add_cert_sts_info_cache(info.get()));
  EXPECT_EQ(0UL, ERR_peek_error());
}

TEST_F(StatusCacheAdd, WithoutTheLockNothingIsCached) {
  record info = make_record(1);
  look_at_cert(info);
  fake_failures::fail_wrlock(EDEADLK);
  EXPECT_EQ(80, zv_cv_add_cert_sts_info_cache(info.get()));
  EXPECT_FALSE(is_cached(info));
  EXPECT_EQ(1U, info->ref_count);
  EXPECT_EQ(nullptr, zv_cv_find_cert_sts_info_cache(info->cert));
}

TEST_F(StatusCacheAdd, SecondRecordOfACertificateIsCachedToo) {
  support::cert cert = support::simple_cert("issuer", "device", 1);
  record older = make_record(cert);
  record newer = make_record(cert);
  EXPECT_EQ(0, zv_cv_add_cert_sts_info_cache(older.get()));
  EXPECT_EQ(0, zv_cv_add_cert_sts_info_cache(newer.get()));
  EXPECT_TRUE(is_cached(older));
  EXPECT_TRUE(is_cached(newer));
}

TEST_F(StatusCacheAdd, CachedRecordIsLeftAsItIs) {
  record first = make_record(1);
  record second = make_record(2);
  zv_cv_add_cert_sts_info_cache(first.get());
  zv_cv_add_cert_sts_info_cache(second.get());
  EXPECT_EQ(0, zv_cv_add_cert_sts_info_cache(first.get()));
  EXPECT_EQ(2U, first->ref_count);
  EXPECT_EQ(second.get(), first->link.next);
  EXPECT_EQ(nullptr, second->link.next);
}

TEST_F(StatusCacheAdd, CachedRecordThatExpiredStaysCached) {
  record info = make_record(1, start + 10);
  zv_cv_add_cert_sts_info_cache(info.get());
  fake_clock::advance(60);
  EXPECT_EQ(0, zv_cv_add_cert_sts_info_cache(info.get()));
  EXPECT_TRUE(is_cached(info));
  EXPECT_EQ(2U, info->ref_count);
}

TEST_F(StatusCacheAdd, RemovedRecordCanBeAddedAgain) {
  record info = make_record(1);
  zv_cv_add_cert_sts_info_cache(info.get());
  ASSERT_EQ(0, zv_cv_remove_cert_sts_info_cache(info.get()));
  cv_free_cert_sts_info(info.get());
  EXPECT_EQ(0, zv_cv_add_cert_sts_info_cache(info.get()));
  EXPECT_TRUE(is_cached(info));
  EXPECT_EQ(2U, info->ref_count);
}

}  // namespace
