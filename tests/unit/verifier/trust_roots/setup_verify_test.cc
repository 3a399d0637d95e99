// Verifications with a store that was set up. The keys of the built-in roots are at hand nowhere,
// so a host's own root of the same name issues the certificates.
#include "../cert_verifier/validator_support.h"
#include "roots_process.h"
#include "support/ocsp_responder.h"

using namespace roots_support;

namespace {

const std::string nobody = "http://127.0.0.1:1/";

// A root of that name with test_key(1).
support::cert root_named(const X509_NAME *subject) {
  support::cert_options options;
  options.subject = support::name(X509_NAME_dup(subject), X509_NAME_free);
  options.public_key = support::test_key(1);
  options.ca = true;
  options.serial = 4711;
  return support::make_cert(options);
}

// What such a root issued; with `responder` the certificate names it.
support::cert issued_by(const support::cert &root, const std::string &responder = "") {
  support::cert_options options;
  options.subject = support::common_name("device");
  options.issuer = support::name(X509_NAME_dup(X509_get_subject_name(root.get())), X509_NAME_free);
  options.signing_key = support::test_key(1);
  options.serial = 12;
  if (!responder.empty())
    options.extensions = {{"authorityInfoAccess", "OCSP;URI:" + responder}};
  return support::make_cert(options);
}

struct verdict {
  int accepted;
  int error;
  bool operator==(const verdict &) const = default;
};
std::ostream &operator<<(std::ostream &out, const verdict &what) {
  return out << (what.accepted ? "accepted" : "rejected") << " with " << what.error;
}
constexpr verdict accepted = {1, X509_V_OK};

verdict verify(const x509_store &store, const support::cert &leaf) {
  validator_support::context ctx = validator_support::make_context();
  X509_STORE_CTX_init(ctx.get(), store.get(), leaf.get(), nullptr);
  X509_STORE_CTX_set_verify_cb(ctx.get(), zv_cv_cert_validator_internet);
  int result = X509_verify_cert(ctx.get());
  return {result, X509_STORE_CTX_get_error(ctx.get())};
}

x509_store set_up(unsigned char with_eng) {
  x509_store store = make_store();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), with_eng));
  return store;
}

// A store that trusts this root alone: with two of a name, OpenSSL would take the built-in one.
x509_store trusting(const support::cert &root) {
  x509_store store = make_store();
  X509_STORE_add_cert(store.get(), root.get());
  return store;
}

FRESH_PROCESS_TEST(SetupVerifyDeathTest, ARootOfTheDevicesFolderIsTrusted) {
  support::cert root = root_named(support::make_name({{"O", "Example"}, {"CN", "device"}}).get());
  device.write("root.pem", root);
  EXPECT_EQ(accepted, verify(set_up(0), issued_by(root)));
  EXPECT_NE(accepted, verify(make_store(), issued_by(root)));
}

FRESH_PROCESS_TEST(SetupVerifyDeathTest, AHostsRootBesideTheEngineeringRootIsTrusted) {
  support::cert root = root_named(support::common_name("host root").get());
  add_host_ca("engineering", {root});
  EXPECT_EQ(accepted, verify(set_up(1), issued_by(root)));
}

FRESH_PROCESS_TEST(SetupVerifyDeathTest, TheAlwaysOkRuleIsNotForAHostsRootOfThatCa) {
  support::cert root = root_named(support::common_name("host root").get());
  add_host_ca("engineering", {root});
  EXPECT_EQ((verdict{0, X509_V_ERR_UNABLE_TO_GET_CRL}), verify(set_up(1), issued_by(root, nobody)));
}

FRESH_PROCESS_TEST(SetupVerifyDeathTest, WhatTheEngineeringRootIssuedIsGoodWhenItsSourceIsSilent) {
  set_up(1);
  support::cert root = root_named(X509_get_subject_name(root_of("engineering", 0)));
  EXPECT_EQ(accepted, verify(trusting(root), issued_by(root, nobody)));
}

FRESH_PROCESS_TEST(SetupVerifyDeathTest, WhatTheEngineeringRootIssuedIsRevokedWhenItsSourceSaysSo) {
  set_up(1);
  support::cert root = root_named(X509_get_subject_name(root_of("engineering", 0)));
  support::ocsp_options options;
  options.signer = root;
  options.signing_key = support::test_key(1);
  options.single.status = V_OCSP_CERTSTATUS_REVOKED;
  support::ocsp_responder responder(options);
  EXPECT_EQ((verdict{0, X509_V_ERR_CERT_REVOKED}),
            verify(trusting(root), issued_by(root, responder.url())));
}

FRESH_PROCESS_TEST(SetupVerifyDeathTest, WhatAPublicRootIssuedIsLookedUpInItsCrls) {
  fake_failures::resolve("crl.verisign.com", {});
  set_up(0);
  support::cert root = root_named(X509_get_subject_name(root_of("root", 0)));
  clear_log();
  EXPECT_EQ((verdict{0, X509_V_ERR_UNABLE_TO_GET_CRL}), verify(trusting(root), issued_by(root)));
  EXPECT_TRUE(was_logged(7, "created 2 crl locators, 0 ocsp locators, and 0 always-ok locators"))
      << log_dump();
}

FRESH_PROCESS_TEST(SetupVerifyDeathTest, ItsOwnSourceComesBeforeThoseCrls) {
  fake_failures::resolve("crl.verisign.com", {});
  set_up(0);
  support::cert root = root_named(X509_get_subject_name(root_of("root", 0)));
  support::ocsp_options options;
  options.signer = root;
  options.signing_key = support::test_key(1);
  support::ocsp_responder responder(options);
  EXPECT_EQ(accepted, verify(trusting(root), issued_by(root, responder.url())));
  EXPECT_EQ(1U, responder.requests().size());
}

}  // namespace
