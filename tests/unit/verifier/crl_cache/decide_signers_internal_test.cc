// Whose CRLs are believed.
#include "unit/verifier/crl_cache/decide_support.h"

using namespace decide_support;

namespace {

class DecideSigners : public decide_both_ways {
 protected:
  // A CRL of "authority" that lists the device.
  static crl_fields authority_crl(int owner = authority_key) {
    return crl_of(crl_entry(device_serial, support::certificate_issuer("issuer")),
                  support::issuing_dist_point({.indirect = true}), owner, "authority");
  }
  record decide_authority(int owner = authority_key) {
    server.publish("/crl", authority_crl(owner));
    return decide_at({{"/crl", {}, "authority"}});
  }
  // Its signer is not accepted: no answer, nothing kept.
  void expect_rejected(const record &info) const {
    EXPECT_EQ(no_answer, status_of(info)) << log_dump();
    EXPECT_TRUE(was_logged(6, nobody_trusted)) << log_dump();
    EXPECT_FALSE(was_logged(7, revoked_line));
    EXPECT_TRUE(was_logged(7, unknown_line("1ff")));
    EXPECT_FALSE(is_cached("authority"));
    EXPECT_FALSE(is_cached("issuer"));
  }
  // The issuer's delegate with that validity.
  static support::cert valid(time_t not_before, time_t not_after) {
    support::cert_options options = valid_options("authority", 20, authority_key);
    options.issuer = support::common_name("issuer");
    options.signing_key = support::test_key(issuer_key);
    options.extensions = {crl_sign};
    options.not_before = not_before;
    options.not_after = not_after;
    return support::make_cert(options);
  }
  // Earlier CRLs, statuses and signers.
  void forget() {
    support::empty_store();
    zv_cv_clear_crl_cache();
    zv_cv_clear_cert_sts_info_cache();
    clear_log();
    know(issuer);
  }
  static constexpr char authority_ok[] = "crl signer's cert (/CN=authority) is ok";
  static std::string could_not(int error) {
    return std::string("crl signer's cert (/CN=authority) could not be verified: ") +
           X509_verify_cert_error_string(error);
  }

  support::cert authority = issue("authority", 20, authority_key, {crl_sign});
};
INSTANTIATE_TEST_SUITE_P(Decoded, DecideSigners, testing::Bool(), way_name);

// ---- key usage ----

TEST_P(DecideSigners, KeyUsageWithoutCrlSignIsRejected) {
  support::cert_options options = valid_options("issuer", 1, issuer_key);
  options.extensions = {{"basicConstraints", "critical,CA:TRUE"}, no_crl_sign};
  support::empty_store();
  issuer = support::make_cert(options);
  know(issuer);
  trust = std::make_shared<trust_context>(certs{issuer});
  expect_rejected(decide(revoking_crl()));
  EXPECT_TRUE(
      was_logged(4, "crl signer (/CN=issuer) does not have crl-sign on in ku => crl rejected"));
}

TEST_P(DecideSigners, NoKeyUsageIsNoReason) {
  support::cert_options options = valid_options("issuer", 1, issuer_key);
  options.extensions = {{"basicConstraints", "critical,CA:TRUE"}};
  support::empty_store();
  issuer = support::make_cert(options);
  know(issuer);
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide(revoking_crl()))) << log_dump();
}

TEST_P(DecideSigners, KeyUsageComesBeforeTheConfiguration) {
  support::cert signer = issue("authority", 21, authority_key, {no_crl_sign});
  expect_rejected(
      decide_by(signer, crl_of(crl_entry(device_serial), "", authority_key, "authority")));
  EXPECT_TRUE(
      was_logged(4, "crl signer (/CN=authority) does not have crl-sign on in ku => crl rejected"));
}

TEST_P(DecideSigners, NextSignerIsTried) {
  support::empty_store();
  know(issue("issuer", 22, issuer_key, {no_crl_sign}));
  know(issuer);
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide(revoking_crl()))) << log_dump();
  EXPECT_TRUE(
      was_logged(4, "crl signer (/CN=issuer) does not have crl-sign on in ku => crl rejected"));
  EXPECT_TRUE(was_logged(7, "crl signer == cert issuer => crl ok"));
  EXPECT_FALSE(was_logged(6, nobody_trusted));
}

// ---- configured signers ----

constexpr char configured_ok[] = "crl signer == locally configured signer cert => crl ok";

TEST_P(DecideSigners, ConfiguredSignerOfAnotherNameIsBelieved) {
  support::cert stranger = make_issuer("authority", authority_key, 30);
  know(stranger);
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide_by(stranger, crl_of(crl_entry(device_serial), "",
                                                                   authority_key, "authority"))))
      << log_dump();
  EXPECT_TRUE(was_logged(7, configured_ok));
}

TEST_P(DecideSigners, ConfiguredSignerIsBelievedAlsoWhenTheStoreDoesNotHoldIt) {
  support::cert stranger = make_issuer("authority", authority_key, 30);
  record info = decide_by(stranger, crl_of(crl_entry(9), "", authority_key, "authority"));
  EXPECT_EQ(PKI_CERT_OK, status_of(info)) << log_dump();
  EXPECT_TRUE(was_logged(7, configured_ok));
  EXPECT_FALSE(is_cached("authority"));
}

TEST_P(DecideSigners, ConfiguredSignerMayHaveTheIssuersName) {
  support::cert successor = make_issuer("issuer", stranger_key, 31);
  EXPECT_EQ(PKI_CERT_REVOKED,
            status_of(decide_by(successor, crl_of(crl_entry(device_serial), "", stranger_key))))
      << log_dump();
  EXPECT_TRUE(was_logged(7, configured_ok));
}

TEST_P(DecideSigners, ConfiguredSignerStandsBehindTheStoresCertificates) {
  support::cert configured = make_issuer("authority", authority_key, 30);
  know(make_issuer("authority", authority_key, 32));
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide_by(configured, crl_of(crl_entry(device_serial), "",
                                                                     authority_key, "authority"))))
      << log_dump();
  EXPECT_TRUE(was_logged(7,
                         "the crl signer locally configured, but signer cert (/CN=authority) "
                         "doesn't match it => crl rejected"));
  EXPECT_TRUE(was_logged(7, configured_ok));
}

TEST_P(DecideSigners, IssuerIsNotBelievedInsteadOfTheConfiguredSigner) {
  support::cert configured = make_issuer("issuer", stranger_key, 30);
  expect_rejected(decide_by(configured, revoking_crl()));
  EXPECT_TRUE(was_logged(7,
                         "the crl signer locally configured, but signer cert (/CN=issuer) doesn't "
                         "match it => crl rejected"));
}

TEST_P(DecideSigners, ConfiguredSignerOfAnotherKeyVerifiesNothing) {
  support::cert configured = make_issuer("authority", stranger_key, 30);
  EXPECT_EQ(no_answer, status_of(decide_by(configured, crl_of(crl_entry(device_serial), "",
                                                              authority_key, "authority"))));
  EXPECT_FALSE(is_cached("authority"));
}

// ---- the issuer, and the certificate itself ----

TEST_P(DecideSigners, UntrustedIssuerNeedsAPathOfItsOwn) {
  issuer_trusted = 0;
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide(revoking_crl()))) << log_dump();
  EXPECT_FALSE(was_logged(7, "crl signer == cert issuer => crl ok"));
  EXPECT_TRUE(was_logged(7, "crl signer's cert (/CN=issuer) is ok"));
}

TEST_P(DecideSigners, UntrustedIssuerWithoutPathIsRejected) {
  issuer_trusted = 0;
  trust = std::make_shared<trust_context>(certs{});
  expect_rejected(decide(revoking_crl()));
  EXPECT_TRUE(logged_containing(4, "crl signer's cert (/CN=issuer) could not be verified: "));
}

TEST_P(DecideSigners, CertificateDoesNotSpeakForItself) {
  for (unsigned char trusted : {1, 0}) {
    clear_log();
    issuer_trusted = trusted;
    device = issue("issuer", device_serial, device_key);
    know(device);
    EXPECT_EQ(no_answer, status_of(decide(crl_of("", "", device_key))));
    EXPECT_TRUE(
        was_logged(4, "crl signer's cert == cert we're trying to validate! => crl rejected"));
    EXPECT_TRUE(was_logged(6, nobody_trusted));
    EXPECT_FALSE(is_cached());
  }
}

// ---- delegated by the issuer ----

TEST_P(DecideSigners, DelegatedSignerWithoutSourcesIsBelieved) {
  know(authority);
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide_authority())) << log_dump();
  EXPECT_TRUE(was_logged(7, authority_ok));
  EXPECT_TRUE(was_logged(7, "Checking status for cert '/CN=authority'"));
}

TEST_P(DecideSigners, DelegatedSignerNeedsNoTrustContext) {
  know(authority);
  trust = nullptr;
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide_authority())) << log_dump();
}

TEST_P(DecideSigners, DelegatedSignerThatIsRevokedIsRejected) {
  know(authority);
  set_status(authority, PKI_CERT_REVOKED);
  expect_rejected(decide_authority());
  EXPECT_TRUE(was_logged(4, "crl signer's cert (/CN=authority) was revoked => crl rejected"));
}

TEST_P(DecideSigners, DelegatedSignerOfUnknownStatusIsRejected) {
  know(authority);
  set_status(authority, PKI_CERT_UNKNOWN);
  expect_rejected(decide_authority());
  EXPECT_TRUE(was_logged(4, "crl signer's cert (/CN=authority) was unknown => crl rejected"));
}

TEST_P(DecideSigners, DelegatedSignersOwnCrlIsAsked) {
  server.publish("/issuer", crl_of(crl_entry(20)));
  authority = issue("authority", 20, authority_key,
                    {crl_sign, {"crlDistributionPoints", "URI:" + server.url("/issuer")}});
  know(authority);
  expect_rejected([&] {
    record info = decide_authority();
    zv_cv_clear_crl_cache();
    return info;
  }());
  EXPECT_EQ("/crl /issuer ", server.asked());
  EXPECT_TRUE(was_logged(4, "crl signer's cert (/CN=authority) was revoked => crl rejected"));
}

TEST_P(DecideSigners, DelegatedSignerIsCheckedOneDeeper) {
  know(authority);
  depth = 8;
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide_authority())) << log_dump();
  zv_cv_clear_crl_cache();
  zv_cv_clear_cert_sts_info_cache();
  clear_log();
  depth = 9;
  expect_rejected(decide_authority());
  EXPECT_TRUE(was_logged(3,
                         "Maximum recursion depth reached - aborting  verification of cert "
                         "(/CN=authority)"));
}

TEST_P(DecideSigners, DelegatedSignersValidityHas300SecondsOfTolerance) {
  for (auto [begin, end] : {std::pair{start - 3600, start - 299},
                            {start - 3600, start - 300},
                            {start + 299, start + 3600},
                            {start + 300, start + 3600}}) {
    forget();
    know(valid(begin, end));
    EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide_authority())) << begin << log_dump();
    EXPECT_TRUE(was_logged(7, authority_ok));
  }
}

TEST_P(DecideSigners, DelegatedSignerOutsideItsValidityIsRejected) {
  for (auto [begin, end] : {std::pair{start - 3600, start - 301}, {start + 301, start + 3600}}) {
    forget();
    know(valid(begin, end));
    expect_rejected(decide_authority());
    EXPECT_TRUE(was_logged(
        4, "crl signer's cert (/CN=authority) is outside its validity period => crl rejected"))
        << log_dump();
  }
}

TEST_P(DecideSigners, IssuersNextKeyIsBelievedWhenTheIssuerSignedIt) {
  know(issue("issuer", 24, stranger_key, {crl_sign}));
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide(crl_of(crl_entry(device_serial), "", stranger_key))))
      << log_dump();
  EXPECT_TRUE(was_logged(7, "crl signer's cert (/CN=issuer) is ok"));
}

TEST_P(DecideSigners, ForgedDelegationIsNotBelieved) {
  // The issuer's name, but not its signature.
  know(issue("authority", 20, authority_key, {crl_sign}, "issuer", stranger_key));
  expect_rejected(decide_authority());
  EXPECT_TRUE(logged_containing(4, "crl signer's cert (/CN=authority) could not be verified: "));
}

// ---- a path of the signer's own ----

class DecideSignerPath : public DecideSigners {
 protected:
  void SetUp() override {
    DecideSigners::SetUp();
    know(authority);
    trust = std::make_shared<trust_context>(certs{issuer, root});
  }
  support::cert root = make_issuer("root", stranger_key, 40);
  DecideSignerPath() {
    authority = issue("authority", 20, authority_key, {crl_sign}, "root", stranger_key);
  }
};
INSTANTIATE_TEST_SUITE_P(Decoded, DecideSignerPath, testing::Bool(), way_name);

TEST_P(DecideSignerPath, TrustedPathIsBelieved) {
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide_authority())) << log_dump();
  EXPECT_TRUE(was_logged(7, authority_ok));
  EXPECT_EQ(in_full(), is_cached("authority"));
}

TEST_P(DecideSignerPath, PathMayUseTheContextsUntrustedCertificates) {
  support::cert_options options = valid_options("inter", 41, device_key);
  options.issuer = support::common_name("root");
  options.signing_key = support::test_key(stranger_key);
  options.ca = true;
  support::cert inter = support::make_cert(options);
  support::empty_store();
  know(issue("authority", 20, authority_key, {crl_sign}, "inter", device_key));
  trust = std::make_shared<trust_context>(certs{root}, certs{inter});
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide_authority())) << log_dump();
  EXPECT_TRUE(was_logged(7, authority_ok));
}

TEST_P(DecideSignerPath, UntrustedPathIsRejected) {
  trust = std::make_shared<trust_context>(certs{issuer});
  expect_rejected(decide_authority());
  EXPECT_TRUE(was_logged(4, could_not(X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY))) << log_dump();
}

TEST_P(DecideSignerPath, NoTrustContextIsNoTrust) {
  trust = nullptr;
  expect_rejected(decide_authority());
  EXPECT_TRUE(was_logged(4, could_not(X509_V_ERR_UNSPECIFIED))) << log_dump();
}

TEST_P(DecideSignerPath, ExpiredSignerIsRejected) {
  support::empty_store();
  support::cert_options options = valid_options("authority", 20, authority_key);
  options.issuer = support::common_name("root");
  options.signing_key = support::test_key(stranger_key);
  options.extensions = {crl_sign};
  options.not_after = start - 60;
  know(support::make_cert(options));
  expect_rejected(decide_authority());
  EXPECT_TRUE(was_logged(4, could_not(X509_V_ERR_CERT_HAS_EXPIRED))) << log_dump();
}

TEST_P(DecideSignerPath, StatusOfTheSignerCounts) {
  set_status(authority, PKI_CERT_REVOKED);
  expect_rejected(decide_authority());
  EXPECT_TRUE(was_logged(4, could_not(X509_V_ERR_CERT_REVOKED))) << log_dump();
}

TEST_P(DecideSignerPath, UnknownStatusOfTheSignerCounts) {
  set_status(authority, PKI_CERT_UNKNOWN);
  expect_rejected(decide_authority());
  EXPECT_TRUE(was_logged(4, could_not(X509_V_ERR_UNABLE_TO_GET_CRL))) << log_dump();
}

TEST_P(DecideSignerPath, SignerIsCheckedOneDeeper) {
  depth = 8;
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide_authority())) << log_dump();
  zv_cv_clear_crl_cache();
  zv_cv_clear_cert_sts_info_cache();
  clear_log();
  depth = 9;
  expect_rejected(decide_authority());
  EXPECT_TRUE(was_logged(3,
                         "Maximum recursion depth reached - aborting  verification of cert "
                         "(/CN=authority)"));
}

std::atomic<int> host_calls{0};
int accept_everything(int, X509_STORE_CTX *) {
  host_calls++;
  return 1;
}

TEST_P(DecideSignerPath, HostsCallbackHasNoSay) {
  trust = std::make_shared<trust_context>(certs{root});
  X509_STORE_set_verify_cb(trust->store(), accept_everything);
  X509_STORE_CTX_set_verify_cb(trust->get(), accept_everything);
  host_calls = 0;
  set_status(authority, PKI_CERT_REVOKED);
  expect_rejected(decide_authority());
  EXPECT_EQ(0, host_calls);
}

// ---- what an unaccepted signer says does not make anything good ----

TEST_P(DecideSigners, ReasonsOfARejectedCrlDoNotCountForGood) {
  // The forger's CRL fills the mask but for one reason, which the issuer's CRL brings.
  know(issue("authority", 20, authority_key, {crl_sign}, "issuer", stranger_key));
  server.publish("/forged",
                 crl_of("", support::issuing_dist_point({.reasons = 0xFF, .indirect = true}),
                        authority_key, "authority"));
  server.publish("/sound", crl_of("", some_reasons(0x100)));
  EXPECT_EQ(
      no_answer,
      status_of(decide_at({{"/forged", 0xFF, "authority"}, {"/nothing", 0x00}, {"/sound", 0x100}})))
      << log_dump();
  // The walk skips a place behind the rejected signer, and comes back to it behind the accepted
  // one.
  EXPECT_EQ(std::string("/forged /sound /nothing ") + (in_full() ? "" : "/sound "), server.asked());
  EXPECT_TRUE(was_logged(7, "interim-reason-mask=100 => reason-mask=1FF"));
  EXPECT_TRUE(was_logged(7, unknown_line("1ff")));
  EXPECT_FALSE(was_logged(7, good_line));
}

TEST_P(DecideSigners, RejectedCrlOfAllReasonsHidesALaterOne) {
  know(issue("authority", 20, authority_key, {crl_sign}, "issuer", stranger_key));
  server.publish("/forged", crl_of("", support::issuing_dist_point({.indirect = true}),
                                   authority_key, "authority"));
  server.publish("/sound", crl_of());
  EXPECT_EQ(no_answer,
            status_of(decide_at({{"/forged", {}, "authority"}, {"/nothing"}, {"/sound"}})));
  EXPECT_EQ("/forged /sound ", server.asked());
  EXPECT_TRUE(was_logged(7, unknown_line("1ff")));
  EXPECT_FALSE(was_logged(7, good_line));
}

}  // namespace
