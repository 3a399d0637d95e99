// A CRL's signer that leaves the cache may be its last reference: what a host calls at its end
// finds the cache unlocked.
#include "../cache_support.h"
#include "../cert_end.h"

using namespace cache_support;
using cert_end::end_call;

namespace {

constexpr int no_entry = 81;

class CrlCacheEnd : public cache_test {
 protected:
  // Caches a CRL of a signer that nothing else holds.
  static void add_last_of(end_call &end, const support::crl &crl) {
    support::cert signer = end.hang_on(support::make_ca("signer"));
    ASSERT_EQ(0, zv_cv_add_crl_to_cache(crl.get(), signer.get()));
  }

  support::crl absent_ = make_crl("absent");
  support::crl next_ = support::crl_of_size(50000, "next");
  end_call remove_absent_{[this] { return zv_cv_rem_crl_from_cache(absent_.get()); }};
  end_call find_next_{[] { return peek("next") ? 1 : 0; }};
};

TEST_F(CrlCacheEnd, NoLockIsHeldWhenOneMakesRoom) {
  add_last_of(find_next_, make_crl("A"));
  EXPECT_EQ(std::vector<int>{}, find_next_.results());
  EXPECT_EQ(0, zv_cv_add_crl_to_cache(next_.get(), nullptr));
  EXPECT_EQ((std::vector{1, 1}), find_next_.results());
}

TEST_F(CrlCacheEnd, NoLockIsHeldWhenManyMakeRoom) {
  constexpr int count = 40;
  for (int i = 0; i < count; i++)
    add_last_of(remove_absent_, support::crl_of_size(1200, "issuer " + std::to_string(i)));
  EXPECT_EQ(std::vector<int>{}, remove_absent_.results());
  EXPECT_EQ(0, zv_cv_add_crl_to_cache(next_.get(), nullptr));
  EXPECT_EQ(std::vector<int>(2 * count, no_entry), remove_absent_.results());
  EXPECT_NE(nullptr, peek("next"));
}

TEST_F(CrlCacheEnd, NoLockIsHeldWhenOneIsRemoved) {
  support::crl removed = make_crl("A");
  add_last_of(remove_absent_, removed);
  EXPECT_EQ(0, zv_cv_rem_crl_from_cache(removed.get()));
  EXPECT_EQ((std::vector{no_entry, no_entry}), remove_absent_.results());
}

TEST_F(CrlCacheEnd, NoLockIsHeldWhenTheCacheIsCleared) {
  for (const char *issuer : {"A", "B"})
    add_last_of(remove_absent_, make_crl(issuer));
  EXPECT_EQ(0, zv_cv_clear_crl_cache());
  EXPECT_EQ(std::vector<int>(4, no_entry), remove_absent_.results());
}

TEST_F(CrlCacheEnd, WhatIsAddedWhileTheCacheIsClearedStays) {
  end_call add_next([this] { return zv_cv_add_crl_to_cache(next_.get(), nullptr); });
  add_last_of(add_next, make_crl("A"));
  EXPECT_EQ(0, zv_cv_clear_crl_cache());
  EXPECT_EQ((std::vector{0, 0}), add_next.results());
  EXPECT_EQ(next_.get(), peek("next"));
  EXPECT_EQ(nullptr, peek("A"));
}

}  // namespace
