// Chains of unusual shapes: a verdict for each, and no crash.
#include "validator_support.h"

using namespace validator_support;

namespace {

class ValidatorShapes : public validator_test {
 protected:
  // CN=`subject` with test_key(key) by CN=`issuer`, a CA.
  static cert ca(const std::string &subject, const std::string &issuer, int key, int issuer_key,
                 long serial) {
    return make({.subject = subject,
                 .issuer = issuer,
                 .key = key,
                 .issuer_key = issuer_key,
                 .serial = serial,
                 .ca = true});
  }
  // A root and `length` - 2 intermediates below it, all with one key; then the end entity.
  static verification line_of(int length, const extensions &lowest_more = {}) {
    verification what;
    what.trusted = {ca("ca 0", "ca 0", 0, 0, 1)};
    for (int i = 1; i < length - 1; i++)
      what.untrusted.push_back(make({.subject = "ca " + std::to_string(i),
                                     .issuer = "ca " + std::to_string(i - 1),
                                     .serial = i + 1,
                                     .ca = true,
                                     .more = i == length - 2 ? lowest_more : extensions{}}));
    what.leaf = make({.subject = "leaf",
                      .issuer = "ca " + std::to_string(length - 2),
                      .key = 2,
                      .serial = 1000});
    what.max_depth = 200;
    return what;
  }
};

TEST_F(ValidatorShapes, OneTrustedSelfSignedCertificate) {
  cert root = make_root();
  for (const named_callback &each : all_callbacks)
    EXPECT_TRUE(accepts({.leaf = root, .trusted = {root}}, each.call)) << each.name;
}

TEST_F(ValidatorShapes, OneUnknownCertificate) {
  for (const named_callback &each : all_callbacks) {
    EXPECT_FALSE(accepts({.leaf = make_root()}, each.call)) << each.name;
    EXPECT_FALSE(accepts({.leaf = make_leaf()}, each.call)) << each.name;
  }
}

TEST_F(ValidatorShapes, OneCertificateThatIsOnlyItsOwnIssuerByName) {
  cert odd = make({.subject = "odd", .issuer = "odd", .key = 0, .issuer_key = 1, .ca = true});
  for (const named_callback &each : all_callbacks)
    EXPECT_FALSE(accepts({.leaf = odd}, each.call)) << each.name;
}

TEST_F(ValidatorShapes, TwoThatIssueEachOther) {
  cert a = ca("a", "b", 0, 1, 1), b = ca("b", "a", 1, 0, 2);
  cert leaf = make({.subject = "leaf", .issuer = "a", .key = 2, .issuer_key = 0, .serial = 3});
  for (const named_callback &each : all_callbacks) {
    EXPECT_FALSE(accepts({.leaf = leaf, .untrusted = {a, b}}, each.call)) << each.name;
    EXPECT_FALSE(accepts({.leaf = a, .untrusted = {b, a}}, each.call)) << each.name;
  }
}

TEST_F(ValidatorShapes, LoopOfTenWithATrustedOne) {
  certs loop;
  for (int i = 0; i < 10; i++)
    loop.push_back(
        ca("ca " + std::to_string(i), "ca " + std::to_string((i + 1) % 10), 0, 0, i + 1));
  cert leaf = make({.subject = "leaf", .issuer = "ca 0", .key = 2, .issuer_key = 0, .serial = 99});
  for (const named_callback &each : all_callbacks) {
    EXPECT_FALSE(accepts({.leaf = leaf, .untrusted = loop}, each.call)) << each.name;
    // The chain ends at the certificate that is trusted.
    EXPECT_TRUE(accepts({.leaf = leaf, .untrusted = loop, .trusted = {loop[4]}}, each.call))
        << each.name;
    // All of them trusted: some verdict.
    int accepted = verify({.leaf = leaf, .trusted = loop}, each.call).accepted;
    EXPECT_TRUE(accepted == 0 || accepted == 1) << each.name;
  }
}

TEST_F(ValidatorShapes, ChainOfOneHundred) {
  verification what = line_of(100);
  for (const named_callback &each : all_callbacks) {
    verdict result = verify(what, each.call);
    EXPECT_EQ(1, result.accepted) << each.name << " " << result.error;
    EXPECT_EQ(100U, result.chain.size()) << each.name;
  }
  EXPECT_EQ(99U, collected().size());
}

TEST_F(ValidatorShapes, ChainOfOneHundredWithAllStatusesAsked) {
  verification what = line_of(100);
  add_always_ok();
  EXPECT_TRUE(accepts(what, internet));
  EXPECT_EQ(99U, [] {
    size_t count = 0;
    for (const log_entry &entry : captured_log())
      count += entry.level == 7 && entry.text.starts_with("Checking status for cert");
    return count;
  }());
}

TEST_F(ValidatorShapes, ChainOfOneHundredWithOneBadCertificate) {
  EXPECT_FALSE(accepts(line_of(100, {{"certificatePolicies", critical_policies}}), local));
  EXPECT_EQ(lines{"4 Found unknown/unsupported critical extension 'X509v3 Certificate Policies' "
                  "in cert '/CN=ca 98'"},
            complaints());
  verification what = line_of(100);
  cache_status(what.untrusted[50], PKI_CERT_REVOKED);
  verdict result = verify(what, internet);
  EXPECT_EQ(0, result.accepted);
  EXPECT_EQ(X509_V_ERR_CERT_REVOKED, result.error);
}

TEST_F(ValidatorShapes, ChainDeeperThanTheHostAllows) {
  verification what = line_of(30);
  what.max_depth = 10;
  for (const named_callback &each : all_callbacks)
    EXPECT_FALSE(accepts(what, each.call)) << each.name;
}

TEST_F(ValidatorShapes, SubjectThatIsEmptyOrLong) {
  for (const std::string &text : {std::string(), std::string(60, 'n'), std::string("%s%n'\n")}) {
    support::cert_options options;
    options.subject = text.empty() ? support::make_name({})
                                   : support::make_name({{"CN", text}, {"O", text}, {"OU", text}});
    options.issuer = support::common_name("root");
    options.public_key = support::test_key(2);
    options.signing_key = support::test_key(0);
    options.extensions = {{"certificatePolicies", critical_policies}};
    cert leaf = support::make_cert(options);
    clear_log();
    EXPECT_FALSE(accepts({.leaf = leaf, .trusted = {make_root()}}, internet));
    EXPECT_TRUE(logged_containing(4, "X509v3 Certificate Policies' in cert '")) << log_dump();
  }
}

}  // namespace
