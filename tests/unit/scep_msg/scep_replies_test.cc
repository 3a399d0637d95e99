// CertRep with certificates, and CertRep of a status alone.
#include "messages.h"

namespace {

using namespace scep;

const std::string request_nonce(16, 'N');

struct Replies : scep_test {
  support::key key = ca_key;
  support::cert signer = ca;
  support::cert issued = support::simple_cert("ca", "issued", 99);
  support::cert recipient = device;
  pkcs7 request = honest_request();

  pkcs7 honest_request(const EVP_MD *md = nullptr, const EVP_CIPHER *cipher = nullptr) {
    PKCS7 *out = nullptr;
    EXPECT_EQ(gen_scep_cert_req(device_key.get(), device_key.get(), nullptr, ca.get(), nullptr, 0,
                                md, cipher, &out),
              PKI_OK);
    pkcs7 made(out, PKCS7_free);
    return read_back(made);
  }
  // A request with these attributes around `inner` (DER of a ContentInfo); SHA-1 is its digest.
  static pkcs7 request_with(const std::vector<std::string> &attributes,
                            const std::string &inner = "") {
    pkcs7 made = message_with(attributes);
    ASN1_OCTET_STRING_set(made->d.sign->contents->d.data,
                          reinterpret_cast<const unsigned char *>(inner.data()),
                          static_cast<int>(inner.size()));
    return made;
  }
  static std::vector<std::string> usual_attributes() {
    return {attribute(PKI_OID_SCEP_TRANSACTION_ID, {printable("the id")}),
            attribute(PKI_OID_SCEP_SENDER_NONCE, {octet_string(request_nonce)})};
  }
  static void forget_digest(const pkcs7 &message) {
    X509_ALGOR *algorithm = first_signer(message)->digest_alg;
    ASN1_OBJECT_free(algorithm->algorithm);
    algorithm->algorithm = OBJ_txt2obj("1.3.6.1.4.1.32473.1", 1);
  }

  virtual int make(PKCS7 **out) = 0;
  pkcs7 make() {
    auto *out = untouched<PKCS7>();
    if (int code = make(&out); code != PKI_OK)
      throw std::runtime_error("code " + std::to_string(code) + "\n" + log_dump());
    return read_back(pkcs7(out, PKCS7_free));
  }
  void expect_refused(int code) {
    auto *out = untouched<PKCS7>();
    EXPECT_EQ(make(&out), code) << log_dump();
    EXPECT_EQ(out, nullptr);
  }
  void expect_refused(const std::vector<std::string> &attributes, int code) {
    request = request_with(attributes);
    expect_refused(code);
  }
  // What both kinds of reply answer to a request that lacks what they need.
  void expect_reading_errors_passed_on() {
    const std::string id = usual_attributes()[0];
    const std::string nonce = usual_attributes()[1];
    expect_refused({nonce}, PKI_ATTR_NOT_FOUND);
    expect_refused({id}, PKI_ATTR_NOT_FOUND);
    expect_refused({attribute(PKI_OID_SCEP_TRANSACTION_ID, {octet_string("id")}), nonce},
                   PKI_ATTR_NOT_STRING);
    expect_refused({id, attribute(PKI_OID_SCEP_SENDER_NONCE, {printable("n")})},
                   PKI_ATTR_NOT_OCTET_STRING);
    request = message_of_signers({});
    expect_refused(PKI_NO_SIGNERS);
    request = support::make_envelope("x", ca);
    expect_refused(PKI_NOT_SIGNED_DATA);
    EXPECT_EQ(captured_log(), std::vector<log_entry>());
  }
};

// ---- with certificates ----

struct GenScepCertRep : Replies {
  using Replies::make;
  int make(PKCS7 **out) override {
    return gen_scep_cert_rep(issued.get(), key.get(), signer.get(), recipient.get(), request.get(),
                             out);
  }
  pkcs7 payload(const pkcs7 &message) {
    pkcs7 read = decode<PKCS7>(payload_of(message, device_key, device), d2i_PKCS7, PKCS7_free);
    EXPECT_NE(read, nullptr);
    return read;
  }
};

TEST_F(GenScepCertRep, AnswersTheTransactionWithSuccess) {
  pkcs7 message = make();
  EXPECT_EQ(attribute_nids(message),
            finished_with({PKI_OID_SCEP_MESSAGE_TYPE, PKI_OID_SCEP_TRANSACTION_ID,
                           PKI_OID_SCEP_SENDER_NONCE, PKI_OID_SCEP_RECIPIENT_NONCE,
                           PKI_OID_SCEP_PKI_STATUS}));
  EXPECT_EQ(text_of(message, PKI_OID_SCEP_MESSAGE_TYPE), "3");
  EXPECT_EQ(text_of(message, PKI_OID_SCEP_PKI_STATUS), "0");
  EXPECT_EQ(text_of(message, PKI_OID_SCEP_TRANSACTION_ID),
            text_of(request, PKI_OID_SCEP_TRANSACTION_ID));
  EXPECT_EQ(octets_of(message, PKI_OID_SCEP_RECIPIENT_NONCE),
            octets_of(request, PKI_OID_SCEP_SENDER_NONCE));
  std::string fresh = octets_of(message, PKI_OID_SCEP_SENDER_NONCE);
  EXPECT_EQ(fresh.size(), 16u);
  EXPECT_NE(octets_of(make(), PKI_OID_SCEP_SENDER_NONCE), fresh);
  EXPECT_EQ(check_tx_attrs(request.get(), message.get(), 1), 0);
}

TEST_F(GenScepCertRep, IsSignedByTheResponder) {
  pkcs7 message = make();
  ASSERT_EQ(sk_X509_num(message->d.sign->cert), 1);
  EXPECT_EQ(X509_cmp(sk_X509_value(message->d.sign->cert, 0), ca.get()), 0);
  EXPECT_TRUE(openssl_verifies(message));
}

TEST_F(GenScepCertRep, PayloadHoldsBothCertificatesInOrderAndNoSigner) {
  pkcs7 bag = payload(make());
  ASSERT_TRUE(PKCS7_type_is_signed(bag.get()));
  EXPECT_LE(sk_PKCS7_SIGNER_INFO_num(bag->d.sign->signer_info), 0);
  ASSERT_NE(bag->d.sign->contents, nullptr);
  EXPECT_TRUE(PKCS7_type_is_data(bag->d.sign->contents));
  ASSERT_EQ(sk_X509_num(bag->d.sign->cert), 2);
  EXPECT_EQ(X509_cmp(sk_X509_value(bag->d.sign->cert, 0), issued.get()), 0);
  EXPECT_EQ(X509_cmp(sk_X509_value(bag->d.sign->cert, 1), ca.get()), 0);
}

TEST_F(GenScepCertRep, OwnCertificateIsThereTwiceWhenItIsTheIssuedOne) {
  issued = ca;
  EXPECT_EQ(sk_X509_num(payload(make())->d.sign->cert), 2);
}

TEST_F(GenScepCertRep, DigestAndCipherAreTheRequests) {
  for (const EVP_MD *md : {EVP_md5(), EVP_sha1(), EVP_sha256(), EVP_sha512()}) {
    for (const EVP_CIPHER *cipher :
         {EVP_des_cbc(), EVP_des_ede3_cbc(), EVP_aes_128_cbc(), EVP_aes_256_cbc()}) {
      request = honest_request(md, cipher);
      pkcs7 message = make();
      EXPECT_EQ(digest_of(message), digest_of(request));
      EXPECT_EQ(cipher_of(message), cipher_of(request));
      EXPECT_TRUE(openssl_verifies(message));
      EXPECT_NE(payload(message), nullptr);
    }
  }
}

TEST_F(GenScepCertRep, UnknownDigestMeansTheKeys) {
  forget_digest(request);
  EXPECT_EQ(digest_of(make()), "MD5");
}

TEST_F(GenScepCertRep, UnknownDigestAndUnknownKeyIsRefusedWithALine) {
  forget_digest(request);
  key = support::make_ec_key();
  signer = certificate("ec", key, 1);
  expect_refused(PKI_UNKNOWN_KEY_TYPE);
  EXPECT_EQ(captured_log(), (std::vector<log_entry>{{3, unknown_key_line()}})) << log_dump();
}

TEST_F(GenScepCertRep, MissingDigestAlgorithmMeansTheKeys) {
  X509_ALGOR_free(first_signer(request)->digest_alg);
  first_signer(request)->digest_alg = nullptr;
  EXPECT_EQ(digest_of(make()), "MD5");
}

TEST_F(GenScepCertRep, ContentThatIsNoEnvelopeMeansDes) {
  const std::string contents[] = {"", "garbage", support::der(support::make_data("x")),
                                  support::der(message_with({}))};
  for (const std::string &inner : contents) {
    request = request_with(usual_attributes(), inner);
    pkcs7 message = make();
    EXPECT_EQ(cipher_of(message), "DES-CBC");
    EXPECT_EQ(digest_of(message), "SHA1");
    EXPECT_NE(payload(message), nullptr);
  }
  EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST_F(GenScepCertRep, RequestWhoseContentIsNotDataMeansDes) {
  request = request_with(usual_attributes());
  PKCS7 *inner = PKCS7_dup(support::make_envelope("x", ca).get());
  ASSERT_EQ(PKCS7_set_content(request.get(), inner), 1);
  EXPECT_EQ(cipher_of(make()), "DES-CBC");
  PKCS7_free(request->d.sign->contents);
  request->d.sign->contents = nullptr;
  EXPECT_EQ(cipher_of(make()), "DES-CBC");
}

TEST_F(GenScepCertRep, CipherThatNobodyKnowsMeansDes) {
  pkcs7 envelope = support::make_envelope("x", ca);
  X509_ALGOR *algorithm = envelope->d.enveloped->enc_data->algorithm;
  ASN1_OBJECT_free(algorithm->algorithm);
  algorithm->algorithm = OBJ_txt2obj("1.3.6.1.4.1.32473.2", 1);
  request = request_with(usual_attributes(), support::der(envelope));
  EXPECT_EQ(cipher_of(make()), "DES-CBC");
}

TEST_F(GenScepCertRep, CipherOidThatIsNoCipherMeansDes) {
  pkcs7 envelope = support::make_envelope("x", ca);
  X509_ALGOR *algorithm = envelope->d.enveloped->enc_data->algorithm;
  ASN1_OBJECT_free(algorithm->algorithm);
  algorithm->algorithm = OBJ_nid2obj(NID_sha1);
  request = request_with(usual_attributes(), support::der(envelope));
  EXPECT_EQ(cipher_of(make()), "DES-CBC");
}

TEST_F(GenScepCertRep, EmptyBitStringIsNoNonce) {
  expect_refused({usual_attributes()[0], attribute(PKI_OID_SCEP_SENDER_NONCE, {bit_string("")})},
                 PKI_ATTR_NOT_FOUND);
}

TEST_F(GenScepCertRep, ReadingErrorsArePassedOn) {
  expect_reading_errors_passed_on();
}

TEST_F(GenScepCertRep, TransactionIsReadBeforeAnythingElse) {
  key = support::make_ec_key();
  expect_refused({}, PKI_ATTR_NOT_FOUND);
  EXPECT_EQ(captured_log(), std::vector<log_entry>());
}

TEST_F(GenScepCertRep, FailuresOfTheMessageArePassedOn) {
  recipient = certificate("ec", support::make_ec_key(), 1);
  expect_refused(PKI_P7_ENCRYPT_FAILED);
  recipient = device;
  key = support::public_part(ca_key);
  expect_refused(PKI_P7_DATAFINAL_FAILED);
}

TEST_F(GenScepCertRep, CertificatesStayTheCallers) {
  std::string before = support::der(issued);
  make();
  EXPECT_EQ(support::der(issued), before);
  EXPECT_NE(X509_get0_pubkey(ca.get()), nullptr);
}

TEST_F(GenScepCertRep, EachMissingArgumentIsRefused) {
  EXPECT_EQ(make(static_cast<PKCS7 **>(nullptr)), PKI_INVALID_ARGS);
  support::cert kept = issued;
  issued = nullptr;
  expect_refused(PKI_INVALID_ARGS);
  issued = kept;
  key = nullptr;
  expect_refused(PKI_INVALID_ARGS);
  key = ca_key;
  signer = nullptr;
  expect_refused(PKI_INVALID_ARGS);
  signer = ca;
  recipient = nullptr;
  expect_refused(PKI_INVALID_ARGS);
  recipient = device;
  request = nullptr;
  expect_refused(PKI_INVALID_ARGS);
}

// ---- a status alone ----

struct GenScepStsRep : Replies {
  int status = SCEP_STATUS_FAILURE;
  int failure = 4;
  using Replies::make;
  int make(PKCS7 **out) override {
    return gen_scep_sts_rep(status, failure, key.get(), signer.get(), request.get(), out);
  }
};

TEST_F(GenScepStsRep, AnswersTheTransactionWithTheStatus) {
  pkcs7 message = make();
  EXPECT_EQ(attribute_nids(message),
            finished_with({PKI_OID_SCEP_MESSAGE_TYPE, PKI_OID_SCEP_TRANSACTION_ID,
                           PKI_OID_SCEP_SENDER_NONCE, PKI_OID_SCEP_RECIPIENT_NONCE,
                           PKI_OID_SCEP_PKI_STATUS, PKI_OID_SCEP_FAIL_INFO}));
  EXPECT_EQ(text_of(message, PKI_OID_SCEP_MESSAGE_TYPE), "3");
  EXPECT_EQ(text_of(message, PKI_OID_SCEP_PKI_STATUS), "2");
  EXPECT_EQ(text_of(message, PKI_OID_SCEP_FAIL_INFO), "4");
  EXPECT_EQ(text_of(message, PKI_OID_SCEP_TRANSACTION_ID),
            text_of(request, PKI_OID_SCEP_TRANSACTION_ID));
  EXPECT_EQ(octets_of(message, PKI_OID_SCEP_RECIPIENT_NONCE),
            octets_of(request, PKI_OID_SCEP_SENDER_NONCE));
  std::string fresh = octets_of(message, PKI_OID_SCEP_SENDER_NONCE);
  EXPECT_EQ(fresh.size(), 16u);
  EXPECT_NE(octets_of(make(), PKI_OID_SCEP_SENDER_NONCE), fresh);
  EXPECT_EQ(check_tx_attrs(request.get(), message.get(), 1), 0);
}

TEST_F(GenScepStsRep, PendingHasNoFailureInfo) {
  status = SCEP_STATUS_PENDING;
  failure = -1;
  pkcs7 message = make();
  EXPECT_EQ(text_of(message, PKI_OID_SCEP_PKI_STATUS), "3");
  EXPECT_EQ(text_of(message, PKI_OID_SCEP_FAIL_INFO), "(none)");
}

TEST_F(GenScepStsRep, FailureInfoOfZeroIsPresent) {
  failure = 0;
  EXPECT_EQ(text_of(make(), PKI_OID_SCEP_FAIL_INFO), "0");
}

TEST_F(GenScepStsRep, HasEmptyDataAndNoEnvelope) {
  pkcs7 message = make();
  ASSERT_TRUE(PKCS7_type_is_signed(message.get()));
  ASSERT_NE(message->d.sign->contents, nullptr);
  EXPECT_TRUE(PKCS7_type_is_data(message->d.sign->contents));
  EXPECT_EQ(inner_data(message), "");
  EXPECT_EQ(cipher_of(message), "(no envelope)");
}

TEST_F(GenScepStsRep, IsSignedByTheResponder) {
  pkcs7 message = make();
  ASSERT_EQ(sk_X509_num(message->d.sign->cert), 1);
  EXPECT_EQ(X509_cmp(sk_X509_value(message->d.sign->cert, 0), ca.get()), 0);
  EXPECT_TRUE(openssl_verifies(message));
}

TEST_F(GenScepStsRep, DigestIsTheRequests) {
  for (const EVP_MD *md : {EVP_md5(), EVP_sha1(), EVP_sha256()}) {
    request = honest_request(md);
    EXPECT_EQ(digest_of(make()), digest_of(request));
  }
}

TEST_F(GenScepStsRep, UnknownDigestMeansTheKeys) {
  forget_digest(request);
  EXPECT_EQ(digest_of(make()), "MD5");
  key = dsa_key();
  signer = certificate("dsa", key, 1);
  EXPECT_EQ(digest_of(make()), "SHA1");
}

TEST_F(GenScepStsRep, UnknownDigestAndUnknownKeyIsRefusedWithALine) {
  forget_digest(request);
  key = support::make_ec_key();
  signer = certificate("ec", key, 1);
  expect_refused(PKI_UNKNOWN_KEY_TYPE);
  EXPECT_EQ(captured_log(), (std::vector<log_entry>{{3, unknown_key_line()}})) << log_dump();
}

TEST_F(GenScepStsRep, RequestNeedNotHoldAnEnvelope) {
  request = request_with(usual_attributes(), "garbage");
  pkcs7 message = make();
  EXPECT_EQ(text_of(message, PKI_OID_SCEP_TRANSACTION_ID), "the id");
  EXPECT_EQ(octets_of(message, PKI_OID_SCEP_RECIPIENT_NONCE), request_nonce);
  EXPECT_EQ(digest_of(message), "SHA1");
}

TEST_F(GenScepStsRep, EmptyBitStringIsNoNonce) {
  expect_refused({usual_attributes()[0], attribute(PKI_OID_SCEP_SENDER_NONCE, {bit_string("")})},
                 PKI_ATTR_NOT_FOUND);
}

TEST_F(GenScepStsRep, ReadingErrorsArePassedOn) {
  expect_reading_errors_passed_on();
}

TEST_F(GenScepStsRep, NoRandomOctetsIsOutOfMemory) {
  fake_failures::fail_rand_bytes();
  expect_refused(PKI_OUT_OF_MEMORY);
  support::clear_openssl_errors();
}

TEST_F(GenScepStsRep, SigningFailuresArePassedOn) {
  key = support::public_part(ca_key);
  expect_refused(PKI_P7_DATAFINAL_FAILED);
}

TEST_F(GenScepStsRep, EachMissingArgumentIsRefused) {
  EXPECT_EQ(make(static_cast<PKCS7 **>(nullptr)), PKI_INVALID_ARGS);
  key = nullptr;
  expect_refused(PKI_INVALID_ARGS);
  key = ca_key;
  signer = nullptr;
  expect_refused(PKI_INVALID_ARGS);
  signer = ca;
  request = nullptr;
  expect_refused(PKI_INVALID_ARGS);
}

}  // namespace
