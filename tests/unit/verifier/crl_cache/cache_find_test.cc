// Looking CRLs up by issuer, reasons and signer.
#include <cerrno>

#include "../cache_support.h"
#include "fakes/allocator.h"
#include "fakes/failures.h"
#include "fakes/log_capture.h"

using namespace cache_support;

namespace {

class CrlCacheFind : public cache_test {
 protected:
  // What a look-up gives, with its references.
  struct result {
    support::crl crl;
    support::cert signer;
  };
  static result find_with_signer(const std::string &issuer_cn, uint32_t reasons) {
    support::name issuer = support::common_name(issuer_cn);
    X509 *signer = nullptr;
    X509_CRL *crl = zv_cv_find_crl_in_cache(issuer.get(), reasons, &signer);
    return {support::crl(crl, X509_CRL_free), support::cert(signer, X509_free)};
  }

  support::cert signer = support::make_ca("signer");
};

TEST_F(CrlCacheFind, GivesTheCrlOfTheIssuer) {
  support::crl a = make_crl("A"), b = make_crl("B");
  ASSERT_EQ(0, zv_cv_add_crl_to_cache(a.get(), nullptr));
  ASSERT_EQ(0, zv_cv_add_crl_to_cache(b.get(), nullptr));
  EXPECT_EQ(a.get(), peek("A"));
  EXPECT_EQ(b.get(), peek("B"));
  EXPECT_EQ("", log_dump());
}

TEST_F(CrlCacheFind, AnotherIssuerGivesNull) {
  support::crl a = make_crl("A");
  zv_cv_add_crl_to_cache(a.get(), nullptr);
  EXPECT_EQ(nullptr, peek("B"));
  EXPECT_EQ(nullptr, peek("AA"));
}

// RFC 5280 7.1: names compare without regard to letter case and to runs of blanks.
TEST_F(CrlCacheFind, LetterCaseAndBlankRunsDoNotCount) {
  support::crl crl = make_crl("An Example  CA");
  zv_cv_add_crl_to_cache(crl.get(), nullptr);
  EXPECT_EQ(crl.get(), peek("AN example ca"));
  EXPECT_EQ(crl.get(), peek("  an   Example CA "));
  EXPECT_EQ(nullptr, peek("AnExample CA"));
}

// OpenSSL encodes a name for its first comparison, and needs memory then.
TEST_F(CrlCacheFind, FreshNameFindsItsCrlUnlessMemoryIsOut) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "the allocator cannot be replaced in this build";
  support::crl crl = make_crl("A");
  zv_cv_add_crl_to_cache(crl.get(), signer.get());
  X509_CRL *found = nullptr;
  size_t missed = 0;
  fake_allocator::sweep(
      [&] {
        support::name fresh;
        {
          fake_allocator::pause no_failures;
          fresh = support::common_name("A");
        }
        X509 *found_signer = nullptr;
        found = zv_cv_find_crl_in_cache(fresh.get(), 0, &found_signer);
        EXPECT_EQ(found ? signer.get() : nullptr, found_signer);
        X509_CRL_free(found);
        X509_free(found_signer);
        fake_allocator::pause no_failures;
        fresh.reset();
      },
      [&](size_t n) {
        missed += !found;
        EXPECT_TRUE(!found || found == crl.get()) << n;
        EXPECT_EQ(0UL, ERR_peek_error()) << n;
        support::clear_openssl_errors();
      });
  EXPECT_GE(missed, 1U);
  EXPECT_EQ(crl.get(), found);
  EXPECT_EQ(0UL, ERR_peek_error());
}

TEST_F(CrlCacheFind, NameThatDoesNotEncodeFindsNothing) {
  support::crl crl = make_crl("A");
  zv_cv_add_crl_to_cache(crl.get(), nullptr);
  X509_NAME *odd = nullptr;
  ASSERT_EQ(0, parse_rfc1779_str("CN=\xE9", &odd));
  EXPECT_EQ(nullptr, zv_cv_find_crl_in_cache(odd, 0, nullptr));
  EXPECT_EQ(0UL, ERR_peek_error());
  X509_NAME_free(odd);
}

TEST_F(CrlCacheFind, EmptyCacheGivesNull) {
  EXPECT_EQ(nullptr, peek("A"));
}

TEST_F(CrlCacheFind, NullIssuerGivesNull) {
  support::crl a = make_crl("A");
  zv_cv_add_crl_to_cache(a.get(), nullptr);
  EXPECT_EQ(nullptr, zv_cv_find_crl_in_cache(nullptr, 0, nullptr));
}

TEST_F(CrlCacheFind, ACrlWithoutLimitsCoversEveryReason) {
  support::crl full = make_crl("A");
  zv_cv_add_crl_to_cache(full.get(), nullptr);
  for (uint32_t reasons : {0U, 0x2U, 0x100U, 511U})
    EXPECT_EQ(full.get(), peek("A", reasons)) << reasons;
}

TEST_F(CrlCacheFind, ACrlWithoutLimitsCoversNoReasonsThatDoNotExist) {
  support::crl full = make_crl("A");
  zv_cv_add_crl_to_cache(full.get(), nullptr);
  EXPECT_EQ(nullptr, peek("A", 512));
  EXPECT_EQ(nullptr, peek("A", 0x80000000));
}

TEST_F(CrlCacheFind, ALimitedCrlCoversItsOwnReasonsOnly) {
  support::crl limited = make_crl("A", {1, 4});
  zv_cv_add_crl_to_cache(limited.get(), nullptr);
  EXPECT_EQ(limited.get(), peek("A", 0));
  EXPECT_EQ(limited.get(), peek("A", 0x2));
  EXPECT_EQ(limited.get(), peek("A", 0x12));
  EXPECT_EQ(nullptr, peek("A", 0x6));
  EXPECT_EQ(nullptr, peek("A", 511));
}

TEST_F(CrlCacheFind, TheFirstThatFitsWins) {
  support::crl limited = make_crl("A", {1}), first = make_crl("A"), second = make_crl("A");
  for (const support::crl &crl : {limited, first, second})
    zv_cv_add_crl_to_cache(crl.get(), nullptr);
  EXPECT_EQ(limited.get(), peek("A", 0x2));
  EXPECT_EQ(first.get(), peek("A", 0x6));
}

TEST_F(CrlCacheFind, GivesTheCallerAReference) {
  watched_crl watched = watch(make_crl("A"));
  zv_cv_add_crl_to_cache(watched.crl.get(), nullptr);
  support::name issuer = support::common_name("A");
  support::crl held(zv_cv_find_crl_in_cache(issuer.get(), 0, nullptr), X509_CRL_free);
  watched.crl.reset();
  ASSERT_EQ(0, zv_cv_clear_crl_cache());
  EXPECT_FALSE(*watched.freed);
  held.reset();
  EXPECT_TRUE(*watched.freed);
}

TEST_F(CrlCacheFind, TheEntryStaysValidAfterTheCallerReleasedIt) {
  watched_crl crl = watch(make_crl("A"));
  watched_cert ca = watch(support::make_ca("signer"));
  zv_cv_add_crl_to_cache(crl.crl.get(), ca.cert.get());
  crl.crl.reset();
  ca.cert.reset();
  for (int i = 0; i < 3; i++) {
    result found = find_with_signer("A", 511);
    EXPECT_NE(nullptr, found.crl);
    EXPECT_NE(nullptr, found.signer);
  }
  EXPECT_FALSE(*crl.freed);
  EXPECT_FALSE(*ca.freed);
}

TEST_F(CrlCacheFind, GivesTheSignerWithAReference) {
  watched_crl crl = watch(make_crl("A"));
  watched_cert ca = watch(support::make_ca("signer"));
  zv_cv_add_crl_to_cache(crl.crl.get(), ca.cert.get());
  result found = find_with_signer("A", 511);
  EXPECT_EQ(crl.crl.get(), found.crl.get());
  EXPECT_EQ(ca.cert.get(), found.signer.get());
  ca.cert.reset();
  ASSERT_EQ(0, zv_cv_clear_crl_cache());
  EXPECT_FALSE(*ca.freed);
  found.signer.reset();
  EXPECT_TRUE(*ca.freed);
}

TEST_F(CrlCacheFind, WithoutSignerWantedAnEntryWithASignerFitsToo) {
  support::crl crl = make_crl("A");
  zv_cv_add_crl_to_cache(crl.get(), signer.get());
  EXPECT_EQ(crl.get(), peek("A"));
}

TEST_F(CrlCacheFind, AnEntryWithoutSignerDoesNotFitWhereOneIsWanted) {
  support::crl crl = make_crl("A");
  zv_cv_add_crl_to_cache(crl.get(), nullptr);
  result found = find_with_signer("A", 0);
  EXPECT_EQ(nullptr, found.crl);
  EXPECT_EQ(nullptr, found.signer);
  EXPECT_EQ(crl.get(), peek("A"));
}

TEST_F(CrlCacheFind, AnEntryWithoutSignerIsPassedOverForOneWithASigner) {
  support::crl bare = make_crl("A"), with_signer = make_crl("A");
  zv_cv_add_crl_to_cache(bare.get(), nullptr);
  zv_cv_add_crl_to_cache(with_signer.get(), signer.get());
  result found = find_with_signer("A", 0);
  EXPECT_EQ(with_signer.get(), found.crl.get());
  EXPECT_EQ(signer.get(), found.signer.get());
  EXPECT_EQ(bare.get(), peek("A"));
}

TEST_F(CrlCacheFind, AMissMakesTheSignerNull) {
  support::name issuer = support::common_name("A");
  X509 *out = signer.get();
  EXPECT_EQ(nullptr, zv_cv_find_crl_in_cache(issuer.get(), 0, &out));
  EXPECT_EQ(nullptr, out);
}

TEST_F(CrlCacheFind, WithoutTheLockNothingIsFound) {
  support::crl crl = make_crl("A");
  zv_cv_add_crl_to_cache(crl.get(), signer.get());
  support::name issuer = support::common_name("A");
  X509 *out = signer.get();
  fake_failures::fail_rdlock(EAGAIN);
  EXPECT_EQ(nullptr, zv_cv_find_crl_in_cache(issuer.get(), 0, &out));
  EXPECT_EQ(nullptr, out);
  EXPECT_EQ(crl.get(), peek("A"));
}

TEST_F(CrlCacheFind, TakesTheLockForReading) {
  support::crl crl = make_crl("A");
  zv_cv_add_crl_to_cache(crl.get(), nullptr);
  support::name issuer = support::common_name("A");
  fake_failures::reset();
  support::crl found(zv_cv_find_crl_in_cache(issuer.get(), 0, nullptr), X509_CRL_free);
  EXPECT_EQ(1, fake_failures::rdlock_calls());
  EXPECT_EQ(0, fake_failures::wrlock_calls());
}

TEST_F(CrlCacheFind, WithoutAReferenceToTheCrlTheNextThatFitsIsTaken) {
  support::crl first = make_crl("A"), second = make_crl("A");
  zv_cv_add_crl_to_cache(first.get(), signer.get());
  zv_cv_add_crl_to_cache(second.get(), signer.get());
  std::string line = queue_error();
  fake_failures::fail_x509_crl_up_ref();
  result found = find_with_signer("A", 0);
  EXPECT_EQ(second.get(), found.crl.get());
  EXPECT_EQ((std::vector<log_entry>{{3, line}}), captured_log());
}

TEST_F(CrlCacheFind, WithoutAReferenceToTheOnlyCrlNothingIsFound) {
  watched_crl watched = watch(make_crl("A"));
  zv_cv_add_crl_to_cache(watched.crl.get(), signer.get());
  std::string line = queue_error();
  fake_failures::fail_x509_crl_up_ref();
  EXPECT_EQ(nullptr, peek("A"));
  EXPECT_EQ((std::vector<log_entry>{{3, line}}), captured_log());
  EXPECT_EQ(watched.crl.get(), peek("A"));
  EXPECT_FALSE(*watched.freed);
}

TEST_F(CrlCacheFind, WithoutAReferenceToTheSignerTheNextThatFitsIsTaken) {
  support::cert other_signer = support::make_ca("other signer");
  watched_crl first = watch(make_crl("A"));
  support::crl second = make_crl("A");
  zv_cv_add_crl_to_cache(first.crl.get(), signer.get());
  zv_cv_add_crl_to_cache(second.get(), other_signer.get());
  std::string line = queue_error();
  fake_failures::fail_x509_up_ref();
  result found = find_with_signer("A", 0);
  EXPECT_EQ(second.get(), found.crl.get());
  EXPECT_EQ(other_signer.get(), found.signer.get());
  EXPECT_EQ((std::vector<log_entry>{{3, line}}), captured_log());
  first.crl.reset();
  ASSERT_EQ(0, zv_cv_clear_crl_cache());
  EXPECT_TRUE(*first.freed) << "the reference on the CRL was not given back";
}

TEST_F(CrlCacheFind, WithoutAReferenceToTheOnlySignerNothingIsFound) {
  watched_crl crl = watch(make_crl("A"));
  watched_cert ca = watch(support::make_ca("signer"));
  zv_cv_add_crl_to_cache(crl.crl.get(), ca.cert.get());
  support::name issuer = support::common_name("A");
  X509 *out = nullptr;
  fake_failures::fail_x509_up_ref();
  EXPECT_EQ(nullptr, zv_cv_find_crl_in_cache(issuer.get(), 0, &out));
  EXPECT_EQ(nullptr, out);
  EXPECT_EQ(crl.crl.get(), find_with_signer("A", 0).crl.get());
  crl.crl.reset();
  ca.cert.reset();
  ASSERT_EQ(0, zv_cv_clear_crl_cache());
  EXPECT_TRUE(*crl.freed);
  EXPECT_TRUE(*ca.freed);
}

}  // namespace
