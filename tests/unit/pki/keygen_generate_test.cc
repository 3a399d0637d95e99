// pki_generate_key_pair.
#include <gtest/gtest.h>
#include <libpki/libpki.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/err.h>

#include <string>

#include "fakes/allocator.h"
#include "fakes/log_capture.h"
#include "support/ca_info_doc.h"
#include "support/certs.h"
#include "support/store_fixture.h"

namespace {

class Keygen : public support::store_test {
 protected:
  static int count() { return OPENSSL_sk_num(pki_store->key_store); }
  static key_info *made(int index = 0) {
    return support::at<key_info>(pki_store->key_store, index);
  }
  static int bits(int index = 0) { return EVP_PKEY_get_bits(made(index)->key); }
};

TEST_F(Keygen, LowerCaseAlgorithmAndNoBitsMakeAnRsaKeyOf1024Bits) {
  ASSERT_EQ(pki_generate_key_pair("key", "rsa", 0), PKI_OK);
  ASSERT_EQ(count(), 1);
  EXPECT_EQ(bits(), 1024);
  EXPECT_EQ(EVP_PKEY_get_base_id(made()->key), EVP_PKEY_RSA);
  EXPECT_STREQ(made()->label, "key");
  EXPECT_EQ(captured_log(), std::vector<log_entry>());
}

TEST_F(Keygen, NullAlgorithmMeansRsa) {
  ASSERT_EQ(pki_generate_key_pair("key", nullptr, 1024), PKI_OK);
  EXPECT_EQ(EVP_PKEY_get_base_id(made()->key), EVP_PKEY_RSA);
}

TEST_F(Keygen, LetterCaseOfTheAlgorithmDoesNotMatter) {
  for (const char *algorithm : {"RSA", "Rsa", "rSa"})
    EXPECT_EQ(pki_generate_key_pair("key", algorithm, 512), PKI_OK) << algorithm;
  EXPECT_EQ(count(), 3);
}

TEST_F(Keygen, NegativeBitsMean1024) {
  ASSERT_EQ(pki_generate_key_pair("key", "RSA", -1), PKI_OK);
  ASSERT_EQ(pki_generate_key_pair("key", "RSA", -2147483647 - 1), PKI_OK);
  EXPECT_EQ(bits(0), 1024);
  EXPECT_EQ(bits(1), 1024);
}

TEST_F(Keygen, BitsAreTheModulusLength) {
  for (int wanted : {512, 1024, 2048}) {
    ASSERT_EQ(pki_generate_key_pair("key", "RSA", wanted), PKI_OK);
    EXPECT_EQ(bits(count() - 1), wanted);
  }
}

TEST_F(Keygen, KeyIsAWholePairWithTheExponent65537) {
  ASSERT_EQ(pki_generate_key_pair("key", nullptr, 0), PKI_OK);
  support::key pair(EVP_PKEY_dup(made()->key), EVP_PKEY_free);
  EXPECT_EQ(verify_keys(pair.get(), support::public_part(pair).get()), PKI_OK);
  BIGNUM *exponent = nullptr;
  ASSERT_EQ(EVP_PKEY_get_bn_param(pair.get(), OSSL_PKEY_PARAM_RSA_E, &exponent), 1);
  EXPECT_EQ(BN_get_word(exponent), 65537u);
  BN_free(exponent);
}

TEST_F(Keygen, RecordHasNoCertificatesAndOneHolder) {
  ASSERT_EQ(pki_generate_key_pair("key", nullptr, 512), PKI_OK);
  EXPECT_EQ(OPENSSL_sk_num(made()->certs), 0);
  EXPECT_EQ(made()->ref_count, 1);
}

TEST_F(Keygen, LabelIsCopied) {
  std::string label = "a label";
  ASSERT_EQ(pki_generate_key_pair(label.c_str(), nullptr, 512), PKI_OK);
  label[0] = 'X';
  EXPECT_STREQ(made()->label, "a label");
}

TEST_F(Keygen, SecondKeyOfALabelStandsBehindTheFirstWhichIsFound) {
  ASSERT_EQ(pki_generate_key_pair("key", nullptr, 512), PKI_OK);
  ASSERT_EQ(pki_generate_key_pair("key", nullptr, 512), PKI_OK);
  EXPECT_EQ(count(), 2);
  key_info *found = pki_find_key_info_by_label("key");
  EXPECT_EQ(found, made(0));
  EXPECT_NE(EVP_PKEY_eq(made(0)->key, made(1)->key), 1);
  free_key_info(found);
}

TEST_F(Keygen, OtherAlgorithmsAreUnknown) {
  for (const char *algorithm : {"DSA", "EC", "", "RSA ", " RSA", "RSA2", "RS", "RSA-PSS"}) {
    EXPECT_EQ(pki_generate_key_pair("key", algorithm, 1024), PKI_UNKNOWN_KEY_ALG) << algorithm;
    EXPECT_EQ(count(), 0);
  }
}

TEST_F(Keygen, LabelIsRequired) {
  EXPECT_EQ(pki_generate_key_pair(nullptr, "RSA", 1024), PKI_INVALID_ARGS);
  EXPECT_EQ(pki_generate_key_pair(nullptr, "DSA", 1024), PKI_INVALID_ARGS);
  EXPECT_EQ(count(), 0);
}

TEST_F(Keygen, EmptyLabelIsALabel) {
  ASSERT_EQ(pki_generate_key_pair("", nullptr, 512), PKI_OK);
  EXPECT_STREQ(made()->label, "");
}

TEST_F(Keygen, SizeThatOpensslRefusesIsOutOfMemory) {
  for (int size : {1, 100, 511, 2147483647}) {
    EXPECT_EQ(pki_generate_key_pair("key", nullptr, size), PKI_OUT_OF_MEMORY) << size;
    EXPECT_EQ(count(), 0);
    EXPECT_EQ(ERR_peek_error(), 0u);
  }
}

TEST_F(Keygen, FailedAllocationIsACodeAndNoKey) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "the allocator cannot be made to fail in this build";
  ASSERT_EQ(pki_generate_key_pair("key", nullptr, 512), PKI_OK);
  support::empty_store();
  // How much OpenSSL allocates differs from key to key: sampled, sparser and sparser.
  size_t failures = 0;
  for (size_t n = 1; n < 20000; n += 1 + n / 50) {
    fake_allocator::fail_at(n);
    int code = pki_generate_key_pair("key", nullptr, 512);
    bool failed = fake_allocator::has_failed();
    fake_allocator::stop_failing();
    failures += failed && code != PKI_OK;
    EXPECT_TRUE(code == PKI_OK || code == PKI_OUT_OF_MEMORY) << n << ": " << code;
    EXPECT_EQ(count(), code == PKI_OK ? 1 : 0) << n;
    if (code == PKI_OK && count() == 1) {
      EXPECT_EQ(verify_keys(made()->key, made()->key), PKI_OK) << n;
      EXPECT_STREQ(made()->label, "key") << n;
    }
    support::empty_store();
    support::clear_openssl_errors();
    clear_log();
  }
  EXPECT_GT(failures, 20u);
}

}  // namespace
