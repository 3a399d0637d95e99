// CRLs that nobody believes, whatever they list.
#include "unit/verifier/crl_cache/decide_support.h"

using namespace decide_support;
using support::crl_extension;
using support::crl_number;

namespace {

class DecideRefused : public decide_both_ways {
 protected:
  // Neither good nor revoked, and nothing is kept.
  void expect_refused(const std::string &crl_extensions) {
    for (const std::string &entries : {std::string(), crl_entry(device_serial)}) {
      clear_log();
      EXPECT_EQ(no_answer, status_of(decide(crl_of(entries, crl_extensions)))) << log_dump();
      EXPECT_TRUE(was_logged(7, unknown_line("0"))) << log_dump();
      EXPECT_FALSE(is_cached());
    }
    EXPECT_EQ("/crl /crl ", server.asked());
  }
  void expect_believed(const std::string &crl_extensions) {
    zv_cv_clear_crl_cache();
    EXPECT_EQ(PKI_CERT_OK, status_of(decide(crl_of("", crl_extensions)))) << log_dump();
    zv_cv_clear_crl_cache();
    EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide(revoking_crl(crl_extensions)))) << log_dump();
  }
  std::string delta_line() const {
    return "CRL from '" + server.url("/crl") + "' is a delta-CRL, a complete one was expected";
  }
  static constexpr char idp_oid[] = "2.5.29.28", akid_oid[] = "2.5.29.35";
  const std::string akid = support::authority_key_id({.key_id = "k1"});
};
INSTANTIATE_TEST_SUITE_P(Decoded, DecideRefused, testing::Bool(), way_name);

TEST_P(DecideRefused, ScopeThatCannotBeDecoded) {
  expect_refused(crl_extension(idp_oid, "x", true));
}
TEST_P(DecideRefused, ScopeThatCannotBeDecodedAndIsNotCritical) {
  expect_refused(crl_extension(idp_oid, "x", false));
}
TEST_P(DecideRefused, ScopeCutShort) {
  expect_refused(crl_extension(idp_oid, std::string("\x30\x03\x81\x01", 4), true));
}
TEST_P(DecideRefused, TwoScopes) {
  expect_refused(support::issuing_dist_point({.user_certs = true}) +
                 support::issuing_dist_point({.user_certs = true}));
}
TEST_P(DecideRefused, KeyIdentifierThatCannotBeDecoded) {
  expect_refused(crl_extension(akid_oid, "x"));
}
TEST_P(DecideRefused, CriticalKeyIdentifierThatCannotBeDecoded) {
  expect_refused(crl_extension(akid_oid, "x", true));
}
TEST_P(DecideRefused, TwoKeyIdentifiers) {
  expect_refused(akid + akid);
}
TEST_P(DecideRefused, DeltaWhereACompleteCrlBelongs) {
  expect_refused(crl_number(6) + support::delta_crl_indicator(5));
  EXPECT_EQ(1u, count_logged(4, delta_line())) << log_dump();
}
TEST_P(DecideRefused, DeltaWithoutNumberWhereACompleteCrlBelongs) {
  expect_refused(support::delta_crl_indicator(5, false));
  EXPECT_EQ(1u, count_logged(4, delta_line())) << log_dump();
}
TEST_P(DecideRefused, DeltaWhoseIndicatorCannotBeDecoded) {
  expect_refused(crl_number(6) + crl_extension("2.5.29.27", "x", true));
  EXPECT_EQ(1u, count_logged(4, delta_line())) << log_dump();
}
TEST_P(DecideRefused, CachedDeltaWhereACompleteCrlBelongs) {
  cache(crl_of(crl_entry(device_serial), crl_number(6) + support::delta_crl_indicator(5)), issuer);
  EXPECT_EQ(no_answer, status_of(decide("/crl"))) << log_dump();
  EXPECT_EQ("", server.asked());
  EXPECT_EQ(1u, count_logged(4, delta_line())) << log_dump();
}
TEST_P(DecideRefused, UnknownCriticalExtension) {
  expect_refused(support::unknown_extension(true));
  EXPECT_TRUE(was_logged(
      4, std::string("Found unknown critical crl extension: ") + support::unknown_extension_oid));
}

TEST_P(DecideRefused, KnownExtensionsMayBeCritical) {
  expect_believed(crl_number(5, true));
  expect_believed(support::issuing_dist_point({.user_certs = true}, true));
  expect_believed(support::authority_key_id({.key_id = "k1"}, true));
  expect_believed(support::unknown_extension(false));
}

TEST_P(DecideRefused, NextPlaceIsAsked) {
  server.publish("/broken", crl_of("", crl_extension(idp_oid, "x", true)));
  server.publish("/sound", revoking_crl());
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide_at({{"/broken"}, {"/sound"}}))) << log_dump();
  EXPECT_EQ("/broken /sound ", server.asked());
}

TEST_P(DecideRefused, IndirectScopeThatCannotBeDecodedIsNoIndirectOne) {
  know(issue("authority", 20, authority_key, {crl_sign}));
  server.publish("/crl", crl_of(crl_entry(device_serial, support::certificate_issuer("issuer")),
                                crl_extension(idp_oid, "x", true), authority_key, "authority"));
  EXPECT_EQ(no_answer, status_of(decide_at({{"/crl", {}, "authority"}})));
  EXPECT_FALSE(is_cached("authority"));
}

// ---- cached lists ----

TEST_P(DecideRefused, CachedEntryThatCannotBeReadIsNoAnswer) {
  for (const std::string &extension :
       {support::unknown_extension(true), support::certificate_issuer("issuer", true),
        crl_extension("2.5.29.29", "x")}) {
    zv_cv_clear_crl_cache();
    cache(crl_of(crl_entry(device_serial, extension)), issuer);
    clear_log();
    EXPECT_EQ(no_answer, status_of(decide("/nothing"))) << log_dump();
    EXPECT_FALSE(was_logged(7, good_line));
  }
}

// ---- signers that vouch for each other ----

class DecideCircles : public decide_both_ways {
 protected:
  // A certificate whose status is in `crl_issuer`'s indirect CRL.
  support::cert listed_by(const std::string &cn, long serial, int owner, const std::string &path,
                          const std::string &crl_issuer) const {
    return issue(
        cn, serial, owner,
        {crl_sign, extension_der::crl_dp_of(encode_places(server, {{path, {}, crl_issuer}}))});
  }
  void publish_by(const std::string &cn, int owner, const std::string &path) {
    server.publish(path, crl_of("", support::issuing_dist_point({.indirect = true}), owner, cn));
  }
};
INSTANTIATE_TEST_SUITE_P(Decoded, DecideCircles, testing::Bool(), way_name);

TEST_P(DecideCircles, SignerOfItsOwnStatusIsNotBelieved) {
  publish_by("authority", authority_key, "/a");
  know(listed_by("authority", 20, authority_key, "/a", "authority"));
  EXPECT_EQ(no_answer, status_of(decide_at({{"/a", {}, "authority"}})));
  EXPECT_TRUE(was_logged(4, "crl signer's cert == cert we're trying to validate! => crl rejected"));
  EXPECT_TRUE(was_logged(4, "crl signer's cert (/CN=authority) was unknown => crl rejected"));
  EXPECT_FALSE(is_cached("authority"));
}

TEST_P(DecideCircles, TwoThatVouchForEachOtherAreNotBelieved) {
  publish_by("authority", authority_key, "/a");
  publish_by("deputy", stranger_key, "/b");
  know(listed_by("authority", 20, authority_key, "/b", "deputy"));
  know(listed_by("deputy", 21, stranger_key, "/a", "authority"));
  EXPECT_EQ(no_answer, status_of(decide_at({{"/a", {}, "authority"}})));
  EXPECT_TRUE(logged_containing(3, "Maximum recursion depth reached")) << log_dump();
  EXPECT_LE(server.requests(), 64u);
  EXPECT_FALSE(is_cached("authority"));
  EXPECT_FALSE(is_cached("deputy"));
}

}  // namespace
