// scep_qry_cert: GetCert, every outcome.
#include <gtest/gtest.h>
#include <openssl/err.h>

#include <string>

#include "fakes/clock.h"
#include "fakes/failures.h"
#include "unit/pki_store_alloc/destruction.h"
#include "unit/scep_client/scep_fixture.h"

namespace {

using support::log_lines;
using support::own_lines;
using support::scep_ca;
using support::scep_info;
using support::scep_reply;
using support::scep_request;

class ScepQuery : public support::scep_client_test {
 protected:
  void SetUp() override {
    scep_client_test::SetUp();
    query.reset(alloc_cert_info(), free_cert_info);
    query->issuer = X509_NAME_dup(support::make_name({{"C", "US"}, {"CN", "issuer"}}).get());
    query->serial = ASN1_INTEGER_dup(support::make_serial("\x01\x02\x03\x04\x05").get());
  }
  int ask(const scep_info &info) { return scep_qry_cert(query.get(), info.get(), own_key.get()); }
  int ask(const scep_ca &ca) { return ask(endpoint(ca)); }
  int ask_with(const scep_reply &reply) {
    scep_ca ca({reply});
    clear_log();
    return ask(ca);
  }
  // A certificate in the query, and the count of its destructions.
  support::destruction_count put_old_certificate() {
    support::cert old = support::simple_cert("old", "old", 1);
    auto destroyed = support::watch(old);
    query->cert = support::reference(old);
    return destroyed;
  }
  static scep_reply with_certificate() {
    scep_reply reply;
    reply.issued = support::simple_cert("issuer", "found", 5);
    return reply;
  }

  std::shared_ptr<cert_info> query;
};

TEST_F(ScepQuery, SendsAGetCertForIssuerAndSerialNumber) {
  scep_ca ca({with_certificate()});
  ASSERT_EQ(ask(ca), PKI_OK) << log_dump();
  ASSERT_EQ(ca.requests().size(), 1u);
  scep_request sent = ca.requests()[0];
  EXPECT_EQ(sent.type, SCEP_GET_CERT);
  EXPECT_EQ(sent.target, "/scep?operation=PKIOperation&message=" + support::base64_lines(sent.der));
  EXPECT_EQ(sent.tx_id.size(), 32u);
  EXPECT_EQ(sent.tx_id.find_first_not_of("0123456789ABCDEF"), std::string::npos);
  EXPECT_EQ(sent.sender_nonce.size(), 16u);
  EXPECT_EQ(sent.recipient_nonce, "");
  const auto *in = reinterpret_cast<const unsigned char *>(sent.payload.data());
  PKCS7_ISSUER_AND_SERIAL *asked =
      d2i_PKCS7_ISSUER_AND_SERIAL(nullptr, &in, static_cast<long>(sent.payload.size()));
  ASSERT_NE(asked, nullptr);
  EXPECT_EQ(support::oneline(asked->issuer), "/C=US/CN=issuer");
  EXPECT_EQ(ASN1_INTEGER_cmp(asked->serial, query->serial), 0);
  PKCS7_ISSUER_AND_SERIAL_free(asked);
}

TEST_F(ScepQuery, SignsUnderACertificateOfItsKeyWithAnEmptyNameAndTheWantedSerialNumber) {
  scep_ca ca({with_certificate()});
  ASSERT_EQ(ask(ca), PKI_OK);
  scep_request sent = ca.requests()[0];
  ASSERT_EQ(sk_X509_num(sent.message->d.sign->cert), 1);
  X509 *self = sk_X509_value(sent.message->d.sign->cert, 0);
  EXPECT_EQ(X509_NAME_entry_count(X509_get_subject_name(self)), 0);
  EXPECT_EQ(ASN1_INTEGER_cmp(X509_get_serialNumber(self), query->serial), 0);
  EXPECT_EQ(EVP_PKEY_eq(X509_get0_pubkey(self), own_key.get()), 1);
}

TEST_F(ScepQuery, EachQueryIsATransactionOfItsOwn) {
  scep_ca ca({with_certificate()});
  ASSERT_EQ(ask(ca), PKI_OK);
  ASSERT_EQ(ask(ca), PKI_OK);
  EXPECT_NE(ca.requests()[0].tx_id, ca.requests()[1].tx_id);
}

TEST_F(ScepQuery, SuccessPutsTheFirstCertificateIntoTheQuery) {
  scep_reply reply = with_certificate();
  EXPECT_EQ(ask_with(reply), PKI_OK);
  ASSERT_NE(query->cert, nullptr);
  EXPECT_EQ(X509_cmp(query->cert, reply.issued.get()), 0);
  EXPECT_EQ(captured_log(), log_lines());
  EXPECT_EQ(support::oneline(query->issuer), "/C=US/CN=issuer");
  EXPECT_EQ(query->label, nullptr);
  EXPECT_EQ(query->subject, nullptr);
}

TEST_F(ScepQuery, SuccessFreesTheOldCertificate) {
  auto destroyed = put_old_certificate();
  EXPECT_EQ(ask_with(with_certificate()), PKI_OK);
  EXPECT_EQ(*destroyed, 1);
  EXPECT_EQ(support::oneline(X509_get_subject_name(query->cert)), "/CN=found");
}

TEST_F(ScepQuery, EveryFailureLeavesTheOldCertificate) {
  auto destroyed = put_old_certificate();
  X509 *before = query->cert;
  scep_reply http, garbage, empty;
  http.http = support::status(500);
  garbage.http = support::ok("x");
  empty.payload = support::empty_certificate_list();
  for (const scep_reply &reply : {http, garbage, empty, support::refusal(4), support::pending()}) {
    EXPECT_NE(ask_with(reply), PKI_OK);
    EXPECT_EQ(query->cert, before);
  }
  EXPECT_EQ(*destroyed, 0);
}

TEST_F(ScepQuery, RefusalIsLoggedWithItsReason) {
  for (int reason : {0, 1, 2, 3, 4}) {
    EXPECT_EQ(ask_with(support::refusal(reason)), PKI_SCEP_REQ_REJ);
    EXPECT_EQ(own_lines(), (log_lines{{3, "cert-request rejected"},
                                      {3, "rejection-reason: " + std::to_string(reason)}}));
    EXPECT_EQ(query->cert, nullptr);
  }
}

TEST_F(ScepQuery, RefusalWithoutAReasonIsLoggedAlone) {
  EXPECT_EQ(ask_with(support::refusal()), PKI_SCEP_REQ_REJ);
  EXPECT_EQ(own_lines(), (log_lines{{3, "cert-request rejected"}}));
}

TEST_F(ScepQuery, PendingIsARefusalAndNotPolledFor) {
  scep_ca ca({support::pending()});
  EXPECT_EQ(ask(ca), PKI_SCEP_REQ_REJ);
  EXPECT_EQ(ca.requests().size(), 1u);
  EXPECT_TRUE(fake_clock::sleeps().empty());
  EXPECT_EQ(own_lines(), (log_lines{{3, "cert-request rejected"}}));
}

TEST_F(ScepQuery, AnswerWithoutACertificateIsInvalid) {
  for (const std::string &content :
       {support::empty_certificate_list(), support::no_certificate_list(),
        support::der(support::make_data("data"))}) {
    scep_reply reply;
    reply.payload = content;
    EXPECT_EQ(ask_with(reply), PKI_INVALID_SCEP_RSP);
    EXPECT_EQ(own_lines(), (log_lines{{3, "no certificate found in response tocert-request: " +
                                              support::upper_hex(content)}}));
    EXPECT_EQ(query->cert, nullptr);
  }
}

TEST_F(ScepQuery, InvalidAnswerIsLoggedOnceMore) {
  scep_reply reply;
  reply.http = support::ok("x");
  EXPECT_EQ(ask_with(reply), PKI_INVALID_SCEP_RSP);
  EXPECT_EQ(own_lines(),
            (log_lines{{3, "failed to decode scep response: 78"},
                       {3, "failed to parse scep response to GetCert: err = `INVALID SCEP RSP'"}}));
}

TEST_F(ScepQuery, AnswersOfStrangersAndOtherTransactionsAreInvalid) {
  scep_reply wrong_id, wrong_nonce, stranger, other_recipient;
  wrong_id.tx_id = "0000";
  wrong_nonce.recipient_nonce = "0123456789abcdef";
  stranger.signing_key = support::test_key(2);
  stranger.signer_cert = support::make_ca("scep ca", 2, 70);
  other_recipient.recipient = support::make_ca("stranger", 2);
  for (const scep_reply &reply : {wrong_id, wrong_nonce, stranger, other_recipient}) {
    EXPECT_EQ(ask_with(reply), PKI_INVALID_SCEP_RSP);
    EXPECT_EQ(own_lines().size(), 2u) << log_dump();
    EXPECT_EQ(query->cert, nullptr);
  }
}

TEST_F(ScepQuery, TransportErrorsAreTheResult) {
  scep_reply reply;
  reply.http = support::status(500);
  EXPECT_EQ(ask_with(reply), PKI_HTTP_ERROR);
  EXPECT_TRUE(logged_containing(4, " sts=500\n(null)"));
  EXPECT_EQ(own_lines().size(), 1u) << log_dump();
  reply.http = support::raw("");
  EXPECT_EQ(ask_with(reply), PKI_HTTP_READ_RESP_ERROR);
  scep_ca ca;
  EXPECT_EQ(ask(support::make_scep_info("ftp://x/", ca.certificate())), PKI_INVALID_URL);
}

TEST_F(ScepQuery, RequestThatCannotBeMadeIs62) {
  scep_ca ca;
  support::cert_options options;
  options.public_key = support::make_ec_key();
  EXPECT_EQ(
      ask(support::make_scep_info(ca.url(), support::make_cert(options), "SHA256", "AES-128-CBC")),
      PKI_FAILED_TO_GEN_GET_CERT);
  EXPECT_EQ(own_lines(),
            (log_lines{{3, "failed to generate scep GetCert request: err = `P7 ENCRYPT FAILED'"}}));
  EXPECT_TRUE(ca.requests().empty());
}

TEST_F(ScepQuery, KeyOfAnUnknownTypeIs62) {
  scep_ca ca;
  own_key = support::key(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"), EVP_PKEY_free);
  EXPECT_EQ(ask(support::make_scep_info(ca.url(), ca.certificate(), nullptr, "AES-128-CBC")),
            PKI_FAILED_TO_GEN_GET_CERT);
  EXPECT_TRUE(was_logged(3, "failed to generate scep GetCert request: err = `UNKNOWN KEY TYPE'"))
      << log_dump();
  EXPECT_TRUE(ca.requests().empty());
}

TEST_F(ScepQuery, ReferenceThatCannotBeTakenIs49) {
  auto destroyed = put_old_certificate();
  X509 *before = query->cert;
  bool refused = false;
  for (int after = 0; after < 5 && query->cert == before; after++) {
    scep_ca ca({with_certificate()});
    scep_info info = endpoint(ca);
    fake_failures::fail_x509_up_ref(after);
    int code = ask(info);
    fake_failures::reset();
    if (code == PKI_OK)
      break;
    EXPECT_EQ(code, PKI_CRYPTO_LOCK_FAILED);
    EXPECT_EQ(query->cert, before);
    EXPECT_EQ(*destroyed, 0);
    refused = true;
  }
  EXPECT_TRUE(refused);
}

TEST_F(ScepQuery, MissingArgumentsAreRefused) {
  scep_ca ca;
  scep_info info = endpoint(ca);
  EXPECT_EQ(scep_qry_cert(nullptr, info.get(), own_key.get()), PKI_INVALID_ARGS);
  EXPECT_EQ(scep_qry_cert(query.get(), nullptr, own_key.get()), PKI_INVALID_ARGS);
  EXPECT_EQ(scep_qry_cert(query.get(), info.get(), nullptr), PKI_INVALID_ARGS);
  EXPECT_TRUE(ca.requests().empty());
}

TEST_F(ScepQuery, QueryWithoutIssuerOrSerialNumberIsRefused) {
  scep_ca ca;
  scep_info info = endpoint(ca);
  std::swap(query->issuer, query->subject);
  EXPECT_EQ(ask(info), PKI_INVALID_ARGS);
  std::swap(query->issuer, query->subject);
  ASN1_INTEGER_free(query->serial);
  query->serial = nullptr;
  EXPECT_EQ(ask(info), PKI_INVALID_ARGS);
  EXPECT_TRUE(ca.requests().empty());
}

TEST_F(ScepQuery, EndpointWithoutUrlOrCaCertificateIsRefused) {
  scep_ca ca;
  scep_info no_url = endpoint(ca), no_cert = endpoint(ca);
  free(no_url->url);
  no_url->url = nullptr;
  X509_free(no_cert->ca_cert);
  no_cert->ca_cert = nullptr;
  auto destroyed = put_old_certificate();
  EXPECT_EQ(ask(no_url), PKI_INVALID_ARGS);
  EXPECT_EQ(ask(no_cert), PKI_INVALID_ARGS);
  EXPECT_TRUE(ca.requests().empty());
  EXPECT_EQ(*destroyed, 0);
}

TEST_F(ScepQuery, BoardIsNotAsked) {
  fake_failures::fail_serialnumber(5);
  EXPECT_EQ(ask_with(with_certificate()), PKI_OK);
}

}  // namespace
