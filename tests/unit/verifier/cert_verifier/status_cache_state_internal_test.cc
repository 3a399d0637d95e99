// The status cache's own fields: the list, its end, and the count.
#include <cerrno>
#include <cstddef>

#include "../cache_support.h"
#include "common/limits.h"
#include "fakes/allocator.h"
#include "fakes/failures.h"
#include "verifier/cert_verifier/internal.h"

using namespace cache_support;
using pki::cert_sts_info_cache;
using pki::pki_csi_cache;

namespace {

// Before any test could run the set-up.
const int initialised_at_load = pki::csi_is_init;

// Walks the list and checks every link on the way.
std::vector<const cert_sts_info *> walk() {
  std::vector<const cert_sts_info *> seen;
  cert_sts_info **link = &pki_csi_cache.first;
  while (*link) {
    EXPECT_EQ(link, (*link)->link.previous);
    seen.push_back(*link);
    link = &(*link)->link.next;
  }
  EXPECT_EQ(link, pki_csi_cache.last);
  EXPECT_EQ(static_cast<int32_t>(seen.size()), pki_csi_cache.count);
  return seen;
}

using addresses = std::vector<const cert_sts_info *>;

class StatusCacheState : public cache_test {};

TEST_F(StatusCacheState, FieldsAreInTheirOrder) {
  EXPECT_EQ(0U, offsetof(cert_sts_info_cache, first));
  EXPECT_LT(offsetof(cert_sts_info_cache, first), offsetof(cert_sts_info_cache, last));
  EXPECT_LT(offsetof(cert_sts_info_cache, last), offsetof(cert_sts_info_cache, count));
  EXPECT_LT(offsetof(cert_sts_info_cache, count), offsetof(cert_sts_info_cache, lock));
}

TEST_F(StatusCacheState, SetUpIsMarked) {
  EXPECT_EQ(0, initialised_at_load);
  EXPECT_NE(0, pki::csi_is_init);
}

TEST_F(StatusCacheState, HoldsTwenty) {
  EXPECT_EQ(20, pki::status_cache_records);
}

TEST_F(StatusCacheState, RecordsAreAppended) {
  EXPECT_EQ(addresses{}, walk());
  record first = make_record(1), second = make_record(2), third = make_record(3);
  for (record *info : {&first, &second, &third})
    zv_cv_add_cert_sts_info_cache(info->get());
  EXPECT_EQ((addresses{first.get(), second.get(), third.get()}), walk());
}

TEST_F(StatusCacheState, ExpiredRecordLeavesTheCount) {
  record expired = make_record(1, start - 1);
  zv_cv_add_cert_sts_info_cache(expired.get());
  EXPECT_EQ(0, pki_csi_cache.count);
}

TEST_F(StatusCacheState, CachedRecordLeavesTheCount) {
  record first = make_record(1), second = make_record(2);
  zv_cv_add_cert_sts_info_cache(first.get());
  zv_cv_add_cert_sts_info_cache(second.get());
  zv_cv_add_cert_sts_info_cache(first.get());
  EXPECT_EQ((addresses{first.get(), second.get()}), walk());
}

TEST_F(StatusCacheState, RemovalOfTheLastRecordMovesTheEnd) {
  record first = make_record(1), second = make_record(2), third = make_record(3);
  zv_cv_add_cert_sts_info_cache(first.get());
  zv_cv_add_cert_sts_info_cache(second.get());
  ASSERT_EQ(0, zv_cv_remove_cert_sts_info_cache(second.get()));
  cv_free_cert_sts_info(second.get());
  EXPECT_EQ((addresses{first.get()}), walk());
  zv_cv_add_cert_sts_info_cache(third.get());
  EXPECT_EQ((addresses{first.get(), third.get()}), walk());
}

TEST_F(StatusCacheState, RemovalOfTheOnlyRecordLeavesAnEmptyList) {
  record info = make_record(1);
  zv_cv_add_cert_sts_info_cache(info.get());
  ASSERT_EQ(0, zv_cv_remove_cert_sts_info_cache(info.get()));
  cv_free_cert_sts_info(info.get());
  EXPECT_EQ(addresses{}, walk());
}

TEST_F(StatusCacheState, FailedRemovalLeavesTheCount) {
  record cached = make_record(1), other = make_record(2);
  zv_cv_add_cert_sts_info_cache(cached.get());
  EXPECT_EQ(81, zv_cv_remove_cert_sts_info_cache(other.get()));
  EXPECT_EQ((addresses{cached.get()}), walk());
}

TEST_F(StatusCacheState, TheCountNeverPassesTwenty) {
  for (long serial = 1; serial <= 45; serial++) {
    zv_cv_add_cert_sts_info_cache(make_record(serial).get());
    EXPECT_EQ(serial < 20 ? serial : 20, static_cast<long>(walk().size()));
  }
}

TEST_F(StatusCacheState, LookUpKeepsTheOrder) {
  record first = make_record(1), second = make_record(2);
  zv_cv_add_cert_sts_info_cache(first.get());
  zv_cv_add_cert_sts_info_cache(second.get());
  hold(zv_cv_find_cert_sts_info_cache(first->cert));
  EXPECT_EQ((addresses{first.get(), second.get()}), walk());
}

TEST_F(StatusCacheState, ClearingLeavesAnEmptyList) {
  for (long serial = 1; serial <= 5; serial++)
    zv_cv_add_cert_sts_info_cache(make_record(serial).get());
  EXPECT_EQ(0, zv_cv_clear_cert_sts_info_cache());
  EXPECT_EQ(addresses{}, walk());
}

TEST_F(StatusCacheState, LockFailuresLeaveTheList) {
  record cached = make_record(1), other = make_record(2);
  look_at_cert(other);
  zv_cv_add_cert_sts_info_cache(cached.get());
  fake_failures::fail_wrlock(EDEADLK);
  EXPECT_EQ(80, zv_cv_add_cert_sts_info_cache(other.get()));
  fake_failures::fail_wrlock(EDEADLK);
  EXPECT_EQ(80, zv_cv_remove_cert_sts_info_cache(cached.get()));
  fake_failures::fail_wrlock(EDEADLK);
  EXPECT_EQ(EDEADLK, zv_cv_clear_cert_sts_info_cache());
  fake_failures::fail_wrlock(EDEADLK);
  EXPECT_EQ(nullptr, zv_cv_find_cert_sts_info_cache(cached->cert));
  EXPECT_EQ((addresses{cached.get()}), walk());
}

TEST_F(StatusCacheState, AllocationFailureWhileAddingLeavesAWholeList) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "the allocator cannot be replaced in this build";
  record cached = make_record(1), added = make_record(2);
  zv_cv_add_cert_sts_info_cache(cached.get());
  auto take_out = [&] {
    if (zv_cv_remove_cert_sts_info_cache(added.get()) == 0)
      cv_free_cert_sts_info(added.get());
  };
  int result = 0;
  fake_allocator::sweep(
      [&] {
        result = zv_cv_add_cert_sts_info_cache(added.get());
        if (!fake_allocator::has_failed())
          take_out();
      },
      [&](size_t n) {
        EXPECT_EQ(0, result) << n;
        addresses left = {cached.get()};
        if (is_cached(added))
          left.push_back(added.get());
        EXPECT_EQ(left, walk()) << n;
        EXPECT_EQ(left.size(), added->ref_count) << n;
        take_out();
      });
}

}  // namespace
