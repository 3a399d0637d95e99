// Every allocation of every PKCS#7 operation fails once, alone and with all that follow.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libpki/error.h>
#include <libpki/pkcs7.h>
#include <openssl/err.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "fakes/allocator.h"
#include "fakes/log_capture.h"
#include "support/ca_info_doc.h"
#include "support/certs.h"

namespace {

using support::pkcs7;
using testing::Contains;

struct Pkcs7Memory : testing::Test {
  void SetUp() override {
    if (!fake_allocator::available())
      GTEST_SKIP() << "this build's allocator cannot be replaced";
    support::clear_openssl_errors();
    clear_log();
  }
  void TearDown() override {
    fake_allocator::stop_failing();
    support::clear_openssl_errors();
  }

  static support::cert certificate(const support::key &key, const std::string &name, long serial) {
    support::cert_options options;
    options.subject = support::common_name(name);
    options.serial = serial;
    options.public_key = key;
    return support::make_cert(options);
  }

  // Sweeps `operation`, which returns its code. After each failure the code must be one of
  // `codes`, or 0 where OpenSSL did without the memory; `check(code)` looks at the outputs and
  // frees them.
  void sweep(const std::function<int()> &operation, const std::function<void(int)> &check,
             const std::vector<int> &codes) {
    // OpenSSL fills its caches of algorithms and texts, also the ones for logging errors.
    check(operation());
    support::raise_openssl_error(ERR_R_MALLOC_FAILURE);
    log_openssl_errors(3);
    for (bool stay_failed : {false, true}) {
      SCOPED_TRACE(stay_failed ? "from then on" : "once");
      int code = -1;
      size_t failures = fake_allocator::sweep([&] { code = operation(); },
                                              [&](size_t n) {
                                                if (code != PKI_OK) {
                                                  EXPECT_THAT(codes, Contains(code))
                                                      << "allocation " << n;
                                                }
                                                check(code);
                                                support::clear_openssl_errors();
                                                clear_log();
                                              },
                                              stay_failed);
      EXPECT_GT(failures, 3u);
      EXPECT_EQ(code, PKI_OK) << log_dump();
      check(code);
    }
  }

  // OpenSSL 3.0 spoils an RSA key object's blinding when memory runs out while it is used, and the
  // object's next signatures with it: each run has an object of its own.
  EVP_PKEY *fresh_key() {
    fake_allocator::pause no_failures;
    current.reset(EVP_PKEY_dup(key.get()), EVP_PKEY_free);
    return current.get();
  }

  support::key key = support::test_key(0);
  support::key current;
  support::key public_key = support::public_part(key);
  support::cert cert = certificate(key, "signer", 7);
  unsigned char untouched = 0;
};

TEST_F(Pkcs7Memory, CreateDummyCert) {
  auto *made = reinterpret_cast<X509 *>(&untouched);
  sweep([&] { return create_dummy_cert(key.get(), &made); },
        [&](int code) {
          EXPECT_EQ(code == PKI_OK, made != nullptr);
          X509_free(made);
        },
        {PKI_OUT_OF_MEMORY, PKI_CERT_CREATE_FAILED});
}

TEST_F(Pkcs7Memory, SignBytes) {
  unsigned char *der = nullptr;
  int length = 0;
  sweep(
      [&] {
        der = &untouched;
        length = 77;
        return sign_bytes("data", 4, fresh_key(), &der, &length);
      },
      [&](int code) {
        EXPECT_EQ(code == PKI_OK, der != nullptr);
        EXPECT_EQ(code == PKI_OK, length != 0);
        if (!der)
          return;
        unsigned char *content = nullptr;
        int content_length = 0;
        EXPECT_EQ(verify_bytes(der, length, public_key.get(), &content, &content_length), PKI_OK);
        EXPECT_EQ(content_length, 4);
        free(content);
        free(der);
      },
      {PKI_OUT_OF_MEMORY, PKI_BIO_CREAT_FAILED, PKI_P7_SIGN_FAILED, PKI_CERT_CREATE_FAILED});
}

TEST_F(Pkcs7Memory, VerifyBytes) {
  std::string der = support::sign_document("document", key);
  unsigned char *content = nullptr;
  int length = 0;
  sweep(
      [&] {
        content = &untouched;
        length = 77;
        return verify_bytes(reinterpret_cast<const unsigned char *>(der.data()),
                            static_cast<int>(der.size()), public_key.get(), &content, &length);
      },
      [&](int code) {
        ASSERT_EQ(code == PKI_OK, content != nullptr);
        EXPECT_EQ(length, code == PKI_OK ? 8 : 0);
        if (content) {
          EXPECT_EQ(std::string(reinterpret_cast<char *>(content), 8), "document");
        }
        free(content);
      },
      {PKI_OUT_OF_MEMORY, PKI_P7_DECODE_ERROR, PKI_CERT_CREATE_FAILED, PKI_SIG_VERIFY_FAILED});
}

TEST_F(Pkcs7Memory, VerifyBytesNeverAcceptsAStranger) {
  support::name issuer = support::common_name("stranger");
  support::message_signer us = {key, nullptr, 1};
  support::message_signer them = {support::test_key(1), issuer, 5};
  std::string der = support::der(support::make_message(
      {.signers = {us, them}, .carried = {certificate(support::test_key(1), "stranger", 5)}}));
  for (size_t n = 0; n < 3000; n++) {
    unsigned char *content = nullptr;
    int length = 0;
    fake_allocator::fail_at(n);
    int code = verify_bytes(reinterpret_cast<const unsigned char *>(der.data()),
                            static_cast<int>(der.size()), public_key.get(), &content, &length);
    fake_allocator::stop_failing();
    EXPECT_NE(code, PKI_OK) << "allocation " << n;
    EXPECT_EQ(content, nullptr);
    clear_log();
    if (n > 0 && !fake_allocator::has_failed())
      break;
  }
}

TEST_F(Pkcs7Memory, DigestFood) {
  pkcs7 envelope = support::make_envelope("data", cert);
  BIO *bio = nullptr;
  unsigned char *buffer = nullptr;
  sweep(
      [&] {
        bio = reinterpret_cast<BIO *>(&untouched);
        buffer = &untouched;
        return get_pkcs7_digest_food(envelope.get(), &bio, &buffer);
      },
      [&](int code) {
        EXPECT_EQ(code == PKI_OK, bio != nullptr);
        EXPECT_EQ(code == PKI_OK, buffer != nullptr);
        BIO_free(bio);
        free(buffer);
      },
      {PKI_OUT_OF_MEMORY, PKI_BIO_CREAT_FAILED});
}

TEST_F(Pkcs7Memory, Pkcs7Sign) {
  X509_ATTRIBUTE *attribute =
      X509_ATTRIBUTE_create_by_NID(nullptr, NID_pkcs9_challengePassword, V_ASN1_UTF8STRING, "A", 1);
  PKCS7 *content = nullptr;
  PKCS7 *out = nullptr;
  pkcs7 original = support::make_envelope("data", cert);
  sweep(
      [&] {
        {
          fake_allocator::pause no_failures;
          content = PKCS7_dup(original.get());
        }
        out = reinterpret_cast<PKCS7 *>(&untouched);
        return pkcs7_sign(cert.get(), fresh_key(), EVP_sha1(), content, &attribute, 1, &out);
      },
      [&](int code) {
        ASSERT_EQ(code == PKI_OK, out != nullptr);
        // After a failure the content is still the caller's, after success the message's.
        if (!out) {
          PKCS7_free(content);
          return;
        }
        EXPECT_EQ(pkcs7_verify(out, nullptr, nullptr), PKI_OK);
        PKCS7_free(out);
      },
      {PKI_OUT_OF_MEMORY, PKI_BIO_CREAT_FAILED, PKI_P7_DATAINIT_FAILED, PKI_P7_DATAFINAL_FAILED,
       PKI_INTERNAL_ERROR});
  X509_ATTRIBUTE_free(attribute);
}

TEST_F(Pkcs7Memory, Pkcs7VerifyWithAGivenSigner) {
  support::message_signer us = {key, support::common_name("signer"), 7};
  pkcs7 message = support::make_message({.signers = {us}});
  X509 *signer = nullptr;
  PKCS7 *content = nullptr;
  sweep(
      [&] {
        signer = cert.get();
        content = nullptr;
        return pkcs7_verify(message.get(), &signer, &content);
      },
      [&](int code) {
        EXPECT_EQ(signer, cert.get());
        EXPECT_EQ(content, code == PKI_OK ? message->d.sign->contents : nullptr);
      },
      {PKI_OUT_OF_MEMORY, PKI_BIO_CREAT_FAILED, PKI_P7_VERIFY_FAILED, PKI_SIGNER_NOT_FOUND});
}

TEST_F(Pkcs7Memory, Pkcs7VerifyThatFindsTheSigner) {
  support::message_signer us = {key, support::common_name("signer"), 7};
  pkcs7 message = support::make_message({.signers = {us}, .carried = {cert}});
  X509 *signer = nullptr;
  PKCS7 *content = nullptr;
  sweep(
      [&] {
        signer = nullptr;
        content = nullptr;
        return pkcs7_verify(message.get(), &signer, &content);
      },
      [&](int code) {
        EXPECT_EQ(code == PKI_OK, signer != nullptr);
        EXPECT_EQ(content, code == PKI_OK ? message->d.sign->contents : nullptr);
      },
      {PKI_OUT_OF_MEMORY, PKI_BIO_CREAT_FAILED, PKI_P7_VERIFY_FAILED});
}

TEST_F(Pkcs7Memory, Pkcs7Encrypt) {
  PKCS7 *out = nullptr;
  sweep(
      [&] {
        out = reinterpret_cast<PKCS7 *>(&untouched);
        return pkcs7_encrypt(cert.get(), "data", 4, EVP_aes_128_cbc(), &out);
      },
      [&](int code) {
        ASSERT_EQ(code == PKI_OK, out != nullptr);
        if (!out)
          return;
        unsigned char *data = nullptr;
        int length = 0;
        EXPECT_EQ(pkcs7_decrypt(out, fresh_key(), cert.get(), &data, &length), PKI_OK);
        EXPECT_EQ(length, 4);
        free(data);
        PKCS7_free(out);
      },
      {PKI_OUT_OF_MEMORY, PKI_BIO_CREAT_FAILED, PKI_P7_ENCRYPT_FAILED});
}

TEST_F(Pkcs7Memory, Pkcs7Decrypt) {
  pkcs7 message = support::make_envelope("data", cert);
  unsigned char *data = nullptr;
  int length = 0;
  sweep(
      [&] {
        data = &untouched;
        length = 77;
        return pkcs7_decrypt(message.get(), fresh_key(), cert.get(), &data, &length);
      },
      [&](int code) {
        ASSERT_EQ(code == PKI_OK, data != nullptr);
        // After a failed RSA operation OpenSSL goes on with a random key, on purpose; one time in
        // 256 that gives octets instead of an error, so they are not looked at.
        if (code != PKI_OK) {
          EXPECT_EQ(length, 0);
        }
        free(data);
      },
      {PKI_OUT_OF_MEMORY, PKI_BIO_CREAT_FAILED, PKI_P7_DECRYPT_FAILED, PKI_BIO_BUF_GET_FAILED});
}

}  // namespace
