// A certificate that leaves the status cache may be its last reference: what a host calls at its
// end finds the cache unlocked.
#include "../cache_support.h"
#include "../cert_end.h"

using namespace cache_support;
using cert_end::end_call;

namespace {

class StatusCacheEnd : public cache_test {
 protected:
  // Caches a status of a certificate that nothing else holds.
  static void add_last_of(end_call &end, long serial) {
    record info = make_record(end.hang_on(support::simple_cert("issuer", "device", serial)));
    ASSERT_EQ(0, zv_cv_add_cert_sts_info_cache(info.get()));
  }
  static void add(long first, long count) {
    for (long serial = first; serial < first + count; serial++)
      ASSERT_EQ(0, zv_cv_add_cert_sts_info_cache(make_record(serial).get()));
  }

  support::cert next_ = support::simple_cert("issuer", "next", 1);
  record next_record_ = make_record(next_);
  end_call find_next_{
      [this] { return status_of(hold(zv_cv_find_cert_sts_info_cache(next_.get()))); }};
  end_call add_next_{[this] { return zv_cv_add_cert_sts_info_cache(next_record_.get()); }};
};

TEST_F(StatusCacheEnd, NoLockIsHeldWhenTheOldestMakesRoom) {
  add_last_of(find_next_, 1);
  add(2, 19);
  EXPECT_EQ(std::vector<int>{}, find_next_.results());
  EXPECT_EQ(0, zv_cv_add_cert_sts_info_cache(next_record_.get()));
  EXPECT_EQ((std::vector<int>{PKI_CERT_OK, PKI_CERT_OK}), find_next_.results());
}

TEST_F(StatusCacheEnd, NoLockIsHeldWhenTheCacheIsCleared) {
  add_last_of(add_next_, 1);
  add(2, 18);
  add_last_of(add_next_, 20);
  EXPECT_EQ(0, zv_cv_clear_cert_sts_info_cache());
  EXPECT_EQ((std::vector{0, 0, 0, 0}), add_next_.results());
}

TEST_F(StatusCacheEnd, WhatIsAddedWhileTheCacheIsClearedStays) {
  add_last_of(add_next_, 1);
  record other = make_record(2);
  ASSERT_EQ(0, zv_cv_add_cert_sts_info_cache(other.get()));
  EXPECT_EQ(0, zv_cv_clear_cert_sts_info_cache());
  EXPECT_FALSE(is_cached(other));
  EXPECT_TRUE(is_cached(next_record_));
  EXPECT_EQ(PKI_CERT_OK, status_of(hold(zv_cv_find_cert_sts_info_cache(next_.get()))));
}

}  // namespace
