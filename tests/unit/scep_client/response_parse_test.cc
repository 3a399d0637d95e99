// parse_scep_rsp: each check of an answer, its code and its line in the log.
#include <gtest/gtest.h>
#include <openssl/err.h>

#include <climits>
#include <string>

#include "unit/scep_client/scep_fixture.h"

namespace {

using support::log_lines;
using support::own_lines;
using support::pkcs7;
using support::scep_ca;
using support::scep_reply;

class ScepResponse : public support::store_test {
 protected:
  void SetUp() override {
    support::store_test::SetUp();
    PKCS7 *made = nullptr;
    ASSERT_EQ(gen_scep_cert_req(key.get(), key.get(), nullptr, ca_cert.get(), nullptr, 0,
                                EVP_sha256(), EVP_aes_128_cbc(), &made),
              PKI_OK);
    request.reset(made, PKCS7_free);
    own_cert = sk_X509_value(made->d.sign->cert, 0);
  }

  // What a CA answers to the request.
  std::string answer_of(const scep_reply &reply) {
    scep_ca ca({reply});
    void *body = nullptr;
    int length = 0;
    EXPECT_EQ(send_scep_msg(request.get(), ca.url().c_str(), &body, &length), PKI_OK);
    std::string octets(static_cast<char *>(body), static_cast<size_t>(length));
    free(body);
    return octets;
  }
  int parse(const std::string &octets) { return parse(octets, ca_cert.get()); }
  int parse(const std::string &octets, X509 *verifier) {
    clear_log();
    PKCS7 *read = request.get(), *opened = request.get();  // must be overwritten
    int code = parse_scep_rsp(reinterpret_cast<const unsigned char *>(octets.data()),
                              static_cast<int>(octets.size()), key.get(), verifier, own_cert,
                              request.get(), &read, &status, &opened);
    response.reset(read, PKCS7_free);
    content.reset(opened, PKCS7_free);
    if (code != PKI_OK) {
      EXPECT_EQ(read, nullptr);
      EXPECT_EQ(opened, nullptr);
    }
    return code;
  }
  // Parses what the CA answers: 59, and this line in front of the DER at level 3.
  void expect_refused(const scep_reply &reply, const std::string &line) {
    std::string octets = answer_of(reply);
    EXPECT_EQ(parse(octets), PKI_INVALID_SCEP_RSP);
    EXPECT_EQ(own_lines(), (log_lines{{3, line + support::upper_hex(octets)}})) << log_dump();
  }
  // The same for checks whose line stands alone.
  void expect_transaction_refused(const scep_reply &reply, const std::string &line) {
    EXPECT_EQ(parse(answer_of(reply)), PKI_INVALID_SCEP_RSP);
    EXPECT_EQ(own_lines(), (log_lines{{3, line}})) << log_dump();
  }
  static std::string bad_cert_response(int code) {
    return "failed to parse or verify scep cert-response: err = `" + support::code_text(code) +
           "', resp = ";
  }
  std::string tx_id() {
    const char *text = nullptr;
    get_string_attr(request.get(), pki_nid_list[PKI_OID_SCEP_TRANSACTION_ID], &text);
    return text ? text : "";
  }
  std::string nonce() {
    return support::octets_attribute(support::der(request), PKI_OID_SCEP_SENDER_NONCE);
  }

  support::key key = support::test_key(1);
  support::cert ca_cert = support::make_ca("scep ca", 7, 70);
  pkcs7 request, response, content;
  X509 *own_cert = nullptr;
  int status = -77;
};

TEST_F(ScepResponse, SuccessGivesResponseStatusAndContent) {
  scep_reply reply;
  reply.issued = support::simple_cert("scep ca", "device", 5);
  std::string octets = answer_of(reply);
  ASSERT_EQ(parse(octets), PKI_OK) << log_dump();
  EXPECT_EQ(status, SCEP_STATUS_SUCCESS);
  EXPECT_EQ(support::der(response), octets);
  ASSERT_NE(content, nullptr);
  ASSERT_TRUE(PKCS7_type_is_signed(content.get()));
  ASSERT_EQ(sk_X509_num(content->d.sign->cert), 2);
  EXPECT_EQ(X509_cmp(sk_X509_value(content->d.sign->cert, 0), reply.issued.get()), 0);
  EXPECT_EQ(captured_log(), log_lines());
}

TEST_F(ScepResponse, OtherStatusesGiveResponseAndStatusAndNoContent) {
  for (int wanted : {2, 3, 1, 9}) {
    scep_reply reply;
    reply.status = wanted;
    reply.fail_info = wanted == 2 ? 4 : -1;
    std::string octets = answer_of(reply);
    ASSERT_EQ(parse(octets), PKI_OK) << log_dump();
    EXPECT_EQ(status, wanted);
    EXPECT_EQ(support::der(response), octets);
    EXPECT_EQ(content, nullptr);
    EXPECT_EQ(captured_log(), log_lines());
  }
}

TEST_F(ScepResponse, BodyThatIsNoMessageIsLoggedInHexadecimal) {
  EXPECT_EQ(parse("not DER"), PKI_INVALID_SCEP_RSP);
  EXPECT_EQ(own_lines(), (log_lines{{3, "failed to decode scep response: 6E6F7420444552"}}));
  EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST_F(ScepResponse, EmptyBodyIsLoggedAsNothing) {
  EXPECT_EQ(parse(""), PKI_INVALID_SCEP_RSP);
  EXPECT_EQ(own_lines(), (log_lines{{3, "failed to decode scep response: "}}));
}

TEST_F(ScepResponse, MessageThatIsNoSignedDataIsRefused) {
  EXPECT_EQ(parse(support::der(support::make_data("data"))), PKI_INVALID_SCEP_RSP);
  EXPECT_EQ(own_lines(), (log_lines{{3, "CheckTxAttrs: response is not a signed-data!"}}));
  EXPECT_EQ(parse(support::der(support::make_envelope("x", ca_cert))), PKI_INVALID_SCEP_RSP);
  EXPECT_EQ(own_lines(), (log_lines{{3, "CheckTxAttrs: response is not a signed-data!"}}));
}

TEST_F(ScepResponse, BareSignedDataIsRefused) {
  EXPECT_EQ(parse(support::der(support::make_bare_message(NID_pkcs7_signed))),
            PKI_INVALID_SCEP_RSP);
  EXPECT_EQ(own_lines().size(), 1u) << log_dump();
}

TEST_F(ScepResponse, SignedDataWithoutSignersIsRefused) {
  EXPECT_EQ(parse(support::certificate_list({ca_cert})), PKI_INVALID_SCEP_RSP);
  EXPECT_EQ(own_lines(), (log_lines{{3, "CheckTxAttrs: response is not a signed-data!"}}));
}

TEST_F(ScepResponse, TransactionIdMustBeTheRequests) {
  scep_reply reply;
  reply.tx_id = "0123456789ABCDEF0123456789ABCDEF";
  expect_transaction_refused(
      reply, "CheckTxAttrs: tx-id mismatch: '" + *reply.tx_id + "' != '" + tx_id() + "'");
}

TEST_F(ScepResponse, TransactionIdMustBeThere) {
  scep_reply reply;
  reply.tx_id = "";
  expect_transaction_refused(reply, "CheckTxAttrs: no tx-id found in response");
}

TEST_F(ScepResponse, TransactionIdMustBeAString) {
  scep_reply reply;
  reply.tx_id = "";
  reply.more = {{PKI_OID_SCEP_TRANSACTION_ID, tx_id(), V_ASN1_OCTET_STRING}};
  expect_transaction_refused(reply, "CheckTxAttrs: tx-id in response is not a string!");
}

TEST_F(ScepResponse, RecipientNonceMustBeTheRequestsSenderNonce) {
  scep_reply reply;
  reply.recipient_nonce = "another nonce!!!";
  expect_transaction_refused(
      reply,
      "The sender-nonce in the request doesn't match the recipient-nonce in the response: '" +
          support::upper_hex(nonce()) + "' != '" + support::upper_hex(*reply.recipient_nonce) +
          "'");
}

TEST_F(ScepResponse, RecipientNonceWithAnotherLengthIsRefused) {
  for (std::string wrong : {nonce().substr(0, 15), nonce() + "x", nonce() + nonce()}) {
    scep_reply reply;
    reply.recipient_nonce = wrong;
    EXPECT_EQ(parse(answer_of(reply)), PKI_INVALID_SCEP_RSP);
    EXPECT_TRUE(logged_containing(3, "' != '" + support::upper_hex(wrong) + "'")) << log_dump();
  }
}

TEST_F(ScepResponse, RecipientNonceMustBeThere) {
  scep_reply reply;
  reply.recipient_nonce = "";
  expect_transaction_refused(reply, "CheckTxAttrs: no recipient-nonce found in response");
}

TEST_F(ScepResponse, RecipientNonceMustBeAnOctetString) {
  scep_reply reply;
  reply.recipient_nonce = "";
  reply.more = {{PKI_OID_SCEP_RECIPIENT_NONCE, nonce(), V_ASN1_PRINTABLESTRING}};
  expect_transaction_refused(reply,
                             "CheckTxAttrs: recipient-nonce in response is not an OCTET STRING");
}

TEST_F(ScepResponse, MissingMessageTypeIsRefused) {
  scep_reply reply;
  reply.type = "";
  expect_refused(reply, "no message-type found in response to cert-request: ");
}

TEST_F(ScepResponse, MessageTypeMustBeCertRep) {
  for (const char *type : {"19", "4", "33", "-3", "x", "0"}) {
    scep_reply reply;
    reply.type = type;
    expect_refused(reply, std::string("unknown message-type '") + type +
                              "' found in response to cert-request: ");
  }
}

TEST_F(ScepResponse, MessageTypeIsReadAsANumber) {
  scep_reply reply;
  reply.type = "03";
  EXPECT_EQ(parse(answer_of(reply)), PKI_OK) << log_dump();
}

TEST_F(ScepResponse, MessageTypeThatIsNoStringIsRefused) {
  scep_reply reply;
  reply.type = "";
  reply.more = {{PKI_OID_SCEP_MESSAGE_TYPE, "3", V_ASN1_OCTET_STRING}};
  expect_refused(reply, "no message-type found in response to cert-request: ");
}

TEST_F(ScepResponse, MissingStatusIsRefused) {
  scep_reply reply;
  reply.status_text = "";
  expect_refused(reply, "no status-code found in response to cert-request: ");
}

TEST_F(ScepResponse, StatusThatIsNoStringIsRefused) {
  scep_reply reply;
  reply.status_text = "";
  reply.more = {{PKI_OID_SCEP_PKI_STATUS, "0", V_ASN1_OCTET_STRING}};
  expect_refused(reply, "no status-code found in response to cert-request: ");
}

TEST_F(ScepResponse, SecondValueOfAnAttributeIsNotLookedAt) {
  // A SET is sorted: the smaller values are the first ones.
  scep_reply reply;
  reply.type = "";
  reply.status = SCEP_STATUS_PENDING;
  reply.status_text = "";
  reply.more = {{PKI_OID_SCEP_MESSAGE_TYPE, "3", V_ASN1_PRINTABLESTRING, {"4", "5"}},
                {PKI_OID_SCEP_PKI_STATUS, "3", V_ASN1_PRINTABLESTRING, {"5"}}};
  ASSERT_EQ(parse(answer_of(reply)), PKI_OK) << log_dump();
  EXPECT_EQ(status, SCEP_STATUS_PENDING);
}

TEST_F(ScepResponse, StatusOf100KilobytesIsANumberLikeAnyOther) {
  scep_reply reply;
  reply.status = SCEP_STATUS_PENDING;
  reply.status_text = std::string(100000, '0') + "3";
  ASSERT_EQ(parse(answer_of(reply)), PKI_OK);
  EXPECT_EQ(status, SCEP_STATUS_PENDING);
}

TEST_F(ScepResponse, SuccessSignedUnderAnotherNameIsRefused) {
  scep_reply reply;
  reply.signing_key = support::test_key(2);
  reply.signer_cert = support::make_ca("stranger", 2, 70);
  expect_refused(reply, bad_cert_response(PKI_SIGNER_NOT_FOUND));
}

TEST_F(ScepResponse, SuccessSignedWithAnotherKeyUnderTheCasNameIsRefused) {
  // The message brings the stranger's certificate along.
  scep_reply reply;
  reply.signing_key = support::test_key(2);
  reply.signer_cert = support::make_ca("scep ca", 2, 70);
  expect_refused(reply, bad_cert_response(PKI_P7_VERIFY_FAILED));
}

TEST_F(ScepResponse, SuccessForAnotherRecipientIsRefused) {
  scep_reply reply;
  reply.recipient = support::make_ca("stranger", 2, 9);
  expect_refused(reply, bad_cert_response(PKI_P7_DECRYPT_FAILED));
}

TEST_F(ScepResponse, SuccessWhoseEnvelopeHoldsNoMessageIsRefused) {
  scep_reply reply;
  reply.payload = "not DER";
  expect_refused(reply, bad_cert_response(PKI_INVALID_DER));
}

TEST_F(ScepResponse, SuccessWithoutAnEnvelopeIsRefused) {
  for (std::string inner : {std::string(), std::string("not DER")}) {
    scep_reply reply;
    reply.inner = inner;
    expect_refused(reply, bad_cert_response(PKI_INVALID_DER));
  }
}

TEST_F(ScepResponse, SuccessWithAnOpenCertificateListIsRefused) {
  scep_reply reply;
  reply.inner = support::certificate_list({ca_cert});
  expect_refused(reply, bad_cert_response(PKI_P7_DECRYPT_FAILED));
}

TEST_F(ScepResponse, StatusSignedUnderAnotherNameIsRefused) {
  scep_reply reply = support::pending();
  reply.signing_key = support::test_key(2);
  reply.signer_cert = support::make_ca("stranger", 2, 70);
  expect_refused(reply, "failed to parse or verify scep status-response: ");
}

TEST_F(ScepResponse, StatusSignedWithAnotherKeyUnderTheCasNameIsRefused) {
  for (scep_reply reply : {support::pending(), support::refusal(2)}) {
    reply.signing_key = support::test_key(2);
    reply.signer_cert = support::make_ca("scep ca", 2, 70);
    expect_refused(reply, "failed to parse or verify scep status-response: ");
  }
}

TEST_F(ScepResponse, CasCertificateInTheMessageDoesNotReplaceTheMissingOne) {
  for (const scep_reply &reply : {scep_reply(), support::pending(), support::refusal()})
    EXPECT_EQ(parse(answer_of(reply), nullptr), PKI_INVALID_SCEP_RSP);
}

TEST_F(ScepResponse, OctetsBehindTheMessageDoNotMatter) {
  EXPECT_EQ(parse(answer_of(support::pending()) + "more"), PKI_OK) << log_dump();
}

TEST_F(ScepResponse, MissingArgumentsAreRefused) {
  std::string octets = answer_of({});
  const auto *der = reinterpret_cast<const unsigned char *>(octets.data());
  int length = static_cast<int>(octets.size());
  PKCS7 *read = nullptr, *opened = nullptr;
  X509 *ca = ca_cert.get();
  PKCS7 *asked = request.get();
  EXPECT_EQ(
      parse_scep_rsp(nullptr, length, key.get(), ca, own_cert, asked, &read, &status, &opened),
      PKI_INVALID_ARGS);
  EXPECT_EQ(parse_scep_rsp(der, length, key.get(), ca, own_cert, nullptr, &read, &status, &opened),
            PKI_INVALID_ARGS);
  EXPECT_EQ(parse_scep_rsp(der, length, key.get(), ca, own_cert, asked, nullptr, &status, &opened),
            PKI_INVALID_ARGS);
  EXPECT_EQ(parse_scep_rsp(der, length, key.get(), ca, own_cert, asked, &read, nullptr, &opened),
            PKI_INVALID_ARGS);
  EXPECT_EQ(parse_scep_rsp(der, length, key.get(), ca, own_cert, asked, &read, &status, nullptr),
            PKI_INVALID_ARGS);
  EXPECT_EQ(parse_scep_rsp(der, length, nullptr, ca, own_cert, asked, &read, &status, &opened),
            PKI_INVALID_ARGS);
  EXPECT_EQ(parse_scep_rsp(der, length, key.get(), ca, nullptr, asked, &read, &status, &opened),
            PKI_INVALID_ARGS);
  EXPECT_EQ(read, nullptr);
  EXPECT_EQ(opened, nullptr);
}

TEST_F(ScepResponse, NegativeLengthIsRefusedWithoutALine) {
  std::string octets = answer_of({});
  const auto *der = reinterpret_cast<const unsigned char *>(octets.data());
  clear_log();
  for (int length : {-1, INT_MIN}) {
    PKCS7 *read = request.get(), *opened = request.get();  // must be overwritten
    EXPECT_EQ(parse_scep_rsp(der, length, key.get(), ca_cert.get(), own_cert, request.get(), &read,
                             &status, &opened),
              PKI_INVALID_ARGS);
    EXPECT_EQ(read, nullptr);
    EXPECT_EQ(opened, nullptr);
  }
  EXPECT_EQ(status, -77);
  EXPECT_EQ(captured_log(), log_lines());
}

// Whatever is done to an answer: an error, or the very same certificates.
class ScepBadResponse : public ScepResponse {
 protected:
  void expect_harmless(const std::string &octets, const std::string &wanted, size_t at) {
    int code = parse(octets);
    if (code == PKI_OK && wanted.empty())
      EXPECT_EQ(status, SCEP_STATUS_PENDING) << at;
    else if (code == PKI_OK)
      EXPECT_EQ(support::der(content), wanted) << at;
    else
      EXPECT_EQ(code, PKI_INVALID_SCEP_RSP) << at;
    EXPECT_EQ(ERR_peek_error(), 0u) << at;
  }
  void change_every_octet(const std::string &good) {
    ASSERT_EQ(parse(good), PKI_OK);
    std::string wanted = content ? support::der(content) : "";
    for (size_t at = 0; at < good.size(); at++) {
      std::string bad = good;
      bad[at] = static_cast<char>(~bad[at]);
      expect_harmless(bad, wanted, at);
    }
  }
};

TEST_F(ScepBadResponse, EachTruncationIsRefused) {
  for (const scep_reply &reply : {scep_reply(), support::refusal(2)}) {
    std::string good = answer_of(reply);
    for (size_t length = 0; length < good.size(); length++)
      ASSERT_EQ(parse(good.substr(0, length)), PKI_INVALID_SCEP_RSP) << length;
  }
}

TEST_F(ScepBadResponse, EachChangedOctetOfAStatusIsRefusedOrHarmless) {
  change_every_octet(answer_of(support::pending()));
}

TEST_F(ScepBadResponse, EachChangedOctetOfCertificatesIsRefusedOrHarmless) {
  change_every_octet(answer_of({}));
}

}  // namespace
