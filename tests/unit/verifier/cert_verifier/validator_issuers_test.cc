// What the verify callbacks ask of certificates above the end entity.
#include "validator_support.h"

using namespace validator_support;

namespace {

const std::string no_crl_sign(const std::string &subject) {
  return "4 Certificate '/CN=" + subject +
         "' is an issuer but the crl-signing key-usage bit is not set - rejecting it";
}
const std::string no_constraints =
    "4 Certificate '/CN=inter' is an issuer but doesn't have any basic-constraints - rejecting it";
const std::string no_ca_flag =
    "4 Certificate '/CN=inter' is an issuer but the basic-constraints' ca-flag is not asserted - "
    "rejecting it";

const std::pair<std::string, std::string> ca = {"basicConstraints", "critical,CA:TRUE"};

class ValidatorIssuers : public chain_test {
 protected:
  // What the callback says about an intermediate that OpenSSL itself would refuse.
  int judge(const cert &inter, callback verify_cb) {
    clear_log();
    context ctx = prepare({leaf_, inter, root_}, 1);
    return verify_cb(1, ctx.get());
  }
};

TEST_F(ValidatorIssuers, KeyUsageWithoutCrlSignIsRejected) {
  cert inter = make_bare_inter({ca, {"keyUsage", "critical,keyCertSign"}});
  for (const named_callback &each : all_callbacks) {
    clear_log();
    verdict result = verify(chain_of(inter, leaf_), each.call);
    EXPECT_EQ(0, result.accepted) << each.name;
    EXPECT_EQ(1, result.error_depth) << each.name;
    EXPECT_EQ(lines{no_crl_sign("inter")}, complaints()) << each.name;
  }
}

TEST_F(ValidatorIssuers, KeyUsageNeedNotBeThere) {
  for (const named_callback &each : all_callbacks)
    EXPECT_TRUE(accepts(chain_of(make_bare_inter({ca}), leaf_), each.call)) << each.name;
}

TEST_F(ValidatorIssuers, BothBitsAreEnough) {
  cert inter = make_bare_inter({ca, {"keyUsage", "keyCertSign,cRLSign"}});
  EXPECT_TRUE(accepts(chain_of(inter, leaf_), internet));
}

TEST_F(ValidatorIssuers, CertSignIsNotAskedForHere) {
  cert inter = make_bare_inter({ca, {"keyUsage", "critical,cRLSign"}});
  EXPECT_EQ(1, judge(inter, local));
  EXPECT_EQ(1, judge(inter, internet));
}

TEST_F(ValidatorIssuers, CertSignIsAskedForByOpenSsl) {
  cert inter = make_bare_inter({ca, {"keyUsage", "critical,cRLSign"}});
  EXPECT_FALSE(accepts(chain_of(inter, leaf_), local));
}

TEST_F(ValidatorIssuers, EmptyKeyUsageIsWithoutCrlSign) {
  EXPECT_EQ(0, judge(make_bare_inter({ca, {"keyUsage", "critical,DER:03:01:00"}}), local));
}

TEST_F(ValidatorIssuers, VersionOneWithoutBasicConstraintsIsAccepted) {
  cert inter = make_bare_inter({}, 0);
  for (const named_callback &each : all_callbacks) {
    EXPECT_EQ(1, judge(inter, each.call)) << each.name << log_dump();
    EXPECT_EQ(lines{}, complaints()) << each.name;
  }
}

TEST_F(ValidatorIssuers, VersionThreeWithoutBasicConstraintsIsRejected) {
  for (const extensions &only : {extensions{}, extensions{{"keyUsage", "keyCertSign,cRLSign"}}}) {
    cert inter = make_bare_inter(only);
    for (const named_callback &each : all_callbacks) {
      EXPECT_EQ(0, judge(inter, each.call)) << each.name;
      EXPECT_EQ(lines{no_constraints}, complaints()) << each.name;
    }
  }
}

TEST_F(ValidatorIssuers, VersionTwoWithoutBasicConstraintsIsRejected) {
  EXPECT_EQ(0, judge(make_bare_inter({}, 1), local));
  EXPECT_EQ(lines{no_constraints}, complaints());
}

TEST_F(ValidatorIssuers, BasicConstraintsWithoutCaFlagAreRejected) {
  for (const char *value : {"CA:FALSE", "critical,CA:FALSE"}) {
    cert inter = make_bare_inter({{"basicConstraints", value}});
    for (const named_callback &each : all_callbacks) {
      EXPECT_EQ(0, judge(inter, each.call)) << each.name;
      EXPECT_EQ(lines{no_ca_flag}, complaints()) << each.name;
    }
  }
}

TEST_F(ValidatorIssuers, KeyUsageIsLookedAtFirst) {
  for (const extensions &more : {extensions{}, extensions{{"basicConstraints", "CA:FALSE"}}}) {
    extensions all = more;
    all.emplace_back("keyUsage", "digitalSignature");
    EXPECT_EQ(0, judge(make_bare_inter(all), local));
    EXPECT_EQ(lines{no_crl_sign("inter")}, complaints());
  }
}

TEST_F(ValidatorIssuers, CriticalExtensionsAreLookedAtBefore) {
  EXPECT_EQ(0, judge(make_bare_inter({{"keyUsage", "digitalSignature"},
                                      {"certificatePolicies", critical_policies}}),
                     local));
  EXPECT_EQ(lines{"4 Found unknown/unsupported critical extension 'X509v3 Certificate Policies' "
                  "in cert '/CN=inter'"},
            complaints());
}

TEST_F(ValidatorIssuers, OpenSslRefusesThemByItself) {
  for (const cert &inter : {make_bare_inter({}, 0), make_bare_inter({}),
                            make_bare_inter({{"basicConstraints", "CA:FALSE"}})}) {
    verdict result = verify(chain_of(inter, leaf_), local);
    EXPECT_EQ(0, result.accepted);
    EXPECT_EQ(X509_V_ERR_INVALID_CA, result.error);
  }
}

TEST_F(ValidatorIssuers, EndEntityIsNoIssuer) {
  for (const extensions &more :
       {extensions{}, extensions{{"keyUsage", "digitalSignature"}},
        extensions{{"basicConstraints", "CA:FALSE"}}, extensions{{"keyUsage", "keyCertSign"}}}) {
    EXPECT_TRUE(accepts(chain_of(inter_, make_leaf(more)), internet)) << log_dump();
  }
}

TEST_F(ValidatorIssuers, TopIsNotAskedForCrlSign) {
  support::cert_options options;
  options.subject = support::common_name("root");
  options.public_key = support::test_key(0);
  options.extensions = {ca, {"keyUsage", "critical,keyCertSign"}};
  cert root = support::make_cert(options);
  EXPECT_TRUE(accepts({.leaf = leaf_, .untrusted = {inter_}, .trusted = {root}}, internet));
}

TEST_F(ValidatorIssuers, TrustedIntermediateBelowTheTopIsAskedToo) {
  cert inter = make_bare_inter({ca, {"keyUsage", "critical,keyCertSign"}});
  EXPECT_FALSE(accepts({.leaf = leaf_, .trusted = {root_, inter}}, local));
}

TEST_F(ValidatorIssuers, EachIntermediateIsAsked) {
  cert low = make({.subject = "low",
                   .issuer = "inter",
                   .key = 3,
                   .issuer_key = 1,
                   .serial = 4,
                   .more = {ca, {"keyUsage", "keyCertSign"}}});
  cert leaf = make({.subject = "leaf", .issuer = "low", .key = 2, .issuer_key = 3, .serial = 5});
  verification what = {.leaf = leaf, .untrusted = {inter_, low}, .trusted = {root_}};
  EXPECT_FALSE(accepts(what, local));
  EXPECT_EQ(lines{no_crl_sign("low")}, complaints());
}

}  // namespace
