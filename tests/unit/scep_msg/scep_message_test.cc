// gen_scep_msg: the layers of a message from outside in, and its failures in order.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "messages.h"

namespace {

using namespace scep;

struct GenScepMsg : scep_test {
  ias payload = make_ias();
  i2d_fn *encode_payload = ias_encoder();
  support::key key = device_key;
  support::cert signer = device;
  support::cert recipient = ca;
  int type = 20;
  int status = -1;
  const char *id = "the id";
  std::string nonce = "recipient's";
  bool with_nonce = true;
  const EVP_MD *md = nullptr;
  const EVP_CIPHER *cipher = nullptr;

  int make(PKCS7 **out) {
    return gen_scep_msg(type, payload.get(), encode_payload, key.get(), signer.get(),
                        recipient.get(), status, id, with_nonce ? nonce.data() : nullptr,
                        with_nonce ? static_cast<int>(nonce.size()) : 0, md, cipher, out);
  }
  pkcs7 make() {
    auto *out = untouched<PKCS7>();
    if (int code = make(&out); code != PKI_OK)
      throw std::runtime_error("code " + std::to_string(code) + "\n" + log_dump());
    return pkcs7(out, PKCS7_free);
  }
  void expect_refused(int code) {
    auto *out = untouched<PKCS7>();
    EXPECT_EQ(make(&out), code) << log_dump();
    EXPECT_EQ(out, nullptr);
  }
  std::string payload_der() {
    int length = i2d_SCEP_ISSUER_AND_SUBJECT(payload.get(), nullptr);
    std::string octets(static_cast<size_t>(length), '?');
    auto *out = reinterpret_cast<unsigned char *>(octets.data());
    i2d_SCEP_ISSUER_AND_SUBJECT(payload.get(), &out);
    return octets;
  }
};

// ---- attributes ----

TEST_F(GenScepMsg, HasTheTransactionsAttributesAndNoOthers) {
  pkcs7 message = read_back(make());
  EXPECT_EQ(attribute_nids(message),
            finished_with({PKI_OID_SCEP_MESSAGE_TYPE, PKI_OID_SCEP_TRANSACTION_ID,
                           PKI_OID_SCEP_SENDER_NONCE, PKI_OID_SCEP_RECIPIENT_NONCE}));
  EXPECT_EQ(text_of(message, PKI_OID_SCEP_MESSAGE_TYPE), "20");
  EXPECT_EQ(text_of(message, PKI_OID_SCEP_TRANSACTION_ID), "the id");
  EXPECT_EQ(octets_of(message, PKI_OID_SCEP_RECIPIENT_NONCE), "recipient's");
  EXPECT_EQ(octets_of(message, PKI_OID_SCEP_SENDER_NONCE).size(), 16u);
}

TEST_F(GenScepMsg, StatusOfZeroIsPresentAndFailureInfoNever) {
  status = 0;
  pkcs7 message = make();
  EXPECT_EQ(text_of(message, PKI_OID_SCEP_PKI_STATUS), "0");
  EXPECT_EQ(text_of(message, PKI_OID_SCEP_FAIL_INFO), "(none)");
  status = 2;
  message = make();
  EXPECT_EQ(text_of(message, PKI_OID_SCEP_PKI_STATUS), "2");
  EXPECT_EQ(text_of(message, PKI_OID_SCEP_FAIL_INFO), "(none)");
}

TEST_F(GenScepMsg, AbsentTypeAndRecipientNonceAreLeftOut) {
  type = -1;
  with_nonce = false;
  EXPECT_EQ(attribute_nids(make()),
            finished_with({PKI_OID_SCEP_TRANSACTION_ID, PKI_OID_SCEP_SENDER_NONCE}));
}

TEST_F(GenScepMsg, SenderNonceIsFreshEachTime) {
  std::set<std::string> seen;
  for (int i = 0; i < 8; i++) {
    std::string made = octets_of(make(), PKI_OID_SCEP_SENDER_NONCE);
    EXPECT_EQ(made.size(), 16u);
    seen.insert(made);
  }
  EXPECT_EQ(seen.size(), 8u);
}

TEST_F(GenScepMsg, MissingTransactionIdIsMadeOfRandomHex) {
  id = nullptr;
  std::string first = text_of(make(), PKI_OID_SCEP_TRANSACTION_ID);
  std::string second = text_of(make(), PKI_OID_SCEP_TRANSACTION_ID);
  EXPECT_TRUE(is_upper_hex(first, 32)) << first;
  EXPECT_TRUE(is_upper_hex(second, 32)) << second;
  EXPECT_NE(first, second);
}

TEST_F(GenScepMsg, EmptyTransactionIdIsTakenAsItIs) {
  id = "";
  EXPECT_EQ(text_of(make(), PKI_OID_SCEP_TRANSACTION_ID), "");
}

TEST_F(GenScepMsg, ContentTypeAttributeSaysData) {
  pkcs7 message = make();
  const ASN1_TYPE *value = PKCS7_get_signed_attribute(first_signer(message), NID_pkcs9_contentType);
  ASSERT_NE(value, nullptr);
  ASSERT_EQ(value->type, V_ASN1_OBJECT);
  EXPECT_EQ(OBJ_obj2nid(value->value.object), NID_pkcs7_data);
}

// ---- outer layer ----

TEST_F(GenScepMsg, IsSignedByTheSignerAndCarriesItsCertificate) {
  pkcs7 message = read_back(make());
  ASSERT_TRUE(PKCS7_type_is_signed(message.get()));
  ASSERT_EQ(sk_PKCS7_SIGNER_INFO_num(message->d.sign->signer_info), 1);
  PKCS7_ISSUER_AND_SERIAL *named = first_signer(message)->issuer_and_serial;
  EXPECT_EQ(X509_NAME_cmp(named->issuer, X509_get_issuer_name(device.get())), 0);
  EXPECT_EQ(ASN1_INTEGER_get(named->serial), 7);
  ASSERT_EQ(sk_X509_num(message->d.sign->cert), 1);
  EXPECT_EQ(X509_cmp(sk_X509_value(message->d.sign->cert, 0), device.get()), 0);
  EXPECT_TRUE(openssl_verifies(message));
}

TEST_F(GenScepMsg, DigestDefaultsToMd5AndIsWhatIsGivenOtherwise) {
  EXPECT_EQ(digest_of(make()), "MD5");
  md = EVP_sha256();
  pkcs7 message = make();
  EXPECT_EQ(digest_of(message), "SHA256");
  EXPECT_TRUE(openssl_verifies(message));
}

TEST_F(GenScepMsg, DsaKeySignsWithSha1) {
  key = dsa_key();
  signer = certificate("dsa", key, 12);
  pkcs7 message = make();
  ASSERT_NE(message, nullptr);
  EXPECT_EQ(digest_of(message), "SHA1");
  EXPECT_TRUE(openssl_verifies(message));
}

TEST_F(GenScepMsg, EllipticKeySignsWithAGivenDigest) {
  key = support::make_ec_key();
  signer = certificate("ec", key, 12);
  md = EVP_sha256();
  pkcs7 message = make();
  ASSERT_NE(message, nullptr);
  EXPECT_TRUE(openssl_verifies(message));
}

// ---- envelope and payload ----

TEST_F(GenScepMsg, EnvelopeIsForTheOneRecipient) {
  pkcs7 envelope = envelope_in(read_back(make()));
  ASSERT_NE(envelope, nullptr);
  ASSERT_EQ(sk_PKCS7_RECIP_INFO_num(envelope->d.enveloped->recipientinfo), 1);
  PKCS7_ISSUER_AND_SERIAL *named =
      sk_PKCS7_RECIP_INFO_value(envelope->d.enveloped->recipientinfo, 0)->issuer_and_serial;
  EXPECT_EQ(X509_NAME_cmp(named->issuer, X509_get_issuer_name(ca.get())), 0);
  EXPECT_EQ(ASN1_INTEGER_get(named->serial), 5);
}

TEST_F(GenScepMsg, CipherDefaultsToDesAndIsWhatIsGivenOtherwise) {
  EXPECT_EQ(cipher_of(make()), "DES-CBC");
  cipher = EVP_aes_128_cbc();
  EXPECT_EQ(cipher_of(make()), "AES-128-CBC");
  cipher = EVP_des_ede3_cbc();
  EXPECT_EQ(cipher_of(make()), "DES-EDE3-CBC");
}

TEST_F(GenScepMsg, PayloadIsWhatWasPutIn) {
  for (const EVP_CIPHER *each : {static_cast<const EVP_CIPHER *>(nullptr), EVP_aes_128_cbc()}) {
    cipher = each;
    EXPECT_EQ(payload_of(read_back(make()), ca_key, ca), payload_der());
  }
}

TEST_F(GenScepMsg, PayloadIsInNoOctetOfTheMessage) {
  const std::string der = support::der(make());
  EXPECT_EQ(der.find("the device"), std::string::npos);
  EXPECT_EQ(der.find(payload_der()), std::string::npos);
}

TEST_F(GenScepMsg, BigKeysAndModernAlgorithmsWork) {
  key = big_key();
  signer = certificate("big", key, 3);
  recipient = signer;
  md = EVP_sha256();
  cipher = EVP_aes_128_cbc();
  pkcs7 message = read_back(make());
  EXPECT_TRUE(openssl_verifies(message));
  EXPECT_EQ(digest_of(message), "SHA256");
  EXPECT_EQ(cipher_of(message), "AES-128-CBC");
  EXPECT_EQ(payload_of(message, key, signer), payload_der());
}

TEST_F(GenScepMsg, NothingIsLoggedOnSuccess) {
  make();
  EXPECT_EQ(captured_log(), std::vector<log_entry>());
}

// ---- failures ----

TEST_F(GenScepMsg, NoRandomOctetsForATransactionIdIsOutOfMemory) {
  id = nullptr;
  fake_failures::fail_rand_bytes();
  expect_refused(PKI_OUT_OF_MEMORY);
  support::clear_openssl_errors();
}

TEST_F(GenScepMsg, NoRandomOctetsForTheSenderNonceIsOutOfMemory) {
  fake_failures::fail_rand_bytes();
  expect_refused(PKI_OUT_OF_MEMORY);
  id = nullptr;
  fake_failures::fail_rand_bytes(1);
  expect_refused(PKI_OUT_OF_MEMORY);
  support::clear_openssl_errors();
}

TEST_F(GenScepMsg, NegativeLengthOfARecipientNonceIsNeverRead) {
  auto *out = untouched<PKCS7>();
  int code = gen_scep_msg(type, payload.get(), encode_payload, key.get(), signer.get(),
                          recipient.get(), status, id, "x", -1, md, cipher, &out);
  if (code == PKI_OK) {
    pkcs7 message(out, PKCS7_free);
    EXPECT_EQ(value_of(message, PKI_OID_SCEP_RECIPIENT_NONCE), nullptr);
  } else {
    EXPECT_TRUE(code == PKI_OUT_OF_MEMORY || code == PKI_INVALID_ARGS) << code;
    EXPECT_EQ(out, nullptr);
  }
}

int encodes_to_nothing(const void *, unsigned char **) {
  return 0;
}
int fails_to_encode(const void *, unsigned char **) {
  return -1;
}
int fails_the_second_time(const void *, unsigned char **out) {
  return out ? 0 : 10;
}

TEST_F(GenScepMsg, PayloadThatCannotBeEncodedIsOutOfMemory) {
  for (i2d_fn *each : {encodes_to_nothing, fails_to_encode, fails_the_second_time}) {
    encode_payload = each;
    expect_refused(PKI_OUT_OF_MEMORY);
  }
}

TEST_F(GenScepMsg, RecipientThatCannotOpenEnvelopesIsPassedOn) {
  recipient = certificate("ec", support::make_ec_key(), 1);
  expect_refused(PKI_P7_ENCRYPT_FAILED);
  EXPECT_TRUE(logged_containing(3, "OpenSSL error: ")) << log_dump();
}

TEST_F(GenScepMsg, UnknownKeyWithoutADigestIsRefusedWithALine) {
  key = support::make_ec_key();
  signer = certificate("ec", key, 1);
  expect_refused(PKI_UNKNOWN_KEY_TYPE);
  EXPECT_EQ(captured_log(), (std::vector<log_entry>{{3, unknown_key_line()}})) << log_dump();
}

TEST_F(GenScepMsg, EnvelopesFailureComesBeforeTheMissingDigest) {
  key = support::make_ec_key();
  recipient = certificate("ec", key, 1);
  expect_refused(PKI_P7_ENCRYPT_FAILED);
  EXPECT_FALSE(was_logged(3, unknown_key_line()));
}

TEST_F(GenScepMsg, SigningFailuresArePassedOn) {
  key = support::public_part(device_key);
  expect_refused(PKI_P7_DATAFINAL_FAILED);
  EXPECT_TRUE(logged_containing(3, "OpenSSL error: ")) << log_dump();
  key = device_key;
  md = EVP_md4();
  expect_refused(PKI_P7_DATAINIT_FAILED);
}

TEST_F(GenScepMsg, CipherThatDoesNotFitIsRefused) {
  cipher = EVP_aes_128_gcm();
  expect_refused(PKI_P7_ENCRYPT_FAILED);
}

[[noreturn]] void make_without_the_legacy_module(ias payload, EVP_PKEY *key, X509 *signer,
                                                 X509 *recipient) {
  clear_log();
  PKCS7 *out = nullptr;
  const int des = gen_scep_msg(20, payload.get(), ias_encoder(), key, signer, recipient, -1, "id",
                               nullptr, 0, nullptr, nullptr, &out);
  fprintf(stderr, "des %d explained %d out %d ", des, logged_containing(3, "legacy provider"),
          out != nullptr);
  const int aes = gen_scep_msg(20, payload.get(), ias_encoder(), key, signer, recipient, -1, "id",
                               nullptr, 0, nullptr, EVP_aes_128_cbc(), &out);
  fprintf(stderr, "aes %d out %d\n", aes, out != nullptr);
  // Past the leak check: OpenSSL leaks when a provider's module is missing.
  _exit(0);
}

TEST_F(GenScepMsg, WithoutTheLegacyModuleOnlyDesIsRefusedAndTheLogSaysWhy) {
  // A process of its own: the module is looked for once.
  const std::string style = GTEST_FLAG_GET(death_test_style);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const char *old = getenv("OPENSSL_MODULES");
  const std::string before = old ? old : "";
  setenv("OPENSSL_MODULES", "/nonexistent", 1);
  EXPECT_EXIT(make_without_the_legacy_module(payload, key.get(), signer.get(), recipient.get()),
              testing::ExitedWithCode(0), "des 21 explained 1 out 0 aes 0 out 1");
  if (old)
    setenv("OPENSSL_MODULES", before.c_str(), 1);
  else
    unsetenv("OPENSSL_MODULES");
  GTEST_FLAG_SET(death_test_style, style);
}

TEST_F(GenScepMsg, EachMissingArgumentIsRefused) {
  PKCS7 *out = nullptr;
  EXPECT_EQ(make(static_cast<PKCS7 **>(nullptr)), PKI_INVALID_ARGS);
  EXPECT_EQ(gen_scep_msg(20, nullptr, encode_payload, key.get(), signer.get(), ca.get(), -1, id,
                         nullptr, 0, nullptr, nullptr, &out),
            PKI_INVALID_ARGS);
  encode_payload = nullptr;
  expect_refused(PKI_INVALID_ARGS);
  encode_payload = ias_encoder();
  key = nullptr;
  expect_refused(PKI_INVALID_ARGS);
  key = device_key;
  signer = nullptr;
  expect_refused(PKI_INVALID_ARGS);
  signer = device;
  recipient = nullptr;
  expect_refused(PKI_INVALID_ARGS);
}

}  // namespace
