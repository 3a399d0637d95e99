// Certificates by the hash of their key's bits, as OCSP names responders (RFC 6960 4.2.1).
#include <gtest/gtest.h>
#include <libpki/libpki.h>
#include <openssl/sha.h>

#include <string>

#include "fakes/allocator.h"
#include "fakes/failures.h"
#include "fakes/log_capture.h"
#include "unit/pki/store_helpers.h"

namespace {

using support::cert;
using support::cert_list;
using support::elements;
using support::pointers;

cert cert_of_key(const support::key &key, long serial) {
  support::cert_options options;
  options.public_key = key;
  options.serial = serial;
  return support::make_cert(options);
}

// The octets of the subject public key's BIT STRING, dug out of the certificate.
std::string key_bits(const cert &object) {
  const ASN1_BIT_STRING *bits = X509_get0_pubkey_bitstr(object.get());
  return std::string(reinterpret_cast<const char *>(ASN1_STRING_get0_data(bits)),
                     static_cast<size_t>(ASN1_STRING_length(bits)));
}

std::string hash_of(const EVP_MD *digest, const std::string &octets) {
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned length = 0;
  EVP_Digest(octets.data(), octets.size(), out, &length, digest, nullptr);
  return std::string(reinterpret_cast<char *>(out), length);
}

class StoreFindByKeyHash : public support::store_test {
 protected:
  static int find(const EVP_MD *digest, const std::string &hash, STACK **result) {
    return find(digest, hash, static_cast<int>(hash.size()), result);
  }
  static int find(const EVP_MD *digest, const std::string &hash, int length, STACK **result) {
    return pki_find_certs_by_key_hash(digest, reinterpret_cast<const unsigned char *>(hash.data()),
                                      length, result);
  }

  support::key rsa_ = support::test_key(0), other_ = support::test_key(1),
               ec_ = support::make_ec_key();
};

TEST_F(StoreFindByKeyHash, FindsEveryCertificateOfThatKeyInListOrder) {
  cert root = cert_of_key(rsa_, 1), met = cert_of_key(rsa_, 2), kept = cert_of_key(rsa_, 3),
       stranger = cert_of_key(other_, 4);
  support::ca ca = support::make_ca_info("ca");
  ASSERT_EQ(pki_add_ca_info(ca.get()), 0);
  ASSERT_EQ(pki_add_trusted_cert(root.get(), ca.get()), 0);
  ASSERT_EQ(pki_add_untrusted_cert(stranger.get(), 0), 0);
  ASSERT_EQ(pki_add_untrusted_cert(met.get(), 0), 0);
  ASSERT_EQ(pki_add_untrusted_cert(kept.get(), 1), 0);
  cert_list found;
  EXPECT_EQ(find(EVP_sha1(), hash_of(EVP_sha1(), key_bits(root)), found.null_handle()), 0);
  EXPECT_EQ(elements(found.get()), (pointers{kept.get(), met.get(), root.get()}));
}

TEST_F(StoreFindByKeyHash, AnyDigestAndKeyTypeWillDo) {
  cert held = cert_of_key(ec_, 1);
  ASSERT_EQ(pki_add_untrusted_cert(held.get(), 1), 0);
  for (const EVP_MD *digest : {EVP_md5(), EVP_sha1(), EVP_sha256(), EVP_sha512()}) {
    cert_list found;
    EXPECT_EQ(find(digest, hash_of(digest, key_bits(held)), found.null_handle()), 0);
    EXPECT_EQ(elements(found.get()), pointers{held.get()}) << EVP_MD_get0_name(digest);
  }
}

TEST_F(StoreFindByKeyHash, HashesTheKeyBitsWithoutTheirEncoding) {
  cert held = cert_of_key(rsa_, 1);
  ASSERT_EQ(pki_add_untrusted_cert(held.get(), 1), 0);
  unsigned char *encoded = nullptr;
  int length = i2d_ASN1_BIT_STRING(X509_get0_pubkey_bitstr(held.get()), &encoded);
  std::string whole(reinterpret_cast<char *>(encoded), static_cast<size_t>(length));
  OPENSSL_free(encoded);
  cert_list found;
  EXPECT_EQ(find(EVP_sha1(), hash_of(EVP_sha1(), whole), found.null_handle()), 0);
  EXPECT_EQ(OPENSSL_sk_num(found), 0);
  std::string with_unused_bits = std::string(1, '\0') + key_bits(held);
  EXPECT_EQ(find(EVP_sha1(), hash_of(EVP_sha1(), with_unused_bits), found.handle()), 0);
  EXPECT_EQ(OPENSSL_sk_num(found), 0);
}

TEST_F(StoreFindByKeyHash, EveryOctetOfTheHashCounts) {
  cert held = cert_of_key(rsa_, 1);
  ASSERT_EQ(pki_add_untrusted_cert(held.get(), 1), 0);
  std::string hash = hash_of(EVP_sha256(), key_bits(held));
  for (size_t i = 0; i < hash.size(); i++) {
    std::string changed = hash;
    changed[i] = static_cast<char>(changed[i] ^ 1);
    cert_list found;
    EXPECT_EQ(find(EVP_sha256(), changed, found.null_handle()), 0);
    EXPECT_EQ(OPENSSL_sk_num(found), 0) << "octet " << i;
  }
}

TEST_F(StoreFindByKeyHash, AppendsToAGivenList) {
  cert held = cert_of_key(rsa_, 1), mine = cert_of_key(other_, 2);
  ASSERT_EQ(pki_add_untrusted_cert(held.get(), 1), 0);
  cert_list found{mine};
  EXPECT_EQ(find(EVP_sha1(), hash_of(EVP_sha1(), key_bits(held)), found.handle()), 0);
  EXPECT_EQ(elements(found.get()), (pointers{mine.get(), held.get()}));
}

TEST_F(StoreFindByKeyHash, CertificateWithoutAKeyDoesNotMatch) {
  cert keyless(X509_new(), X509_free);
  X509_set_issuer_name(keyless.get(), support::common_name("issuer").get());
  X509_set_serialNumber(keyless.get(), support::make_serial(1).get());
  ASSERT_EQ(pki_add_untrusted_cert(keyless.get(), 1), 0);
  cert_list found;
  EXPECT_EQ(find(EVP_sha1(), hash_of(EVP_sha1(), ""), found.null_handle()), 0);
  EXPECT_EQ(OPENSSL_sk_num(found), 0);
}

TEST_F(StoreFindByKeyHash, HashOfWrongLengthIsRefusedWithoutScanning) {
  cert held = cert_of_key(rsa_, 1);
  ASSERT_EQ(pki_add_untrusted_cert(held.get(), 1), 0);
  std::string hash = hash_of(EVP_sha1(), key_bits(held)) + std::string(20, '\0');
  for (int length : {-1, 0, 1, 19, 21, 32}) {
    STACK *result = nullptr;
    fake_failures::reset();
    EXPECT_EQ(find(EVP_sha1(), hash, length, &result), 63) << length;
    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(fake_failures::wrlock_calls(), 0);
    EXPECT_EQ(fake_failures::rdlock_calls(), 0);
  }
}

TEST_F(StoreFindByKeyHash, HashOfWrongLengthLeavesAGivenListAlone) {
  cert mine = cert_of_key(rsa_, 1);
  cert_list found{mine};
  EXPECT_EQ(find(EVP_sha256(), std::string(20, 'h'), found.handle()), 63);
  EXPECT_EQ(elements(found.get()), pointers{mine.get()});
}

// MD4 comes from OpenSSL's legacy provider, which nothing here loads.
TEST_F(StoreFindByKeyHash, DigestThatOpensslDoesNotOfferIsRefused) {
  cert held = cert_of_key(rsa_, 1), mine = cert_of_key(other_, 2);
  ASSERT_EQ(pki_add_untrusted_cert(held.get(), 1), 0);
  std::string hash(16, 'h');
  STACK *result = nullptr;
  EXPECT_EQ(find(EVP_md4(), hash, &result), 2);
  EXPECT_EQ(result, nullptr);
  cert_list found{mine};
  STACK *list = found;
  EXPECT_EQ(find(EVP_md4(), hash, found.handle()), 2);
  EXPECT_EQ(found.get(), list);
  EXPECT_EQ(elements(found.get()), pointers{mine.get()});
  EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST_F(StoreFindByKeyHash, NullArgumentsAreRefused) {
  std::string hash(20, 'h');
  STACK *result = nullptr;
  EXPECT_EQ(find(nullptr, hash, &result), 63);
  EXPECT_EQ(pki_find_certs_by_key_hash(EVP_sha1(), nullptr, 20, &result), 63);
  EXPECT_EQ(result, nullptr);
  EXPECT_EQ(find(EVP_sha1(), hash, nullptr), 63);
}

// OpenSSL takes locks of its own to hash, so only an empty store shows the library's.
TEST_F(StoreFindByKeyHash, TakesTheStoreLockForWritingOnce) {
  STACK *result = nullptr;
  fake_failures::reset();
  EXPECT_EQ(find(EVP_sha1(), std::string(20, 'h'), &result), 0);
  EXPECT_EQ(fake_failures::wrlock_calls(), 1);
  EXPECT_EQ(fake_failures::rdlock_calls(), 0);
  OPENSSL_sk_free(result);
}

}  // namespace
