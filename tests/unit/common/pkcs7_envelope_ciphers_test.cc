// Ciphers of envelopes: AES is OpenSSL's default provider's, single DES only its legacy provider's,
// which the library keeps in a context of its own.
#include <gtest/gtest.h>
#include <libpki/error.h>
#include <libpki/pkcs7.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/provider.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "fakes/log_capture.h"
#include "support/ca_info_doc.h"
#include "support/certs.h"

namespace {

using support::pkcs7;

struct EnvelopeCiphers : testing::Test {
  EnvelopeCiphers() {
    support::clear_openssl_errors();
    clear_log();
  }
  ~EnvelopeCiphers() override { EXPECT_EQ(ERR_peek_error(), 0u); }

  pkcs7 encrypt(const std::string &data, const EVP_CIPHER *cipher) {
    PKCS7 *out = nullptr;
    EXPECT_EQ(pkcs7_encrypt(cert.get(), data.data(), static_cast<int>(data.size()), cipher, &out),
              PKI_OK)
        << log_dump();
    return pkcs7(out, PKCS7_free);
  }
  // What is inside, or the code as a text.
  std::string decrypt(const pkcs7 &message) { return decrypt(message, key, cert); }
  std::string decrypt(const pkcs7 &message, const support::key &private_key,
                      const support::cert &recipient) {
    auto *data = reinterpret_cast<unsigned char *>(this);
    int length = 77;
    int code = pkcs7_decrypt(message.get(), private_key.get(), recipient.get(), &data, &length);
    if (code != PKI_OK) {
      EXPECT_EQ(data, nullptr);
      EXPECT_EQ(length, 0);
      return "code " + std::to_string(code);
    }
    std::string text(reinterpret_cast<char *>(data), static_cast<size_t>(length));
    free(data);
    return text;
  }

  support::key key = support::test_key(0);
  support::cert cert = support::make_ca("recipient", 0, 5);
};

TEST_F(EnvelopeCiphers, EachRoundTrips) {
  const std::string data("a\0b\r\n\n", 6);
  for (const EVP_CIPHER *cipher : {EVP_aes_128_cbc(), EVP_des_ede3_cbc(), EVP_des_cbc()}) {
    SCOPED_TRACE(EVP_CIPHER_get0_name(cipher));
    pkcs7 message = encrypt(data, cipher);
    EXPECT_EQ(decrypt(message), data) << log_dump();
    EXPECT_EQ(decrypt(support::read_message(support::der(message))), data);
    EXPECT_EQ(OBJ_obj2nid(message->d.enveloped->enc_data->algorithm->algorithm),
              EVP_CIPHER_get_nid(cipher));
  }
}

TEST_F(EnvelopeCiphers, AMegabyteRoundTripsThroughTheLegacyProvider) {
  const std::string big(1 << 20, 'x');
  EXPECT_TRUE(decrypt(encrypt(big, EVP_des_cbc())) == big);
}

TEST_F(EnvelopeCiphers, AnotherRecipientIsRefusedWithEach) {
  support::cert other = support::make_ca("other", 1);
  for (const EVP_CIPHER *cipher : {EVP_aes_128_cbc(), EVP_des_cbc()}) {
    SCOPED_TRACE(EVP_CIPHER_get0_name(cipher));
    pkcs7 message = encrypt("secret", cipher);
    clear_log();
    EXPECT_EQ(decrypt(message, support::test_key(1), other),
              "code " + std::to_string(PKI_P7_DECRYPT_FAILED));
    EXPECT_TRUE(logged_containing(3, "OpenSSL error: ")) << log_dump();
  }
}

TEST_F(EnvelopeCiphers, OneWithAnAuthenticationTagIsRefused) {
  auto *out = reinterpret_cast<PKCS7 *>(this);
  EXPECT_EQ(pkcs7_encrypt(cert.get(), "x", 1, EVP_aes_128_gcm(), &out), PKI_P7_ENCRYPT_FAILED);
  EXPECT_EQ(out, nullptr);
}

TEST_F(EnvelopeCiphers, OneThatOnlyWrapsKeysIsRefused) {
  for (const char *name : {"id-aes128-wrap", "id-aes128-wrap-pad", "id-smime-alg-CMS3DESwrap"}) {
    const EVP_CIPHER *cipher = EVP_get_cipherbyname(name);
    ASSERT_NE(cipher, nullptr) << name;
    const std::string data(64, 'x');
    auto *out = reinterpret_cast<PKCS7 *>(this);
    EXPECT_EQ(pkcs7_encrypt(cert.get(), data.data(), 64, cipher, &out), PKI_P7_ENCRYPT_FAILED)
        << name;
    EXPECT_EQ(out, nullptr) << name;
  }
}

// A cipher with a name that no provider knows.
struct homeless_cipher {
  homeless_cipher() {
    const char *oid = "1.3.6.1.4.1.32473.7778";
    int nid = OBJ_txt2nid(oid);
    nid = nid != NID_undef ? nid : OBJ_create(oid, "homeless", "a cipher of no provider");
    cipher.reset(EVP_CIPHER_meth_new(nid, 16, 16), EVP_CIPHER_meth_free);
  }
  std::shared_ptr<EVP_CIPHER> cipher;
};

TEST_F(EnvelopeCiphers, OneThatTheLegacyProviderDoesNotHaveEitherIsRefusedAndTheLogSaysWhy) {
  homeless_cipher unknown;
  auto *out = reinterpret_cast<PKCS7 *>(this);
  EXPECT_EQ(pkcs7_encrypt(cert.get(), "x", 1, unknown.cipher.get(), &out), PKI_P7_ENCRYPT_FAILED);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(
      count_logged(3, "cipher homeless cannot be used: OpenSSL's legacy provider does not have it"),
      1u)
      << log_dump();
}

TEST_F(EnvelopeCiphers, HostsOwnContextStaysWithoutDes) {
  ASSERT_EQ(decrypt(encrypt("x", EVP_des_cbc())), "x");
  EXPECT_EQ(EVP_CIPHER_fetch(nullptr, "DES-CBC", nullptr), nullptr);
  EXPECT_EQ(OSSL_PROVIDER_available(nullptr, "legacy"), 0);
  support::clear_openssl_errors();
}

[[noreturn]] void encrypt_with_des_and_tell(X509 *recipient) {
  clear_log();
  PKCS7 *out = nullptr;
  const int code = pkcs7_encrypt(recipient, "x", 1, EVP_des_cbc(), &out);
  const size_t explained = count_logged(
      3, "cipher DES-CBC cannot be used: OpenSSL's legacy provider could not be loaded");
  fprintf(stderr, "code %d explained %zu out %d\n", code, explained, out != nullptr);
  // Past the leak check: OpenSSL leaks when a provider's module is missing.
  _exit(0);
}

TEST_F(EnvelopeCiphers, DesWithoutTheLegacyModuleIsRefusedAndTheLogSaysWhy) {
  // A process of its own: the module is looked for once.
  const std::string style = GTEST_FLAG_GET(death_test_style);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const char *old = getenv("OPENSSL_MODULES");
  const std::string before = old ? old : "";
  setenv("OPENSSL_MODULES", "/nonexistent", 1);
  EXPECT_EXIT(encrypt_with_des_and_tell(cert.get()), testing::ExitedWithCode(0),
              "code 21 explained 1 out 0");
  if (old)
    setenv("OPENSSL_MODULES", before.c_str(), 1);
  else
    unsetenv("OPENSSL_MODULES");
  GTEST_FLAG_SET(death_test_style, style);
}

}  // namespace
