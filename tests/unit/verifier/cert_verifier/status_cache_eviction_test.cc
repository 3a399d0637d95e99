// Which record makes room when the status cache is full.
#include <cstdint>

#include "../cache_support.h"
#include "fakes/allocator.h"

using namespace cache_support;

namespace {

constexpr int capacity = 20;

class StatusCacheEviction : public cache_test {
 protected:
  // Fills the cache; the records with the numbers in `short_lived` expire 10 seconds from start.
  void fill(const std::vector<int> &short_lived = {}) {
    for (int i = 0; i < capacity; i++)
      records.push_back(make_record(i, start + 3600));
    for (int i : short_lived)
      ASN1_TIME_set(at(i)->valid_until, start + 10);
    for (const record &info : records)
      ASSERT_EQ(0, zv_cv_add_cert_sts_info_cache(info.get()));
  }
  record &at(int i) { return records[static_cast<size_t>(i)]; }

  // Adds one more record and returns the numbers of those that had to go.
  std::vector<int> evicted_by_one_more() {
    record extra = make_record(1000 + static_cast<long>(records.size()));
    EXPECT_EQ(0, zv_cv_add_cert_sts_info_cache(extra.get()));
    EXPECT_TRUE(is_cached(extra));
    records.push_back(std::move(extra));
    std::vector<int> gone;
    for (size_t i = 0; i < records.size(); i++)
      if (!is_cached(records[i]))
        gone.push_back(static_cast<int>(i));
    return gone;
  }

  std::vector<record> records;
};

TEST_F(StatusCacheEviction, TwentyRecordsFit) {
  fill();
  for (const record &info : records)
    EXPECT_TRUE(is_cached(info));
}

TEST_F(StatusCacheEviction, WithEqualHitsTheOldestGoes) {
  fill();
  EXPECT_EQ((std::vector{0}), evicted_by_one_more());
  EXPECT_EQ((std::vector{0, 1}), evicted_by_one_more());
}

TEST_F(StatusCacheEviction, TheOneWithFewestHitsGoes) {
  fill();
  for (const record &info : records)
    info->hits = 5;
  at(13)->hits = 4;
  EXPECT_EQ((std::vector{13}), evicted_by_one_more());
}

TEST_F(StatusCacheEviction, LookUpsCountAsHits) {
  fill();
  for (int i = 0; i < capacity; i++)
    if (i != 8)
      hold(zv_cv_find_cert_sts_info_cache(at(i)->cert));
  EXPECT_EQ((std::vector{8}), evicted_by_one_more());
}

TEST_F(StatusCacheEviction, OfSeveralWithFewestHitsTheOldestGoes) {
  fill();
  for (const record &info : records)
    info->hits = 1;
  at(7)->hits = 0;
  at(12)->hits = 0;
  EXPECT_EQ((std::vector{7}), evicted_by_one_more());
}

TEST_F(StatusCacheEviction, HitsAreCountedWithoutSign) {
  fill();
  for (const record &info : records)
    info->hits = 2;
  at(3)->hits = UINT32_MAX;
  at(4)->hits = 0x80000000;
  at(6)->hits = 1;
  EXPECT_EQ((std::vector{6}), evicted_by_one_more());
}

TEST_F(StatusCacheEviction, AnExpiredRecordGoesWhateverItsHits) {
  fill({11});
  at(11)->hits = 100;
  fake_clock::advance(60);
  EXPECT_EQ((std::vector{11}), evicted_by_one_more());
}

TEST_F(StatusCacheEviction, OfSeveralExpiredOnlyTheFirstGoes) {
  fill({5, 9});
  at(5)->hits = 7;
  fake_clock::advance(60);
  EXPECT_EQ((std::vector{5}), evicted_by_one_more());
  EXPECT_EQ((std::vector{5, 9}), evicted_by_one_more());
  EXPECT_EQ((std::vector{0, 5, 9}), evicted_by_one_more());
}

TEST_F(StatusCacheEviction, ARecordThatHasASecondLeftIsNotExpired) {
  fill({11});
  fake_clock::set(start + 9);
  EXPECT_EQ((std::vector{0}), evicted_by_one_more());
}

TEST_F(StatusCacheEviction, AnUnreadableTimeCountsAsExpired) {
  fill();
  make_unreadable(at(14)->valid_until);
  EXPECT_EQ((std::vector{14}), evicted_by_one_more());
}

TEST_F(StatusCacheEviction, AddingAnExpiredRecordEvictsNothing) {
  fill();
  record expired = make_record(99, start - 1);
  EXPECT_EQ(0, zv_cv_add_cert_sts_info_cache(expired.get()));
  for (const record &info : records)
    EXPECT_TRUE(is_cached(info));
}

TEST_F(StatusCacheEviction, AddingACachedRecordEvictsNothing) {
  fill();
  EXPECT_EQ(0, zv_cv_add_cert_sts_info_cache(at(10).get()));
  for (const record &info : records) {
    EXPECT_TRUE(is_cached(info));
    EXPECT_EQ(2U, info->ref_count);
  }
}

TEST_F(StatusCacheEviction, TheCachesReferenceToTheVictimGoes) {
  fill();
  evicted_by_one_more();
  EXPECT_EQ(1U, at(0)->ref_count);
  EXPECT_EQ(nullptr, at(0)->link.next);
  EXPECT_EQ(2U, at(1)->ref_count);
}

TEST_F(StatusCacheEviction, AVictimThatNobodyElseHoldsIsDestroyed) {
  watched_cert watched = make_watched_cert();
  EXPECT_EQ(0, zv_cv_add_cert_sts_info_cache(make_record(watched.cert).get()));
  watched.cert.reset();
  for (int i = 1; i < capacity; i++)
    zv_cv_add_cert_sts_info_cache(make_record(i).get());
  EXPECT_FALSE(*watched.freed);
  zv_cv_add_cert_sts_info_cache(make_record(99).get());
  EXPECT_TRUE(*watched.freed);
}

TEST_F(StatusCacheEviction, AVictimCanBeTheFirstAMiddleAndTheLastRecord) {
  fill();
  for (const record &info : records)
    info->hits = 9;
  at(19)->hits = 0;
  EXPECT_EQ((std::vector{19}), evicted_by_one_more());  // the new one, 20, has no hits
  EXPECT_EQ((std::vector{19, 20}), evicted_by_one_more());
  records.back()->hits = 9;
  at(0)->hits = 1;
  EXPECT_EQ((std::vector{0, 19, 20}), evicted_by_one_more());
  EXPECT_EQ(records[22].get(), records[21]->link.next);
  EXPECT_EQ(records[21].get(), records[18]->link.next);
}

TEST_F(StatusCacheEviction, AFullCacheStaysFullUnderAllocationFailures) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "the allocator cannot be replaced in this build";
  fill();
  record extra = make_record(99);
  int result = 0;
  auto cached = [&] {
    size_t count = is_cached(extra);
    for (const record &info : records)
      count += is_cached(info);
    return count;
  };
  fake_allocator::sweep(
      [&] {
        result = zv_cv_add_cert_sts_info_cache(extra.get());
        if (!fake_allocator::has_failed() && zv_cv_remove_cert_sts_info_cache(extra.get()) == 0)
          cv_free_cert_sts_info(extra.get());
      },
      [&](size_t n) {
        EXPECT_EQ(0, result) << n;
        EXPECT_EQ(static_cast<size_t>(capacity), cached()) << n;
        EXPECT_EQ(is_cached(extra) ? 2U : 1U, extra->ref_count) << n;
        if (zv_cv_remove_cert_sts_info_cache(extra.get()) == 0) {
          cv_free_cert_sts_info(extra.get());
          for (const record &info : records)
            zv_cv_add_cert_sts_info_cache(info.get());
        }
      });
}

}  // namespace
