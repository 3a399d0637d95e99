// The cache is one for all issuers and all of the host's stores; whose word counts is not.
#include "unit/verifier/crl_cache/decide_support.h"

using namespace decide_support;

namespace {

constexpr char in_cache[] = "found CRL in cache";

class DecideAcceptance : public decide_test {
 protected:
  // Asks about a certificate of another CA, "evil", which names a CRL of "issuer": an indirect one
  // that lists nothing, by somebody of that name whom "evil" vouches for.
  void cache_by_evil() {
    support::cert deputy = issue("issuer", 40, stranger_key, {crl_sign}, "evil", authority_key);
    know(deputy);
    server.publish("/evil", crl_of(crl_entry(4), support::issuing_dist_point({.indirect = true}),
                                   stranger_key));
    support::cert own_issuer = std::exchange(issuer, evil);
    support::cert own_device =
        std::exchange(device, issue("other", 41, device_key, {}, "evil", authority_key));
    EXPECT_EQ(PKI_CERT_OK, status_of(decide_at({{"/evil", {}, "issuer"}}))) << log_dump();
    ASSERT_TRUE(is_cached());
    issuer = own_issuer;
    device = own_device;
    clear_log();
  }

  const support::cert evil = make_issuer("evil", authority_key, 39);
};

TEST_F(DecideAcceptance, AnotherIssuersWordDoesNotCount) {
  cache_by_evil();
  server.publish("/crl", revoking_crl());
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide("/crl"))) << log_dump();
  EXPECT_FALSE(was_logged(7, in_cache));
  EXPECT_EQ("/evil /crl ", server.asked());
}

TEST_F(DecideAcceptance, AnotherIssuersWordDoesNotCountForTheSamePlaceEither) {
  cache_by_evil();
  server.publish("/evil", revoking_crl());
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide("/evil"))) << log_dump();
  EXPECT_TRUE(was_logged(7, in_cache));
  EXPECT_EQ("/evil /evil ", server.asked());
}

TEST_F(DecideAcceptance, WithoutAnotherPlaceThereIsNoAnswer) {
  cache_by_evil();
  EXPECT_EQ(nullptr, decide("/crl")) << log_dump();
}

TEST_F(DecideAcceptance, TheSameIssuersWordCountsAgain) {
  support::cert deputy = issue("issuer", 40, stranger_key, {crl_sign});
  know(deputy);
  set_status(deputy, PKI_CERT_OK);
  server.publish("/crl", crl_of("", "", stranger_key));
  EXPECT_EQ(PKI_CERT_OK, status_of(decide("/crl"))) << log_dump();
  set_status(deputy, PKI_CERT_REVOKED);
  EXPECT_EQ(PKI_CERT_OK, status_of(decide("/crl"))) << log_dump();
  EXPECT_EQ("/crl ", server.asked());
}

TEST_F(DecideAcceptance, APathCountsInTheStoreThatHasIt) {
  support::cert other_ca = make_issuer("issuer", stranger_key, 42);
  know(other_ca);
  server.publish("/crl", crl_of("", "", stranger_key));
  trust = std::make_shared<trust_context>(certs{other_ca});
  for (int i = 0; i < 2; i++)
    EXPECT_EQ(PKI_CERT_OK, status_of(decide("/crl"))) << log_dump();
  EXPECT_EQ("/crl ", server.asked());
  trust = std::make_shared<trust_context>(certs{issuer});
  EXPECT_EQ(nullptr, decide("/crl")) << log_dump();
  server.publish("/crl", revoking_crl());
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide("/crl"))) << log_dump();
}

TEST_F(DecideAcceptance, AnIssuerWhoMayNotSignVouchesForNobody) {
  server.publish("/crl", crl_of());
  EXPECT_EQ(PKI_CERT_OK, status_of(decide("/crl"))) << log_dump();
  issuer_trusted = 0;
  trust = std::make_shared<trust_context>(certs{});
  EXPECT_EQ(nullptr, decide("/crl")) << log_dump();
}

TEST_F(DecideAcceptance, AConfiguredSignerStaysTheOnlyOne) {
  EXPECT_EQ(PKI_CERT_OK, status_of(decide(crl_of()))) << log_dump();
  ASSERT_TRUE(is_cached());
  support::cert successor = make_issuer("issuer", stranger_key, 43);
  crl_fields revoking = crl_of(crl_entry(device_serial), "", stranger_key);
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide_by(successor, revoking))) << log_dump();
}

TEST_F(DecideAcceptance, WhatAConfiguredSignerMadeIsJudgedElsewhere) {
  support::cert successor = make_issuer("issuer", stranger_key, 43);
  EXPECT_EQ(PKI_CERT_OK, status_of(decide_by(successor, crl_of("", "", stranger_key))))
      << log_dump();
  ASSERT_TRUE(is_cached());
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide(revoking_crl()))) << log_dump();
}

}  // namespace
