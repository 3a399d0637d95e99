// What of a CRL signer's own certificate counts: its validity, that its extensions can be read, and
// its path.
#include "fakes/failures.h"
#include "unit/verifier/crl_cache/decide_support.h"
#include "unit/verifier/own_log.h"

using namespace decide_support;

namespace {

class DecideSignerCert : public decide_both_ways {
 protected:
  void TearDown() override {
    fake_failures::reset();
    decide_both_ways::TearDown();
  }

  static support::cert_options authority_options(const extensions &more = {crl_sign}) {
    support::cert_options options = valid_options("authority", 20, authority_key);
    options.issuer = support::common_name("issuer");
    options.signing_key = support::test_key(issuer_key);
    options.extensions = more;
    return options;
  }
  // "authority" revokes the device.
  record decide_authority() {
    server.publish("/crl", crl_of(crl_entry(device_serial, support::certificate_issuer("issuer")),
                                  support::issuing_dist_point({.indirect = true}), authority_key,
                                  "authority"));
    return decide_at({{"/crl", {}, "authority"}});
  }
  record decide_authority(const support::cert_options &options) {
    know(support::make_cert(options));
    return decide_authority();
  }
  // The signer is valid for these seconds around the clock's time.
  record decide_authority_valid(long from, long to) {
    support::cert_options options = authority_options();
    options.not_before = start + from;
    options.not_after = start + to;
    return decide_authority(options);
  }
  void expect_accepted(const record &info) const {
    EXPECT_EQ(PKI_CERT_REVOKED, status_of(info)) << log_dump();
    EXPECT_TRUE(was_logged(7, "crl signer's cert (/CN=authority) is ok"));
    EXPECT_FALSE(was_logged(4, outside));
    EXPECT_FALSE(was_logged(6, nobody_trusted));
  }
  void expect_rejected(const record &info, const std::string &line) const {
    EXPECT_EQ(no_answer, status_of(info)) << log_dump();
    EXPECT_EQ(1u, count_logged(4, line)) << log_dump();
    EXPECT_TRUE(was_logged(6, nobody_trusted));
    EXPECT_FALSE(was_logged(7, revoked_line));
    EXPECT_FALSE(is_cached("authority"));
  }
  static constexpr char outside[] =
      "crl signer's cert (/CN=authority) is outside its validity period => crl rejected";
  static constexpr char no_usage[] =
      "crl signer (/CN=authority) does not have crl-sign on in ku => crl rejected";
};
INSTANTIATE_TEST_SUITE_P(Decoded, DecideSignerCert, testing::Bool(), way_name);

// ---- the validity period ----

TEST_P(DecideSignerCert, ExpiredDelegateIsRejected) {
  expect_rejected(decide_authority_valid(-86400, -3600), outside);
  // Nobody asks for the status of one that may not sign.
  EXPECT_FALSE(was_logged(7, "Checking status for cert '/CN=authority'"));
}

TEST_P(DecideSignerCert, DelegateThatIsNotYetValidIsRejected) {
  expect_rejected(decide_authority_valid(3600, 86400), outside);
  EXPECT_FALSE(was_logged(7, "Checking status for cert '/CN=authority'"));
}

TEST_P(DecideSignerCert, DelegatesValidityIsItsOwn) {
  know(support::make_cert(authority_options()));
  device = [] {
    support::cert_options options = valid_options("device", device_serial, device_key);
    options.issuer = support::common_name("issuer");
    options.signing_key = support::test_key(issuer_key);
    options.not_after = start - 3600;
    return support::make_cert(options);
  }();
  expect_accepted(decide_authority());
}

// ---- extensions that cannot be read ----

const extensions unreadable_extensions[] = {
    {extension_der::raw("basicConstraints", "x", true)},
    {extension_der::raw("basicConstraints", "x"), crl_sign},
    {extension_der::raw("keyUsage", "x")},
};

TEST_P(DecideSignerCert, SignerWhoseExtensionsCannotBeReadIsRejected) {
  for (const extensions &each : unreadable_extensions) {
    support::empty_store();
    clear_log();
    expect_rejected(decide_authority(authority_options(each)), no_usage);
    EXPECT_EQ(0u, ERR_peek_error());
  }
}

TEST_P(DecideSignerCert, ConfigurationDoesNotMakeUpForExtensionsThatCannotBeRead) {
  for (const extensions &each : unreadable_extensions) {
    clear_log();
    expect_rejected(decide_by(support::make_cert(authority_options(each)),
                              crl_of(crl_entry(device_serial), "", authority_key, "authority")),
                    no_usage);
  }
}

// ---- a path of the signer's own ----

class DecideSignerRefused : public DecideSignerCert {
 protected:
  static constexpr char could_not[] = "crl signer's cert (/CN=authority) could not be verified: ";
  // "authority" is issued by "root", whose key is that one.
  static support::cert_options issued_by_root(int key) {
    support::cert_options options = authority_options();
    options.issuer = support::common_name("root");
    options.signing_key = support::test_key(key);
    return options;
  }
  void SetUp() override {
    DecideSignerCert::SetUp();
    trust = std::make_shared<trust_context>(certs{issuer, make_issuer("root", stranger_key, 40)});
  }
};
INSTANTIATE_TEST_SUITE_P(Decoded, DecideSignerRefused, testing::Bool(), way_name);

TEST_P(DecideSignerRefused, ReasonsOfOpenSslAreWarnings) {
  expect_rejected(
      decide_authority(issued_by_root(device_key)),
      std::string(could_not) + X509_verify_cert_error_string(X509_V_ERR_CERT_SIGNATURE_FAILURE));
  EXPECT_GT(openssl_lines(4), 0u) << log_dump();
  EXPECT_EQ(0u, openssl_lines(3)) << log_dump();
  EXPECT_EQ(0u, ERR_peek_error());
}

TEST_P(DecideSignerRefused, ReasonsOfOpenSslStandBehindTheLine) {
  decide_authority(issued_by_root(device_key));
  size_t said = 0, first_reason = 0;
  const std::vector<log_entry> log = captured_log();
  for (size_t i = log.size(); i-- > 0;) {
    if (log[i].text.rfind(could_not, 0) == 0)
      said = i;
    if (log[i].text.rfind("OpenSSL error: ", 0) == 0)
      first_reason = i;
  }
  EXPECT_GT(said, 0u);
  EXPECT_EQ(said + 1, first_reason) << log_dump();
}

TEST_P(DecideSignerRefused, RefusalWithoutAnErrorIsRevokedOrUnknown) {
  know(support::make_cert(issued_by_root(stranger_key)));
  fake_failures::refuse_verify_cert();
  expect_rejected(decide_authority(), "crl signer's cert (/CN=authority) is revoked or is unknown");
  EXPECT_FALSE(logged_containing(4, could_not));
}

TEST_P(DecideSignerRefused, SoundPathIsAccepted) {
  expect_accepted(decide_authority(issued_by_root(stranger_key)));
}

}  // namespace
