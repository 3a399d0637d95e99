// GetCertInitial and GetCert.
#include "fakes/clock.h"
#include "messages.h"

namespace {

using namespace scep;

const std::string earlier_nonce(16, 'N');

// ---- GetCertInitial ----

struct GenScepGetCertInit : scep_test {
  ias payload = make_ias();
  support::key key = device_key;
  support::cert signer = device;
  support::cert recipient = ca;
  pkcs7 earlier =
      message_with({attribute(PKI_OID_SCEP_TRANSACTION_ID, {printable("earlier id")}),
                    attribute(PKI_OID_SCEP_SENDER_NONCE, {octet_string(earlier_nonce)})});
  const EVP_MD *md = nullptr;
  const EVP_CIPHER *cipher = nullptr;

  int make(PKCS7 **out) {
    return gen_scep_get_cert_init(payload.get(), key.get(), signer.get(), recipient.get(),
                                  earlier.get(), md, cipher, out);
  }
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
    earlier = message_with(attributes);
    expect_refused(code);
  }
};

TEST_F(GenScepGetCertInit, GoesOnWithTheTransaction) {
  pkcs7 message = make();
  EXPECT_EQ(attribute_nids(message),
            finished_with({PKI_OID_SCEP_MESSAGE_TYPE, PKI_OID_SCEP_TRANSACTION_ID,
                           PKI_OID_SCEP_SENDER_NONCE, PKI_OID_SCEP_RECIPIENT_NONCE}));
  EXPECT_EQ(text_of(message, PKI_OID_SCEP_MESSAGE_TYPE), "20");
  EXPECT_EQ(text_of(message, PKI_OID_SCEP_TRANSACTION_ID), "earlier id");
  EXPECT_EQ(octets_of(message, PKI_OID_SCEP_RECIPIENT_NONCE), earlier_nonce);
  std::string fresh = octets_of(message, PKI_OID_SCEP_SENDER_NONCE);
  EXPECT_EQ(fresh.size(), 16u);
  EXPECT_NE(fresh, earlier_nonce);
  EXPECT_NE(octets_of(make(), PKI_OID_SCEP_SENDER_NONCE), fresh);
}

TEST_F(GenScepGetCertInit, PayloadIsThePairOfNames) {
  auto read = decode<SCEP_ISSUER_AND_SUBJECT>(
      payload_of(make(), ca_key, ca), d2i_SCEP_ISSUER_AND_SUBJECT, SCEP_ISSUER_AND_SUBJECT_free);
  ASSERT_NE(read, nullptr);
  EXPECT_EQ(X509_NAME_cmp(read->issuer, payload->issuer), 0);
  EXPECT_EQ(X509_NAME_cmp(read->subject, payload->subject), 0);
}

TEST_F(GenScepGetCertInit, CarriesTheGivenSigner) {
  pkcs7 message = make();
  ASSERT_EQ(sk_X509_num(message->d.sign->cert), 1);
  EXPECT_EQ(X509_cmp(sk_X509_value(message->d.sign->cert, 0), device.get()), 0);
  EXPECT_TRUE(openssl_verifies(message));
}

TEST_F(GenScepGetCertInit, AlgorithmsAreTheDefaultsOrTheGivenOnes) {
  pkcs7 message = make();
  EXPECT_EQ(digest_of(message), "MD5");
  EXPECT_EQ(cipher_of(message), "DES-CBC");
  md = EVP_sha256();
  cipher = EVP_aes_128_cbc();
  message = make();
  EXPECT_EQ(digest_of(message), "SHA256");
  EXPECT_EQ(cipher_of(message), "AES-128-CBC");
}

TEST_F(GenScepGetCertInit, ContinuesARealRequest) {
  PKCS7 *out = nullptr;
  ASSERT_EQ(gen_scep_cert_req(key.get(), key.get(), nullptr, ca.get(), nullptr, 0, nullptr, nullptr,
                              &out),
            PKI_OK);
  earlier = pkcs7(out, PKCS7_free);
  pkcs7 message = make();
  EXPECT_EQ(text_of(message, PKI_OID_SCEP_TRANSACTION_ID),
            text_of(earlier, PKI_OID_SCEP_TRANSACTION_ID));
  EXPECT_EQ(octets_of(message, PKI_OID_SCEP_RECIPIENT_NONCE),
            octets_of(earlier, PKI_OID_SCEP_SENDER_NONCE));
}

TEST_F(GenScepGetCertInit, EarlierMessageStaysAsItWas) {
  std::string before = support::der(earlier);
  make();
  EXPECT_EQ(support::der(earlier), before);
}

TEST_F(GenScepGetCertInit, IntegerAsTransactionIdIsItsOctets) {
  const std::string id(32, 'A');
  earlier = message_with({attribute(PKI_OID_SCEP_TRANSACTION_ID, {tlv(V_ASN1_INTEGER, id)}),
                          attribute(PKI_OID_SCEP_SENDER_NONCE, {octet_string("n")})});
  EXPECT_EQ(text_of(make(), PKI_OID_SCEP_TRANSACTION_ID), id);
}

TEST_F(GenScepGetCertInit, NonceWithAnyLengthIsSentBack) {
  for (size_t size : {1, 15, 16, 17, 500}) {
    earlier = message_with(
        {attribute(PKI_OID_SCEP_TRANSACTION_ID, {printable("id")}),
         attribute(PKI_OID_SCEP_SENDER_NONCE, {octet_string(std::string(size, 'n'))})});
    EXPECT_EQ(octets_of(make(), PKI_OID_SCEP_RECIPIENT_NONCE), std::string(size, 'n'));
  }
}

TEST_F(GenScepGetCertInit, BitStringAsNonceIsSentBackAsOctets) {
  earlier = message_with({attribute(PKI_OID_SCEP_TRANSACTION_ID, {printable("id")}),
                          attribute(PKI_OID_SCEP_SENDER_NONCE, {bit_string("bits")})});
  EXPECT_EQ(octets_of(make(), PKI_OID_SCEP_RECIPIENT_NONCE), "bits");
}

TEST_F(GenScepGetCertInit, EmptyBitStringIsNoNonce) {
  expect_refused({attribute(PKI_OID_SCEP_TRANSACTION_ID, {printable("id")}),
                  attribute(PKI_OID_SCEP_SENDER_NONCE, {bit_string("")})},
                 PKI_ATTR_NOT_FOUND);
}

TEST_F(GenScepGetCertInit, ReadingErrorsArePassedOn) {
  const std::string id = attribute(PKI_OID_SCEP_TRANSACTION_ID, {printable("id")});
  const std::string nonce = attribute(PKI_OID_SCEP_SENDER_NONCE, {octet_string("n")});
  expect_refused({nonce}, PKI_ATTR_NOT_FOUND);
  expect_refused({id}, PKI_ATTR_NOT_FOUND);
  expect_refused({attribute(PKI_OID_SCEP_TRANSACTION_ID, {octet_string("id")}), nonce},
                 PKI_ATTR_NOT_STRING);
  expect_refused({id, attribute(PKI_OID_SCEP_SENDER_NONCE, {printable("n")})},
                 PKI_ATTR_NOT_OCTET_STRING);
  earlier = message_of_signers({});
  expect_refused(PKI_NO_SIGNERS);
  earlier = support::make_envelope("x", ca);
  expect_refused(PKI_NOT_SIGNED_DATA);
  EXPECT_EQ(captured_log(), std::vector<log_entry>());
}

TEST_F(GenScepGetCertInit, TransactionIdIsReadBeforeTheNonce) {
  expect_refused({attribute(PKI_OID_SCEP_TRANSACTION_ID, {octet_string("id")})},
                 PKI_ATTR_NOT_STRING);
}

TEST_F(GenScepGetCertInit, UnknownKeyWithoutADigestIsRefusedWithALine) {
  key = support::make_ec_key();
  expect_refused(PKI_UNKNOWN_KEY_TYPE);
  EXPECT_EQ(captured_log(), (std::vector<log_entry>{{3, unknown_key_line()}})) << log_dump();
}

TEST_F(GenScepGetCertInit, PairWithoutNamesIsNotSent) {
  payload = ias(SCEP_ISSUER_AND_SUBJECT_new(), SCEP_ISSUER_AND_SUBJECT_free);
  auto *out = untouched<PKCS7>();
  EXPECT_NE(make(&out), PKI_OK);
  EXPECT_EQ(out, nullptr);
}

TEST_F(GenScepGetCertInit, EachMissingArgumentIsRefused) {
  EXPECT_EQ(make(static_cast<PKCS7 **>(nullptr)), PKI_INVALID_ARGS);
  ias kept = payload;
  payload = nullptr;
  expect_refused(PKI_INVALID_ARGS);
  payload = kept;
  key = nullptr;
  expect_refused(PKI_INVALID_ARGS);
  key = device_key;
  signer = nullptr;
  expect_refused(PKI_INVALID_ARGS);
  signer = device;
  recipient = nullptr;
  expect_refused(PKI_INVALID_ARGS);
  recipient = ca;
  earlier = nullptr;
  expect_refused(PKI_INVALID_ARGS);
}

// ---- GetCert ----

struct GenScepGetCert : scep_test {
  issuer_and_serial payload = make_issuer_and_serial();
  support::key key = device_key;
  support::cert signer;
  support::key pub_key = device_key;
  support::cert recipient = ca;
  const EVP_MD *md = nullptr;
  const EVP_CIPHER *cipher = nullptr;

  int make(PKCS7 **out) {
    return gen_scep_get_cert(payload.get(), key.get(), signer.get(), pub_key.get(), recipient.get(),
                             md, cipher, out);
  }
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
};

TEST_F(GenScepGetCert, StartsATransactionOfItsOwn) {
  pkcs7 first = make();
  pkcs7 second = make();
  EXPECT_EQ(attribute_nids(first),
            finished_with({PKI_OID_SCEP_MESSAGE_TYPE, PKI_OID_SCEP_TRANSACTION_ID,
                           PKI_OID_SCEP_SENDER_NONCE}));
  EXPECT_EQ(text_of(first, PKI_OID_SCEP_MESSAGE_TYPE), "21");
  EXPECT_EQ(octets_of(first, PKI_OID_SCEP_SENDER_NONCE).size(), 16u);
  EXPECT_TRUE(is_upper_hex(text_of(first, PKI_OID_SCEP_TRANSACTION_ID), 32));
  for (int row : {PKI_OID_SCEP_TRANSACTION_ID, PKI_OID_SCEP_SENDER_NONCE})
    EXPECT_NE(string_octets(value_of(first, row)->value.asn1_string),
              string_octets(value_of(second, row)->value.asn1_string));
}

TEST_F(GenScepGetCert, PayloadIsTheIssuerAndSerialNumber) {
  auto read = decode<PKCS7_ISSUER_AND_SERIAL>(
      payload_of(make(), ca_key, ca), d2i_PKCS7_ISSUER_AND_SERIAL, PKCS7_ISSUER_AND_SERIAL_free);
  ASSERT_NE(read, nullptr);
  EXPECT_EQ(X509_NAME_cmp(read->issuer, payload->issuer), 0);
  EXPECT_EQ(ASN1_INTEGER_get(read->serial), 4711);
}

TEST_F(GenScepGetCert, StandInHasAnEmptyNameAndTheSerialNumberAskedFor) {
  fake_clock::frozen clock(1700000000);
  pkcs7 message = make();
  ASSERT_EQ(sk_X509_num(message->d.sign->cert), 1);
  X509 *made = sk_X509_value(message->d.sign->cert, 0);
  EXPECT_EQ(X509_get_version(made), 0);
  EXPECT_EQ(X509_NAME_entry_count(X509_get_subject_name(made)), 0);
  EXPECT_EQ(X509_NAME_entry_count(X509_get_issuer_name(made)), 0);
  EXPECT_EQ(ASN1_INTEGER_get(X509_get0_serialNumber(made)), 4711);
  EXPECT_EQ(string_octets(X509_get0_notBefore(made)), "231114221320Z");
  EXPECT_EQ(string_octets(X509_get0_notAfter(made)), "231114231320Z");
  EXPECT_EQ(X509_get_signature_nid(made), NID_md5WithRSAEncryption);
  EXPECT_EQ(EVP_PKEY_eq(X509_get0_pubkey(made), device_key.get()), 1);
  EXPECT_EQ(X509_verify(made, device_key.get()), 1);
  EXPECT_TRUE(openssl_verifies(message));
}

TEST_F(GenScepGetCert, StandInHoldsTheGivenPublicKey) {
  pub_key = support::public_part(support::test_key(2));
  pkcs7 message = make();
  X509 *made = sk_X509_value(message->d.sign->cert, 0);
  EXPECT_EQ(EVP_PKEY_eq(X509_get0_pubkey(made), pub_key.get()), 1);
  EXPECT_EQ(X509_verify(made, device_key.get()), 1);
}

TEST_F(GenScepGetCert, GivenSignerIsUsedAndStaysTheCallers) {
  signer = device;
  pub_key = nullptr;
  pkcs7 message = make();
  ASSERT_EQ(sk_X509_num(message->d.sign->cert), 1);
  EXPECT_EQ(X509_cmp(sk_X509_value(message->d.sign->cert, 0), device.get()), 0);
  EXPECT_EQ(ASN1_INTEGER_get(X509_get0_serialNumber(device.get())), 7);
  EXPECT_TRUE(openssl_verifies(message));
}

TEST_F(GenScepGetCert, AlgorithmsAreTheDefaultsOrTheGivenOnes) {
  pkcs7 message = make();
  EXPECT_EQ(digest_of(message), "MD5");
  EXPECT_EQ(cipher_of(message), "DES-CBC");
  md = EVP_sha256();
  cipher = EVP_aes_128_cbc();
  message = make();
  EXPECT_EQ(digest_of(message), "SHA256");
  EXPECT_EQ(cipher_of(message), "AES-128-CBC");
  EXPECT_EQ(X509_get_signature_nid(sk_X509_value(message->d.sign->cert, 0)),
            NID_sha256WithRSAEncryption);
}

TEST_F(GenScepGetCert, UnknownKeyWithoutADigestIsRefusedWithALine) {
  key = pub_key = support::make_ec_key();
  expect_refused(PKI_UNKNOWN_KEY_TYPE);
  EXPECT_EQ(captured_log(), (std::vector<log_entry>{{3, unknown_key_line()}})) << log_dump();
}

TEST_F(GenScepGetCert, EllipticKeyWorksWithAGivenDigest) {
  key = pub_key = support::make_ec_key();
  md = EVP_sha256();
  EXPECT_TRUE(openssl_verifies(make()));
}

TEST_F(GenScepGetCert, StandInsFailuresArePassedOn) {
  key = support::public_part(device_key);
  expect_refused(PKI_SIGN_FAILED);
  key = dsa_key();
  md = EVP_md5();
  expect_refused(PKI_SIGN_FAILED);
}

TEST_F(GenScepGetCert, NoRandomOctetsIsOutOfMemory) {
  for (int after : {0, 1}) {
    fake_failures::fail_rand_bytes(after);
    expect_refused(PKI_OUT_OF_MEMORY);
  }
  support::clear_openssl_errors();
}

TEST_F(GenScepGetCert, EachMissingArgumentIsRefused) {
  EXPECT_EQ(make(static_cast<PKCS7 **>(nullptr)), PKI_INVALID_ARGS);
  issuer_and_serial kept = payload;
  payload = nullptr;
  expect_refused(PKI_INVALID_ARGS);
  payload = kept;
  key = nullptr;
  expect_refused(PKI_INVALID_ARGS);
  key = device_key;
  recipient = nullptr;
  expect_refused(PKI_INVALID_ARGS);
  recipient = ca;
  pub_key = nullptr;
  expect_refused(PKI_INVALID_ARGS);
}

}  // namespace
