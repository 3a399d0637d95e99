// Taking records out of the status cache, one or all; setting it up twice; the revocation switch.
#include <pthread.h>

#include <cerrno>

#include "../cache_support.h"
#include "fakes/failures.h"

using namespace cache_support;

namespace {

// Before any test could touch it.
const int disabled_at_load = zv_cv_is_disabled_crl_check();

class StatusCacheRemove : public cache_test {};
class StatusCacheClear : public cache_test {};
class StatusCacheInit : public cache_test {};
class RevocationSwitch : public cache_test {};

TEST_F(StatusCacheRemove, LeavesTheCachesReferenceToTheCaller) {
  record info = make_record(1);
  zv_cv_add_cert_sts_info_cache(info.get());
  EXPECT_EQ(0, zv_cv_remove_cert_sts_info_cache(info.get()));
  EXPECT_FALSE(is_cached(info));
  EXPECT_EQ(nullptr, info->link.next);
  EXPECT_EQ(2U, info->ref_count);
  EXPECT_EQ(nullptr, zv_cv_find_cert_sts_info_cache(info->cert));
  cv_free_cert_sts_info(info.get());
  EXPECT_EQ(1U, info->ref_count);
}

TEST_F(StatusCacheRemove, NullIsRefused) {
  EXPECT_EQ(63, zv_cv_remove_cert_sts_info_cache(nullptr));
}

TEST_F(StatusCacheRemove, RecordThatWasNeverCachedIsNoEntry) {
  record cached = make_record(1);
  record other = make_record(1);
  zv_cv_add_cert_sts_info_cache(cached.get());
  EXPECT_EQ(81, zv_cv_remove_cert_sts_info_cache(other.get()));
  EXPECT_EQ(1U, other->ref_count);
  EXPECT_TRUE(is_cached(cached));
}

TEST_F(StatusCacheRemove, SecondRemovalIsNoEntry) {
  record info = make_record(1);
  zv_cv_add_cert_sts_info_cache(info.get());
  ASSERT_EQ(0, zv_cv_remove_cert_sts_info_cache(info.get()));
  cv_free_cert_sts_info(info.get());
  EXPECT_EQ(81, zv_cv_remove_cert_sts_info_cache(info.get()));
  EXPECT_EQ(1U, info->ref_count);
}

TEST_F(StatusCacheRemove, EvictedRecordIsNoEntry) {
  record info = make_record(1);
  zv_cv_add_cert_sts_info_cache(info.get());
  for (long serial = 2; serial <= 21; serial++)
    zv_cv_add_cert_sts_info_cache(make_record(serial).get());
  ASSERT_FALSE(is_cached(info));
  EXPECT_EQ(81, zv_cv_remove_cert_sts_info_cache(info.get()));
}

TEST_F(StatusCacheRemove, ClearedRecordIsNoEntry) {
  record info = make_record(1);
  zv_cv_add_cert_sts_info_cache(info.get());
  ASSERT_EQ(0, zv_cv_clear_cert_sts_info_cache());
  EXPECT_EQ(81, zv_cv_remove_cert_sts_info_cache(info.get()));
}

TEST_F(StatusCacheRemove, WithoutTheLockTheRecordStays) {
  record info = make_record(1);
  zv_cv_add_cert_sts_info_cache(info.get());
  fake_failures::fail_wrlock(EDEADLK);
  EXPECT_EQ(80, zv_cv_remove_cert_sts_info_cache(info.get()));
  EXPECT_TRUE(is_cached(info));
  EXPECT_EQ(2U, info->ref_count);
  record found = hold(zv_cv_find_cert_sts_info_cache(info->cert));
  EXPECT_EQ(info.get(), found.get());
}

TEST_F(StatusCacheRemove, ExpiredRecordCanBeRemoved) {
  record info = make_record(1, start + 10);
  zv_cv_add_cert_sts_info_cache(info.get());
  fake_clock::advance(60);
  ASSERT_EQ(0, zv_cv_remove_cert_sts_info_cache(info.get()));
  cv_free_cert_sts_info(info.get());
}

// After the first, a middle and the last record went, the others are found and a new one follows.
TEST_F(StatusCacheRemove, TheListStaysWholeWhereverARecordGoes) {
  for (size_t victim : {0U, 1U, 2U}) {
    ASSERT_EQ(0, zv_cv_clear_cert_sts_info_cache());
    std::vector<record> records;
    for (long serial = 1; serial <= 3; serial++) {
      records.push_back(make_record(serial));
      zv_cv_add_cert_sts_info_cache(records.back().get());
    }
    ASSERT_EQ(0, zv_cv_remove_cert_sts_info_cache(records[victim].get()));
    cv_free_cert_sts_info(records[victim].get());
    records.erase(records.begin() + static_cast<long>(victim));
    records.push_back(make_record(4));
    zv_cv_add_cert_sts_info_cache(records.back().get());
    EXPECT_EQ(records[1].get(), records[0]->link.next) << victim;
    EXPECT_EQ(records[2].get(), records[1]->link.next) << victim;
    EXPECT_EQ(nullptr, records[2]->link.next) << victim;
    for (const record &info : records) {
      record found = hold(zv_cv_find_cert_sts_info_cache(info->cert));
      EXPECT_EQ(info.get(), found.get()) << victim;
    }
  }
}

TEST_F(StatusCacheRemove, ARemovedRecordMakesRoom) {
  std::vector<record> records;
  for (long serial = 1; serial <= 20; serial++) {
    records.push_back(make_record(serial));
    zv_cv_add_cert_sts_info_cache(records.back().get());
  }
  ASSERT_EQ(0, zv_cv_remove_cert_sts_info_cache(records[9].get()));
  cv_free_cert_sts_info(records[9].get());
  zv_cv_add_cert_sts_info_cache(make_record(99).get());
  for (size_t i = 0; i < records.size(); i++)
    EXPECT_EQ(i != 9, is_cached(records[i])) << i;
}

TEST_F(StatusCacheClear, ReleasesEveryRecord) {
  watched_cert watched = make_watched_cert();
  record held = make_record(2);
  zv_cv_add_cert_sts_info_cache(make_record(watched.cert).get());
  zv_cv_add_cert_sts_info_cache(held.get());
  watched.cert.reset();
  EXPECT_EQ(0, zv_cv_clear_cert_sts_info_cache());
  EXPECT_TRUE(*watched.freed);
  EXPECT_FALSE(is_cached(held));
  EXPECT_EQ(nullptr, held->link.next);
  EXPECT_EQ(1U, held->ref_count);
}

TEST_F(StatusCacheClear, EmptyCacheCanBeCleared) {
  EXPECT_EQ(0, zv_cv_clear_cert_sts_info_cache());
  EXPECT_EQ(0, zv_cv_clear_cert_sts_info_cache());
}

TEST_F(StatusCacheClear, TheCacheCanBeUsedAfterwards) {
  record info = make_record(1);
  zv_cv_add_cert_sts_info_cache(info.get());
  ASSERT_EQ(0, zv_cv_clear_cert_sts_info_cache());
  EXPECT_EQ(0, zv_cv_add_cert_sts_info_cache(info.get()));
  record found = hold(zv_cv_find_cert_sts_info_cache(info->cert));
  EXPECT_EQ(info.get(), found.get());
}

TEST_F(StatusCacheClear, WithoutTheLockGivesTheLocksOwnErrorAndClearsNothing) {
  record info = make_record(1);
  zv_cv_add_cert_sts_info_cache(info.get());
  for (int error : {EDEADLK, EINVAL}) {
    fake_failures::fail_wrlock(error);
    EXPECT_EQ(error, zv_cv_clear_cert_sts_info_cache());
    EXPECT_TRUE(is_cached(info));
    EXPECT_EQ(2U, info->ref_count);
  }
}

TEST_F(StatusCacheInit, SecondInitChangesNothing) {
  record info = make_record(1);
  zv_cv_add_cert_sts_info_cache(info.get());
  zv_cv_init();
  record found = hold(zv_cv_find_cert_sts_info_cache(info->cert));
  EXPECT_EQ(info.get(), found.get());
}

TEST_F(StatusCacheInit, SecondInitMakesNoLock) {
  fake_failures::fail_rwlock_init(EAGAIN);
  zv_cv_init();
  pthread_rwlock_t lock;
  EXPECT_EQ(EAGAIN, pthread_rwlock_init(&lock, nullptr)) << "the failure was used up";
}

TEST_F(RevocationSwitch, IsOnAtLoad) {
  EXPECT_EQ(0, disabled_at_load);
}

TEST_F(RevocationSwitch, GivesThePreviousValue) {
  EXPECT_EQ(0, zv_cv_disable_crl_check(1));
  EXPECT_EQ(1, zv_cv_is_disabled_crl_check());
  EXPECT_EQ(1, zv_cv_disable_crl_check(0));
  EXPECT_EQ(0, zv_cv_is_disabled_crl_check());
}

TEST_F(RevocationSwitch, KeepsTheFlagAsGiven) {
  EXPECT_EQ(0, zv_cv_disable_crl_check(-7));
  EXPECT_EQ(-7, zv_cv_is_disabled_crl_check());
  EXPECT_EQ(-7, zv_cv_disable_crl_check(0));
}

TEST_F(RevocationSwitch, LeavesTheCacheInUse) {
  record info = make_record(1);
  zv_cv_disable_crl_check(1);
  EXPECT_EQ(0, zv_cv_add_cert_sts_info_cache(info.get()));
  record found = hold(zv_cv_find_cert_sts_info_cache(info->cert));
  EXPECT_EQ(info.get(), found.get());
}

}  // namespace
