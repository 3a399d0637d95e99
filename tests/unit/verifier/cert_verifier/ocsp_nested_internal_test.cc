// The status of an answer's signer: what is asked, what the answer does, and where it ends.
#include <map>

#include "fakes/failures.h"
#include "unit/verifier/cert_verifier/ocsp_support.h"

using namespace ocsp_support;

namespace {

class OcspNested : public ocsp_query_test {
 protected:
  static std::string checking_line(const std::string &cn = "responder") {
    return "7: checking certificate status of ocsp-response signer's cert (/CN=" + cn + ")\n";
  }
  static std::string signer_ok_line() {
    return "7: ocsp-response signer's cert (/CN=responder) is ok\n";
  }
  static std::string rejected_line(const char *status) {
    return std::string("4: ocsp-response signer's cert (/CN=responder) was ") + status +
           " - rejecting it\n";
  }
  static std::string same_cert_line() {
    return "4: ocsp-response signer's cert is the same cert being validated! Ignoring response\n";
  }
  static std::string cached_lines(const char *status) {
    return std::string(
               "7: Checking status for cert '/CN=responder'\n"
               "7: Found cert-status for cert '/CN=responder' in cache - status is: ") +
           status + "\n";
  }
  // The status cache knows the certificate.
  void cache(const support::cert &cert, int status) {
    record info = cache_support::make_record(cert, start + 3600, status);
    ASSERT_EQ(0, zv_cv_add_cert_sts_info_cache(info.get()));
  }
  bool logged(const std::string &lines) const { return own_log().find(lines) != std::string::npos; }
};

// OpenSSL decodes names and key hashes only.
TEST_F(OcspNested, ResponderIdOfNoKindIsNobodys) {
  fake_failures::fail_responder_id();
  EXPECT_EQ(nullptr, ask(by_issuer()));
  EXPECT_TRUE(was_logged(3, "Unknown responder-id type -1 encountered")) << log_dump();
}

TEST_F(OcspNested, SignerWithoutSourcesIsOk) {
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(by(issue_responder({ocsp_signing})))));
  EXPECT_TRUE(logged(checking_line() + "7: Checking status for cert '/CN=responder'\n"))
      << log_dump();
  EXPECT_TRUE(logged(signer_ok_line() + accepted_lines())) << log_dump();
}

// Not even a certificate that spares responders their status check.
TEST_F(OcspNested, NobodyVouchesForHimself) {
  support::cert signer = issue_responder();
  ocsp_options options = by(signer);
  ocsp_responder responder(options);
  EXPECT_EQ(nullptr, query(responder.url(), signer));
  EXPECT_TRUE(was_logged(4, same_cert_line().substr(3, same_cert_line().size() - 4))) << log_dump();
}

TEST_F(OcspNested, SignerThatIsCachedAsOkIsBelieved) {
  support::cert signer = issue_responder({ocsp_signing});
  cache(signer, PKI_CERT_OK);
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(by(signer))));
  EXPECT_EQ(
      found_line(1) + checking_line() + cached_lines("ok") + signer_ok_line() + accepted_lines(),
      judgement());
}

TEST_F(OcspNested, RevokedSignerIsRejected) {
  support::cert signer = issue_responder({ocsp_signing});
  cache(signer, PKI_CERT_REVOKED);
  EXPECT_EQ(nullptr, ask(by(signer)));
  EXPECT_EQ(found_line(1) + checking_line() + cached_lines("revoked") + rejected_line("revoked") +
                none_trusted_line,
            judgement());
}

TEST_F(OcspNested, SignerOfUnknownStatusIsRejected) {
  support::cert signer = issue_responder({ocsp_signing});
  cache(signer, PKI_CERT_UNKNOWN);
  EXPECT_EQ(nullptr, ask(by(signer)));
  EXPECT_EQ(found_line(1) + checking_line() + cached_lines("unknown") + rejected_line("unknown") +
                none_trusted_line,
            judgement());
}

TEST_F(OcspNested, NextCandidateGetsItsTurn) {
  support::cert first = issue("responder", 21, responder_key, {ocsp_signing});
  support::cert second = issue("responder", 22, responder_key, {ocsp_signing});
  cache(first, PKI_CERT_REVOKED);
  cache(second, PKI_CERT_OK);
  ocsp_options options = by(first);
  options.certs = {first, second};
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(options)));
  EXPECT_EQ(found_line(2) + checking_line() + cached_lines("revoked") + rejected_line("revoked") +
                checking_line() + cached_lines("ok") + signer_ok_line() + accepted_lines(),
            judgement());
}

TEST_F(OcspNested, FirstAcceptedCandidateEndsTheSearch) {
  support::cert first = issue("responder", 21, responder_key, {ocsp_signing});
  support::cert second = issue("responder", 22, responder_key, {ocsp_signing});
  cache(first, PKI_CERT_OK);
  cache(second, PKI_CERT_REVOKED);
  ocsp_options options = by(first);
  options.certs = {first, second};
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(options)));
  EXPECT_EQ(
      found_line(2) + checking_line() + cached_lines("ok") + signer_ok_line() + accepted_lines(),
      judgement());
}

// ---- the responder's responder ----

TEST_F(OcspNested, SignersOwnResponderIsAsked) {
  ocsp_responder second(by_issuer());
  EXPECT_EQ(PKI_CERT_OK,
            status_of(ask(by(issue_responder({ocsp_signing, ask_at(second.url("/second"))})))));
  EXPECT_EQ(1u, second.requests().size());
  EXPECT_TRUE(logged("7: look up status of cert '/CN=responder' using OCSP (" +
                     second.url("/second") + ")\n"))
      << log_dump();
  EXPECT_TRUE(logged("7: cert (/CN=responder) status is: ok\n")) << log_dump();
  EXPECT_TRUE(logged(signer_ok_line() + accepted_lines())) << log_dump();
}

TEST_F(OcspNested, SignersResponderSaysRevoked) {
  ocsp_responder second(by_issuer(V_OCSP_CERTSTATUS_REVOKED));
  EXPECT_EQ(nullptr, ask(by(issue_responder({ocsp_signing, ask_at(second.url())}))));
  EXPECT_TRUE(logged(rejected_line("revoked") + none_trusted_line)) << log_dump();
}

TEST_F(OcspNested, SignersResponderDoesNotKnow) {
  ocsp_responder second(by_issuer(V_OCSP_CERTSTATUS_UNKNOWN));
  EXPECT_EQ(nullptr, ask(by(issue_responder({ocsp_signing, ask_at(second.url())}))));
  EXPECT_TRUE(logged(rejected_line("unknown") + none_trusted_line)) << log_dump();
}

TEST_F(OcspNested, SignersResponderIsNotThere) {
  std::string nowhere = "http://127.0.0.1:" + std::to_string(support::unused_port()) + "/";
  EXPECT_EQ(nullptr, ask(by(issue_responder({ocsp_signing, ask_at(nowhere)}))));
  EXPECT_TRUE(logged(rejected_line("unknown") + none_trusted_line)) << log_dump();
}

TEST_F(OcspNested, SignersStatusIsCachedForTheNextQuery) {
  ocsp_responder second(by_issuer());
  ocsp_responder first(by(issue_responder({ocsp_signing, ask_at(second.url())})));
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(first)));
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(first)));
  EXPECT_EQ(2u, first.requests().size());
  EXPECT_EQ(1u, second.requests().size());
}

TEST_F(OcspNested, SignersResponderMayBeDelegatedToo) {
  ocsp_responder second(
      by(issue("second", 40, stranger_key, {ocsp_signing, no_check}), stranger_key));
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(by(issue_responder({ocsp_signing, ask_at(second.url())})))));
}

TEST_F(OcspNested, CheckingSwitchedOffMakesTheSignerOk) {
  ocsp_responder second(by_issuer(V_OCSP_CERTSTATUS_REVOKED));
  zv_cv_disable_crl_check(1);
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(by(issue_responder({ocsp_signing, ask_at(second.url())})))));
  EXPECT_EQ(0u, second.requests().size());
}

// The responder's responder is judged as usual: the issuer may answer for it.
TEST_F(OcspNested, SignerIsCheckedWithTheFlagAlsoWhenTheQueryHasNone) {
  ocsp_responder second(by_issuer());
  internet = 0;
  configured = issue_responder({ask_at(second.url())});
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(by(configured)))) << log_dump();
  EXPECT_EQ(1u, second.requests().size());
  EXPECT_TRUE(logged(by_issuer_line)) << log_dump();
}

TEST_F(OcspNested, StatusCheckHandsItsFlagToTheSource) {
  ocsp_responder responder(by_issuer());
  device = issue("device", device_serial, device_key, {ask_at(responder.url())});
  for (unsigned char flag : {0, 1, 2, 255}) {
    zv_cv_clear_cert_sts_info_cache();
    clear_log();
    int status = zv_cv_check_cert_status(device.get(), issuer.get(), nullptr, flag, 0);
    EXPECT_EQ(flag ? PKI_CERT_OK : PKI_CERT_UNKNOWN, status) << int{flag} << log_dump();
    EXPECT_EQ(flag != 0, logged(by_issuer_line)) << int{flag};
  }
}

// ---- the configured signer without its flag ----

TEST_F(OcspNested, ConfiguredSignerWithoutItsFlagIsChecked) {
  configured = support::make_cert(valid_options("responder", 77, stranger_key));
  cache(configured, PKI_CERT_OK);
  ocsp_options options = by(configured, stranger_key);
  options.certs.clear();
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(options)));
  EXPECT_EQ(
      found_line(1) + checking_line() + cached_lines("ok") + signer_ok_line() + accepted_lines(),
      judgement());
}

TEST_F(OcspNested, ConfiguredSignerWithoutItsFlagMayBeRevoked) {
  configured = support::make_cert(valid_options("responder", 77, stranger_key));
  cache(configured, PKI_CERT_REVOKED);
  ocsp_options options = by(configured, stranger_key);
  options.certs.clear();
  EXPECT_EQ(nullptr, ask(options));
  EXPECT_EQ(found_line(1) + checking_line() + cached_lines("revoked") + rejected_line("revoked") +
                none_trusted_line,
            judgement());
}

TEST_F(OcspNested, ConfiguredSignersValidityIsNotLookedAt) {
  support::cert_options made = valid_options("responder", 77, stranger_key);
  made.not_before = start - 2000;
  made.not_after = start - 1000;
  configured = support::make_cert(made);
  cache(configured, PKI_CERT_OK);
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(by(configured, stranger_key))));
}

// ---- the certificate that is being checked ----

TEST_F(OcspNested, CertificateDoesNotVouchForItself) {
  device = issue("device", device_serial, device_key, {ocsp_signing});
  EXPECT_EQ(nullptr, ask(by(device, device_key)));
  EXPECT_EQ(found_line(1) + same_cert_line() + none_trusted_line, judgement());
}

TEST_F(OcspNested, CertificateDoesNotVouchForItselfWhenConfigured) {
  configured = device;
  ocsp_options options = by(device, device_key);
  EXPECT_EQ(nullptr, ask(options));
  EXPECT_EQ(found_line(1) + same_cert_line() + none_trusted_line, judgement());
}

TEST_F(OcspNested, AfterItTheNextCandidateGetsItsTurn) {
  device = issue("device", device_serial, device_key, {ocsp_signing});
  support::cert twin = issue("device", 21, device_key, {ocsp_signing, no_check});
  ocsp_options options = by(device, device_key);
  options.certs = {device, twin};
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(options)));
  EXPECT_EQ(found_line(2) + same_cert_line() + no_check_line + accepted_lines(), judgement());
}

// ---- depth ----

TEST_F(OcspNested, SignerIsCheckedOneDeeper) {
  support::cert signer = issue_responder({ocsp_signing});
  depth = 8;
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(by(signer))));
}

TEST_F(OcspNested, AtDepthTenNobodyIsChecked) {
  support::cert signer = issue_responder({ocsp_signing});
  cache(signer, PKI_CERT_OK);
  depth = 9;
  EXPECT_EQ(nullptr, ask(by(signer)));
  EXPECT_EQ(found_line(1) + checking_line() +
                "7: Checking status for cert '/CN=responder'\n"
                "3: Maximum recursion depth reached - aborting  verification of cert "
                "(/CN=responder)\n" +
                rejected_line("unknown") + none_trusted_line,
            judgement());
}

TEST_F(OcspNested, AtDepthNineTheIssuerIsStillBelieved) {
  depth = 9;
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(by_issuer())));
  EXPECT_EQ(accepted_from_issuer(), judgement());
}

// Each answer is signed by a responder that only the next one knows about.
TEST_F(OcspNested, EndlessChainOfRespondersEnds) {
  std::map<long, ocsp_options> answers;
  ocsp_responder responder{std::string()};
  for (long step = 0; step < 15; step++) {
    support::cert signer = issue("responder " + std::to_string(step), 100 + step, responder_key,
                                 {ocsp_signing, ask_at(responder.url("/nested"))});
    answers[step == 0 ? device_serial : 99 + step] = by(signer);
  }
  responder.answer_with([answers](long serial) { return answers.at(serial); });
  EXPECT_EQ(nullptr, ask(responder));
  // One for the device, and one for each signer at the depths 1 to 9.
  EXPECT_EQ(10u, responder.requests().size());
  EXPECT_EQ(1u, count_logged(3,
                             "Maximum recursion depth reached - aborting  verification of cert "
                             "(/CN=responder 9)"))
      << log_dump();
}

TEST_F(OcspNested, TwoRespondersThatVouchForEachOtherEnd) {
  std::map<long, ocsp_options> answers;
  ocsp_responder responder{std::string()};
  support::cert first = issue("first", 101, responder_key, {ocsp_signing, ask_at(responder.url())});
  support::cert second =
      issue("second", 102, stranger_key, {ocsp_signing, ask_at(responder.url())});
  answers[device_serial] = by(first);
  answers[101] = by(second, stranger_key);
  answers[102] = by(first);
  responder.answer_with([answers](long serial) { return answers.at(serial); });
  EXPECT_EQ(nullptr, ask(responder));
  EXPECT_EQ(10u, responder.requests().size());
}

// Many certificates of one name and key at each step: depth alone would let them multiply.
TEST_F(OcspNested, ManyCandidatesAtEachDepthAreBounded) {
  std::map<long, ocsp_options> answers;
  ocsp_responder responder{std::string()};
  // The last ones are at depth 9; all of them would be 108 checks.
  constexpr long steps = 9, each = 12;
  for (long step = 0; step < steps; step++) {
    ocsp_options options;
    for (long i = 0; i < each; i++)
      options.certs.push_back(issue("responder " + std::to_string(step), 100 + step * each + i,
                                    responder_key, {ocsp_signing, ask_at(responder.url())}));
    options.signer = options.certs[0];
    options.signing_key = support::test_key(responder_key);
    if (step == 0)
      answers[device_serial] = options;
    for (long i = 0; step > 0 && i < each; i++)
      answers[100 + (step - 1) * each + i] = options;
  }
  // Nobody knows about the last ones.
  ocsp_options last = by_issuer(V_OCSP_CERTSTATUS_UNKNOWN);
  for (long i = 0; i < each; i++)
    answers[100 + (steps - 1) * each + i] = last;
  responder.answer_with([answers](long serial) { return answers.at(serial); });
  device = issue("device", device_serial, device_key, {ask_at(responder.url())});
  EXPECT_EQ(PKI_CERT_UNKNOWN, zv_cv_check_cert_status(device.get(), issuer.get(), nullptr, 1, 0));
  // The device, and 64 nested checks.
  EXPECT_LE(responder.requests().size(), 65u);
  EXPECT_GT(responder.requests().size(), 9u);
  EXPECT_TRUE(logged_containing(3,
                                "Maximum recursion depth reached - aborting  verification of "
                                "cert (/CN=responder "))
      << log_dump();
}

}  // namespace
