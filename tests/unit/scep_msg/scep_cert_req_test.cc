// PKCSReq, layer by layer.
#include "fakes/clock.h"
#include "messages.h"

namespace {

using namespace scep;
using x509_req = std::shared_ptr<X509_REQ>;

std::string md5(const std::string &octets) {
  unsigned char hash[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(octets.data(), octets.size(), hash, &length, EVP_md5(), nullptr);
  return std::string(reinterpret_cast<char *>(hash), length);
}

std::string hex(const std::string &octets) {
  std::string text;
  char digits[3];
  for (unsigned char octet : octets) {
    snprintf(digits, sizeof digits, "%02X", octet);
    text += digits;
  }
  return text;
}

std::string expected_id(const support::key &key) {
  return hex(md5(encode<EVP_PKEY>(key.get(), i2d_PUBKEY)));
}

struct GenScepCertReq : scep_test {
  ~GenScepCertReq() override {
    for (X509_ATTRIBUTE *each : attributes)
      X509_ATTRIBUTE_free(each);
  }

  support::key sign_key = device_key;
  support::key pub_key = device_key;
  support::name subject = support::make_name({{"C", "DE"}, {"CN", "gateway"}});
  support::cert recipient = ca;
  std::vector<X509_ATTRIBUTE *> attributes;
  const EVP_MD *md = nullptr;
  const EVP_CIPHER *cipher = nullptr;

  void add_attribute(int row, const std::string &text) {
    attributes.push_back(create_printablestring_attr(pki_nid_list[row], text.c_str()));
  }
  int make(PKCS7 **out) {
    return gen_scep_cert_req(sign_key.get(), pub_key.get(), subject.get(), recipient.get(),
                             attributes.data(), static_cast<int>(attributes.size()), md, cipher,
                             out);
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
  x509_req request_in(const pkcs7 &message) {
    x509_req read = decode<X509_REQ>(payload_of(message, ca_key, ca), d2i_X509_REQ, X509_REQ_free);
    EXPECT_NE(read, nullptr);
    return read;
  }
  static X509 *stand_in(const pkcs7 &message) { return sk_X509_value(message->d.sign->cert, 0); }
};

// "row:text" of each attribute of the request.
std::vector<std::string> request_attributes(const x509_req &request) {
  std::map<int, int> rows;
  for (int row = 0; row < PKI_OID_COUNT; row++)
    rows[pki_nid_list[row]] = row;
  std::vector<std::string> all;
  for (int i = 0; i < X509_REQ_get_attr_count(request.get()); i++) {
    X509_ATTRIBUTE *each = X509_REQ_get_attr(request.get(), i);
    EXPECT_EQ(X509_ATTRIBUTE_count(each), 1);
    all.push_back(std::to_string(rows[OBJ_obj2nid(X509_ATTRIBUTE_get0_object(each))]) + ":" +
                  string_octets(X509_ATTRIBUTE_get0_type(each, 0)->value.asn1_string));
  }
  return all;
}

// ---- the request ----

TEST_F(GenScepCertReq, RequestHasKeySubjectAndVersion) {
  x509_req request = request_in(make());
  EXPECT_EQ(X509_REQ_get_version(request.get()), 0);
  EXPECT_EQ(X509_NAME_cmp(X509_REQ_get_subject_name(request.get()), subject.get()), 0);
  EXPECT_EQ(EVP_PKEY_eq(X509_REQ_get0_pubkey(request.get()), device_key.get()), 1);
  EXPECT_EQ(X509_REQ_verify(request.get(), device_key.get()), 1);
}

TEST_F(GenScepCertReq, RequestIsSignedWithMd5WhateverTheMessageUses) {
  for (const EVP_MD *each : {static_cast<const EVP_MD *>(nullptr), EVP_sha1(), EVP_sha256()}) {
    md = each;
    EXPECT_EQ(X509_REQ_get_signature_nid(request_in(make()).get()), NID_md5WithRSAEncryption);
  }
}

TEST_F(GenScepCertReq, AttributesOfTheCallerAreInTheRequest) {
  add_attribute(PKI_OID_SERIAL_NUMBER, "serial-4711");
  add_attribute(PKI_OID_SECRET, "the secret of it");
  EXPECT_EQ(request_attributes(request_in(make())),
            (std::vector<std::string>{"3:serial-4711", "4:the secret of it"}));
}

TEST_F(GenScepCertReq, AttributesStayTheCallers) {
  add_attribute(PKI_OID_SERIAL_NUMBER, "serial");
  std::string before = encode<X509_ATTRIBUTE>(attributes[0], i2d_X509_ATTRIBUTE);
  make();
  EXPECT_EQ(encode<X509_ATTRIBUTE>(attributes[0], i2d_X509_ATTRIBUTE), before);
}

TEST_F(GenScepCertReq, StringThatNeverGotAnyOctetsIsAnEmptyOne) {
  // OpenSSL's new strings have no data at all.
  attributes.push_back(X509_ATTRIBUTE_create(pki_nid_list[PKI_OID_SERIAL_NUMBER],
                                             V_ASN1_PRINTABLESTRING, ASN1_PRINTABLESTRING_new()));
  attributes.push_back(X509_ATTRIBUTE_create(pki_nid_list[PKI_OID_SECRET], V_ASN1_OCTET_STRING,
                                             ASN1_OCTET_STRING_new()));
  ASSERT_EQ(X509_ATTRIBUTE_get0_type(attributes[0], 0)->value.printablestring->data, nullptr);
  x509_req request = request_in(make());
  EXPECT_EQ(request_attributes(request), (std::vector<std::string>{"3:", "4:"}));
  EXPECT_EQ(X509_REQ_verify(request.get(), device_key.get()), 1);
}

TEST_F(GenScepCertReq, NoAttributesAreNeeded) {
  EXPECT_EQ(request_attributes(request_in(make())), std::vector<std::string>());
}

TEST_F(GenScepCertReq, ManyAttributesAreAllThere) {
  // In the order of a DER SET, whatever the order that they are added in.
  std::multiset<std::string> expected;
  for (int row = PKI_OID_COUNT - 1; row >= 0; row--) {
    add_attribute(row, "number " + std::to_string(row));
    expected.insert(std::to_string(row) + ":number " + std::to_string(row));
  }
  std::vector<std::string> found = request_attributes(request_in(make()));
  EXPECT_EQ(std::multiset<std::string>(found.begin(), found.end()), expected);
}

TEST_F(GenScepCertReq, AttributeThatIsThereTwiceIsOutOfMemory) {
  // OpenSSL does not add it to a request.
  add_attribute(PKI_OID_SERIAL_NUMBER, "one");
  add_attribute(PKI_OID_SERIAL_NUMBER, "two");
  expect_refused(PKI_OUT_OF_MEMORY);
}

TEST_F(GenScepCertReq, MissingSubjectIsAnEmptyName) {
  subject = nullptr;
  pkcs7 message = make();
  EXPECT_EQ(X509_NAME_entry_count(X509_REQ_get_subject_name(request_in(message).get())), 0);
  EXPECT_EQ(X509_NAME_entry_count(X509_get_subject_name(stand_in(message))), 0);
  EXPECT_EQ(X509_NAME_entry_count(first_signer(message)->issuer_and_serial->issuer), 0);
  EXPECT_TRUE(openssl_verifies(message));
}

TEST_F(GenScepCertReq, KeyToSignWithMayBeAnother) {
  sign_key = support::test_key(2);
  pkcs7 message = make();
  x509_req request = request_in(message);
  EXPECT_EQ(EVP_PKEY_eq(X509_REQ_get0_pubkey(request.get()), pub_key.get()), 1);
  EXPECT_EQ(X509_REQ_verify(request.get(), sign_key.get()), 1);
  EXPECT_EQ(EVP_PKEY_eq(X509_get0_pubkey(stand_in(message)), pub_key.get()), 1);
  EXPECT_EQ(X509_verify(stand_in(message), sign_key.get()), 1);
  EXPECT_EQ(text_of(message, PKI_OID_SCEP_TRANSACTION_ID), expected_id(pub_key));
}

TEST_F(GenScepCertReq, PublicPartAloneIsEnoughAsPublicKey) {
  pub_key = support::public_part(device_key);
  EXPECT_TRUE(openssl_verifies(make()));
}

// ---- the message ----

TEST_F(GenScepCertReq, HasTheAttributesOfARequest) {
  pkcs7 message = make();
  EXPECT_EQ(attribute_nids(message),
            finished_with({PKI_OID_SCEP_MESSAGE_TYPE, PKI_OID_SCEP_TRANSACTION_ID,
                           PKI_OID_SCEP_SENDER_NONCE}));
  EXPECT_EQ(text_of(message, PKI_OID_SCEP_MESSAGE_TYPE), "19");
  EXPECT_EQ(octets_of(message, PKI_OID_SCEP_SENDER_NONCE).size(), 16u);
}

TEST_F(GenScepCertReq, TransactionIdIsTheKeysHash) {
  EXPECT_EQ(text_of(make(), PKI_OID_SCEP_TRANSACTION_ID), expected_id(device_key));
}

TEST_F(GenScepCertReq, SameKeyHasTheSameIdButAnotherNonce) {
  pkcs7 first = make();
  subject = support::common_name("another name");
  pkcs7 second = make();
  EXPECT_EQ(text_of(first, PKI_OID_SCEP_TRANSACTION_ID),
            text_of(second, PKI_OID_SCEP_TRANSACTION_ID));
  EXPECT_NE(octets_of(first, PKI_OID_SCEP_SENDER_NONCE),
            octets_of(second, PKI_OID_SCEP_SENDER_NONCE));
}

TEST_F(GenScepCertReq, OtherKeysHaveOtherIds) {
  std::string first = text_of(make(), PKI_OID_SCEP_TRANSACTION_ID);
  sign_key = pub_key = support::test_key(2);
  EXPECT_NE(text_of(make(), PKI_OID_SCEP_TRANSACTION_ID), first);
}

TEST_F(GenScepCertReq, DefaultsAreMd5AndDes) {
  pkcs7 message = make();
  EXPECT_EQ(digest_of(message), "MD5");
  EXPECT_EQ(cipher_of(message), "DES-CBC");
  EXPECT_EQ(X509_get_signature_nid(stand_in(message)), NID_md5WithRSAEncryption);
}

TEST_F(GenScepCertReq, GivenAlgorithmsAreUsed) {
  md = EVP_sha256();
  cipher = EVP_aes_128_cbc();
  pkcs7 message = make();
  EXPECT_EQ(digest_of(message), "SHA256");
  EXPECT_EQ(cipher_of(message), "AES-128-CBC");
  EXPECT_EQ(X509_get_signature_nid(stand_in(message)), NID_sha256WithRSAEncryption);
  EXPECT_TRUE(openssl_verifies(message));
}

TEST_F(GenScepCertReq, BigKeysWorkWithAndWithoutModernAlgorithms) {
  sign_key = pub_key = big_key();
  recipient = ca = certificate("big ca", big_key(), 5);
  ca_key = big_key();
  EXPECT_EQ(X509_REQ_verify(request_in(make()).get(), big_key().get()), 1);
  md = EVP_sha256();
  cipher = EVP_aes_128_cbc();
  pkcs7 message = make();
  EXPECT_EQ(X509_REQ_verify(request_in(message).get(), big_key().get()), 1);
  EXPECT_TRUE(openssl_verifies(message));
}

// ---- the stand-in certificate ----

TEST_F(GenScepCertReq, StandInHasTheIdsCharactersAsSerialNumber) {
  pkcs7 message = make();
  const ASN1_INTEGER *serial = X509_get0_serialNumber(stand_in(message));
  EXPECT_EQ(ASN1_STRING_length(serial), 32);
  EXPECT_EQ(string_octets(serial), text_of(message, PKI_OID_SCEP_TRANSACTION_ID));
  EXPECT_EQ(encode<ASN1_INTEGER>(serial, i2d_ASN1_INTEGER),
            tlv(V_ASN1_INTEGER, expected_id(device_key)));
  EXPECT_EQ(ASN1_INTEGER_cmp(first_signer(message)->issuer_and_serial->serial, serial), 0);
}

TEST_F(GenScepCertReq, StandInIsOfVersion1ForTheSubjectAndAnHour) {
  fake_clock::frozen clock(1700000000);
  pkcs7 message = make();
  ASSERT_EQ(sk_X509_num(message->d.sign->cert), 1);
  X509 *made = stand_in(message);
  EXPECT_EQ(X509_get_version(made), 0);
  EXPECT_EQ(X509_NAME_cmp(X509_get_subject_name(made), subject.get()), 0);
  EXPECT_EQ(X509_NAME_cmp(X509_get_issuer_name(made), subject.get()), 0);
  EXPECT_EQ(string_octets(X509_get0_notBefore(made)), "231114221320Z");
  EXPECT_EQ(string_octets(X509_get0_notAfter(made)), "231114231320Z");
  EXPECT_EQ(X509_verify(made, device_key.get()), 1);
}

TEST_F(GenScepCertReq, StandInIsTheMessagesSigner) {
  pkcs7 message = make();
  X509 *signer = stand_in(message);
  PKCS7 *content = nullptr;
  EXPECT_EQ(pkcs7_verify(message.get(), &signer, &content), PKI_OK) << log_dump();
  EXPECT_TRUE(openssl_verifies(message));
}

// ---- the secret ----

TEST_F(GenScepCertReq, SecretIsInNoOctetOfTheMessageAndInNoLine) {
  const std::string secret = "Xq7/secret/Zw9";
  add_attribute(PKI_OID_SERIAL_NUMBER, "serial");
  add_attribute(PKI_OID_SECRET, secret);
  for (const EVP_CIPHER *each : {static_cast<const EVP_CIPHER *>(nullptr), EVP_aes_128_cbc()}) {
    cipher = each;
    pkcs7 message = make();
    const std::string der = support::der(message);
    for (const std::string &form :
         {secret, hex(secret), support::base64_lines(secret).substr(0, 16), md5(secret),
          std::string(secret.rbegin(), secret.rend())})
      EXPECT_EQ(der.find(form), std::string::npos);
    for (size_t at = 0; at + 5 <= secret.size(); at++)
      EXPECT_EQ(der.find(secret.substr(at, 5)), std::string::npos) << "a piece of it";
    EXPECT_NE(payload_of(message, ca_key, ca).find(secret), std::string::npos);
  }
  EXPECT_EQ(captured_log(), std::vector<log_entry>());
}

TEST_F(GenScepCertReq, SecretIsInNoLineOfAFailure) {
  const std::string secret = "Xq7/secret/Zw9";
  add_attribute(PKI_OID_SECRET, secret);
  recipient = certificate("ec", support::make_ec_key(), 1);
  expect_refused(PKI_P7_ENCRYPT_FAILED);
  md = EVP_md4();
  recipient = ca;
  auto *out = untouched<PKCS7>();
  EXPECT_NE(make(&out), PKI_OK);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(log_dump().find(secret), std::string::npos);
  EXPECT_EQ(log_dump().find(hex(secret)), std::string::npos);
}

// ---- failures ----

TEST_F(GenScepCertReq, KeyThatCannotSignIsRefused) {
  sign_key = support::public_part(device_key);
  expect_refused(PKI_SIGN_FAILED);
  EXPECT_TRUE(logged_containing(3, "OpenSSL error: ")) << log_dump();
}

TEST_F(GenScepCertReq, KeyWithoutMd5SignaturesIsRefused) {
  sign_key = pub_key = dsa_key();
  expect_refused(PKI_SIGN_FAILED);
  sign_key = pub_key = support::make_ec_key();
  md = EVP_sha256();
  expect_refused(PKI_SIGN_FAILED);
}

TEST_F(GenScepCertReq, FailedSignatureWithAnAllocationFailureIsOutOfMemory) {
  sign_key = support::public_part(device_key);
  support::raise_openssl_error(ERR_R_MALLOC_FAILURE);
  expect_refused(PKI_OUT_OF_MEMORY);
}

TEST_F(GenScepCertReq, PublicKeyOfAnotherTypeIsRequestedAllTheSame) {
  pub_key = support::make_ec_key();
  pkcs7 message = make();
  EXPECT_EQ(EVP_PKEY_eq(X509_REQ_get0_pubkey(request_in(message).get()), pub_key.get()), 1);
  EXPECT_EQ(text_of(message, PKI_OID_SCEP_TRANSACTION_ID), expected_id(pub_key));
}

TEST_F(GenScepCertReq, PublicKeyWithNothingInItIsOutOfMemory) {
  pub_key = support::key(EVP_PKEY_new(), EVP_PKEY_free);
  expect_refused(PKI_OUT_OF_MEMORY);
}

TEST_F(GenScepCertReq, RecipientThatCannotOpenEnvelopesIsPassedOn) {
  recipient = certificate("ec", support::make_ec_key(), 1);
  expect_refused(PKI_P7_ENCRYPT_FAILED);
}

TEST_F(GenScepCertReq, NoRandomOctetsIsOutOfMemory) {
  fake_failures::fail_rand_bytes();
  expect_refused(PKI_OUT_OF_MEMORY);
  support::clear_openssl_errors();
}

TEST_F(GenScepCertReq, EachMissingArgumentIsRefused) {
  EXPECT_EQ(make(static_cast<PKCS7 **>(nullptr)), PKI_INVALID_ARGS);
  sign_key = nullptr;
  expect_refused(PKI_INVALID_ARGS);
  sign_key = device_key;
  pub_key = nullptr;
  expect_refused(PKI_INVALID_ARGS);
  pub_key = device_key;
  recipient = nullptr;
  expect_refused(PKI_INVALID_ARGS);
}

TEST_F(GenScepCertReq, CountsThatDoNotFitAreRefused) {
  auto *out = untouched<PKCS7>();
  EXPECT_EQ(gen_scep_cert_req(sign_key.get(), pub_key.get(), subject.get(), ca.get(), nullptr, 1,
                              nullptr, nullptr, &out),
            PKI_INVALID_ARGS);
  EXPECT_EQ(out, nullptr);
  out = untouched<PKCS7>();
  EXPECT_EQ(gen_scep_cert_req(sign_key.get(), pub_key.get(), subject.get(), ca.get(), nullptr, -1,
                              nullptr, nullptr, &out),
            PKI_INVALID_ARGS);
  EXPECT_EQ(out, nullptr);
}

TEST_F(GenScepCertReq, MissingAttributeIsOutOfMemoryInEachPlace) {
  add_attribute(PKI_OID_SERIAL_NUMBER, "serial");
  attributes.push_back(nullptr);
  expect_refused(PKI_OUT_OF_MEMORY);
  std::swap(attributes[0], attributes[1]);
  expect_refused(PKI_OUT_OF_MEMORY);
}

}  // namespace
