// A configured responder that is not believed outright: who may speak for it.
#include "unit/verifier/cert_verifier/ocsp_support.h"
#include "unit/verifier/crl_cache/decide_support.h"
#include "unit/verifier/extension_der.h"

using namespace ocsp_support;

namespace {

// Here, the fixture's issuer asks about a responder that, as a rule, "authority" issued.
class OcspConfigured : public ocsp_query_test {
 protected:
  static support::cert issued_by_authority(const extensions &more) {
    return issue("configured", 77, stranger_key, more, "authority", authority_key);
  }
  static support::cert issued_by_issuer(const extensions &more) {
    return issue("configured", 77, stranger_key, more);
  }
  // The answer of `cert`, which is the configured responder.
  record ask_configured(const support::cert &cert) {
    configured = cert;
    return ask(by(cert, stranger_key));
  }
  // What everybody finds about the configured responder; -1: nothing.
  int cached_status() const {
    return status_of(cache_support::hold(zv_cv_find_cert_sts_info_cache(configured.get())));
  }
  void expect_rejected(const record &info, const char *status = "unknown") const {
    EXPECT_EQ(nullptr, info) << log_dump();
    EXPECT_TRUE(was_logged(4, std::string("ocsp-response signer's cert (/CN=configured) was ") +
                                  status + " - rejecting it"))
        << log_dump();
    EXPECT_NE(PKI_CERT_OK, cached_status());
  }
  void expect_believed(const record &info) const {
    EXPECT_EQ(PKI_CERT_OK, status_of(info)) << log_dump();
    EXPECT_TRUE(was_logged(7, "ocsp-response signer's cert (/CN=configured) is ok")) << log_dump();
  }
};

TEST_F(OcspConfigured, WithoutSourcesItIsBelieved) {
  expect_believed(ask_configured(issued_by_authority({})));
}

// ---- another CA's responder ----

TEST_F(OcspConfigured, IssuerDoesNotSpeakForAnotherCasResponder) {
  ocsp_responder second(by_issuer());
  expect_rejected(ask_configured(issued_by_authority({ask_at(second.url())})));
  EXPECT_EQ(1u, second.requests().size());
}

TEST_F(OcspConfigured, NeitherDoesTheIssuersDelegate) {
  ocsp_responder second(
      by(issue("delegate", 40, responder_key, {ocsp_signing, no_check}), responder_key));
  expect_rejected(ask_configured(issued_by_authority({ask_at(second.url())})));
  EXPECT_TRUE(was_logged(4,
                         "ocsp-response signer cert (/CN=delegate) was not issued by cert-issuer - "
                         "discarding"))
      << log_dump();
}

TEST_F(OcspConfigured, IssuersNameOverAnotherSignatureMakesItNobodys) {
  ocsp_responder second(by_issuer());
  expect_rejected(ask_configured(
      issue("configured", 77, stranger_key, {ask_at(second.url())}, "issuer", authority_key)));
}

TEST_F(OcspConfigured, IssuersKeyUnderAnotherNameMakesItNobodys) {
  ocsp_responder second(by_issuer());
  expect_rejected(ask_configured(
      issue("configured", 77, stranger_key, {ask_at(second.url())}, "authority", issuer_key)));
}

TEST_F(OcspConfigured, IssuerCannotRevokeAnotherCasResponder) {
  ocsp_responder second(by_issuer(V_OCSP_CERTSTATUS_REVOKED));
  expect_rejected(ask_configured(issued_by_authority({ask_at(second.url())})));
  EXPECT_NE(PKI_CERT_REVOKED, cached_status());
}

TEST_F(OcspConfigured, CrlOfItsOwnIssuerCounts) {
  support::cert authority = make_issuer("authority", authority_key, 5);
  pki_add_untrusted_cert(authority.get(), 1);
  decide_support::trust_context trust({authority, issuer});
  context = trust.get();
  decide_support::crl_server server;
  support::cert cert =
      issued_by_authority({{"crlDistributionPoints", "URI:" + server.url("/crl")}});
  server.publish("/crl", decide_support::crl_of("", "", authority_key, "authority"));
  expect_believed(ask_configured(cert));
  EXPECT_EQ("/crl ", server.asked());

  zv_cv_clear_cert_sts_info_cache();
  (void)zv_cv_clear_crl_cache();
  clear_log();
  server.publish("/crl",
                 decide_support::crl_of(support::crl_entry(77), "", authority_key, "authority"));
  expect_rejected(ask_configured(cert), "revoked");
}

// ---- a responder of the certificate's issuer ----

TEST_F(OcspConfigured, IssuerSpeaksForItsOwnResponder) {
  ocsp_responder second(by_issuer());
  expect_believed(ask_configured(issued_by_issuer({ask_at(second.url())})));
  EXPECT_TRUE(own_log().find(by_issuer_line) != std::string::npos) << log_dump();
  EXPECT_EQ(PKI_CERT_OK, cached_status());
}

TEST_F(OcspConfigured, SoDoesTheIssuersDelegate) {
  ocsp_responder second(
      by(issue("delegate", 40, responder_key, {ocsp_signing, no_check}), responder_key));
  expect_believed(ask_configured(issued_by_issuer({ask_at(second.url())})));
}

// Its authorityKeyIdentifier then names the issuer's earlier certificate.
TEST_F(OcspConfigured, IssuerSpeaksForItAlsoAfterHisRenewal) {
  ocsp_responder second(by_issuer());
  const std::string name =
      support::tlv(0x30, support::tlv(0x31, support::tlv(0x30, std::string("\x06\x03\x55\x04\x03") +
                                                                   support::tlv(0x0C, "issuer"))));
  auto earlier = extension_der::raw(
      "2.5.29.35", support::tlv(0x30, support::tlv(0xA1, support::tlv(0xA4, name)) +
                                          support::tlv(0x82, "\x63")));
  support::cert cert = issued_by_issuer({ask_at(second.url()), earlier});
  ASSERT_EQ(X509_V_ERR_AKID_ISSUER_SERIAL_MISMATCH, X509_check_issued(issuer.get(), cert.get()));
  expect_believed(ask_configured(cert));
}

TEST_F(OcspConfigured, IssuerMayRevokeItsOwnResponder) {
  ocsp_responder second(by_issuer(V_OCSP_CERTSTATUS_REVOKED));
  expect_rejected(ask_configured(issued_by_issuer({ask_at(second.url())})), "revoked");
  EXPECT_EQ(PKI_CERT_REVOKED, cached_status());
}

}  // namespace
