// Making room: the most recently used CRLs go first, and only as many as needed.
#include "../cache_support.h"
#include "fakes/failures.h"

using namespace cache_support;

namespace {

class CrlCacheEviction : public cache_test {
 protected:
  // Adds a CRL of that issuer and size at that second.
  void add(const std::string &issuer_cn, size_t size, time_t when) {
    support::crl crl = support::crl_of_size(size, issuer_cn);
    fake_clock::set(when);
    ASSERT_EQ(0, zv_cv_add_crl_to_cache(crl.get(), nullptr));
  }
  static void use(const std::string &issuer_cn, time_t when) {
    fake_clock::set(when);
    EXPECT_NE(nullptr, peek(issuer_cn));
  }
  // Which of the issuers "A" to "F" have a CRL in the cache.
  static std::string cached() {
    std::string found;
    for (char issuer = 'A'; issuer <= 'F'; issuer++)
      if (peek(std::string(1, issuer)))
        found += issuer;
    return found;
  }
};

TEST_F(CrlCacheEviction, CrlsThatFillTheCacheExactlyStay) {
  add("A", 30000, start);
  add("B", 19999, start + 1);
  EXPECT_EQ("AB", cached());
  ASSERT_EQ(0, zv_cv_rem_crl_from_cache(make_crl("B").get()));
  add("B", 20000, start + 2);
  EXPECT_EQ("AB", cached());
}

TEST_F(CrlCacheEviction, OneOctetTooManyEvicts) {
  add("A", 30000, start);
  add("B", 20001, start + 1);
  EXPECT_EQ("B", cached());
}

TEST_F(CrlCacheEviction, TheMostRecentlyAddedGoesFirst) {
  add("A", 15000, start);
  add("B", 15000, start + 1);
  add("C", 15000, start + 2);
  add("D", 15000, start + 3);
  EXPECT_EQ("ABD", cached());
}

TEST_F(CrlCacheEviction, TheMostRecentlyFoundGoesFirst) {
  add("A", 15000, start);
  add("B", 15000, start + 1);
  add("C", 15000, start + 2);
  use("A", start + 3);
  add("D", 15000, start + 4);
  EXPECT_EQ("BCD", cached());
}

TEST_F(CrlCacheEviction, AMissIsNoUse) {
  add("A", 15000, start);
  add("B", 15000, start + 1);
  add("C", 15000, start + 2);
  fake_clock::set(start + 3);
  EXPECT_EQ(nullptr, peek("A", 512));
  fake_failures::fail_x509_crl_up_ref();
  EXPECT_EQ(nullptr, peek("A"));
  add("D", 15000, start + 4);
  EXPECT_EQ("ABD", cached());
}

TEST_F(CrlCacheEviction, AsManyGoAsAreNeeded) {
  add("A", 10000, start);
  add("B", 10000, start + 1);
  add("C", 10000, start + 2);
  add("D", 10000, start + 3);
  add("E", 10000, start + 4);
  add("F", 25000, start + 5);
  EXPECT_EQ("ABF", cached());
}

TEST_F(CrlCacheEviction, EvictionStopsAsSoonAsThereIsRoom) {
  add("A", 20000, start);
  add("B", 5000, start + 1);
  add("C", 20000, start + 2);
  add("D", 25000, start + 3);
  EXPECT_EQ("ABD", cached());
}

TEST_F(CrlCacheEviction, TheLargestCrlEvictsEverything) {
  add("A", 10000, start);
  add("B", 10000, start + 1);
  add("C", 50000, start + 2);
  EXPECT_EQ("C", cached());
}

TEST_F(CrlCacheEviction, ATooLargeCrlEvictsNothing) {
  add("A", 30000, start);
  add("B", 20000, start + 1);
  support::crl larger = support::crl_of_size(50001, "C");
  EXPECT_EQ(82, zv_cv_add_crl_to_cache(larger.get(), nullptr));
  EXPECT_EQ("AB", cached());
}

TEST_F(CrlCacheEviction, TheVictimsReferencesGo) {
  watched_crl crl = watch(support::crl_of_size(30000, "A"));
  watched_cert ca = watch(support::make_ca("signer"));
  ASSERT_EQ(0, zv_cv_add_crl_to_cache(crl.crl.get(), ca.cert.get()));
  crl.crl.reset();
  ca.cert.reset();
  add("B", 30000, start + 1);
  EXPECT_TRUE(*crl.freed);
  EXPECT_TRUE(*ca.freed);
}

TEST_F(CrlCacheEviction, RemovedAndClearedCrlsTakeNoRoom) {
  add("A", 30000, start);
  ASSERT_EQ(0, zv_cv_rem_crl_from_cache(make_crl("A").get()));
  add("B", 50000, start + 1);
  EXPECT_EQ("B", cached());
  ASSERT_EQ(0, zv_cv_clear_crl_cache());
  add("C", 25000, start + 2);
  add("D", 25000, start + 3);
  EXPECT_EQ("CD", cached());
}

TEST_F(CrlCacheEviction, OrderHoldsForMoreThanOneArrayOfSlots) {
  for (int i = 0; i < 24; i++)
    add("issuer " + std::to_string(i), 2000, start + (i * 7) % 24);
  add("A", 6000, start + 100);  // 48000 are taken: two CRLs have to go
  for (int i = 0; i < 24; i++)
    EXPECT_EQ((i * 7) % 24 < 22, peek("issuer " + std::to_string(i)) != nullptr) << i;
}

// The ages of entries can be further apart than an int of seconds can say.
TEST_F(CrlCacheEviction, AgesFarApartAreComparedByTheirOrder) {
  if (sizeof(time_t) == 4)
    GTEST_SKIP() << "no two times are further apart than an int can say";
  for (time_t apart : {time_t{0x7fffffff}, static_cast<time_t>(0x80000000LL),
                       static_cast<time_t>(0xffffffffLL), static_cast<time_t>(0x100000000LL)}) {
    ASSERT_EQ(0, zv_cv_clear_crl_cache());
    add("A", 20000, start);
    add("B", 20000, start + apart);
    add("C", 20000, start + apart + 1);
    EXPECT_EQ("AC", cached()) << apart;
    ASSERT_EQ(0, zv_cv_clear_crl_cache());
    add("A", 20000, start + apart);
    add("B", 20000, start);
    add("C", 20000, start + apart + 1);
    EXPECT_EQ("BC", cached()) << apart;
  }
}

TEST_F(CrlCacheEviction, AnEvictionStaysDoneWhenTheAddingFails) {
  add("A", 20000, start);
  add("B", 20000, start + 1);
  watched_crl crl = watch(support::crl_of_size(20000, "C"));
  fake_failures::fail_x509_crl_up_ref();
  EXPECT_EQ(49, zv_cv_add_crl_to_cache(crl.crl.get(), nullptr));
  EXPECT_EQ("A", cached());
  support::cert signer = support::make_ca("signer");
  add("D", 20000, start + 2);
  fake_failures::fail_x509_up_ref();
  EXPECT_EQ(49, zv_cv_add_crl_to_cache(crl.crl.get(), signer.get()));
  EXPECT_EQ("A", cached());
  crl.crl.reset();
  EXPECT_TRUE(*crl.freed);
}

}  // namespace
