// Every allocation of every PKCS#7 operation fails once, alone and with all that follow: the
// operation ends in success with a right result, or in a documented code with null outputs.
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
#include "unit/common/failing.h"

namespace {

using support::pkcs7;
using testing::Contains;

std::string text(const unsigned char *octets, int length) {
  return std::string(reinterpret_cast<const char *>(octets), static_cast<size_t>(length));
}

// The parameter says whether failing goes on after the first failure.
struct Pkcs7Memory : testing::TestWithParam<bool> {
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

  // Sweeps `operation`, which returns its code: `success` with memory. After a failure the code
  // must be one of `codes`, or `success` where OpenSSL did without the memory; `check(code)` looks
  // at the outputs and frees them.
  void sweep(const std::function<int()> &operation, const std::function<void(int)> &check,
             const std::vector<int> &codes, int success = PKI_OK) {
    // OpenSSL fills its caches of algorithms and texts, also the ones for logging errors.
    check(operation());
    support::raise_openssl_error(ERR_R_MALLOC_FAILURE);
    log_openssl_errors(3);
    int code = -1;
    size_t refused = 0;
    size_t failures = fake_allocator::sweep([&] { code = operation(); },
                                            [&](size_t n) {
                                              SCOPED_TRACE("allocation " + std::to_string(n));
                                              if (code != success) {
                                                EXPECT_THAT(codes, Contains(code)) << log_dump();
                                                refused++;
                                              }
                                              check(code);
                                              support::clear_openssl_errors();
                                              clear_log();
                                            },
                                            GetParam());
    EXPECT_GT(failures, 3u);
    EXPECT_GT(refused, 0u);
    EXPECT_EQ(code, success) << "with memory again\n" << log_dump();
    check(code);
  }

  // OpenSSL 3.0 spoils an RSA key object's blinding when memory runs out while it is used, and the
  // object's next uses with it: each run has an object of its own.
  EVP_PKEY *fresh_key() {
    fake_allocator::pause no_failures;
    current.reset(EVP_PKEY_dup(key.get()), EVP_PKEY_free);
    return current.get();
  }

  void sweep_refusal(const support::message_options &options) {
    std::string der = support::der(support::make_message(options));
    unsigned char *content = nullptr;
    int length = 0;
    sweep(
        [&] {
          content = &untouched;
          length = 77;
          return verify_bytes(reinterpret_cast<const unsigned char *>(der.data()),
                              static_cast<int>(der.size()), public_key.get(), &content, &length);
        },
        [&](int) {
          EXPECT_EQ(content, nullptr);
          EXPECT_EQ(length, 0);
        },
        {PKI_OUT_OF_MEMORY, PKI_P7_DECODE_ERROR, PKI_CERT_CREATE_FAILED}, PKI_SIG_VERIFY_FAILED);
  }

  void expect_opens(const std::string &der, const std::string &data) {
    unsigned char *content = nullptr;
    int length = 0;
    EXPECT_EQ(verify_bytes(reinterpret_cast<const unsigned char *>(der.data()),
                           static_cast<int>(der.size()), public_key.get(), &content, &length),
              PKI_OK);
    EXPECT_EQ(text(content, length), data);
    free(content);
  }

  support::key key = support::test_key(0);
  support::key current;
  // RSA signatures are the same each time, so only the signing time asks for another look.
  std::string found_right;
  support::key public_key = support::public_part(key);
  support::cert cert = certificate(key, "signer", 7);
  unsigned char untouched = 0;
};

TEST_P(Pkcs7Memory, CreateDummyCert) {
  X509 *made = nullptr;
  sweep(
      [&] {
        made = reinterpret_cast<X509 *>(&untouched);
        return create_dummy_cert(public_key.get(), &made);
      },
      [&](int code) {
        ASSERT_EQ(code == PKI_OK, made != nullptr);
        if (!made)
          return;
        EXPECT_EQ(EVP_PKEY_eq(X509_get0_pubkey(made), key.get()), 1);
        EXPECT_EQ(ASN1_INTEGER_get(X509_get0_serialNumber(made)), 1);
        X509_free(made);
      },
      {PKI_OUT_OF_MEMORY, PKI_CERT_CREATE_FAILED});
}

TEST_P(Pkcs7Memory, SignBytes) {
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
        std::string made = text(der, length);
        free(der);
        if (made == found_right)
          return;
        expect_opens(made, "data");
        found_right = made;
      },
      {PKI_OUT_OF_MEMORY, PKI_BIO_CREAT_FAILED, PKI_P7_SIGN_FAILED, PKI_CERT_CREATE_FAILED});
}

TEST_P(Pkcs7Memory, VerifyBytes) {
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
          EXPECT_EQ(text(content, length), "document");
        }
        free(content);
      },
      {PKI_OUT_OF_MEMORY, PKI_P7_DECODE_ERROR, PKI_CERT_CREATE_FAILED, PKI_SIG_VERIFY_FAILED});
}

TEST_P(Pkcs7Memory, VerifyBytesNeverAcceptsAnotherKeysSignature) {
  sweep_refusal({.signers = {{support::test_key(1), nullptr, 1}}});
}

TEST_P(Pkcs7Memory, VerifyBytesNeverAcceptsAStrangerBesideTheSigner) {
  support::message_signer us = {key, nullptr, 1};
  support::message_signer them = {support::test_key(1), support::common_name("stranger"), 5};
  sweep_refusal(
      {.signers = {us, them}, .carried = {certificate(support::test_key(1), "stranger", 5)}});
}

TEST_P(Pkcs7Memory, DigestFood) {
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

TEST_P(Pkcs7Memory, Pkcs7Sign) {
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
          EXPECT_TRUE(PKCS7_type_is_enveloped(content));
          PKCS7_free(content);
          return;
        }
        EXPECT_EQ(out->d.sign->contents, content);
        pkcs7 owner(out, PKCS7_free);
        std::string made = support::der(owner);
        if (made == found_right)
          return;
        found_right = made;
        X509 *signer = cert.get();
        EXPECT_EQ(pkcs7_verify(out, &signer, nullptr), PKI_OK);
        PKCS7_SIGNER_INFO *info = sk_PKCS7_SIGNER_INFO_value(out->d.sign->signer_info, 0);
        for (int nid :
             {NID_pkcs9_contentType, NID_pkcs9_messageDigest, NID_pkcs9_challengePassword})
          EXPECT_NE(PKCS7_get_signed_attribute(info, nid), nullptr) << OBJ_nid2sn(nid);
      },
      {PKI_OUT_OF_MEMORY, PKI_BIO_CREAT_FAILED, PKI_P7_DATAINIT_FAILED, PKI_P7_DATAFINAL_FAILED,
       PKI_INTERNAL_ERROR});
  X509_ATTRIBUTE_free(attribute);
}

TEST_P(Pkcs7Memory, Pkcs7VerifyWithAGivenSigner) {
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
      {PKI_OUT_OF_MEMORY, PKI_BIO_CREAT_FAILED, PKI_P7_VERIFY_FAILED});
}

TEST_P(Pkcs7Memory, Pkcs7VerifyThatFindsTheSigner) {
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
        EXPECT_EQ(signer, code == PKI_OK ? sk_X509_value(message->d.sign->cert, 0) : nullptr);
        EXPECT_EQ(content, code == PKI_OK ? message->d.sign->contents : nullptr);
      },
      {PKI_OUT_OF_MEMORY, PKI_BIO_CREAT_FAILED, PKI_P7_VERIFY_FAILED});
}

// AES is the default provider's, DES the legacy provider's.
struct Pkcs7EnvelopeMemory : Pkcs7Memory {
  void sweep_encrypt(const EVP_CIPHER *cipher) {
    PKCS7 *out = nullptr;
    sweep(
        [&] {
          out = reinterpret_cast<PKCS7 *>(&untouched);
          return pkcs7_encrypt(cert.get(), "data", 4, cipher, &out);
        },
        [&](int code) {
          ASSERT_EQ(code == PKI_OK, out != nullptr);
          if (!out)
            return;
          EXPECT_GT(i2d_PKCS7(out, nullptr), 0) << "cannot be sent";
          unsigned char *data = nullptr;
          int length = 0;
          EXPECT_EQ(pkcs7_decrypt(out, key.get(), cert.get(), &data, &length), PKI_OK);
          EXPECT_EQ(text(data, length), "data");
          free(data);
          PKCS7_free(out);
        },
        {PKI_OUT_OF_MEMORY, PKI_BIO_CREAT_FAILED, PKI_P7_ENCRYPT_FAILED});
  }

  // OpenSSL leaks when memory runs out in the first use of a key object.
  EVP_PKEY *fresh_key_used_once(const pkcs7 &message) {
    fake_allocator::pause no_failures;
    unsigned char *data = nullptr;
    int length = 0;
    EXPECT_EQ(pkcs7_decrypt(message.get(), fresh_key(), cert.get(), &data, &length), PKI_OK);
    EXPECT_EQ(text(data, length), "data");
    free(data);
    return current.get();
  }

  void sweep_decrypt(const EVP_CIPHER *cipher) {
    PKCS7 *made = nullptr;
    ASSERT_EQ(pkcs7_encrypt(cert.get(), "data", 4, cipher, &made), PKI_OK);
    pkcs7 message(made, PKCS7_free);
    unsigned char *data = nullptr;
    int length = 0;
    sweep(
        [&] {
          EVP_PKEY *own = fresh_key_used_once(message);
          data = &untouched;
          length = 77;
          return pkcs7_decrypt(message.get(), own, cert.get(), &data, &length);
        },
        [&](int code) {
          ASSERT_EQ(code == PKI_OK, data != nullptr);
          // After a failed RSA operation OpenSSL goes on with a random key, on purpose; one time
          // in 256 that gives octets instead of an error, so they are not looked at.
          if (code != PKI_OK) {
            EXPECT_EQ(length, 0);
          }
          free(data);
        },
        {PKI_OUT_OF_MEMORY, PKI_BIO_CREAT_FAILED, PKI_P7_DECRYPT_FAILED, PKI_BIO_BUF_GET_FAILED});
  }
};

TEST_P(Pkcs7EnvelopeMemory, EncryptWithAes) {
  sweep_encrypt(EVP_aes_128_cbc());
}

TEST_P(Pkcs7EnvelopeMemory, EncryptWithDes) {
  sweep_encrypt(EVP_des_cbc());
}

TEST_P(Pkcs7EnvelopeMemory, DecryptWithAes) {
  sweep_decrypt(EVP_aes_128_cbc());
}

TEST_P(Pkcs7EnvelopeMemory, DecryptWithDes) {
  sweep_decrypt(EVP_des_cbc());
}

INSTANTIATE_TEST_SUITE_P(Failing, Pkcs7Memory, testing::Bool(), failing);
INSTANTIATE_TEST_SUITE_P(Failing, Pkcs7EnvelopeMemory, testing::Bool(), failing);

}  // namespace
