// Which of the cached CRLs of a name counts for a question, and whose signers are judged again.
#include "unit/verifier/crl_cache/decide_support.h"
#include "verifier/crl_cache/internal.h"

using namespace decide_support;

namespace {

class DecideCached : public decide_test {
 protected:
  // The CA has a second key, and the host trusts that certificate. It makes the CRLs.
  void make_second_key_sign() {
    know(second);
    trust = std::make_shared<trust_context>(certs{second});
  }
  crl_fields by_second_key(const std::string &entries = "", const std::string &extensions = "") {
    return crl_of(entries, extensions, stranger_key);
  }

  // How many CRLs of the issuer the cache holds; it is empty behind this.
  static size_t count_cached() {
    size_t count = 0;
    while (const X509_CRL *crl = cache_support::peek("issuer")) {
      EXPECT_EQ(0, zv_cv_rem_crl_from_cache(crl));
      count++;
    }
    return count;
  }

  support::cert second = make_issuer("issuer", stranger_key, 42);
};

constexpr char path_is_good[] = "crl signer's cert (/CN=issuer) is ok";

// One deputy of two CAs, with a certificate from each, and his one list.
TEST_F(DecideCached, EachIssuersWordIsFoundBehindAnothers) {
  support::cert other = make_issuer("other", authority_key, 50);
  support::cert others_device =
      issue("device", device_serial, device_key, {}, "other", authority_key);
  know(issue("deputy", 51, stranger_key, {crl_sign}));
  know(issue("deputy", 52, stranger_key, {crl_sign}, "other", authority_key));
  server.publish(
      "/crl", crl_of("", support::issuing_dist_point({.indirect = true}), stranger_key, "deputy"));
  trust = std::make_shared<trust_context>(certs{});
  for (int i = 0; i < 6; i++) {
    EXPECT_EQ(PKI_CERT_OK, status_of(decide_at({{"/crl", {}, "deputy"}}))) << log_dump();
    EXPECT_EQ(i == 0 ? 1U : 2U, server.requests());
    std::swap(other, issuer);
    std::swap(others_device, device);
  }
}

// As of two threads that fetched it at once.
TEST_F(DecideCached, AListThatComesAgainTakesItsPlace) {
  support::crl list = crl_objects::crl_object(crl_of());
  auto add = [&](const char *url, X509 *word) {
    EXPECT_EQ(
        0, pki::cv_add_crl_to_cache(list.get(), issuer.get(),
                                    word ? pki::acceptance::by_issuer : pki::acceptance::each_time,
                                    word, pki::cv_crl_source_of(url)));
  };
  for (int i = 0; i < 3; i++) {
    add("http://a/", issuer.get());
    add("http://a/", second.get());
    add("http://a/", nullptr);
    add("http://b/", nullptr);
  }
  EXPECT_EQ(4U, count_cached());
  for (int i = 0; i < 3; i++)
    add(nullptr, nullptr);
  EXPECT_EQ(3U, count_cached());
}

TEST_F(DecideCached, AnOutdatedListGoesWithTheNextFromItsPlace) {
  make_second_key_sign();
  server.publish("/crl", by_second_key());
  EXPECT_EQ(PKI_CERT_OK, status_of(decide("/crl"))) << log_dump();
  fake_clock::set(start + 40 * 86400);
  crl_fields later = crl_of();
  later.this_update = support::der_utc_time(start + 40 * 86400 - 60);
  later.next_update = support::der_utc_time(start + 41 * 86400);
  server.publish("/crl", later);
  trust = std::make_shared<trust_context>(certs{});
  EXPECT_EQ(PKI_CERT_OK, status_of(decide("/crl"))) << log_dump();
  EXPECT_EQ(1U, count_cached());
}

// Two keys of one CA, a list each: the other key's says nothing about this one's certificates.
TEST_F(DecideCached, WhomAPathVouchedForCountsForHisPlaceOnly) {
  make_second_key_sign();
  server.publish("/old", by_second_key());
  EXPECT_EQ(PKI_CERT_OK, status_of(decide("/old"))) << log_dump();
  server.publish("/new", revoking_crl());
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide("/new"))) << log_dump();
  EXPECT_EQ("/old /new ", server.asked());
}

TEST_F(DecideCached, WhomAPathVouchedForCountsForEachOfTheCertificatesPlaces) {
  make_second_key_sign();
  server.publish("/there", by_second_key());
  for (int i = 0; i < 2; i++)
    EXPECT_EQ(PKI_CERT_OK, status_of(decide_at({{"/gone"}, {"/there"}}))) << log_dump();
  EXPECT_EQ("/gone /there ", server.asked());
}

// A delta costs a fetch.
TEST_F(DecideCached, DeltasOfListsOutOfScopeAreNotFetched) {
  support::cert leaf = std::exchange(device, issuer);
  server.publish("/cas", crl_of("", support::crl_number(1) + freshest("/delta") +
                                        support::issuing_dist_point({.ca_certs = true})));
  EXPECT_EQ(PKI_CERT_OK, status_of(decide("/cas"))) << log_dump();
  EXPECT_EQ("/cas /delta ", server.asked());
  device = leaf;
  server.publish("/users", crl_of());
  EXPECT_EQ(PKI_CERT_OK, status_of(decide("/users"))) << log_dump();
  EXPECT_EQ("/cas /delta /users ", server.asked());
}

TEST_F(DecideCached, WhatTheHostAddedCountsForEveryPlace) {
  cache(crl_of(), issuer);
  EXPECT_EQ(PKI_CERT_OK, status_of(decide("/elsewhere"))) << log_dump();
  EXPECT_EQ("", server.asked());
}

TEST_F(DecideCached, TheIssuersWordCountsForEveryPlace) {
  server.publish("/crl", crl_of());
  EXPECT_EQ(PKI_CERT_OK, status_of(decide("/crl"))) << log_dump();
  EXPECT_EQ(PKI_CERT_OK, status_of(decide("/elsewhere"))) << log_dump();
  EXPECT_EQ("/crl ", server.asked());
}

TEST_F(DecideCached, ASignerIsJudgedOnceAWalk) {
  make_second_key_sign();
  std::vector<place> places;
  for (unsigned bit = 0; bit < 9; bit++) {
    std::string path = "/" + std::to_string(bit);
    server.publish(path, by_second_key("", some_reasons(1U << bit)));
    places.push_back({path, 1U << bit});
  }
  EXPECT_EQ(PKI_CERT_OK, status_of(decide_at(places))) << log_dump();
  EXPECT_EQ(9U, server.requests());
  EXPECT_EQ(9U, count_logged(7, path_is_good));
  clear_log();
  EXPECT_EQ(PKI_CERT_OK, status_of(decide_at(places))) << log_dump();
  EXPECT_EQ(9U, server.requests());
  EXPECT_EQ(1U, count_logged(7, path_is_good));
}

TEST_F(DecideCached, MirrorsOfWhatWasSeenAreNotFetched) {
  make_second_key_sign();
  server.publish("/a", by_second_key("", some_reasons(0x1fe)));
  server.publish("/mirror", by_second_key("", some_reasons(0x1fe)));
  server.publish("/b", by_second_key("", some_reasons(1)));
  EXPECT_EQ(PKI_CERT_OK, status_of(decide_at({{"/a", 0x1fe}, {"/mirror", 0x1fe}, {"/b", 1}})))
      << log_dump();
  EXPECT_EQ("/a /b ", server.asked());
}

TEST_F(DecideCached, NobodyVouchesForHimselfByACachedList) {
  support::cert deputy = issue("issuer", 60, stranger_key, {crl_sign});
  know(deputy);
  set_status(deputy, PKI_CERT_OK);
  server.publish("/crl", by_second_key());
  EXPECT_EQ(PKI_CERT_OK, status_of(decide("/crl"))) << log_dump();
  device = deputy;
  EXPECT_EQ(nullptr, decide("/crl")) << log_dump();
  EXPECT_TRUE(was_logged(4, "crl signer's cert == cert we're trying to validate! => crl rejected"));
}

TEST_F(DecideCached, AnIssuerMayStillListItself) {
  device = issuer;
  server.publish("/crl", crl_of());
  for (int i = 0; i < 2; i++)
    EXPECT_EQ(PKI_CERT_OK, status_of(decide("/crl"))) << log_dump();
  EXPECT_EQ("/crl ", server.asked());
}

}  // namespace
