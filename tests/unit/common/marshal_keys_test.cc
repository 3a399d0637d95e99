// Keys and OpenSSL's structures: never written, read from the streams of other writers.
#include <gtest/gtest.h>
#include <libpki/marshal.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include "fakes/log_capture.h"
#include "support/certs.h"
#include "support/crl_der.h"
#include "support/marshal.h"

namespace {

using support::block;
using support::decode;
using support::empty_stream;
using support::encoded;
using support::octets_in;
using support::stream;

std::string public_der(const support::key &key) {
  unsigned char *out = nullptr;
  int length = i2d_PUBKEY(key.get(), &out);
  std::string der(reinterpret_cast<char *>(out), static_cast<size_t>(length));
  OPENSSL_free(out);
  return der;
}

std::string private_der(const support::key &key) {
  PKCS8_PRIV_KEY_INFO *info = EVP_PKEY2PKCS8(key.get());
  unsigned char *out = nullptr;
  int length = i2d_PKCS8_PRIV_KEY_INFO(info, &out);
  std::string der(reinterpret_cast<char *>(out), static_cast<size_t>(length));
  OPENSSL_free(out);
  PKCS8_PRIV_KEY_INFO_free(info);
  return der;
}

// Of an algorithm that nobody knows.
std::string unknown_public_der() {
  return support::der_tlv(0x30, support::der_algorithm("1.3.6.1.4.1.32473.50") +
                                    support::der_tlv(0x03, std::string("\0abc", 4)));
}
std::string unknown_private_der() {
  return support::der_tlv(0x30, support::der_integer(0) +
                                    support::der_algorithm("1.3.6.1.4.1.32473.50") +
                                    support::der_tlv(0x04, "abc"));
}

struct MarshalKeys : testing::Test {
  void SetUp() override {
    support::clear_openssl_errors();
    clear_log();
  }
  void TearDown() override {
    EXPECT_EQ(ERR_peek_error(), 0ul) << "OpenSSL's errors go into the log";
    EVP_PKEY_free(target);
    support::clear_openssl_errors();
  }
  static void expect_openssl_lines() {
    EXPECT_FALSE(captured_log().empty());
    for (const log_entry &entry : captured_log()) {
      EXPECT_EQ(entry.level, 3);
      EXPECT_EQ(entry.text.rfind("OpenSSL error: ", 0), 0u) << entry.text;
    }
    clear_log();
  }
  // A key that is in the target already must stay when reading fails.
  void expect_refused(marshal_dec_fn *dec, const std::string &data, int code) {
    EXPECT_EQ(decode(block(1, data), dec, &target), code);
    EXPECT_EQ(target, nullptr);
    expect_openssl_lines();
    target = EVP_PKEY_dup(other.get());
    EVP_PKEY *before = target;
    EXPECT_EQ(decode(block(1, data), dec, &target), code);
    EXPECT_EQ(target, before);
    EXPECT_EQ(EVP_PKEY_eq(target, other.get()), 1);
    expect_openssl_lines();
    EVP_PKEY_free(target);
    target = nullptr;
  }
  support::key pair = support::test_key(0);
  support::key other = support::test_key(1);
  EVP_PKEY *target = nullptr;
};

TEST_F(MarshalKeys, NoKeyIsEverWritten) {
  for (const support::key &key : {pair, support::make_ec_key()}) {
    EVP_PKEY *field = key.get();
    EXPECT_EQ(encoded(enc_pub_key, &field, 1), "");
    EXPECT_EQ(encoded(enc_prv_key, &field, 1), "");
    EXPECT_EQ(encoded(enc_asn1_struct, &field, 1), "");
  }
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(MarshalKeys, EncodersLeaveTheKeyToItsOwner) {
  EVP_PKEY *field = EVP_PKEY_dup(pair.get());
  encoded(enc_pub_key, &field, 1);
  encoded(enc_prv_key, &field, 1);
  EXPECT_EQ(EVP_PKEY_eq(field, pair.get()), 1);
  EVP_PKEY_free(field);
}

TEST_F(MarshalKeys, NullKeysAreNotWritten) {
  EVP_PKEY *field = nullptr;
  EXPECT_EQ(encoded(enc_pub_key, &field, 1), "");
  EXPECT_EQ(encoded(enc_prv_key, &field, 1), "");
  EXPECT_EQ(encoded(enc_asn1_struct, &field, 1), "");
}

TEST_F(MarshalKeys, PlaceholderEncoderWritesNothingOfAnyStructure) {
  support::cert cert = support::make_cert();
  X509 *field = cert.get();
  EXPECT_EQ(encoded(enc_asn1_struct, &field, 1), "");
}

TEST_F(MarshalKeys, KeyThatCannotBeConvertedIs6) {
  EVP_PKEY *empty = EVP_PKEY_new();
  for (marshal_enc_fn *enc : {enc_pub_key, enc_prv_key}) {
    stream out = empty_stream();
    EXPECT_EQ(enc(out.get(), &empty, 1, nullptr), 6);
    EXPECT_EQ(octets_in(out), "");
    expect_openssl_lines();
  }
  EVP_PKEY_free(empty);
}

TEST_F(MarshalKeys, OutOfMemoryInOpensslsQueueIsThatCode) {
  EVP_PKEY *empty = EVP_PKEY_new();
  stream out = empty_stream();
  for (marshal_enc_fn *enc : {enc_pub_key, enc_prv_key}) {
    support::raise_openssl_error(ERR_R_MALLOC_FAILURE);
    EXPECT_EQ(enc(out.get(), &empty, 1, nullptr), 2);
  }
  EVP_PKEY_free(empty);
  for (const std::string &data : {std::string("junk"), unknown_public_der()}) {
    support::raise_openssl_error(ERR_R_MALLOC_FAILURE);
    EXPECT_EQ(decode(block(1, data), dec_pub_key, &target), 2);
  }
  for (const std::string &data : {std::string("junk"), unknown_private_der()}) {
    support::raise_openssl_error(ERR_R_MALLOC_FAILURE);
    EXPECT_EQ(decode(block(1, data), dec_prv_key, &target), 2);
  }
  support::raise_openssl_error(ERR_R_MALLOC_FAILURE);
  X509 *cert = nullptr;
  EXPECT_EQ(decode(block(1, "junk"), dec_asn1_struct, &cert, support::d2i(d2i_X509)), 2);
  EXPECT_EQ(target, nullptr);
}

TEST_F(MarshalKeys, PublicKeyIsRead) {
  for (const support::key &key : {pair, support::make_ec_key()}) {
    EXPECT_EQ(decode(block(1, public_der(key)), dec_pub_key, &target), 0);
    ASSERT_NE(target, nullptr);
    EXPECT_EQ(EVP_PKEY_eq(target, key.get()), 1);
  }
  EXPECT_TRUE(captured_log().empty()) << "a key is replaced silently\n" << log_dump();
}

TEST_F(MarshalKeys, PrivateKeyIsRead) {
  for (const support::key &key : {pair, support::make_ec_key()}) {
    EXPECT_EQ(decode(block(1, private_der(key)), dec_prv_key, &target), 0);
    ASSERT_NE(target, nullptr);
    EXPECT_EQ(EVP_PKEY_eq(target, key.get()), 1);
    EXPECT_EQ(private_der(support::key(EVP_PKEY_dup(target), EVP_PKEY_free)), private_der(key));
  }
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(MarshalKeys, NoSubjectPublicKeyInfoIs8) {
  expect_refused(dec_pub_key, "junk", 8);
  expect_refused(dec_pub_key, public_der(pair).substr(0, 100), 8);
}

TEST_F(MarshalKeys, EmptyPublicKeyIs8) {
  EXPECT_EQ(decode(block(1), dec_pub_key, &target), 8);
  EXPECT_EQ(target, nullptr);
}

TEST_F(MarshalKeys, NoPrivateKeyInfoIs5) {
  expect_refused(dec_prv_key, "junk", 5);
  expect_refused(dec_prv_key, private_der(pair).substr(0, 100), 5);
}

TEST_F(MarshalKeys, EmptyPrivateKeyIs5) {
  EXPECT_EQ(decode(block(1), dec_prv_key, &target), 5);
  EXPECT_EQ(target, nullptr);
}

TEST_F(MarshalKeys, KeysOfUnknownAlgorithmsAre6) {
  expect_refused(dec_pub_key, unknown_public_der(), 6);
  expect_refused(dec_prv_key, unknown_private_der(), 6);
}

TEST_F(MarshalKeys, EncryptedPrivateKeyIs5) {
  BIO *out = BIO_new(BIO_s_mem());
  char password[] = "x";
  ASSERT_EQ(
      i2d_PKCS8PrivateKey_bio(out, pair.get(), EVP_aes_128_cbc(), password, 1, nullptr, nullptr),
      1);
  std::string encrypted = octets_in(stream(out));
  expect_refused(dec_prv_key, encrypted, 5);
}

TEST_F(MarshalKeys, StructureIsReadByTheDecoderOfItsType) {
  support::cert cert = support::make_cert();
  X509 *read = nullptr;
  EXPECT_EQ(decode(block(1, support::der(cert)), dec_asn1_struct, &read, support::d2i(d2i_X509)),
            0);
  ASSERT_NE(read, nullptr);
  EXPECT_EQ(X509_cmp(read, cert.get()), 0);
  X509_free(read);
  ASN1_INTEGER *number = nullptr;
  EXPECT_EQ(
      decode(block(1, "\x02\x01\x05"), dec_asn1_struct, &number, support::d2i(d2i_ASN1_INTEGER)),
      0);
  EXPECT_EQ(ASN1_INTEGER_get(number), 5);
  ASN1_INTEGER_free(number);
}

TEST_F(MarshalKeys, StructureThatIsThereMayBeUsedAgain) {
  ASN1_INTEGER *number = ASN1_INTEGER_new();
  ASN1_INTEGER_set(number, 1);
  ASN1_INTEGER *before = number;
  EXPECT_EQ(
      decode(block(1, "\x02\x01\x05"), dec_asn1_struct, &number, support::d2i(d2i_ASN1_INTEGER)),
      0);
  EXPECT_EQ(number, before);
  EXPECT_EQ(ASN1_INTEGER_get(number), 5);
  ASN1_INTEGER_free(number);
}

TEST_F(MarshalKeys, WhatIsNoStructureOfTheTypeIs15) {
  for (const char *data : {"junk", ""}) {
    X509 *read = nullptr;
    EXPECT_EQ(decode(block(1, data), dec_asn1_struct, &read, support::d2i(d2i_X509)), 15) << data;
    EXPECT_EQ(read, nullptr);
  }
  expect_openssl_lines();
}

TEST_F(MarshalKeys, WhatIsNoStructureOfTheTypeMayCostTheObjectThatWasThere) {
  // Most of OpenSSL's decoders free it, some leave it alone: the target says which.
  X509 *cert = X509_dup(support::make_cert().get());
  EXPECT_EQ(decode(block(1, "junk"), dec_asn1_struct, &cert, support::d2i(d2i_X509)), 15);
  EXPECT_EQ(cert, nullptr);
  expect_openssl_lines();
  target = EVP_PKEY_dup(pair.get());
  EVP_PKEY *before = target;
  EXPECT_EQ(decode(block(1, "junk"), dec_asn1_struct, &target, support::d2i(d2i_PUBKEY)), 15);
  EXPECT_EQ(target, before);
  EXPECT_EQ(EVP_PKEY_eq(target, pair.get()), 1);
  expect_openssl_lines();
}

TEST_F(MarshalKeys, NullArgumentsAreRefused) {
  stream out = empty_stream();
  EXPECT_EQ(enc_pub_key(out.get(), nullptr, 1, nullptr), 63);
  EXPECT_EQ(enc_prv_key(out.get(), nullptr, 1, nullptr), 63);
  const unsigned char data[4] = {};
  EXPECT_EQ(dec_pub_key(out.get(), 1, data, 4, nullptr, nullptr), 63);
  EXPECT_EQ(dec_prv_key(out.get(), 1, data, 4, nullptr, nullptr), 63);
  EXPECT_EQ(dec_asn1_struct(out.get(), 1, data, 4, nullptr, support::arg(support::d2i(d2i_X509))),
            63);
  X509 *read = nullptr;
  EXPECT_EQ(dec_asn1_struct(out.get(), 1, data, 4, &read, nullptr), 63);
}

}  // namespace
