// scep_cert_req: what comes of the CA's first answer.
#include <gtest/gtest.h>
#include <openssl/err.h>

#include <string>

#include "fakes/clock.h"
#include "fakes/failures.h"
#include "unit/scep_client/scep_fixture.h"

namespace {

using support::log_lines;
using support::own_lines;
using support::scep_ca;
using support::scep_reply;

class ScepOutcome : public support::scep_client_test {
 protected:
  void expect_rejected(const scep_reply &reply, const std::string &reason) {
    clear_log();
    EXPECT_EQ(enroll_with(reply), PKI_SCEP_REQ_REJ);
    EXPECT_EQ(issued, nullptr);
    log_lines lines = {{3, "cert-request rejected"}};
    if (!reason.empty())
      lines.push_back({3, "rejection-reason: " + reason});
    EXPECT_EQ(own_lines(), lines) << log_dump();
    EXPECT_EQ(requests.size(), 1u);
  }
  void expect_no_certificate(const std::string &content) {
    scep_reply reply;
    reply.payload = content;
    clear_log();
    EXPECT_EQ(enroll_with(reply), PKI_INVALID_SCEP_RSP);
    EXPECT_EQ(issued, nullptr);
    EXPECT_EQ(own_lines(), (log_lines{{3, "no certificate found in response tocert-request: " +
                                              support::upper_hex(content)}}));
  }
  void expect_invalid(const scep_reply &reply) {
    clear_log();
    EXPECT_EQ(enroll_with(reply), PKI_INVALID_SCEP_RSP);
    EXPECT_EQ(issued, nullptr);
    EXPECT_EQ(own_lines().size(), 1u) << log_dump();
    EXPECT_EQ(ERR_peek_error(), 0u);
  }
};

TEST_F(ScepOutcome, SuccessGivesTheCertificateAndSaysNothing) {
  scep_ca ca;
  ASSERT_EQ(enroll(ca), PKI_OK) << log_dump();
  EXPECT_EQ(support::der(issued), support::der(ca.issued().at(0)));
  EXPECT_EQ(EVP_PKEY_eq(X509_get0_pubkey(issued.get()), own_key.get()), 1);
  EXPECT_EQ(captured_log(), log_lines());
  EXPECT_TRUE(fake_clock::sleeps().empty());
}

TEST_F(ScepOutcome, FirstOfSeveralCertificatesIsTaken) {
  support::cert first = support::simple_cert("a", "first", 1);
  scep_reply reply;
  reply.payload = support::certificate_list({first, support::simple_cert("a", "second", 2), first});
  ASSERT_EQ(enroll_with(reply), PKI_OK) << log_dump();
  EXPECT_EQ(support::der(issued), support::der(first));
}

TEST_F(ScepOutcome, CertificateForAnotherKeyIsNotThisLayersConcern) {
  scep_reply reply;
  reply.issued = support::simple_cert("a", "b", 1);
  EXPECT_EQ(enroll_with(reply), PKI_OK);
}

TEST_F(ScepOutcome, EachFailureReasonIsLogged) {
  for (int reason : {0, 1, 2, 3, 4, 17})
    expect_rejected(support::refusal(reason), std::to_string(reason));
}

TEST_F(ScepOutcome, FailureWithoutAReasonIsLoggedAlone) {
  expect_rejected(support::refusal(), "");
}

TEST_F(ScepOutcome, ReasonIsLoggedAsTheTextItIs) {
  scep_reply reply = support::refusal();
  reply.fail_text = "no 100% trust";
  expect_rejected(reply, "no 100% trust");
}

TEST_F(ScepOutcome, ReasonThatIsNoStringIsNoReason) {
  scep_reply reply = support::refusal();
  reply.more = {{PKI_OID_SCEP_FAIL_INFO, "2", V_ASN1_OCTET_STRING}};
  expect_rejected(reply, "");
}

TEST_F(ScepOutcome, UnknownStatusesAreRefusals) {
  for (const char *status : {"1", "2", "4", "-1", "33", "999999"}) {
    scep_reply reply = support::refusal(1);
    reply.status_text = status;
    expect_rejected(reply, "1");
  }
}

TEST_F(ScepOutcome, EmptyCertificateListIsNoCertificate) {
  expect_no_certificate(support::empty_certificate_list());
}

TEST_F(ScepOutcome, MissingCertificateListIsNoCertificate) {
  expect_no_certificate(support::no_certificate_list());
}

TEST_F(ScepOutcome, ContentThatIsNoSignedDataIsNoCertificate) {
  expect_no_certificate(support::der(support::make_data("data")));
  expect_no_certificate(support::der(support::make_bare_message(NID_pkcs7_data)));
  expect_no_certificate(support::der(support::make_bare_message(NID_pkcs7_signed)));
  expect_no_certificate(
      support::der(support::make_envelope("x", support::make_ca("scep ca", 7, 70))));
}

TEST_F(ScepOutcome, AnswersOfAnotherTransactionAreInvalid) {
  scep_reply wrong_id, wrong_nonce, no_nonce;
  wrong_id.tx_id = "0000";
  wrong_nonce.recipient_nonce = "0123456789abcdef";
  no_nonce.recipient_nonce = "";
  for (const scep_reply &reply : {wrong_id, wrong_nonce, no_nonce})
    expect_invalid(reply);
}

TEST_F(ScepOutcome, AnswersWithoutTypeOrStatusAreInvalid) {
  scep_reply wrong_type, no_type, no_status;
  wrong_type.type = "19";
  no_type.type = "";
  no_status.status_text = "";
  for (const scep_reply &reply : {wrong_type, no_type, no_status})
    expect_invalid(reply);
}

TEST_F(ScepOutcome, AnswersOfStrangersAreInvalid) {
  scep_reply other_name, other_key, other_recipient;
  other_name.signing_key = other_key.signing_key = support::test_key(2);
  other_name.signer_cert = support::make_ca("stranger", 2, 70);
  other_key.signer_cert = support::make_ca("scep ca", 2, 70);
  other_recipient.recipient = support::make_ca("stranger", 2);
  for (const scep_reply &reply : {other_name, other_key, other_recipient})
    expect_invalid(reply);
}

TEST_F(ScepOutcome, RefusalOfAStrangerIsInvalidAndNoRefusal) {
  scep_reply reply = support::refusal(2);
  reply.signing_key = support::test_key(2);
  reply.signer_cert = support::make_ca("scep ca", 2, 70);
  expect_invalid(reply);
}

TEST_F(ScepOutcome, PendingOfAStrangerIsInvalidAndNoReasonToPoll) {
  scep_reply reply = support::pending();
  reply.signing_key = support::test_key(2);
  reply.signer_cert = support::make_ca("scep ca", 2, 70);
  expect_invalid(reply);
  EXPECT_TRUE(fake_clock::sleeps().empty());
}

TEST_F(ScepOutcome, BodyThatIsNoMessageIsInvalid) {
  for (std::string body : {std::string(), std::string("<html>"), std::string(100000, 'x')}) {
    scep_reply reply;
    reply.http = support::ok(body);
    clear_log();
    EXPECT_EQ(enroll_with(reply), PKI_INVALID_SCEP_RSP);
    EXPECT_EQ(own_lines(),
              (log_lines{{3, "failed to decode scep response: " + support::upper_hex(body)}}));
  }
}

TEST_F(ScepOutcome, HttpStatusOtherThan200EndsIt) {
  for (int status : {500, 404}) {
    scep_reply reply;
    reply.http = support::status(status);
    scep_ca ca({reply});
    clear_log();
    EXPECT_EQ(enroll(ca), PKI_HTTP_ERROR);
    EXPECT_EQ(own_lines(), (log_lines{{4, "failed to send scep request: url=" + ca.url() +
                                              " sts=" + std::to_string(status) + "\n(null)"}}));
    EXPECT_EQ(issued, nullptr);
  }
}

TEST_F(ScepOutcome, TransportErrorsEndIt) {
  scep_reply cut, no_length;
  cut.http = support::raw("HTTP/1.0 200 OK\r\nContent-Length: 9\r\n\r\nx");
  no_length.http = support::raw("HTTP/1.0 200 OK\r\n\r\nx");
  for (const scep_reply &reply : {cut, no_length}) {
    EXPECT_EQ(enroll_with(reply), PKI_HTTP_ERROR);
    EXPECT_EQ(issued, nullptr);
  }
  scep_reply no_head;
  no_head.http = support::raw("");
  EXPECT_EQ(enroll_with(no_head), PKI_HTTP_READ_RESP_ERROR);
}

TEST_F(ScepOutcome, UrlThatIsNoHttpUrlEndsIt) {
  scep_ca ca;
  EXPECT_EQ(enroll(support::make_scep_info("https://127.0.0.1/", ca.certificate(), "SHA256",
                                           "AES-128-CBC")),
            PKI_INVALID_URL);
  EXPECT_EQ(own_lines(), (log_lines{{3, "scep url is not an http url: https://127.0.0.1/"}}));
  EXPECT_EQ(issued, nullptr);
}

TEST_F(ScepOutcome, EachReferenceThatCannotBeTakenIs49) {
  int refused = 0;
  for (int after = 0; after < 10; after++) {
    scep_ca ca;
    support::scep_info info = endpoint(ca);
    fake_failures::fail_x509_up_ref(after);
    int code = enroll(info);
    fake_failures::reset();
    if (code == PKI_OK)
      break;
    EXPECT_EQ(code, PKI_CRYPTO_LOCK_FAILED) << after;
    EXPECT_EQ(issued, nullptr);
    refused++;
  }
  EXPECT_GE(refused, 2) << "the requester's certificate and the issued one";
}

}  // namespace
