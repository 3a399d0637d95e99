#include <gtest/gtest.h>
#include <libpki/error.h>
#include <libpki/pkcs7.h>
#include <openssl/err.h>

#include <climits>
#include <cstdlib>
#include <string>

#include "fakes/log_capture.h"
#include "support/ca_info_doc.h"
#include "support/certs.h"
#include "unit/common/first_signer.h"

namespace {

using support::test_key;

struct quiet : testing::Test {
  quiet() {
    support::clear_openssl_errors();
    clear_log();
  }
  ~quiet() override { EXPECT_EQ(ERR_peek_error(), 0u); }
};

struct CreateDummyCert : quiet {};
struct SignBytes : quiet {};
struct VerifyBytes : quiet {};

support::key empty_key() {
  return support::key(EVP_PKEY_new(), EVP_PKEY_free);
}

support::key ed25519_key() {
  return support::key(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"), EVP_PKEY_free);
}

// sign_bytes as a string; "" after a failure, whose code is in `*code`.
std::string sign(const std::string &data, const support::key &key, int *code = nullptr) {
  unsigned char *der = nullptr;
  int length = 0;
  int result = sign_bytes(data.data(), static_cast<int>(data.size()), key.get(), &der, &length);
  if (code)
    *code = result;
  else
    EXPECT_EQ(result, PKI_OK);
  std::string octets(reinterpret_cast<char *>(der), static_cast<size_t>(length));
  free(der);
  return octets;
}

struct opened {
  int code;
  bool has_content;
  std::string content;
  int length;
};

opened open(const std::string &der, EVP_PKEY *key) {
  static unsigned char untouched;
  unsigned char *content = &untouched;
  int length = 77;
  opened result = {};
  result.code = verify_bytes(reinterpret_cast<const unsigned char *>(der.data()),
                             static_cast<int>(der.size()), key, &content, &length);
  result.has_content = content != nullptr;
  result.length = length;
  EXPECT_NE(content, &untouched);
  if (content == &untouched || !content)
    return result;
  result.content.assign(reinterpret_cast<char *>(content), static_cast<size_t>(length));
  free(content);
  return result;
}

void expect_refused(const opened &result, int code) {
  EXPECT_EQ(result.code, code);
  EXPECT_FALSE(result.has_content);
  EXPECT_EQ(result.length, 0);
}

bool has_attribute(const PKCS7_SIGNER_INFO *info, int nid) {
  return PKCS7_get_signed_attribute(info, nid) != nullptr;
}

TEST_F(CreateDummyCert, HoldsTheKeyAndSerialNumberOne) {
  X509 *cert = nullptr;
  ASSERT_EQ(create_dummy_cert(test_key(0).get(), &cert), PKI_OK);
  EXPECT_EQ(EVP_PKEY_eq(X509_get0_pubkey(cert), test_key(0).get()), 1);
  EXPECT_EQ(ASN1_INTEGER_get(X509_get0_serialNumber(cert)), 1);
  X509_free(cert);
}

TEST_F(CreateDummyCert, PublicKeyIsEnough) {
  X509 *cert = nullptr;
  ASSERT_EQ(create_dummy_cert(support::public_part(test_key(0)).get(), &cert), PKI_OK);
  EXPECT_EQ(EVP_PKEY_eq(X509_get0_pubkey(cert), test_key(0).get()), 1);
  X509_free(cert);
}

TEST_F(CreateDummyCert, HoldsNothingElse) {
  X509 *cert = nullptr;
  ASSERT_EQ(create_dummy_cert(test_key(0).get(), &cert), PKI_OK);
  EXPECT_EQ(X509_NAME_entry_count(X509_get_issuer_name(cert)), 0);
  EXPECT_EQ(X509_NAME_entry_count(X509_get_subject_name(cert)), 0);
  EXPECT_LE(X509_get_ext_count(cert), 0);
  const ASN1_BIT_STRING *signature = nullptr;
  X509_get0_signature(&signature, nullptr, cert);
  EXPECT_EQ(ASN1_STRING_length(signature), 0);
  X509_free(cert);
}

TEST_F(CreateDummyCert, KeyWithoutAlgorithmIsRefusedAndTheOutputNull) {
  auto *cert = reinterpret_cast<X509 *>(this);
  EXPECT_EQ(create_dummy_cert(empty_key().get(), &cert), PKI_CERT_CREATE_FAILED);
  EXPECT_EQ(cert, nullptr);
  EXPECT_TRUE(logged_containing(3, "OpenSSL error: ")) << log_dump();
  EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST_F(CreateDummyCert, AllocationFailureInTheQueueIsOutOfMemory) {
  X509 *cert = nullptr;
  support::raise_openssl_error(ERR_R_MALLOC_FAILURE);
  EXPECT_EQ(create_dummy_cert(empty_key().get(), &cert), PKI_OUT_OF_MEMORY);
  EXPECT_EQ(cert, nullptr);
}

TEST_F(CreateDummyCert, NullArgumentsAreRefused) {
  auto *cert = reinterpret_cast<X509 *>(this);
  EXPECT_EQ(create_dummy_cert(nullptr, &cert), PKI_INVALID_ARGS);
  EXPECT_EQ(cert, nullptr);
  EXPECT_EQ(create_dummy_cert(test_key(0).get(), nullptr), PKI_INVALID_ARGS);
}

TEST_F(SignBytes, MakesASignedDataWithTheDataInside) {
  support::pkcs7 message = support::read_message(sign("some data", test_key(0)));
  ASSERT_TRUE(PKCS7_type_is_signed(message.get()));
  PKCS7 *inner = message->d.sign->contents;
  ASSERT_TRUE(PKCS7_type_is_data(inner));
  ASSERT_NE(inner->d.data, nullptr);
  EXPECT_EQ(std::string(reinterpret_cast<const char *>(ASN1_STRING_get0_data(inner->d.data)),
                        static_cast<size_t>(ASN1_STRING_length(inner->d.data))),
            "some data");
}

TEST_F(SignBytes, CarriesNoCertificate) {
  support::pkcs7 message = support::read_message(sign("data", test_key(0)));
  EXPECT_LE(sk_X509_num(message->d.sign->cert), 0);
}

TEST_F(SignBytes, NamesItsOneSignerByEmptyIssuerAndSerialOne) {
  support::pkcs7 message = support::read_message(sign("data", test_key(0)));
  ASSERT_EQ(sk_PKCS7_SIGNER_INFO_num(PKCS7_get_signer_info(message.get())), 1);
  PKCS7_ISSUER_AND_SERIAL *named = first_signer(message)->issuer_and_serial;
  EXPECT_EQ(X509_NAME_entry_count(named->issuer), 0);
  EXPECT_EQ(ASN1_INTEGER_get(named->serial), 1);
}

TEST_F(SignBytes, DigestIsOpenSslsDefaultForTheKey) {
  int nid = NID_undef;
  ASSERT_GT(EVP_PKEY_get_default_digest_nid(test_key(0).get(), &nid), 0);
  support::pkcs7 message = support::read_message(sign("data", test_key(0)));
  EXPECT_EQ(OBJ_obj2nid(first_signer(message)->digest_alg->algorithm), nid);
}

TEST_F(SignBytes, SignsTheDefaultAttributesWithoutSmimeCapabilities) {
  support::pkcs7 message = support::read_message(sign("data", test_key(0)));
  PKCS7_SIGNER_INFO *info = first_signer(message);
  EXPECT_TRUE(has_attribute(info, NID_pkcs9_contentType));
  EXPECT_TRUE(has_attribute(info, NID_pkcs9_signingTime));
  EXPECT_TRUE(has_attribute(info, NID_pkcs9_messageDigest));
  EXPECT_FALSE(has_attribute(info, NID_SMIMECapabilities));
  EXPECT_EQ(sk_X509_ATTRIBUTE_num(PKCS7_get_signed_attributes(info)), 3);
}

TEST_F(SignBytes, LogsNothingWhenItSucceeds) {
  sign("data", test_key(0));
  EXPECT_EQ(captured_log(), std::vector<log_entry>());
}

TEST_F(SignBytes, KeyWithoutPrivatePartCannotSign) {
  auto *der = reinterpret_cast<unsigned char *>(this);
  int length = 77;
  EXPECT_EQ(sign_bytes("data", 4, support::public_part(test_key(0)).get(), &der, &length),
            PKI_P7_SIGN_FAILED);
  EXPECT_EQ(der, nullptr);
  EXPECT_EQ(length, 0);
  EXPECT_TRUE(logged_containing(3, "OpenSSL error: ")) << log_dump();
  EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST_F(SignBytes, KeyTypeThatPkcs7DoesNotKnowCannotSign) {
  int code = 0;
  EXPECT_EQ(sign("data", ed25519_key(), &code), "");
  EXPECT_EQ(code, PKI_P7_SIGN_FAILED);
}

TEST_F(SignBytes, AllocationFailureInTheQueueIsOutOfMemory) {
  support::raise_openssl_error(ERR_R_MALLOC_FAILURE);
  int code = 0;
  sign("data", support::public_part(test_key(0)), &code);
  EXPECT_EQ(code, PKI_OUT_OF_MEMORY);
}

TEST_F(SignBytes, ErrorOfTheDummyCertificateIsPassedOn) {
  int code = 0;
  sign("data", empty_key(), &code);
  EXPECT_EQ(code, PKI_CERT_CREATE_FAILED);
}

TEST_F(SignBytes, NullAndNegativeArgumentsAreRefused) {
  auto *der = reinterpret_cast<unsigned char *>(this);
  int length = 77;
  EVP_PKEY *key = test_key(0).get();
  EXPECT_EQ(sign_bytes(nullptr, 4, key, &der, &length), PKI_INVALID_ARGS);
  EXPECT_EQ(der, nullptr);
  EXPECT_EQ(length, 0);
  EXPECT_EQ(sign_bytes("data", -1, key, &der, &length), PKI_INVALID_ARGS);
  EXPECT_EQ(sign_bytes("data", INT_MIN, key, &der, &length), PKI_INVALID_ARGS);
  EXPECT_EQ(sign_bytes("data", 4, nullptr, &der, &length), PKI_INVALID_ARGS);
  EXPECT_EQ(sign_bytes("data", 4, key, nullptr, &length), PKI_INVALID_ARGS);
  EXPECT_EQ(sign_bytes("data", 4, key, &der, nullptr), PKI_INVALID_ARGS);
}

TEST_F(VerifyBytes, OpensWhatSignBytesMadeWithTheMatchingPublicKey) {
  opened result = open(sign("some data", test_key(0)), support::public_part(test_key(0)).get());
  EXPECT_EQ(result.code, PKI_OK);
  EXPECT_EQ(result.content, "some data");
  EXPECT_EQ(result.length, 9);
  EXPECT_EQ(captured_log(), std::vector<log_entry>());
}

TEST_F(VerifyBytes, AcceptsTheWholeKeyPairToo) {
  EXPECT_EQ(open(sign("some data", test_key(0)), test_key(0).get()).content, "some data");
}

TEST_F(VerifyBytes, ContentComesBackOctetForOctet) {
  std::string data("line\nline\r\n\0\xff tail", 18);
  EXPECT_EQ(open(sign(data, test_key(0)), test_key(0).get()).content, data);
}

TEST_F(VerifyBytes, LargeContentComesBackWhole) {
  std::string data(300000, 'x');
  data[150000] = '\n';
  EXPECT_EQ(open(sign(data, test_key(0)), test_key(0).get()).content, data);
}

TEST_F(VerifyBytes, EmptyContentComesBackAsANonNullBuffer) {
  opened result = open(sign("", test_key(0)), test_key(0).get());
  EXPECT_EQ(result.code, PKI_OK);
  EXPECT_TRUE(result.has_content);
  EXPECT_EQ(result.length, 0);
}

TEST_F(VerifyBytes, OpensWhatAnEllipticCurveKeySigned) {
  support::key key = support::make_ec_key();
  opened result = open(sign("some data", key), support::public_part(key).get());
  EXPECT_EQ(result.code, PKI_OK);
  EXPECT_EQ(result.content, "some data");
}

TEST_F(VerifyBytes, KeyOfAnotherPairIsRefused) {
  expect_refused(open(sign("data", test_key(0)), test_key(1).get()), PKI_SIG_VERIFY_FAILED);
  EXPECT_TRUE(logged_containing(3, "OpenSSL error: ")) << log_dump();
  EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST_F(VerifyBytes, KeyOfAnotherTypeIsRefused) {
  expect_refused(open(sign("data", test_key(0)), support::make_ec_key().get()),
                 PKI_SIG_VERIFY_FAILED);
}

TEST_F(VerifyBytes, KeyOfAnotherPairOrTypeDoesNotOpenAnEllipticCurveSignature) {
  std::string der = sign("data", support::make_ec_key());
  expect_refused(open(der, support::make_ec_key().get()), PKI_SIG_VERIFY_FAILED);
  expect_refused(open(der, test_key(0).get()), PKI_SIG_VERIFY_FAILED);
}

TEST_F(VerifyBytes, DerOfSomethingElseIsRefused) {
  expect_refused(open(support::der(support::make_cert()), test_key(0).get()), PKI_P7_DECODE_ERROR);
}

TEST_F(VerifyBytes, WhatIsNoPkcs7IsRefused) {
  expect_refused(open("<QRNPkiConfig/>", test_key(0).get()), PKI_P7_DECODE_ERROR);
  EXPECT_TRUE(logged_containing(3, "OpenSSL error: ")) << log_dump();
  EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST_F(VerifyBytes, NoOctetsAtAllAreRefused) {
  expect_refused(open("", test_key(0).get()), PKI_P7_DECODE_ERROR);
}

TEST_F(VerifyBytes, KeyWithoutAlgorithmIsRefused) {
  expect_refused(open(sign("data", test_key(0)), empty_key().get()), PKI_CERT_CREATE_FAILED);
}

TEST_F(VerifyBytes, AllocationFailureInTheQueueIsOutOfMemory) {
  std::string der = sign("data", test_key(0));
  support::raise_openssl_error(ERR_R_MALLOC_FAILURE);
  expect_refused(open("no PKCS#7", test_key(0).get()), PKI_OUT_OF_MEMORY);
  support::raise_openssl_error(ERR_R_MALLOC_FAILURE);
  expect_refused(open(der, test_key(1).get()), PKI_OUT_OF_MEMORY);
}

TEST_F(VerifyBytes, ErrorsLeftInTheQueueDoNotRefuseAGoodMessage) {
  std::string der = sign("data", test_key(0));
  support::raise_openssl_error(ERR_R_MALLOC_FAILURE);
  EXPECT_EQ(open(der, test_key(0).get()).code, PKI_OK);
  support::clear_openssl_errors();
}

TEST_F(VerifyBytes, NullAndNegativeArgumentsAreRefused) {
  std::string text = sign("data", test_key(0));
  const auto *der = reinterpret_cast<const unsigned char *>(text.data());
  int der_length = static_cast<int>(text.size());
  auto *content = reinterpret_cast<unsigned char *>(this);
  int length = 77;
  EVP_PKEY *key = test_key(0).get();
  EXPECT_EQ(verify_bytes(nullptr, der_length, key, &content, &length), PKI_INVALID_ARGS);
  EXPECT_EQ(content, nullptr);
  EXPECT_EQ(length, 0);
  EXPECT_EQ(verify_bytes(der, -1, key, &content, &length), PKI_INVALID_ARGS);
  EXPECT_EQ(verify_bytes(der, INT_MIN, key, &content, &length), PKI_INVALID_ARGS);
  EXPECT_EQ(verify_bytes(der, der_length, nullptr, &content, &length), PKI_INVALID_ARGS);
  EXPECT_EQ(verify_bytes(der, der_length, key, nullptr, &length), PKI_INVALID_ARGS);
  EXPECT_EQ(verify_bytes(der, der_length, key, &content, nullptr), PKI_INVALID_ARGS);
}

}  // namespace
