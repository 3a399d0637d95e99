#include "tools/common/keys.h"

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include "run_tool.h"
#include "support/certs.h"
#include "tools/common/failure.h"
#include "tools/common/ossl.h"

namespace {

using tool_test::folder;

std::string private_der(EVP_PKEY *key) {
  unsigned char *der = nullptr;
  int length = i2d_PrivateKey(key, &der);
  std::string bytes(der, der + length);
  OPENSSL_free(der);
  return bytes;
}

std::string public_der(EVP_PKEY *key) {
  unsigned char *der = nullptr;
  int length = i2d_PUBKEY(key, &der);
  std::string bytes(der, der + length);
  OPENSSL_free(der);
  return bytes;
}

enum class form { pkcs8_pem, traditional_pem, pkcs8_der };

std::string encrypted(EVP_PKEY *key, form how) {
  tools::bio_ptr bio(BIO_new(BIO_s_mem()));
  char phrase[] = "phrase";
  if (how == form::pkcs8_pem)
    PEM_write_bio_PKCS8PrivateKey(bio.get(), key, EVP_aes_128_cbc(), phrase, 6, nullptr, nullptr);
  else if (how == form::pkcs8_der)
    i2d_PKCS8PrivateKey_bio(bio.get(), key, EVP_aes_128_cbc(), phrase, 6, nullptr, nullptr);
  else
    PEM_write_bio_PrivateKey_traditional(bio.get(), key, EVP_aes_128_cbc(),
                                         reinterpret_cast<unsigned char *>(phrase), 6, nullptr,
                                         nullptr);
  char *text = nullptr;
  long length = BIO_get_mem_data(bio.get(), &text);
  return std::string(text, static_cast<size_t>(length));
}

template <class Load>
std::string failure_of(Load load) {
  try {
    load();
  } catch (const tools::failure &error) {
    return error.what();
  }
  return "";
}

TEST(ToolKeys, PrivateKeysComeAsPemAndDer) {
  folder home;
  support::key key = support::test_key();
  for (const std::string &bytes : {support::private_pem(key), private_der(key.get())}) {
    tools::key_ptr loaded = tools::load_private_key(home.write("key", bytes));
    EXPECT_EQ(EVP_PKEY_eq(loaded.get(), key.get()), 1);
  }
}

TEST(ToolKeys, EncryptedPrivateKeysAreRefusedWithoutAPrompt) {
  folder home;
  support::key key = support::test_key();
  for (form how : {form::pkcs8_pem, form::traditional_pem, form::pkcs8_der}) {
    std::string path = home.write("key", encrypted(key.get(), how));
    EXPECT_EQ(failure_of([&] { tools::load_private_key(path); }),
              path + " is encrypted; decrypt it first: openssl pkey -in " + path + " -out KEY.pem");
  }
}

TEST(ToolKeys, PublicKeysComeFromKeysAndCertificatesAsPemAndDer) {
  folder home;
  support::key key = support::test_key();
  support::cert cert = support::make_cert();
  for (const std::string &bytes :
       {support::public_pem(key), public_der(key.get()), support::pem(cert), support::der(cert)}) {
    tools::key_ptr loaded = tools::load_public_key(home.write("key", bytes));
    EXPECT_EQ(EVP_PKEY_eq(loaded.get(), key.get()), 1);
  }
}

TEST(ToolKeys, PrivateKeyIsNoPublicKey) {
  folder home;
  std::string path = home.write("key", support::private_pem(support::test_key()));
  EXPECT_EQ(failure_of([&] { tools::load_public_key(path); }),
            path + " is a private key; give the public one: openssl pkey -in " + path +
                " -pubout -out PUB.pem");
}

TEST(ToolKeys, OtherFilesAreRefused) {
  folder home;
  std::string path = home.write("file", "-----BEGIN NOTHING-----\nAAAA\n-----END NOTHING-----\n");
  EXPECT_EQ(failure_of([&] { tools::load_private_key(path); }),
            path + " holds no private key (PEM or DER)");
  EXPECT_EQ(failure_of([&] { tools::load_public_key(path); }),
            path + " holds neither a public key nor a certificate (PEM or DER)");
  EXPECT_EQ(failure_of([&] { tools::load_certificates(path); }),
            path + " holds no readable certificate (PEM or DER)");
}

TEST(ToolKeys, BundleWithABrokenCertificateIsRefusedWhole) {
  folder home;
  std::string good = support::pem(support::make_cert());
  std::string broken = "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n";
  EXPECT_EQ(tools::load_certificates(home.write("good", good + good)).size(), 2u);
  EXPECT_NE(failure_of([&] { tools::load_certificates(home.write("bad", good + broken)); }), "");
}

TEST(ToolKeys, OneCertificateIsWantedWhereSeveralMeanNothing) {
  folder home;
  std::string good = support::pem(support::make_cert());
  std::string path = home.write("bundle", good + good);
  EXPECT_NE(failure_of([&] { tools::load_certificate(path); }), "");
  EXPECT_NE(failure_of([&] { tools::load_public_key(path); }), "");
}

TEST(ToolKeys, OpenSslsErrorQueueIsLeftEmpty) {
  folder home;
  tools::load_public_key(home.write("cert", support::pem(support::make_cert())));
  failure_of([&] { tools::load_private_key(home.write("file", "nothing")); });
  EXPECT_EQ(ERR_peek_error(), 0u);
}

}  // namespace
