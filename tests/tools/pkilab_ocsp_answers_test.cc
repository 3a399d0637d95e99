// What the odd answers of the lab's OCSP room are made of.
#include <gtest/gtest.h>

#include "lab_fixture.h"
#include "ocsp_client.h"
#include "raw_http.h"
#include "tools/common/cert_text.h"
#include "tools/common/keys.h"
#include "tools/pkilab/revocations.h"

namespace {

using tool_test::keys;
using tool_test::ocsp_query;
using tool_test::the_lab;

X509 *issuer() {
  return keys().issuing().cert.get();
}

// One certificate for all cases that do not revoke it.
X509 *cert() {
  static const tools::cert_ptr issued = tool_test::issue_cert(keys(), keys().issuing());
  return issued.get();
}

ocsp_query ask_ocsp(const std::string &query = "") {
  return ocsp_query(the_lab().lab.port(), cert(), issuer(), query);
}

// Seconds from now to a GeneralizedTime, give or take what the exchange took.
void expect_time(const std::string &text, long seconds) {
  std::unique_ptr<ASN1_TIME, tools::free_with<ASN1_STRING_free>> time(ASN1_TIME_new());
  ASSERT_EQ(ASN1_TIME_set_string(time.get(), text.c_str()), 1) << text;
  int days = 0;
  int rest = 0;
  ASSERT_EQ(ASN1_TIME_diff(&days, &rest, nullptr, time.get()), 1);
  EXPECT_NEAR(static_cast<double>(days) * 86400 + rest, static_cast<double>(seconds), 60) << text;
}

std::string produced_at(const ocsp_query &answer) {
  const ASN1_GENERALIZEDTIME *time = OCSP_resp_get0_produced_at(answer.basic());
  const unsigned char *octets = ASN1_STRING_get0_data(time);
  return std::string(octets, octets + ASN1_STRING_length(time));
}

std::string name_of(X509 *named) {
  return tools::name_text(X509_get_subject_name(named));
}

bool has_extension(X509 *of, int nid) {
  return X509_get_ext_by_NID(of, nid, -1) >= 0;
}

TEST(OcspAnswer, IsTheIssuersAndHoldsItsCertificateWithoutOptions) {
  ocsp_query answer = ask_ocsp();
  ASSERT_TRUE(answer.basic());
  EXPECT_EQ(answer.response_status(), 0);
  EXPECT_TRUE(answer.is_signed_by(issuer()));
  EXPECT_EQ(X509_cmp(answer.carried_cert(), issuer()), 0);
  EXPECT_EQ(answer.nonce_check(), 1);
  EXPECT_EQ(OCSP_resp_count(answer.basic()), 1);
  ocsp_query::single single = answer.find();
  EXPECT_EQ(single.status, V_OCSP_CERTSTATUS_GOOD);
  expect_time(produced_at(answer), 0);
  expect_time(single.this_update, 0);
  expect_time(single.next_update, 3600);
}

TEST(OcspAnswer, StatusCanBeForced) {
  EXPECT_EQ(ask_ocsp("?status=good").find().status, V_OCSP_CERTSTATUS_GOOD);
  EXPECT_EQ(ask_ocsp("?status=revoked").find().status, V_OCSP_CERTSTATUS_REVOKED);
  EXPECT_EQ(ask_ocsp("?status=unknown").find().status, V_OCSP_CERTSTATUS_UNKNOWN);
  EXPECT_EQ(ask_ocsp("?status=revoked").find().reason, OCSP_REVOKED_STATUS_NOSTATUS);
}

TEST(OcspAnswer, ForcedStatusHidesARevocation) {
  tools::cert_ptr revoked = tool_test::issue_cert(keys(), keys().issuing());
  pkilab::revocations(keys().folder()).revoke(X509_get0_serialNumber(revoked.get()), {1, 4});
  int port = the_lab().lab.port();
  ocsp_query truth(port, revoked.get(), issuer());
  EXPECT_EQ(truth.find().status, V_OCSP_CERTSTATUS_REVOKED);
  EXPECT_EQ(truth.find().reason, OCSP_REVOKED_STATUS_SUPERSEDED);
  EXPECT_EQ(ocsp_query(port, revoked.get(), issuer(), "?status=good").find().status,
            V_OCSP_CERTSTATUS_GOOD);
}

TEST(OcspAnswer, SecondAnswerStandsBehindTheFirst) {
  ocsp_query answer = ask_ocsp("?second=revoked");
  ASSERT_EQ(OCSP_resp_count(answer.basic()), 2);
  int reason = 0;
  EXPECT_EQ(OCSP_single_get0_status(OCSP_resp_get0(answer.basic(), 0), &reason, nullptr, nullptr,
                                    nullptr),
            V_OCSP_CERTSTATUS_GOOD);
  EXPECT_EQ(OCSP_single_get0_status(OCSP_resp_get0(answer.basic(), 1), &reason, nullptr, nullptr,
                                    nullptr),
            V_OCSP_CERTSTATUS_REVOKED);
}

TEST(OcspAnswer, ResponseStatusIsAnyNumber) {
  for (int status : {1, 2, 3, 4, 5, 6, 7, 100, 1000000}) {
    ocsp_query answer = ask_ocsp("?response-status=" + std::to_string(status));
    EXPECT_EQ(answer.response_status(), status);
    EXPECT_FALSE(answer.basic());
  }
}

TEST(OcspAnswer, ResponseStatusHasNames) {
  EXPECT_EQ(ask_ocsp("?response-status=malformedRequest").response_status(), 1);
  EXPECT_EQ(ask_ocsp("?response-status=internalError").response_status(), 2);
  EXPECT_EQ(ask_ocsp("?response-status=tryLater").response_status(), 3);
  EXPECT_EQ(ask_ocsp("?response-status=sigRequired").response_status(), 5);
  EXPECT_EQ(ask_ocsp("?response-status=unauthorized").response_status(), 6);
}

TEST(OcspAnswer, BytesCanBeMissingOrNoResponse) {
  ocsp_query without = ask_ocsp("?no-bytes");
  EXPECT_EQ(without.response_status(), 0);
  EXPECT_EQ(tool_test::body_of(without.http()), std::string("\x30\x03\x0A\x01\x00", 5));
  ocsp_query odd = ask_ocsp("?no-basic");
  EXPECT_EQ(odd.response_status(), 0);
  EXPECT_FALSE(odd.basic());
  EXPECT_EQ(tool_test::body_of(ask_ocsp("?no-message").http()),
            "these octets are no OCSP response");
}

TEST(OcspAnswer, ResponseTypeCanBeAnother) {
  ocsp_query answer = ask_ocsp("?response-type=1.2.3.4.5");
  EXPECT_EQ(answer.response_status(), 0);
  EXPECT_FALSE(answer.basic());
  EXPECT_NE(answer.http().find("\x06\x04\x2A\x03\x04\x05"), std::string::npos);
}

TEST(OcspAnswer, DelegatedResponderHasBothExtensionsUnlessToldOtherwise) {
  struct expectation {
    const char *query;
    bool usage;
    bool no_check;
  };
  for (const expectation &wanted : {expectation{"", true, true},
                                    {"&no-eku", false, true},
                                    {"&no-nocheck", true, false},
                                    {"&no-eku&no-nocheck", false, false}}) {
    ocsp_query answer = ask_ocsp(std::string("?signer=delegated") + wanted.query);
    X509 *signer = answer.carried_cert();
    EXPECT_EQ(has_extension(signer, NID_ext_key_usage), wanted.usage) << wanted.query;
    EXPECT_EQ(has_extension(signer, NID_id_pkix_OCSP_noCheck), wanted.no_check) << wanted.query;
    EXPECT_EQ(X509_verify(signer, keys().issuing().key.get()), 1);
    EXPECT_TRUE(answer.is_signed_by(signer));
  }
}

TEST(OcspAnswer, DelegatedResponderIsTheSameEachTime) {
  EXPECT_EQ(X509_cmp(ask_ocsp("?signer=delegated").carried_cert(),
                     ask_ocsp("?signer=delegated&id=key").carried_cert()),
            0);
}

TEST(OcspAnswer, DelegatedRespondersOfTwoKindsShareNeitherNameNorKey) {
  ocsp_query one = ask_ocsp("?signer=delegated");
  ocsp_query other = ask_ocsp("?signer=delegated&no-eku");
  EXPECT_NE(name_of(one.carried_cert()), name_of(other.carried_cert()));
  EXPECT_FALSE(one.is_signed_by(other.carried_cert()));
}

TEST(OcspAnswer, DelegatedResponderIsUsedAgainByTheNextLab) {
  ocsp_query before = ask_ocsp("?signer=delegated");
  tool_test::lab_process next(the_lab().file(""));
  ocsp_query after(next.port(), cert(), issuer(), "?signer=delegated");
  EXPECT_EQ(X509_cmp(before.carried_cert(), after.carried_cert()), 0);
}

TEST(OcspAnswer, DelegatedResponderCanNameAResponderOfItsOwn) {
  ocsp_query answer =
      ask_ocsp("?signer=delegated&no-nocheck&signer-aia=status%3Drevoked%26id%3Dkey");
  STACK_OF(OPENSSL_STRING) *urls = X509_get1_ocsp(answer.carried_cert());
  ASSERT_EQ(sk_OPENSSL_STRING_num(urls), 1);
  EXPECT_EQ(sk_OPENSSL_STRING_value(urls, 0), the_lab().lab.url("/ocsp?status=revoked&id=key"));
  X509_email_free(urls);
  EXPECT_FALSE(has_extension(ask_ocsp("?signer=delegated").carried_cert(), NID_info_access));
}

TEST(OcspAnswer, DelegatedResponderCanBeOutOfItsTime) {
  ocsp_query expired = ask_ocsp("?signer=delegated&expired");
  EXPECT_LT(X509_cmp_current_time(X509_get0_notAfter(expired.carried_cert())), 0);
  ocsp_query early = ask_ocsp("?signer=delegated&not-yet-valid");
  EXPECT_GT(X509_cmp_current_time(X509_get0_notBefore(early.carried_cert())), 0);
}

TEST(OcspAnswer, DelegatedResponderCanBeRevoked) {
  ocsp_query answer = ask_ocsp("?signer=delegated&no-nocheck");
  const ASN1_INTEGER *serial = X509_get0_serialNumber(answer.carried_cert());
  int port = the_lab().lab.port();
  EXPECT_EQ(ocsp_query(port, answer.carried_cert(), issuer()).find().status,
            V_OCSP_CERTSTATUS_GOOD);
  pkilab::revocations state(keys().folder());
  ASSERT_TRUE(state.revoke(serial, {1, -1}));
  EXPECT_EQ(ocsp_query(port, answer.carried_cert(), issuer()).find().status,
            V_OCSP_CERTSTATUS_REVOKED);
  EXPECT_TRUE(state.restore(serial));
}

TEST(OcspAnswer, OtherCaSignsWithAResponderThatTheIssuerDoesNotKnow) {
  ocsp_query answer = ask_ocsp("?signer=other-ca");
  EXPECT_TRUE(answer.is_signed_by(answer.carried_cert()));
  EXPECT_EQ(X509_verify(answer.carried_cert(), keys().root().key.get()), 1);
  EXPECT_TRUE(has_extension(answer.carried_cert(), NID_ext_key_usage));
}

TEST(OcspAnswer, StrangerIsSelfSigned) {
  ocsp_query answer = ask_ocsp("?signer=stranger");
  X509 *stranger = answer.carried_cert();
  EXPECT_TRUE(answer.is_signed_by(stranger));
  EXPECT_EQ(X509_verify(stranger, X509_get0_pubkey(stranger)), 1);
  EXPECT_TRUE(has_extension(stranger, NID_ext_key_usage));
}

TEST(OcspAnswer, MisbehaviourWrongKeyIsTheStranger) {
  tool_test::ocsp_request_ptr request = tool_test::make_ocsp_request(cert(), issuer());
  std::string der = tool_test::ocsp_request_der(request.get());
  std::string answer = tool_test::exchange(
      the_lab().lab.port(),
      "POST /misbehave/wrong-key/ocsp HTTP/1.0\r\nContent-Type: application/ocsp-request\r\n"
      "Content-Length: " +
          std::to_string(der.size()) + "\r\n\r\n" + der);
  EXPECT_NE(answer.find("a stranger's stranger"), std::string::npos);
}

TEST(OcspAnswer, ImpostorHasTheIssuersNameAndAnotherKey) {
  ocsp_query answer = ask_ocsp("?signer=impostor");
  EXPECT_EQ(name_of(answer.carried_cert()), name_of(issuer()));
  EXPECT_TRUE(answer.is_signed_by(answer.carried_cert()));
  EXPECT_FALSE(answer.is_signed_by(issuer()));
}

TEST(OcspAnswer, SignersCertificateCanBeLeftOut) {
  EXPECT_FALSE(ask_ocsp("?no-cert").carried_cert());
  EXPECT_FALSE(ask_ocsp("?signer=delegated&no-cert").carried_cert());
  EXPECT_TRUE(ask_ocsp("?no-cert").is_signed_by(issuer()));
}

TEST(OcspAnswer, ResponderIdIsANameOrAKeyHash) {
  auto id_name = [](const ocsp_query &answer) {
    const ASN1_OCTET_STRING *key = nullptr;
    const X509_NAME *name = nullptr;
    OCSP_resp_get0_id(answer.basic(), &key, &name);
    return key ? std::to_string(ASN1_STRING_length(key)) + " octets" : tools::name_text(name);
  };
  EXPECT_EQ(id_name(ask_ocsp()), "CN=pkilab issuing CA, O=pkilab");
  EXPECT_EQ(id_name(ask_ocsp("?id=key")), "20 octets");
  ocsp_query odd = ask_ocsp("?id=other-name");
  EXPECT_EQ(id_name(odd), "CN=nobody");
  EXPECT_TRUE(odd.is_signed_by(issuer()));
  EXPECT_EQ(X509_cmp(odd.carried_cert(), issuer()), 0);
}

TEST(OcspAnswer, DigestOfTheSignatureCanBeChosen) {
  ocsp_query answer = ask_ocsp("?digest=SHA1");
  EXPECT_TRUE(answer.is_signed_by(issuer()));
  const ASN1_OBJECT *algorithm = nullptr;
  X509_ALGOR_get0(&algorithm, nullptr, nullptr, OCSP_resp_get0_tbs_sigalg(answer.basic()));
  EXPECT_EQ(OBJ_obj2nid(algorithm), NID_sha1WithRSAEncryption);
}

TEST(OcspAnswer, DamagedSignatureFitsNobody) {
  EXPECT_FALSE(ask_ocsp("?damaged-signature").is_signed_by(issuer()));
}

TEST(OcspAnswer, NonceCanBeWrongOrMissing) {
  EXPECT_EQ(ask_ocsp("?nonce=mirror").nonce_check(), 1);
  EXPECT_EQ(ask_ocsp("?nonce=wrong").nonce_check(), 0);
  EXPECT_EQ(ask_ocsp("?nonce=none").nonce_check(), -1);
}

TEST(OcspAnswer, CertificateIdCanBeWrong) {
  for (const char *query : {"?cert-id=other-serial", "?cert-id=other-issuer", "?cert-id=sha256"}) {
    ocsp_query answer = ask_ocsp(query);
    EXPECT_FALSE(answer.find().found) << query;
    EXPECT_EQ(OCSP_resp_count(answer.basic()), 1) << query;
  }
  EXPECT_TRUE(ask_ocsp("?cert-id=asked").find().found);
}

TEST(OcspAnswer, CanHoldNoSingleResponse) {
  ocsp_query answer = ask_ocsp("?no-answers");
  ASSERT_TRUE(answer.basic());
  EXPECT_EQ(OCSP_resp_count(answer.basic()), 0);
  EXPECT_TRUE(answer.is_signed_by(issuer()));
}

TEST(OcspAnswer, RightSingleResponseCanStandBehindThousandsOfOthers) {
  ocsp_query answer = ask_ocsp("?others=5000&status=revoked");
  EXPECT_EQ(OCSP_resp_count(answer.basic()), 5001);
  EXPECT_EQ(answer.find().status, V_OCSP_CERTSTATUS_REVOKED);
  EXPECT_TRUE(answer.is_signed_by(issuer()));
}

TEST(OcspAnswer, TimesCanBeShifted) {
  ocsp_query answer = ask_ocsp("?produced-at=301&this-update=-43286400&next-update=-360");
  expect_time(produced_at(answer), 301);
  expect_time(answer.find().this_update, -43286400);
  expect_time(answer.find().next_update, -360);
}

TEST(OcspAnswer, TimesCanBeAnyText) {
  ocsp_query answer = ask_ocsp("?produced-at=never&this-update=20260229000000Z&next-update=");
  EXPECT_EQ(produced_at(answer), "never");
  EXPECT_EQ(answer.find().this_update, "20260229000000Z");
  EXPECT_EQ(answer.find().next_update, "");
  EXPECT_TRUE(answer.is_signed_by(issuer()));
}

TEST(OcspAnswer, NextUpdateCanBeLeftOut) {
  ocsp_query answer = ask_ocsp("?no-next-update");
  ASN1_GENERALIZEDTIME *next_update = nullptr;
  OCSP_single_get0_status(OCSP_resp_get0(answer.basic(), 0), nullptr, nullptr, nullptr,
                          &next_update);
  EXPECT_EQ(next_update, nullptr);
}

}  // namespace
