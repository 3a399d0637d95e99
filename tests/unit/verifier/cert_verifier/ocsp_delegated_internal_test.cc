// Responders to whom the issuer delegated its answers (RFC 6960 4.2.2.2).
#include "unit/verifier/cert_verifier/ocsp_support.h"

using namespace ocsp_support;

namespace {

class OcspDelegated : public ocsp_query_test {
 protected:
  static std::string no_usage_line() {
    return "4: ocsp-response signer (/CN=responder) has no ocsp-signing extended key-usage - "
           "discarding\n";
  }
  static std::string not_issued_line() {
    return "4: ocsp-response signer cert (/CN=responder) was not issued by cert-issuer - "
           "discarding\n";
  }
  // Without the certificates of earlier answers.
  static void start_afresh() {
    support::empty_store();
    clear_log();
  }
  void expect_believed(const support::cert &signer) {
    start_afresh();
    EXPECT_EQ(PKI_CERT_OK, status_of(ask(by(signer))));
    EXPECT_EQ(found_line(1) + no_check_line + accepted_lines(), judgement());
  }
  void expect_discarded(const support::cert &signer, const std::string &line) {
    start_afresh();
    EXPECT_EQ(nullptr, ask(by(signer)));
    EXPECT_EQ(found_line(1) + line + none_trusted_line, judgement());
  }
  // With that validity, and all that a responder needs.
  support::cert valid(time_t not_before, time_t not_after) const {
    support::cert_options options = valid_options("responder", responder_serial, responder_key);
    options.issuer = support::common_name("issuer");
    options.signing_key = support::test_key(issuer_key);
    options.extensions = {ocsp_signing, no_check};
    options.not_before = not_before;
    options.not_after = not_after;
    return support::make_cert(options);
  }
  // The same certificate, signed again, with that text in the place of a time.
  static support::cert with_time(const support::cert &model, ASN1_TIME *(*time_of)(const X509 *),
                                 const std::string &text) {
    support::cert made(X509_dup(model.get()), X509_free);
    ASN1_STRING_set(time_of(made.get()), text.data(), static_cast<int>(text.size()));
    X509_sign(made.get(), support::test_key(issuer_key).get(), EVP_sha256());
    return made;
  }
  // A warning of its own; nobody else is left.
  void expect_out_of_validity(const support::cert &signer) {
    start_afresh();
    EXPECT_EQ(nullptr, ask(by(signer)));
    EXPECT_EQ(found_line(1) +
                  "4: ocsp-response signer (/CN=responder) is outside its validity period - "
                  "discarding\n" +
                  none_trusted_line,
              judgement());
  }
};

TEST_F(OcspDelegated, ResponderWithUsageAndNoCheckIsBelieved) {
  expect_believed(issue_responder());
}

TEST_F(OcspDelegated, ByKeyHashToo) {
  ocsp_options options = by(issue_responder());
  options.by_key = true;
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(options)));
  EXPECT_EQ(found_line(1) + no_check_line + accepted_lines(), judgement());
}

TEST_F(OcspDelegated, ItMayAlsoBeInTheStore) {
  support::cert signer = issue_responder();
  pki_add_untrusted_cert(signer.get(), 1);
  ocsp_options options = by(signer);
  options.certs.clear();
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(options)));
  EXPECT_EQ(found_line(1) + no_check_line + accepted_lines(), judgement());
}

// A certificate of the same issuer and serial number keeps it out of the store.
TEST_F(OcspDelegated, ForgeryInTheStoreDoesNotBlockIt) {
  support::cert forgery =
      issue("responder", responder_serial, device_key, {ocsp_signing, no_check});
  ASSERT_EQ(0, pki_add_untrusted_cert(forgery.get(), 0));
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(by(issue_responder())))) << log_dump();
}

TEST_F(OcspDelegated, NobodyKnowsItWithoutItsCertificate) {
  ocsp_options options = by(issue_responder());
  options.certs.clear();
  EXPECT_EQ(nullptr, ask(options));
  EXPECT_EQ(no_signer_line, judgement());
}

TEST_F(OcspDelegated, NoCheckMeansThatNobodyIsAsked) {
  ocsp_responder elsewhere(by_issuer());
  expect_believed(issue_responder({ocsp_signing, no_check, ask_at(elsewhere.url())}));
  EXPECT_EQ(0u, elsewhere.requests().size());
}

// Who may not sign himself may not delegate either.
TEST_F(OcspDelegated, WithoutTheFlagItIsDiscarded) {
  internet = 0;
  expect_discarded(issue_responder(), not_issued_line());
  expect_discarded(issue_responder({ocsp_signing}), not_issued_line());
}

// ---- extended key usage ----

TEST_F(OcspDelegated, WithoutExtendedKeyUsageItIsDiscarded) {
  expect_discarded(issue_responder({no_check}), no_usage_line());
}

TEST_F(OcspDelegated, OtherExtendedKeyUsagesAreNotEnough) {
  for (const char *usage : {"serverAuth", "serverAuth,clientAuth,codeSigning",
                            "anyExtendedKeyUsage", "1.3.6.1.5.5.7.3.99"})
    expect_discarded(issue_responder({{"extendedKeyUsage", usage}, no_check}), no_usage_line());
}

TEST_F(OcspDelegated, OcspSigningAmongOthersIsEnough) {
  expect_believed(
      issue_responder({{"extendedKeyUsage", "serverAuth,1.2.3.4,OCSPSigning"}, no_check}));
}

TEST_F(OcspDelegated, CriticalExtendedKeyUsageIsOne) {
  expect_believed(issue_responder({{"extendedKeyUsage", "critical,OCSPSigning"}, no_check}));
}

TEST_F(OcspDelegated, ExtendedKeyUsageThatCannotBeReadIsNone) {
  for (const char *octets : {"DER:04:00", "DER:30:03:06:08:2B", "DER:05:00"})
    expect_discarded(issue_responder({{"2.5.29.37", octets}, no_check}), no_usage_line());
}

TEST_F(OcspDelegated, UsageIsLookedAtBeforeTheIssuer) {
  support::cert_options made = valid_options("responder", responder_serial, responder_key);
  expect_discarded(support::make_cert(made), no_usage_line());
}

// ---- issued by the certificate's issuer ----

TEST_F(OcspDelegated, SelfSignedResponderIsDiscarded) {
  support::cert_options made = valid_options("responder", responder_serial, responder_key);
  made.extensions = {ocsp_signing, no_check};
  expect_discarded(support::make_cert(made), not_issued_line());
}

TEST_F(OcspDelegated, ResponderOfAnotherIssuerIsDiscarded) {
  support::cert_options made = valid_options("responder", responder_serial, responder_key);
  made.issuer = support::common_name("other issuer");
  made.signing_key = support::test_key(issuer_key);
  made.extensions = {ocsp_signing, no_check};
  expect_discarded(support::make_cert(made), not_issued_line());
}

TEST_F(OcspDelegated, IssuersNameOverAnotherSignatureIsDiscarded) {
  support::cert_options made = valid_options("responder", responder_serial, responder_key);
  made.issuer = support::common_name("issuer");
  made.signing_key = support::test_key(stranger_key);
  made.extensions = {ocsp_signing, no_check};
  expect_discarded(support::make_cert(made), not_issued_line());
}

TEST_F(OcspDelegated, ResponderThatAnotherResponderIssuedIsDiscarded) {
  support::cert first = issue("first", 30, stranger_key, {ocsp_signing, no_check});
  support::cert_options made = valid_options("responder", responder_serial, responder_key);
  made.issuer = support::common_name("first");
  made.signing_key = support::test_key(stranger_key);
  made.extensions = {ocsp_signing, no_check};
  support::cert second = support::make_cert(made);
  ocsp_options options = by(second);
  options.certs = {second, first};
  EXPECT_EQ(nullptr, ask(options));
  EXPECT_EQ(found_line(1) + not_issued_line() + none_trusted_line, judgement());
}

TEST_F(OcspDelegated, IssuerWithoutPublicKeyEndsTheQuery) {
  support::cert signer = issue_responder();
  pki_add_untrusted_cert(signer.get(), 1);
  // Would be believed, had it its turn.
  support::cert_options made = valid_options("responder", 88, responder_key);
  configured = support::make_cert(made);
  ocsp_flag = 1;
  std::string der = support::der(issuer);
  size_t at = der.find(std::string("\x2a\x86\x48\x86\xf7\x0d\x01\x01\x01", 9));
  ASSERT_NE(std::string::npos, at);
  der[at + 8] = 0x7F;
  const auto *in = reinterpret_cast<const unsigned char *>(der.data());
  issuer = support::cert(d2i_X509(nullptr, &in, static_cast<long>(der.size())), X509_free);
  ocsp_options options = by(signer);
  options.certs.clear();
  EXPECT_EQ(nullptr, ask(options));
  EXPECT_TRUE(was_logged(3, "failed to get public key from issuer cert")) << log_dump();
  EXPECT_EQ(0u, judgement().find(found_line(2))) << log_dump();
  EXPECT_EQ(std::string::npos, judgement().find(configured_line)) << log_dump();
}

// ---- validity ----

TEST_F(OcspDelegated, EndedUpTo300SecondsAgoIsValid) {
  for (time_t end : {start + 1, start, start - 299, start - 300})
    expect_believed(valid(start - 5000, end));
}

TEST_F(OcspDelegated, EndedEarlierIsDiscarded) {
  expect_out_of_validity(valid(start - 5000, start - 301));
  expect_out_of_validity(valid(start - 500 * 86400, start - 86400));
}

TEST_F(OcspDelegated, BeginningIn300SecondsIsValid) {
  for (time_t begin : {start - 1, start, start + 299, start + 300})
    expect_believed(valid(begin, start + 5000));
}

TEST_F(OcspDelegated, BeginningLaterIsDiscarded) {
  expect_out_of_validity(valid(start + 301, start + 5000));
  expect_out_of_validity(valid(start + 86400, start + 500 * 86400));
}

TEST_F(OcspDelegated, ValidityThatCannotBeReadIsNone) {
  for (const char *text : {"soon", "", "2311142213Z", "231114221320+0100", "991314221320Z"}) {
    expect_out_of_validity(with_time(issue_responder(), X509_getm_notBefore, text));
    expect_out_of_validity(with_time(issue_responder(), X509_getm_notAfter, text));
  }
}

TEST_F(OcspDelegated, RevokedStatusOfAnExpiredResponderIsNone) {
  ocsp_options options = by(valid(start - 5000, start - 301));
  options.single.status = V_OCSP_CERTSTATUS_REVOKED;
  EXPECT_EQ(nullptr, ask(options));
}

// ---- more than one ----

TEST_F(OcspDelegated, CandidatesAreTriedInOrder) {
  support::cert first = issue("responder", 21, responder_key);
  support::cert second = issue("responder", 22, responder_key, {ocsp_signing, no_check});
  ocsp_options options = by(first);
  options.certs = {first, second};
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(options)));
  EXPECT_EQ(found_line(2) + no_usage_line() + no_check_line + accepted_lines(), judgement());
}

TEST_F(OcspDelegated, AllOfThemMayBeDiscarded) {
  support::cert first = issue("responder", 21, responder_key);
  support::cert second =
      issue("responder", 22, responder_key, {{"extendedKeyUsage", "emailProtection"}});
  ocsp_options options = by(first);
  options.certs = {first, second};
  EXPECT_EQ(nullptr, ask(options));
  EXPECT_EQ(found_line(2) + no_usage_line() + no_usage_line() + none_trusted_line, judgement());
}

TEST_F(OcspDelegated, RevokedAnswerOfABelievedResponderCounts) {
  ocsp_options options = by(issue_responder());
  options.single.status = V_OCSP_CERTSTATUS_REVOKED;
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(ask(options)));
  EXPECT_EQ(found_line(1) + no_check_line + accepted_lines("revoked"), judgement());
}

}  // namespace
