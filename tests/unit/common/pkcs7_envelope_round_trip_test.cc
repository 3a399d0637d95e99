#include <gtest/gtest.h>
#include <libpki/error.h>
#include <libpki/pkcs7.h>
#include <openssl/err.h>

#include <climits>
#include <cstdlib>
#include <string>
#include <vector>

#include "fakes/log_capture.h"
#include "support/ca_info_doc.h"
#include "support/certs.h"

namespace {

using support::pkcs7;

struct quiet_envelope : testing::Test {
  quiet_envelope() {
    support::clear_openssl_errors();
    clear_log();
  }
  ~quiet_envelope() override { EXPECT_EQ(ERR_peek_error(), 0u); }

  support::key key = support::test_key(0);
  support::cert cert = certificate(key, 5);

  static support::cert certificate(const support::key &public_key, long serial) {
    support::cert_options options;
    options.subject = support::common_name("recipient");
    options.issuer = support::common_name("recipient's CA");
    options.serial = serial;
    options.public_key = public_key;
    return support::make_cert(options);
  }

  pkcs7 encrypt(const std::string &data) {
    PKCS7 *out = nullptr;
    EXPECT_EQ(pkcs7_encrypt(cert.get(), data.data(), static_cast<int>(data.size()),
                            EVP_aes_128_cbc(), &out),
              PKI_OK)
        << log_dump();
    return pkcs7(out, PKCS7_free);
  }

  struct plaintext {
    int code;
    bool has_data;
    std::string data;
  };
  plaintext decrypt(const pkcs7 &message, const support::key &private_key,
                    const support::cert &recipient) {
    auto *data = reinterpret_cast<unsigned char *>(this);
    int length = 77;
    plaintext result = {
        pkcs7_decrypt(message.get(), private_key.get(), recipient.get(), &data, &length), false,
        ""};
    result.has_data = data != nullptr;
    if (result.code != PKI_OK) {
      EXPECT_EQ(data, nullptr);
      EXPECT_EQ(length, 0);
      return result;
    }
    result.data.assign(reinterpret_cast<char *>(data), static_cast<size_t>(length));
    free(data);
    return result;
  }
};

struct Pkcs7Encrypt : quiet_envelope {};
struct Pkcs7Decrypt : quiet_envelope {};

TEST_F(Pkcs7Encrypt, MakesAnEnvelopeForTheOneRecipient) {
  pkcs7 message = encrypt("data");
  ASSERT_TRUE(PKCS7_type_is_enveloped(message.get()));
  STACK_OF(PKCS7_RECIP_INFO) *recipients = message->d.enveloped->recipientinfo;
  ASSERT_EQ(sk_PKCS7_RECIP_INFO_num(recipients), 1);
  PKCS7_ISSUER_AND_SERIAL *named = sk_PKCS7_RECIP_INFO_value(recipients, 0)->issuer_and_serial;
  EXPECT_EQ(X509_NAME_cmp(named->issuer, X509_get_issuer_name(cert.get())), 0);
  EXPECT_EQ(ASN1_INTEGER_get(named->serial), 5);
}

TEST_F(Pkcs7Encrypt, UsesTheGivenCipher) {
  pkcs7 message = encrypt("data");
  EXPECT_EQ(OBJ_obj2nid(message->d.enveloped->enc_data->algorithm->algorithm), NID_aes_128_cbc);
}

TEST_F(Pkcs7Encrypt, OpenSslOpensItOctetForOctet) {
  const std::string data("first\nsecond\r\n\0third", 20);
  pkcs7 received = support::read_message(support::der(encrypt(data)));
  BIO *out = BIO_new(BIO_s_mem());
  ASSERT_EQ(PKCS7_decrypt(received.get(), key.get(), cert.get(), out, PKCS7_BINARY), 1);
  char *text = nullptr;
  long length = BIO_get_mem_data(out, &text);
  EXPECT_EQ(std::string(text, static_cast<size_t>(length)), data);
  BIO_free(out);
}

TEST_F(Pkcs7Encrypt, LogsNothingWhenItSucceeds) {
  encrypt("data");
  EXPECT_EQ(captured_log(), std::vector<log_entry>());
}

TEST_F(Pkcs7Encrypt, RecipientWhoseKeyCannotEncryptIsRefused) {
  auto *out = reinterpret_cast<PKCS7 *>(this);
  support::cert elliptic = certificate(support::make_ec_key(), 6);
  EXPECT_EQ(pkcs7_encrypt(elliptic.get(), "data", 4, EVP_aes_128_cbc(), &out),
            PKI_P7_ENCRYPT_FAILED);
  EXPECT_EQ(out, nullptr);
  EXPECT_TRUE(logged_containing(3, "OpenSSL error: ")) << log_dump();
  EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST_F(Pkcs7Encrypt, AllocationFailureInTheQueueIsOutOfMemory) {
  PKCS7 *out = nullptr;
  support::cert elliptic = certificate(support::make_ec_key(), 6);
  support::raise_openssl_error(ERR_R_MALLOC_FAILURE);
  EXPECT_EQ(pkcs7_encrypt(elliptic.get(), "data", 4, EVP_aes_128_cbc(), &out), PKI_OUT_OF_MEMORY);
}

TEST_F(Pkcs7Encrypt, NullAndNegativeArgumentsAreRefused) {
  PKCS7 *out = nullptr;
  const EVP_CIPHER *cipher = EVP_aes_128_cbc();
  EXPECT_EQ(pkcs7_encrypt(nullptr, "data", 4, cipher, &out), PKI_INVALID_ARGS);
  EXPECT_EQ(pkcs7_encrypt(cert.get(), nullptr, 4, cipher, &out), PKI_INVALID_ARGS);
  EXPECT_EQ(pkcs7_encrypt(cert.get(), "data", -1, cipher, &out), PKI_INVALID_ARGS);
  EXPECT_EQ(pkcs7_encrypt(cert.get(), "data", INT_MIN, cipher, &out), PKI_INVALID_ARGS);
  EXPECT_EQ(pkcs7_encrypt(cert.get(), "data", 4, nullptr, &out), PKI_INVALID_ARGS);
  EXPECT_EQ(pkcs7_encrypt(cert.get(), "data", 4, cipher, nullptr), PKI_INVALID_ARGS);
  EXPECT_EQ(out, nullptr);
}

TEST_F(Pkcs7Decrypt, OpensWhatPkcs7EncryptMade) {
  const std::string data("first\nsecond\r\n\0third", 20);
  plaintext result = decrypt(support::read_message(support::der(encrypt(data))), key, cert);
  EXPECT_EQ(result.code, PKI_OK);
  EXPECT_EQ(result.data, data);
  EXPECT_EQ(captured_log(), std::vector<log_entry>());
}

TEST_F(Pkcs7Decrypt, OpensAnEnvelopeThatDidNotTravel) {
  EXPECT_EQ(decrypt(encrypt("data"), key, cert).data, "data");
}

TEST_F(Pkcs7Decrypt, OpensAnEnvelopeOfOpenSslsTwice) {
  pkcs7 message = support::make_envelope("data", cert);
  EXPECT_EQ(decrypt(message, key, cert).data, "data");
  EXPECT_EQ(decrypt(message, key, cert).data, "data");
}

TEST_F(Pkcs7Decrypt, LargeDataComesBackWhole) {
  std::string data(300001, 'x');
  EXPECT_EQ(decrypt(encrypt(data), key, cert).data, data);
}

TEST_F(Pkcs7Decrypt, EmptyDataComesBackAsANonNullBuffer) {
  plaintext result = decrypt(encrypt(""), key, cert);
  EXPECT_EQ(result.code, PKI_OK);
  EXPECT_TRUE(result.has_data);
  EXPECT_EQ(result.data, "");
}

TEST_F(Pkcs7Decrypt, FindsItsRecipientAmongSeveral) {
  support::cert other = certificate(support::test_key(1), 6);
  STACK_OF(X509) *recipients = sk_X509_new_null();
  sk_X509_push(recipients, other.get());
  sk_X509_push(recipients, cert.get());
  BIO *in = BIO_new_mem_buf("data", 4);
  pkcs7 message(PKCS7_encrypt(recipients, in, EVP_aes_128_cbc(), PKCS7_BINARY), PKCS7_free);
  BIO_free(in);
  sk_X509_free(recipients);
  EXPECT_EQ(decrypt(message, key, cert).data, "data");
  EXPECT_EQ(decrypt(message, support::test_key(1), other).data, "data");
}

TEST_F(Pkcs7Decrypt, CertificateOfNoRecipientIsRefused) {
  EXPECT_EQ(decrypt(encrypt("data"), key, certificate(key, 6)).code, PKI_P7_DECRYPT_FAILED);
  EXPECT_TRUE(logged_containing(3, "OpenSSL error: ")) << log_dump();
  EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST_F(Pkcs7Decrypt, WrongKeyNeverGivesThePlaintext) {
  // OpenSSL goes on with a random key, so that a few tries end in garbage instead of an error.
  int refused = 0;
  for (int i = 0; i < 20; i++) {
    plaintext result = decrypt(encrypt("secret data"), support::test_key(1), cert);
    if (result.code == PKI_P7_DECRYPT_FAILED)
      refused++;
    else
      EXPECT_EQ(result.code, PKI_OK);
    EXPECT_NE(result.data, "secret data");
  }
  EXPECT_GE(refused, 15);
}

TEST_F(Pkcs7Decrypt, CiphertextThatIsCutShortIsRefused) {
  pkcs7 message = encrypt("data that takes more than a block");
  ASN1_OCTET_STRING *ciphertext = message->d.enveloped->enc_data->enc_data;
  ASN1_STRING_length_set(ciphertext, ASN1_STRING_length(ciphertext) - 1);
  EXPECT_EQ(decrypt(message, key, cert).code, PKI_P7_DECRYPT_FAILED);
}

TEST_F(Pkcs7Decrypt, AllocationFailureInTheQueueIsOutOfMemory) {
  pkcs7 message = encrypt("data");
  support::cert other = certificate(key, 6);
  support::raise_openssl_error(ERR_R_MALLOC_FAILURE);
  EXPECT_EQ(decrypt(message, key, other).code, PKI_OUT_OF_MEMORY);
}

TEST_F(Pkcs7Decrypt, WhatIsNoEnvelopeIsRefused) {
  EXPECT_EQ(decrypt(support::make_data("data"), key, cert).code, PKI_P7_DECRYPT_FAILED);
  EXPECT_EQ(decrypt(support::make_message({.signers = {{key, nullptr, 1}}}), key, cert).code,
            PKI_P7_DECRYPT_FAILED);
  EXPECT_EQ(decrypt(pkcs7(PKCS7_new(), PKCS7_free), key, cert).code, PKI_P7_DECRYPT_FAILED);
}

TEST_F(Pkcs7Decrypt, OtherTypesWithoutContentAreRefused) {
  for (int nid : {NID_pkcs7_data, NID_pkcs7_signed, NID_pkcs7_signedAndEnveloped, NID_pkcs7_digest,
                  NID_pkcs7_encrypted})
    EXPECT_EQ(decrypt(support::make_bare_message(nid), key, cert).code, PKI_P7_DECRYPT_FAILED)
        << OBJ_nid2ln(nid);
}

TEST_F(Pkcs7Decrypt, EnvelopeWithoutContentIsInvalid) {
  EXPECT_EQ(decrypt(support::make_bare_message(NID_pkcs7_enveloped), key, cert).code,
            PKI_INVALID_DER);
}

TEST_F(Pkcs7Decrypt, EnvelopeWithoutCiphertextIsInvalid) {
  pkcs7 message = encrypt("data");
  ASN1_OCTET_STRING_free(message->d.enveloped->enc_data->enc_data);
  message->d.enveloped->enc_data->enc_data = nullptr;
  EXPECT_EQ(decrypt(message, key, cert).code, PKI_INVALID_DER);
}

TEST_F(Pkcs7Decrypt, EnvelopeWithoutRecipientsIsRefused) {
  pkcs7 message = encrypt("data");
  PKCS7_RECIP_INFO_free(sk_PKCS7_RECIP_INFO_pop(message->d.enveloped->recipientinfo));
  EXPECT_EQ(decrypt(message, key, cert).code, PKI_P7_DECRYPT_FAILED);
}

TEST_F(Pkcs7Decrypt, NullArgumentsAreRefused) {
  pkcs7 message = encrypt("data");
  unsigned char *data = nullptr;
  int length = 0;
  EXPECT_EQ(pkcs7_decrypt(nullptr, key.get(), cert.get(), &data, &length), PKI_INVALID_ARGS);
  EXPECT_EQ(pkcs7_decrypt(message.get(), nullptr, cert.get(), &data, &length), PKI_INVALID_ARGS);
  EXPECT_EQ(pkcs7_decrypt(message.get(), key.get(), nullptr, &data, &length), PKI_INVALID_ARGS);
  EXPECT_EQ(pkcs7_decrypt(message.get(), key.get(), cert.get(), nullptr, &length),
            PKI_INVALID_ARGS);
  EXPECT_EQ(pkcs7_decrypt(message.get(), key.get(), cert.get(), &data, nullptr), PKI_INVALID_ARGS);
  EXPECT_EQ(data, nullptr);
}

}  // namespace
