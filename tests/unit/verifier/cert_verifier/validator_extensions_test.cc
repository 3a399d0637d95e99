// Critical extensions that the verify callbacks know, and those that they refuse.
#include <algorithm>

#include "../extension_der.h"
#include "validator_support.h"

using namespace validator_support;

namespace {

class ValidatorExtensions : public chain_test {
 protected:
  // OpenSSL's own list of critical extensions would decide first.
  verdict verify_leaf(const extensions &more, callback verify_cb) const {
    verification what = chain_of(inter_, make_leaf(more));
    what.flags = X509_V_FLAG_IGNORE_CRITICAL;
    return verify(what, verify_cb);
  }
  static std::string refusal(const std::string &extension, const std::string &subject = "leaf") {
    return "4 Found unknown/unsupported critical extension '" + extension +
           "' in cert '/CN=" + subject + "'";
  }
};

struct known {
  const char *name;
  const char *value;
};

class ValidatorKnownExtensions : public ValidatorExtensions,
                                 public testing::WithParamInterface<known> {};

TEST_P(ValidatorKnownExtensions, ArePassedWhenCritical) {
  for (const named_callback &each : all_callbacks) {
    clear_log();
    // Sources of status that cannot be reached are not what this is about.
    zv_cv_disable_crl_check(1);
    verdict result = verify_leaf({{GetParam().name, GetParam().value}}, each.call);
    EXPECT_EQ(1, result.accepted) << each.name << " " << result.error;
    EXPECT_EQ(lines{}, complaints()) << each.name;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Names, ValidatorKnownExtensions,
    testing::Values(known{"subjectKeyIdentifier", "critical,01:02"},
                    known{"keyUsage", "critical,digitalSignature"},
                    known{"subjectAltName", "critical,DNS:device.example"},
                    known{"issuerAltName", "critical,DNS:ca.example"},
                    known{"basicConstraints", "critical,CA:FALSE"},
                    known{"authorityKeyIdentifier", "critical,DER:30:00"},
                    known{"crlDistributionPoints", "critical,URI:http://crl.example/"},
                    known{"extendedKeyUsage", "critical,serverAuth"},
                    known{"authorityInfoAccess", "critical,OCSP;URI:http://127.0.0.1:1/"}));

TEST_F(ValidatorExtensions, AllKnownOnesTogetherArePassed) {
  zv_cv_disable_crl_check(1);
  EXPECT_EQ(1, verify_leaf({{"subjectKeyIdentifier", "critical,01"},
                            {"keyUsage", "critical,digitalSignature"},
                            {"subjectAltName", "critical,DNS:a.example"},
                            {"issuerAltName", "critical,DNS:b.example"},
                            {"basicConstraints", "critical,CA:FALSE"},
                            {"authorityKeyIdentifier", "critical,DER:30:00"},
                            {"crlDistributionPoints", "critical,URI:http://c.example/"},
                            {"extendedKeyUsage", "critical,clientAuth"},
                            {"authorityInfoAccess", "critical,OCSP;URI:http://127.0.0.1:1/"}},
                           internet)
                   .accepted);
}

struct refused {
  const char *name;
  const char *value;
  const char *text;
};

class ValidatorRefusedExtensions : public ValidatorExtensions,
                                   public testing::WithParamInterface<refused> {};

TEST_P(ValidatorRefusedExtensions, AreRefusedWhenCritical) {
  auto [name, value, text] = GetParam();
  for (const named_callback &each : all_callbacks) {
    clear_log();
    verdict result = verify_leaf({{name, std::string("critical,") + value}}, each.call);
    EXPECT_EQ(0, result.accepted) << each.name;
    // OpenSSL's own word for a callback that rejects without an error.
    EXPECT_EQ(X509_V_ERR_UNSPECIFIED, result.error) << each.name;
    EXPECT_EQ(lines{refusal(text)}, complaints()) << each.name;
  }
}

TEST_P(ValidatorRefusedExtensions, ArePassedWhenNotCritical) {
  auto [name, value, text] = GetParam();
  EXPECT_EQ(1, verify_leaf({{name, value}}, internet).accepted) << log_dump();
}

TEST_P(ValidatorRefusedExtensions, ArePassedAtTheTop) {
  auto [name, value, text] = GetParam();
  verification what = {.leaf = leaf_,
                       .untrusted = {inter_},
                       .trusted = {make_root({{name, std::string("critical,") + value}})},
                       .flags = X509_V_FLAG_IGNORE_CRITICAL};
  EXPECT_TRUE(accepts(what, internet)) << log_dump();
}

TEST_P(ValidatorRefusedExtensions, AreRefusedInAnIntermediate) {
  auto [name, value, text] = GetParam();
  verification what = chain_of(make_inter({{name, std::string("critical,") + value}}), leaf_);
  what.flags = X509_V_FLAG_IGNORE_CRITICAL;
  EXPECT_FALSE(accepts(what, local));
  EXPECT_EQ(lines{refusal(text, "inter")}, complaints());
}

INSTANTIATE_TEST_SUITE_P(
    Names, ValidatorRefusedExtensions,
    testing::Values(
        refused{"certificatePolicies", policies, "X509v3 Certificate Policies"},
        refused{"nameConstraints", "permitted;otherName:1.2.3.4;UTF8:x", "X509v3 Name Constraints"},
        refused{"policyConstraints", "requireExplicitPolicy:5", "X509v3 Policy Constraints"},
        refused{"inhibitAnyPolicy", "5", "X509v3 Inhibit Any Policy"},
        refused{"freshestCRL", "URI:http://delta.example/", "X509v3 Freshest CRL"},
        refused{"tlsfeature", "status_request", "TLS Feature"},
        refused{"subjectInfoAccess", "caRepository;URI:http://a/", "Subject Information Access"},
        refused{"nsComment", "hello", "Netscape Comment"},
        refused{"1.2.3.4", "DER:05:00", "1.2.3.4"}));

TEST_F(ValidatorExtensions, CertificatePoliciesAreRefusedInAnOrdinaryVerification) {
  cert leaf = make_leaf({{"certificatePolicies", critical_policies}});
  for (const named_callback &each : all_callbacks) {
    clear_log();
    verdict result = verify(chain_of(inter_, leaf), each.call);
    EXPECT_EQ(0, result.accepted) << each.name;
    EXPECT_EQ(0, result.error_depth) << each.name;
    EXPECT_EQ(lines{refusal("X509v3 Certificate Policies")}, complaints()) << each.name;
  }
}

TEST_F(ValidatorExtensions, UnknownOneIsRefusedByOpenSslFirst) {
  verdict result =
      verify(chain_of(inter_, make_leaf({{"1.2.3.4", "critical,DER:05:00"}})), internet);
  EXPECT_EQ(0, result.accepted);
  EXPECT_EQ(X509_V_ERR_UNHANDLED_CRITICAL_EXTENSION, result.error);
}

TEST_F(ValidatorExtensions, FirstUnsupportedOneIsReported) {
  EXPECT_EQ(0, verify_leaf({{"keyUsage", "critical,digitalSignature"},
                            {"certificatePolicies", policies},
                            {"1.2.3.5", "critical,DER:05:00"},
                            {"1.2.3.6", "critical,DER:05:00"}},
                           local)
                   .accepted);
  EXPECT_EQ(lines{refusal("1.2.3.5")}, complaints());
}

TEST_F(ValidatorExtensions, LongIdentifierIsCutToFiftyCharacters) {
  std::string oid = "1.2.3.4";
  for (int i = 0; i < 60; i++)
    oid += "." + std::to_string(100000 + i);
  EXPECT_EQ(0, verify_leaf({{oid, "critical,DER:05:00"}}, local).accepted);
  lines found = complaints();
  ASSERT_EQ(1U, found.size());
  const std::string start = "4 Found unknown/unsupported critical extension '";
  ASSERT_EQ(0U, found[0].find(start));
  std::string text =
      found[0].substr(start.size(), found[0].find('\'', start.size()) - start.size());
  EXPECT_GE(text.size(), 49U);
  EXPECT_LE(text.size(), 50U);
  EXPECT_EQ(oid.substr(0, text.size()), text);
}

// ---- extensions that cannot be read ----

TEST_F(ValidatorExtensions, UnreadableOnesAreRejectedWhereverTheCertificateStands) {
  for (const char *name :
       {"basicConstraints", "keyUsage", "extendedKeyUsage", "subjectKeyIdentifier",
        "authorityKeyIdentifier", "subjectAltName", "crlDistributionPoints"}) {
    cert bad = make_bare_inter({extension_der::raw(name, "x")});
    for (int depth = 0; depth <= 2; depth++) {
      certs chain = {leaf_, inter_, root_};
      chain[static_cast<size_t>(depth)] = bad;
      for (const named_callback &each : all_callbacks) {
        clear_log();
        context ctx = prepare(chain, depth);
        EXPECT_EQ(0, each.call(1, ctx.get())) << each.name << " " << name << " " << depth;
        EXPECT_EQ(lines{"4 The extensions of cert '/CN=inter' cannot be read - rejecting it"},
                  complaints())
            << each.name << " " << name << " " << depth;
        EXPECT_EQ(std::vector<long>{}, collected());
      }
    }
  }
}

TEST_F(ValidatorExtensions, UnreadableOnesAreLookedAtBeforeAllOtherRules) {
  cert bad = make_bare_inter({extension_der::raw("basicConstraints", "x"),
                              {"keyUsage", "digitalSignature"},
                              {"certificatePolicies", critical_policies}});
  context ctx = prepare({leaf_, leaf_, leaf_, bad, root_}, 3);
  EXPECT_EQ(0, local(1, ctx.get()));
  EXPECT_EQ(lines{"4 The extensions of cert '/CN=inter' cannot be read - rejecting it"},
            complaints());
}

TEST_F(ValidatorExtensions, ThousandsOfHarmlessOnesAreSearched) {
  extensions many;
  for (int i = 0; i < 2000; i++)
    many.emplace_back("1.2.3." + std::to_string(i), "DER:05:00");
  EXPECT_EQ(1, verify_leaf(many, internet).accepted);
  many.emplace_back("1.2.4.1", "critical,DER:05:00");
  EXPECT_EQ(0, verify_leaf(many, internet).accepted);
  EXPECT_EQ(lines{refusal("1.2.4.1")}, complaints());
}

}  // namespace
