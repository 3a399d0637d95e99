// Taking CRLs out of the cache, one or all, and setting it up twice.
#include <pthread.h>

#include <cerrno>

#include "../cache_support.h"
#include "fakes/failures.h"
#include "fakes/log_capture.h"

using namespace cache_support;

namespace {

class CrlCacheRemove : public cache_test {};
class CrlCacheClear : public cache_test {};
class CrlCacheInit : public cache_test {};

TEST_F(CrlCacheRemove, ReleasesTheCrlAndTheSigner) {
  watched_crl crl = watch(make_crl("A"));
  watched_cert ca = watch(support::make_ca("signer"));
  zv_cv_add_crl_to_cache(crl.crl.get(), ca.cert.get());
  ca.cert.reset();
  EXPECT_EQ(0, zv_cv_rem_crl_from_cache(crl.crl.get()));
  EXPECT_TRUE(*ca.freed);
  EXPECT_FALSE(*crl.freed);
  crl.crl.reset();
  EXPECT_TRUE(*crl.freed);
  EXPECT_EQ(nullptr, peek("A"));
  EXPECT_EQ("", log_dump());
}

TEST_F(CrlCacheRemove, NullIsRefused) {
  EXPECT_EQ(63, zv_cv_rem_crl_from_cache(nullptr));
}

TEST_F(CrlCacheRemove, IssuerWithoutEntryIsNoEntry) {
  support::crl a = make_crl("A"), b = make_crl("B");
  EXPECT_EQ(81, zv_cv_rem_crl_from_cache(b.get()));
  zv_cv_add_crl_to_cache(a.get(), nullptr);
  EXPECT_EQ(81, zv_cv_rem_crl_from_cache(b.get()));
  EXPECT_EQ(a.get(), peek("A"));
}

TEST_F(CrlCacheRemove, SecondRemovalIsNoEntry) {
  support::crl a = make_crl("A");
  zv_cv_add_crl_to_cache(a.get(), nullptr);
  EXPECT_EQ(0, zv_cv_rem_crl_from_cache(a.get()));
  EXPECT_EQ(81, zv_cv_rem_crl_from_cache(a.get()));
}

TEST_F(CrlCacheRemove, TheObjectItselfGoesEvenBehindOthersOfItsIssuer) {
  support::crl first = make_crl("A"), second = make_crl("A", {1}), third = make_crl("A");
  for (const support::crl &crl : {first, second, third})
    zv_cv_add_crl_to_cache(crl.get(), nullptr);
  EXPECT_EQ(0, zv_cv_rem_crl_from_cache(third.get()));
  EXPECT_EQ(first.get(), peek("A"));
  EXPECT_EQ(0, zv_cv_rem_crl_from_cache(first.get()));
  EXPECT_EQ(second.get(), peek("A"));
}

TEST_F(CrlCacheRemove, AnObjectThatIsNotCachedTakesTheFirstOfItsIssuer) {
  support::crl other = make_crl("B"), first = make_crl("A"), second = make_crl("A");
  for (const support::crl &crl : {other, first, second})
    zv_cv_add_crl_to_cache(crl.get(), nullptr);
  EXPECT_EQ(0, zv_cv_rem_crl_from_cache(make_crl("A", {1}).get()));
  EXPECT_EQ(second.get(), peek("A"));
  EXPECT_EQ(other.get(), peek("B"));
  EXPECT_EQ(0, zv_cv_rem_crl_from_cache(make_crl("A").get()));
  EXPECT_EQ(nullptr, peek("A"));
}

TEST_F(CrlCacheRemove, FreeSlotsAreSkipped) {
  support::crl a = make_crl("A"), b = make_crl("B");
  zv_cv_add_crl_to_cache(a.get(), nullptr);
  zv_cv_add_crl_to_cache(b.get(), nullptr);
  EXPECT_EQ(0, zv_cv_rem_crl_from_cache(a.get()));
  EXPECT_EQ(0, zv_cv_rem_crl_from_cache(b.get()));
}

TEST_F(CrlCacheRemove, WithoutTheLockTheCrlStays) {
  support::crl a = make_crl("A");
  zv_cv_add_crl_to_cache(a.get(), nullptr);
  fake_failures::fail_wrlock(EDEADLK);
  EXPECT_EQ(80, zv_cv_rem_crl_from_cache(a.get()));
  EXPECT_EQ(a.get(), peek("A"));
}

TEST_F(CrlCacheClear, ReleasesEverything) {
  watched_crl first = watch(make_crl("A")), second = watch(make_crl("B"));
  watched_cert ca = watch(support::make_ca("signer"));
  zv_cv_add_crl_to_cache(first.crl.get(), ca.cert.get());
  zv_cv_add_crl_to_cache(second.crl.get(), nullptr);
  first.crl.reset();
  second.crl.reset();
  ca.cert.reset();
  EXPECT_EQ(0, zv_cv_clear_crl_cache());
  EXPECT_TRUE(*first.freed);
  EXPECT_TRUE(*second.freed);
  EXPECT_TRUE(*ca.freed);
}

TEST_F(CrlCacheClear, EmptyCacheCanBeCleared) {
  EXPECT_EQ(0, zv_cv_clear_crl_cache());
  EXPECT_EQ(0, zv_cv_clear_crl_cache());
}

TEST_F(CrlCacheClear, TheCacheCanBeUsedAfterwards) {
  support::crl a = make_crl("A");
  zv_cv_add_crl_to_cache(a.get(), nullptr);
  ASSERT_EQ(0, zv_cv_clear_crl_cache());
  EXPECT_EQ(nullptr, peek("A"));
  EXPECT_EQ(81, zv_cv_rem_crl_from_cache(a.get()));
  EXPECT_EQ(0, zv_cv_add_crl_to_cache(a.get(), nullptr));
  EXPECT_EQ(a.get(), peek("A"));
}

TEST_F(CrlCacheClear, WithoutTheLockGivesTheLocksOwnErrorAndClearsNothing) {
  support::crl a = make_crl("A");
  zv_cv_add_crl_to_cache(a.get(), nullptr);
  for (int error : {EDEADLK, EINVAL}) {
    fake_failures::fail_wrlock(error);
    EXPECT_EQ(error, zv_cv_clear_crl_cache());
    EXPECT_EQ(a.get(), peek("A"));
  }
}

TEST_F(CrlCacheInit, SecondInitChangesNothing) {
  support::crl a = make_crl("A");
  zv_cv_add_crl_to_cache(a.get(), nullptr);
  zv_crl_init();
  EXPECT_EQ(a.get(), peek("A"));
}

TEST_F(CrlCacheInit, SecondInitMakesNoLock) {
  fake_failures::fail_rwlock_init(EAGAIN);
  zv_crl_init();
  pthread_rwlock_t lock;
  EXPECT_EQ(EAGAIN, pthread_rwlock_init(&lock, nullptr)) << "the failure was used up";
}

}  // namespace
