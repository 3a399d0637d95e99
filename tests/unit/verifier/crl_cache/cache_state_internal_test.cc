// The CRL cache's own fields: slots, sizes, masks and times.
#include <cerrno>

#include "../cache_support.h"
#include "common/limits.h"
#include "fakes/allocator.h"
#include "fakes/failures.h"
#include "verifier/crl_cache/internal.h"

using namespace cache_support;
using pki::crl_cache_entry;
using pki::cv_crl_cache;

namespace {

// Before any test could run the set-up.
const bool crl_initialised_at_load = pki::crl_is_init;

crl_cache_entry &slot(size_t number) {
  return cv_crl_cache.entries[number];
}

// The CRL of every slot; null for a free one.
std::vector<const X509_CRL *> slots() {
  std::vector<const X509_CRL *> found;
  for (uint32_t i = 0; i < cv_crl_cache.capacity; i++)
    found.push_back(slot(i).crl);
  return found;
}

// The size that the slots add up to.
uint32_t sum_of_sizes() {
  uint32_t sum = 0;
  for (uint32_t i = 0; i < cv_crl_cache.capacity; i++)
    sum += slot(i).crl ? slot(i).size : 0;
  return sum;
}

void add_at(time_t when, const support::crl &crl, X509 *signer = nullptr) {
  fake_clock::set(when);
  ASSERT_EQ(0, zv_cv_add_crl_to_cache(crl.get(), signer));
}

class CrlCacheState : public cache_test {};

TEST_F(CrlCacheState, SetUpIsMarked) {
  EXPECT_FALSE(crl_initialised_at_load);
  EXPECT_TRUE(pki::crl_is_init);
}

TEST_F(CrlCacheState, EmptyCacheHasNoSlots) {
  EXPECT_EQ(nullptr, cv_crl_cache.entries);
  EXPECT_EQ(0U, cv_crl_cache.capacity);
  EXPECT_EQ(0U, cv_crl_cache.total_size);
}

TEST_F(CrlCacheState, Limits) {
  EXPECT_EQ(50000U, pki::crl_cache_bytes);
  EXPECT_EQ(10U, pki::crl_cache_growth);
}

TEST_F(CrlCacheState, ASlotTellsAllOfItsCrl) {
  support::cert signer = support::make_ca("signer");
  support::crl crl = make_crl("A");
  add_at(start + 7, crl, signer.get());
  EXPECT_EQ(crl.get(), slot(0).crl);
  EXPECT_EQ(signer.get(), slot(0).signer);
  EXPECT_EQ(511U, slot(0).reasons);
  EXPECT_EQ(support::der(crl).size(), slot(0).size);
  EXPECT_EQ(start + 7, slot(0).last_access);
  EXPECT_EQ(slot(0).size, cv_crl_cache.total_size);
}

TEST_F(CrlCacheState, OnlySomeReasonsBecomeTheMask) {
  support::crl one = make_crl("A", {1}), many = make_crl("B", {2, 6, 8});
  add_at(start, one);
  add_at(start, many);
  EXPECT_EQ(0x2U, slot(0).reasons);
  EXPECT_EQ(0x144U, slot(1).reasons);
  EXPECT_EQ(nullptr, slot(1).signer);
}

TEST_F(CrlCacheState, DistributionPointWithoutReasonsMeansAll) {
  support::crl_options options;
  options.issuer = support::common_name("A");
  support::crl model = support::make_crl(options);
  support::crl crl(X509_CRL_dup(model.get()), X509_CRL_free);
  ISSUING_DIST_POINT *point = ISSUING_DIST_POINT_new();
  point->onlyuser = 0xff;
  ASSERT_EQ(1, X509_CRL_add1_ext_i2d(crl.get(), NID_issuing_distribution_point, point, 1, 0));
  ISSUING_DIST_POINT_free(point);
  ASSERT_GT(i2d_re_X509_CRL_tbs(crl.get(), nullptr), 0);
  add_at(start, crl);
  EXPECT_EQ(511U, slot(0).reasons);
}

TEST_F(CrlCacheState, ElevenEntriesMakeTwentySlots) {
  std::vector<support::crl> crls;
  for (size_t i = 0; i < 11; i++) {
    crls.push_back(make_crl("issuer " + std::to_string(i)));
    add_at(start, crls.back());
    EXPECT_EQ(i < 10 ? 10U : 20U, cv_crl_cache.capacity) << i;
  }
  std::vector<const X509_CRL *> expected;
  for (const support::crl &crl : crls)
    expected.push_back(crl.get());
  expected.resize(20, nullptr);
  EXPECT_EQ(expected, slots());
  EXPECT_EQ(sum_of_sizes(), cv_crl_cache.total_size);
}

TEST_F(CrlCacheState, AFullCacheOfSmallCrlsHasNoSlotToSpare) {
  for (int i = 0; i < 20; i++)
    add_at(start, make_crl("issuer " + std::to_string(i)));
  EXPECT_EQ(20U, cv_crl_cache.capacity);
  add_at(start, make_crl("issuer 20"));
  EXPECT_EQ(30U, cv_crl_cache.capacity);
}

TEST_F(CrlCacheState, AHitSetsTheTimeAndAMissDoesNot) {
  support::cert signer = support::make_ca("signer");
  add_at(start, make_crl("A", {1}), signer.get());
  fake_clock::set(start + 100);
  EXPECT_EQ(nullptr, peek("A", 511));
  EXPECT_EQ(nullptr, peek("B"));
  fake_failures::fail_x509_crl_up_ref();
  EXPECT_EQ(nullptr, peek("A"));
  EXPECT_EQ(start, slot(0).last_access);
  EXPECT_NE(nullptr, peek("A", 0x2));
  EXPECT_EQ(start + 100, slot(0).last_access);
}

TEST_F(CrlCacheState, ASignerWithoutReferenceLeavesTheTime) {
  support::cert signer = support::make_ca("signer");
  add_at(start, make_crl("A"), signer.get());
  fake_clock::set(start + 100);
  support::name issuer = support::common_name("A");
  X509 *out = nullptr;
  fake_failures::fail_x509_up_ref();
  EXPECT_EQ(nullptr, zv_cv_find_crl_in_cache(issuer.get(), 0, &out));
  EXPECT_EQ(start, slot(0).last_access);
}

TEST_F(CrlCacheState, OnlyTheFirstFittingEntryIsTouched) {
  add_at(start, make_crl("A"));
  add_at(start, make_crl("A"));
  fake_clock::set(start + 100);
  peek("A");
  EXPECT_EQ(start + 100, slot(0).last_access);
  EXPECT_EQ(start, slot(1).last_access);
}

TEST_F(CrlCacheState, MakingRoomSortsFreeSlotsFirstAndThenTheMostRecentlyUsed) {
  support::crl a = support::crl_of_size(15000, "A"), b = support::crl_of_size(15000, "B"),
               c = support::crl_of_size(15000, "C"), d = support::crl_of_size(15000, "D");
  add_at(start + 1, b);
  add_at(start + 3, c);
  add_at(start + 2, a);
  add_at(start + 4, d);  // [7 free, C, A, B]; C goes, D takes the first free slot
  std::vector<const X509_CRL *> expected(10, nullptr);
  expected[0] = d.get();
  expected[8] = a.get();
  expected[9] = b.get();
  EXPECT_EQ(expected, slots());
  EXPECT_EQ(45000U, cv_crl_cache.total_size);
}

TEST_F(CrlCacheState, WhileThereIsRoomNothingIsSorted) {
  support::crl a = support::crl_of_size(25000, "A"), b = support::crl_of_size(25000, "B");
  add_at(start + 2, a);
  add_at(start + 1, b);
  EXPECT_EQ(a.get(), slot(0).crl);
  EXPECT_EQ(b.get(), slot(1).crl);
  EXPECT_EQ(50000U, cv_crl_cache.total_size);
}

TEST_F(CrlCacheState, WhenNoEvictionMakesRoomMemoryIsOut) {
  support::crl small = make_crl("A"), large = support::crl_of_size(1000, "B");
  add_at(start, small);
  uint32_t size = cv_crl_cache.total_size;
  cv_crl_cache.total_size = 50000;  // a slip in counting
  EXPECT_EQ(2, zv_cv_add_crl_to_cache(large.get(), nullptr));
  EXPECT_EQ(nullptr, peek("B"));
  EXPECT_EQ(nullptr, peek("A")) << "the eviction stays done";
  EXPECT_EQ(50000 - size, cv_crl_cache.total_size);
  cv_crl_cache.total_size = 0;
  EXPECT_EQ(0, zv_cv_add_crl_to_cache(large.get(), nullptr)) << "the lock is free";
}

TEST_F(CrlCacheState, RemovalFreesTheSlotAndItsSize) {
  support::crl a = make_crl("A"), b = make_crl("B", {1});
  add_at(start, a);
  add_at(start, b);
  ASSERT_EQ(0, zv_cv_rem_crl_from_cache(a.get()));
  EXPECT_EQ(nullptr, slot(0).crl);
  EXPECT_EQ(b.get(), slot(1).crl);
  EXPECT_EQ(support::der(b).size(), cv_crl_cache.total_size);
  EXPECT_EQ(10U, cv_crl_cache.capacity);
}

TEST_F(CrlCacheState, AFreedSlotKeepsItsOtherFields) {
  watched_cert ca = watch(support::make_ca("signer"));
  watched_crl crl = watch(make_crl("A", {1}));
  add_at(start, make_crl("B"));
  add_at(start + 5, crl.crl, ca.cert.get());
  uint32_t size = slot(1).size;
  uint32_t total = cv_crl_cache.total_size;
  crl.crl.reset();
  ca.cert.reset();
  pki::cv_free_crl_entry(&slot(1));
  EXPECT_TRUE(*crl.freed);
  EXPECT_TRUE(*ca.freed);
  EXPECT_EQ(nullptr, slot(1).crl);
  EXPECT_EQ(nullptr, slot(1).signer);
  EXPECT_EQ(0x2U, slot(1).reasons);
  EXPECT_EQ(size, slot(1).size);
  EXPECT_EQ(start + 5, slot(1).last_access);
  EXPECT_EQ(total - size, cv_crl_cache.total_size);
}

TEST_F(CrlCacheState, ClearingGivesTheSlotsBack) {
  for (int i = 0; i < 12; i++)
    add_at(start, make_crl("issuer " + std::to_string(i)));
  EXPECT_EQ(0, zv_cv_clear_crl_cache());
  EXPECT_EQ(nullptr, cv_crl_cache.entries);
  EXPECT_EQ(0U, cv_crl_cache.capacity);
  EXPECT_EQ(0U, cv_crl_cache.total_size);
}

TEST_F(CrlCacheState, LockAndReferenceFailuresLeaveTheSlots) {
  support::cert signer = support::make_ca("signer");
  support::crl a = make_crl("A"), b = make_crl("B");
  add_at(start, a, signer.get());
  uint32_t total = cv_crl_cache.total_size;
  std::vector<const X509_CRL *> before = slots();
  fake_clock::set(start + 100);
  fake_failures::fail_wrlock(EDEADLK);
  EXPECT_EQ(80, zv_cv_add_crl_to_cache(b.get(), nullptr));
  fake_failures::fail_wrlock(EDEADLK);
  EXPECT_EQ(80, zv_cv_rem_crl_from_cache(a.get()));
  fake_failures::fail_wrlock(EDEADLK);
  EXPECT_EQ(EDEADLK, zv_cv_clear_crl_cache());
  fake_failures::fail_rdlock(EAGAIN);
  EXPECT_EQ(nullptr, peek("A"));
  fake_failures::fail_x509_crl_up_ref();
  EXPECT_EQ(49, zv_cv_add_crl_to_cache(b.get(), nullptr));
  fake_failures::fail_x509_up_ref();
  EXPECT_EQ(49, zv_cv_add_crl_to_cache(b.get(), signer.get()));
  EXPECT_EQ(before, slots());
  EXPECT_EQ(total, cv_crl_cache.total_size);
  EXPECT_EQ(start, slot(0).last_access);
}

// A mask that could not be read must not become "all reasons".
TEST_F(CrlCacheState, EveryAllocationFailureWhileAddingLeavesTheCache) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "the allocator cannot be replaced in this build";
  std::vector<support::crl> crls;
  for (int i = 0; i < 10; i++) {
    crls.push_back(make_crl("issuer " + std::to_string(i)));
    add_at(start, crls.back());
  }
  std::vector<const X509_CRL *> before = slots();
  watched_crl limited = watch(make_crl("A", {1}));
  uint32_t total = cv_crl_cache.total_size;
  int result = 0;
  uint32_t reasons = 0;
  size_t failures = fake_allocator::sweep(
      [&] {
        result = zv_cv_add_crl_to_cache(limited.crl.get(), nullptr);
        if (result == 0) {
          reasons = slot(10).reasons;
          EXPECT_EQ(0, zv_cv_rem_crl_from_cache(limited.crl.get()));
        }
      },
      [&](size_t n) {
        EXPECT_EQ(2, result) << n;
        std::vector<const X509_CRL *> after = slots();
        before.resize(after.size(), nullptr);  // the array may have grown
        EXPECT_EQ(before, after) << n;
        EXPECT_EQ(total, cv_crl_cache.total_size) << n;
        support::clear_openssl_errors();
      });
  EXPECT_GE(failures, 1U);  // the slots
  EXPECT_EQ(0, result);
  EXPECT_EQ(0x2U, reasons);
  EXPECT_FALSE(*limited.freed);
  limited.crl.reset();
  EXPECT_TRUE(*limited.freed);
}

TEST_F(CrlCacheState, FirstSlotsThatCannotBeHadAreOutOfMemory) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "the allocator cannot be replaced in this build";
  support::crl crl = make_crl("A");
  fake_allocator::fail_at(1, true);
  int result = zv_cv_add_crl_to_cache(crl.get(), nullptr);
  fake_allocator::stop_failing();
  EXPECT_EQ(2, result);
  EXPECT_EQ(0U, cv_crl_cache.capacity);
  EXPECT_EQ(0U, cv_crl_cache.total_size);
  EXPECT_EQ(0, zv_cv_add_crl_to_cache(crl.get(), nullptr));
}

TEST_F(CrlCacheState, LookUpAndRemovalNeedNoMemory) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "the allocator cannot be replaced in this build";
  support::cert signer = support::make_ca("signer");
  support::crl crl = make_crl("A");
  add_at(start, crl, signer.get());
  // A name that was just built is encoded when it is first compared.
  support::name issuer = support::common_name("A");
  ASSERT_EQ(0, X509_NAME_cmp(issuer.get(), X509_CRL_get_issuer(crl.get())));
  X509 *found_signer = nullptr;
  fake_allocator::fail_at(1, true);
  X509_CRL *found = zv_cv_find_crl_in_cache(issuer.get(), 511, &found_signer);
  int removed = zv_cv_rem_crl_from_cache(crl.get());
  fake_allocator::stop_failing();
  EXPECT_EQ(crl.get(), found);
  EXPECT_EQ(signer.get(), found_signer);
  EXPECT_EQ(0, removed);
  X509_CRL_free(found);
  X509_free(found_signer);
}

}  // namespace
