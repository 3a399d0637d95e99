#include <gtest/gtest.h>
#include <libpki/pkcs7.h>
#include <openssl/err.h>
#include <openssl/objects.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <set>
#include <string>

#include "fakes/allocator.h"
#include "fakes/log_capture.h"
#include "support/certs.h"

namespace {

using message = std::unique_ptr<PKCS7, decltype(&PKCS7_free)>;

std::string as_text(const unsigned char *octets, int length) {
  return std::string(reinterpret_cast<const char *>(octets), static_cast<size_t>(length));
}

// Each operation with every one of its allocations failing, alone or with all that follow: it
// ends in success with a right result, or in a documented code with null outputs. The parameter
// says whether failing goes on.
class Pkcs7Allocation : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    if (!fake_allocator::available())
      GTEST_SKIP() << "the allocator cannot be replaced here";
    support::clear_openssl_errors();
    clear_log();
  }
  void TearDown() override { support::clear_openssl_errors(); }

  // `operation` returns a code; `after` judges it and cleans up, with failures off.
  void sweep(const std::set<int> &codes, const std::function<int()> &operation,
             const std::function<void(int code)> &after) {
    auto run = [&] {
      code = operation();
      // A run that nothing failed in is judged below.
      fake_allocator::pause unarmed;
      if (!fake_allocator::has_failed())
        after(code);
    };
    auto judge = [&](size_t n) {
      SCOPED_TRACE("allocation " + std::to_string(n));
      EXPECT_TRUE(code == 0 || codes.count(code)) << code << "\n" << log_dump();
      after(code);
      refused += code != 0;
      support::clear_openssl_errors();
      clear_log();
    };
    run();  // warms OpenSSL's caches
    ASSERT_EQ(code, 0) << log_dump();
    const size_t failures = fake_allocator::sweep(run, judge, GetParam());
    EXPECT_GT(failures, 10U);
    EXPECT_GT(refused, 0U);
    EXPECT_EQ(code, 0) << "with memory again";
  }

  message signed_message(const std::string &data) {
    PKCS7 *content = PKCS7_new();
    PKCS7_set_type(content, NID_pkcs7_data);
    ASN1_OCTET_STRING_set(content->d.data, reinterpret_cast<const unsigned char *>(data.data()),
                          static_cast<int>(data.size()));
    PKCS7 *out = nullptr;
    EXPECT_EQ(pkcs7_sign(device.get(), key.get(), EVP_sha256(), content, nullptr, 0, &out), 0);
    return {out, PKCS7_free};
  }

  support::key key = support::test_key(0);
  support::key public_key = support::public_part(key);
  support::cert device = support::simple_cert("device", "device", 5);
  int code = -1;
  size_t refused = 0;
};

TEST_P(Pkcs7Allocation, CreateDummyCert) {
  X509 *cert = nullptr;
  sweep(
      {2, 27}, [&] { return create_dummy_cert(public_key.get(), &cert); },
      [&](int result) {
        ASSERT_EQ(cert == nullptr, result != 0);
        if (cert) {
          EXPECT_EQ(EVP_PKEY_eq(X509_get0_pubkey(cert), key.get()), 1);
          EXPECT_EQ(ASN1_INTEGER_get(X509_get0_serialNumber(cert)), 1);
        }
        X509_free(cert);
        cert = nullptr;
      });
}

TEST_P(Pkcs7Allocation, SignBytes) {
  unsigned char *der = nullptr;
  int length = 0;
  sweep(
      {2, 11, 25, 27}, [&] { return sign_bytes("some data", 9, key.get(), &der, &length); },
      [&](int result) {
        ASSERT_EQ(der == nullptr, result != 0);
        ASSERT_TRUE(der || length == 0);
        if (!der)
          return;
        unsigned char *content = nullptr;
        int content_length = 0;
        EXPECT_EQ(verify_bytes(der, length, public_key.get(), &content, &content_length), 0);
        EXPECT_EQ(as_text(content, content_length), "some data");
        free(content);
        free(der);
        der = nullptr;
      });
}

TEST_P(Pkcs7Allocation, VerifyBytes) {
  unsigned char *der = nullptr;
  int der_length = 0;
  ASSERT_EQ(sign_bytes("some data", 9, key.get(), &der, &der_length), 0);
  unsigned char *content = nullptr;
  int length = 0;
  sweep(
      {2, 20, 27, 29},
      [&] { return verify_bytes(der, der_length, public_key.get(), &content, &length); },
      [&](int result) {
        ASSERT_EQ(content == nullptr, result != 0);
        ASSERT_TRUE(content || length == 0);
        EXPECT_TRUE(!content || as_text(content, length) == "some data");
        free(content);
        content = nullptr;
      });
  free(der);
}

TEST_P(Pkcs7Allocation, AnotherKeysSignatureIsNeverAccepted) {
  unsigned char *der = nullptr;
  int der_length = 0;
  ASSERT_EQ(sign_bytes("some data", 9, support::test_key(1).get(), &der, &der_length), 0);
  unsigned char *content = nullptr;
  int length = 0;
  const auto verify = [&] {
    code = verify_bytes(der, der_length, public_key.get(), &content, &length);
  };
  verify();
  EXPECT_EQ(code, 29);
  fake_allocator::sweep(
      verify,
      [&](size_t n) {
        EXPECT_TRUE(code == 2 || code == 20 || code == 27 || code == 29) << code << " at " << n;
        EXPECT_EQ(content, nullptr);
        support::clear_openssl_errors();
        clear_log();
      },
      GetParam());
  EXPECT_EQ(code, 29);
  free(der);
}

TEST_P(Pkcs7Allocation, Sign) {
  PKCS7 *out = nullptr;
  PKCS7 *content = nullptr;
  X509_ATTRIBUTE *attribute =
      X509_ATTRIBUTE_create(NID_pkcs9_unstructuredName, V_ASN1_NULL, nullptr);
  sweep(
      {2, 11, 23, 24, 72},
      [&] {
        {
          fake_allocator::pause unarmed;
          content = PKCS7_new();
          PKCS7_set_type(content, NID_pkcs7_data);
          ASN1_OCTET_STRING_set(content->d.data,
                                reinterpret_cast<const unsigned char *>("some data"), 9);
        }
        return pkcs7_sign(device.get(), key.get(), EVP_sha256(), content, &attribute, 1, &out);
      },
      [&](int result) {
        ASSERT_EQ(out == nullptr, result != 0);
        if (!out) {
          EXPECT_EQ(ASN1_STRING_length(content->d.data), 9);
          PKCS7_free(content);
          return;
        }
        EXPECT_EQ(out->d.sign->contents, content);
        X509 *signer = device.get();
        EXPECT_EQ(pkcs7_verify(out, &signer, nullptr), 0);
        PKCS7_SIGNER_INFO *info = sk_PKCS7_SIGNER_INFO_value(out->d.sign->signer_info, 0);
        EXPECT_NE(PKCS7_get_signed_attribute(info, NID_pkcs9_unstructuredName), nullptr);
        EXPECT_NE(PKCS7_get_signed_attribute(info, NID_pkcs9_contentType), nullptr);
        EXPECT_NE(PKCS7_get_signed_attribute(info, NID_pkcs9_messageDigest), nullptr);
        PKCS7_free(out);
        out = nullptr;
      });
  X509_ATTRIBUTE_free(attribute);
}

TEST_P(Pkcs7Allocation, Verify) {
  message p7 = signed_message("some data");
  X509 *signer = nullptr;
  PKCS7 *content = nullptr;
  sweep(
      {2, 11, 26, 28},
      [&] {
        signer = device.get();
        content = p7.get();
        return pkcs7_verify(p7.get(), &signer, &content);
      },
      [&](int result) {
        EXPECT_EQ(signer, device.get());
        EXPECT_EQ(content, result == 0 ? p7->d.sign->contents : p7.get());
      });
}

TEST_P(Pkcs7Allocation, VerifyAndLookUpTheSigner) {
  message p7 = signed_message("some data");
  X509 *signer = nullptr;
  sweep(
      {2, 11, 26},
      [&] {
        signer = nullptr;
        return pkcs7_verify(p7.get(), &signer, nullptr);
      },
      [&](int result) {
        EXPECT_EQ(signer, result == 0 ? sk_X509_value(p7->d.sign->cert, 0) : nullptr);
      });
}

// AES-CBC is the default provider's, DES-CBC the legacy provider's.
void envelope_ciphers(const std::function<void(const EVP_CIPHER *)> &each) {
  for (const EVP_CIPHER *cipher : {EVP_aes_128_cbc(), EVP_des_cbc()}) {
    SCOPED_TRACE(EVP_CIPHER_get0_name(cipher));
    each(cipher);
  }
}

TEST_P(Pkcs7Allocation, Encrypt) {
  envelope_ciphers([&](const EVP_CIPHER *cipher) {
    PKCS7 *out = nullptr;
    sweep(
        {2, 11, 21}, [&] { return pkcs7_encrypt(device.get(), "some data", 9, cipher, &out); },
        [&](int result) {
          ASSERT_EQ(out == nullptr, result != 0);
          if (!out)
            return;
          EXPECT_GT(i2d_PKCS7(out, nullptr), 0) << "cannot be sent";
          unsigned char *data = nullptr;
          int length = 0;
          EXPECT_EQ(pkcs7_decrypt(out, key.get(), device.get(), &data, &length), 0);
          EXPECT_EQ(as_text(data, length), "some data");
          free(data);
          PKCS7_free(out);
          out = nullptr;
        });
  });
}

TEST_P(Pkcs7Allocation, Decrypt) {
  envelope_ciphers([&](const EVP_CIPHER *cipher) {
    PKCS7 *made = nullptr;
    ASSERT_EQ(pkcs7_encrypt(device.get(), "some data", 9, cipher, &made), 0);
    message p7(made, PKCS7_free);
    unsigned char *data = nullptr;
    int length = 0;
    sweep(
        {2, 11, 13, 22},
        [&] {
          // A failure within OpenSSL's RSA blinding spoils the next uses of the same key object, so
          // each run has its own, used once: OpenSSL leaks when the first use runs out of memory.
          support::key own;
          {
            fake_allocator::pause unarmed;
            own = support::key(EVP_PKEY_dup(key.get()), EVP_PKEY_free);
            EXPECT_EQ(pkcs7_decrypt(p7.get(), own.get(), device.get(), &data, &length), 0);
            free(data);
          }
          return pkcs7_decrypt(p7.get(), own.get(), device.get(), &data, &length);
        },
        [&](int result) {
          ASSERT_EQ(data == nullptr, result != 0);
          ASSERT_TRUE(data || length == 0);
          // Where RSA fails, OpenSSL goes on with a random key so as not to tell an attacker, and
          // one time in 256 what comes out looks padded: the octets say nothing here.
          free(data);
          data = nullptr;
        });
    ASSERT_EQ(pkcs7_decrypt(p7.get(), key.get(), device.get(), &data, &length), 0);
    EXPECT_EQ(as_text(data, length), "some data");
    free(data);
  });
}

INSTANTIATE_TEST_SUITE_P(Failing, Pkcs7Allocation, testing::Bool(), [](const auto &parameter) {
  return parameter.param ? "OneAndAllThatFollow" : "One";
});

}  // namespace
