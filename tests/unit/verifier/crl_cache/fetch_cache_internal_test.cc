// CRLs that are in the cache already are not downloaded.
#include "unit/verifier/crl_cache/fetch_support.h"

using namespace crl_support;
using namespace support;

namespace {

class CrlFromCache : public crl_fetch_test {
 protected:
  void SetUp() override {
    crl_fetch_test::SetUp();
    expected_in_cache = true;
    trust(signer);
  }
  // Puts a CRL of that issuer into the cache, with the signer.
  support::crl cache(const std::string &issuer, const std::string &extensions = "") {
    crl_fields fields;
    fields.issuer = der_name(issuer);
    fields.extensions = extensions;
    support::crl crl = openssl_decoded(crl_octets(fields));
    EXPECT_EQ(0, zv_cv_add_crl_to_cache(crl.get(), signer.get()));
    return crl;
  }
  // Gets from a server; whether it was asked.
  got_crl ask(
      const get_options &options = {}, const std::function<void()> &prepare = [] {}) {
    test_server server({serve(crl_octets())});
    clear_log();
    prepare();
    got_crl got = get(server.url("/crl"), options);
    asked = !server.requests().empty();
    EXPECT_EQ(!asked, got.from_cache);
    return got;
  }

  support::cert signer = signer_cert();
  bool asked = false;
};

TEST_F(CrlFromCache, FittingCrlIsTakenWithItsSigner) {
  support::crl cached = cache("issuer");
  got_crl got = ask();
  ASSERT_EQ(0, got.code);
  EXPECT_FALSE(asked);
  EXPECT_EQ(cached.get(), got.crl.get());
  ASSERT_EQ(1u, got.signers.size());
  EXPECT_EQ(signer.get(), got.signers[0].get());
  EXPECT_EQ("7: found CRL in cache\n", own_log());
}

TEST_F(CrlFromCache, NamedIssuerIsLookedFor) {
  support::crl cached = cache("other");
  EXPECT_EQ(cached.get(), ask({.crl_issuer = common_name("other")}).crl.get());
  EXPECT_FALSE(asked);
  ask();
  EXPECT_TRUE(asked);
}

TEST_F(CrlFromCache, WantedReasonsMustBeCovered) {
  cache("issuer", issuing_dist_point({.reasons = 2 | 4}));
  ask({.reasons = 2});
  EXPECT_FALSE(asked);
  ask({.reasons = 2 | 4});
  EXPECT_FALSE(asked);
  ask({.reasons = 2 | 8});
  EXPECT_TRUE(asked);
  ask({.reasons = 511});
  EXPECT_TRUE(asked);
}

TEST_F(CrlFromCache, NoReasonsMeansAllOfThem) {
  cache("issuer", issuing_dist_point({.reasons = 2}));
  ask({.reasons = 0});
  EXPECT_TRUE(asked);
  zv_cv_clear_crl_cache();
  cache("issuer", issuing_dist_point({.reasons = 511}));
  ask({.reasons = 0});
  EXPECT_FALSE(asked);
}

TEST_F(CrlFromCache, CacheCanBePassedBy) {
  cache("issuer");
  EXPECT_EQ(0, ask({.use = pki::no_cache}).code);
  EXPECT_TRUE(asked);
}

TEST_F(CrlFromCache, FailingLookupIsNoError) {
  cache("issuer");
  // OpenSSL takes such locks as well.
  for (int calls = 0; calls < 100 && !asked; calls++) {
    int code = ask({}, [&] { fake_failures::fail_rdlock(EAGAIN, calls); }).code;
    fake_failures::reset();
    EXPECT_EQ(0, code) << calls;
  }
  EXPECT_TRUE(asked);
}

TEST_F(CrlFromCache, CachedCrlIsNotJudgedAgain) {
  // Neither its time nor its signature.
  crl_fields fields;
  fields.this_update = der_utc_time(crl_der_now + 100000);
  fields.signing_key = test_key(1);
  support::crl crl = openssl_decoded(crl_octets(fields));
  ASSERT_EQ(0, zv_cv_add_crl_to_cache(crl.get(), signer.get()));
  EXPECT_EQ(crl.get(), ask().crl.get());
}

TEST_F(CrlFromCache, NothingIsCachedByGettingIt) {
  expected_in_cache = false;
  for (bool announced : {true, false})
    EXPECT_EQ(0, get_body(crl_octets(), {}, announced).code);
}

}  // namespace
