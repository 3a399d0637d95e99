// Entering CRLs into the cache: sizes, references and failures.
#include <cerrno>

#include "../cache_support.h"
#include "fakes/allocator.h"
#include "fakes/failures.h"
#include "fakes/log_capture.h"

using namespace cache_support;

namespace {

class CrlCacheAdd : public cache_test {};

// No encoding: its parts are missing.
support::crl unfinished_crl() {
  return support::crl(X509_CRL_new(), X509_CRL_free);
}

TEST_F(CrlCacheAdd, TakesReferencesOfItsOwn) {
  watched_crl crl = watch(make_crl("A"));
  watched_cert ca = watch(support::make_ca("signer"));
  EXPECT_EQ(0, zv_cv_add_crl_to_cache(crl.crl.get(), ca.cert.get()));
  crl.crl.reset();
  ca.cert.reset();
  EXPECT_FALSE(*crl.freed);
  EXPECT_FALSE(*ca.freed);
  ASSERT_EQ(0, zv_cv_clear_crl_cache());
  EXPECT_TRUE(*crl.freed);
  EXPECT_TRUE(*ca.freed);
}

TEST_F(CrlCacheAdd, LeavesTheCallersReferences) {
  watched_crl crl = watch(make_crl("A"));
  watched_cert ca = watch(support::make_ca("signer"));
  EXPECT_EQ(0, zv_cv_add_crl_to_cache(crl.crl.get(), ca.cert.get()));
  ASSERT_EQ(0, zv_cv_clear_crl_cache());
  EXPECT_FALSE(*crl.freed);
  EXPECT_FALSE(*ca.freed);
  EXPECT_EQ("", log_dump());
}

TEST_F(CrlCacheAdd, NullIsRefused) {
  support::cert signer = support::make_ca("signer");
  EXPECT_EQ(63, zv_cv_add_crl_to_cache(nullptr, nullptr));
  EXPECT_EQ(63, zv_cv_add_crl_to_cache(nullptr, signer.get()));
}

TEST_F(CrlCacheAdd, FiftyThousandOctetsAreCached) {
  support::crl largest = support::crl_of_size(50000, "A");
  EXPECT_EQ(0, zv_cv_add_crl_to_cache(largest.get(), nullptr));
  EXPECT_EQ(largest.get(), peek("A"));
}

TEST_F(CrlCacheAdd, OneOctetMoreIsTooLarge) {
  support::crl small = make_crl("B");
  zv_cv_add_crl_to_cache(small.get(), nullptr);
  watched_crl larger = watch(support::crl_of_size(50001, "A"));
  EXPECT_EQ(82, zv_cv_add_crl_to_cache(larger.crl.get(), nullptr));
  EXPECT_EQ(nullptr, peek("A"));
  EXPECT_EQ(small.get(), peek("B"));
  larger.crl.reset();
  EXPECT_TRUE(*larger.freed);
}

TEST_F(CrlCacheAdd, SizeIsLookedAtBeforeTheLock) {
  support::crl larger = support::crl_of_size(50001, "A");
  fake_failures::fail_wrlock(EDEADLK);
  EXPECT_EQ(82, zv_cv_add_crl_to_cache(larger.get(), nullptr));
}

TEST_F(CrlCacheAdd, CrlThatDoesNotEncodeIsRefused) {
  support::crl unfinished = unfinished_crl();
  EXPECT_EQ(14, zv_cv_add_crl_to_cache(unfinished.get(), nullptr));
  EXPECT_TRUE(logged_containing(3, "OpenSSL error: ")) << log_dump();
  EXPECT_EQ(0UL, ERR_peek_error());
}

TEST_F(CrlCacheAdd, EncodingThatRanOutOfMemoryIsReportedAsThat) {
  support::crl unfinished = unfinished_crl();
  std::string line = queue_error(ERR_R_MALLOC_FAILURE);
  EXPECT_EQ(2, zv_cv_add_crl_to_cache(unfinished.get(), nullptr));
  EXPECT_TRUE(was_logged(3, line)) << log_dump();
}

TEST_F(CrlCacheAdd, TheSameCrlTwiceMakesTwoEntries) {
  support::crl crl = make_crl("A");
  EXPECT_EQ(0, zv_cv_add_crl_to_cache(crl.get(), nullptr));
  EXPECT_EQ(0, zv_cv_add_crl_to_cache(crl.get(), nullptr));
  EXPECT_EQ(0, zv_cv_rem_crl_from_cache(crl.get()));
  EXPECT_EQ(crl.get(), peek("A"));
  EXPECT_EQ(0, zv_cv_rem_crl_from_cache(crl.get()));
  EXPECT_EQ(nullptr, peek("A"));
}

TEST_F(CrlCacheAdd, MoreThanTenEntriesAreKept) {
  std::vector<support::crl> crls;
  for (int i = 0; i < 25; i++) {
    crls.push_back(make_crl("issuer " + std::to_string(i)));
    EXPECT_EQ(0, zv_cv_add_crl_to_cache(crls.back().get(), nullptr));
  }
  for (size_t i = 0; i < crls.size(); i++)
    EXPECT_EQ(crls[i].get(), peek("issuer " + std::to_string(i))) << i;
}

TEST_F(CrlCacheAdd, TheFirstFreeSlotIsUsedAgain) {
  support::crl first = make_crl("A"), second = make_crl("A"), third = make_crl("A");
  zv_cv_add_crl_to_cache(first.get(), nullptr);
  zv_cv_add_crl_to_cache(second.get(), nullptr);
  zv_cv_rem_crl_from_cache(first.get());
  zv_cv_add_crl_to_cache(third.get(), nullptr);
  EXPECT_EQ(third.get(), peek("A"));
}

TEST_F(CrlCacheAdd, WithoutTheLockNothingIsCached) {
  watched_crl crl = watch(make_crl("A"));
  fake_failures::fail_wrlock(EDEADLK);
  EXPECT_EQ(80, zv_cv_add_crl_to_cache(crl.crl.get(), nullptr));
  EXPECT_EQ(nullptr, peek("A"));
  crl.crl.reset();
  EXPECT_TRUE(*crl.freed);
}

TEST_F(CrlCacheAdd, WithoutAReferenceToTheCrlNothingIsCached) {
  watched_crl crl = watch(make_crl("A"));
  watched_cert ca = watch(support::make_ca("signer"));
  std::string line = queue_error();
  fake_failures::fail_x509_crl_up_ref();
  EXPECT_EQ(49, zv_cv_add_crl_to_cache(crl.crl.get(), ca.cert.get()));
  EXPECT_EQ((std::vector<log_entry>{{3, line}}), captured_log());
  EXPECT_EQ(nullptr, peek("A"));
  crl.crl.reset();
  ca.cert.reset();
  EXPECT_TRUE(*crl.freed);
  EXPECT_TRUE(*ca.freed);
}

TEST_F(CrlCacheAdd, WithoutAReferenceToTheSignerNothingIsCached) {
  watched_crl crl = watch(make_crl("A"));
  watched_cert ca = watch(support::make_ca("signer"));
  std::string line = queue_error();
  fake_failures::fail_x509_up_ref();
  EXPECT_EQ(49, zv_cv_add_crl_to_cache(crl.crl.get(), ca.cert.get()));
  EXPECT_EQ((std::vector<log_entry>{{3, line}}), captured_log());
  EXPECT_EQ(nullptr, peek("A"));
  crl.crl.reset();
  ca.cert.reset();
  EXPECT_TRUE(*crl.freed);
  EXPECT_TRUE(*ca.freed);
}

TEST_F(CrlCacheAdd, TheLockIsFreeAfterEachFailure) {
  support::crl crl = make_crl("A"), larger = support::crl_of_size(50001, "A");
  support::cert signer = support::make_ca("signer");
  fake_failures::fail_x509_crl_up_ref();
  EXPECT_EQ(49, zv_cv_add_crl_to_cache(crl.get(), nullptr));
  fake_failures::fail_x509_up_ref();
  EXPECT_EQ(49, zv_cv_add_crl_to_cache(crl.get(), signer.get()));
  EXPECT_EQ(82, zv_cv_add_crl_to_cache(larger.get(), nullptr));
  EXPECT_EQ(0, zv_cv_add_crl_to_cache(crl.get(), signer.get()));
}

}  // namespace
