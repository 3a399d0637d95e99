// The status cache works without set-up: each case runs in a process that made none.
#include "../cache_support.h"
#include "unit/pki/lifecycle_process.h"

using namespace cache_support;

namespace {

void caches_a_record() {
  fake_clock::set(start);
  record info = make_record(1);
  EXPECT_EQ(0, zv_cv_add_cert_sts_info_cache(info.get()));
  EXPECT_TRUE(is_cached(info));
  record found = hold(zv_cv_find_cert_sts_info_cache(info->cert));
  EXPECT_EQ(info.get(), found.get());
  EXPECT_EQ(1U, info->hits);
  EXPECT_EQ(3U, info->ref_count);
  EXPECT_EQ(0, zv_cv_clear_cert_sts_info_cache());
  EXPECT_EQ(2U, info->ref_count);
}

TEST(StatusCacheBeforeInitDeathTest, ARecordIsCachedAndFound) {
  EXPECT_IN_FRESH_PROCESS(caches_a_record);
}

void finds_nothing() {
  support::cert cert = support::simple_cert("issuer", "device", 1);
  EXPECT_EQ(nullptr, zv_cv_find_cert_sts_info_cache(cert.get()));
  EXPECT_EQ(0, zv_cv_clear_cert_sts_info_cache());
}

TEST(StatusCacheBeforeInitDeathTest, AnEmptyCacheGivesNull) {
  EXPECT_IN_FRESH_PROCESS(finds_nothing);
}

void takes_a_record_out() {
  fake_clock::set(start);
  record first = make_record(1), second = make_record(2);
  zv_cv_add_cert_sts_info_cache(first.get());
  zv_cv_add_cert_sts_info_cache(second.get());
  EXPECT_EQ(0, zv_cv_remove_cert_sts_info_cache(second.get()));
  cv_free_cert_sts_info(second.get());
  EXPECT_EQ(nullptr, zv_cv_find_cert_sts_info_cache(second->cert));
  EXPECT_EQ(0, zv_cv_clear_cert_sts_info_cache());
  EXPECT_FALSE(is_cached(first));
}

TEST(StatusCacheBeforeInitDeathTest, ARecordIsTakenOut) {
  EXPECT_IN_FRESH_PROCESS(takes_a_record_out);
}

}  // namespace
