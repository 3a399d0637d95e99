#include <gtest/gtest.h>
#include <libpki/pkcs7.h>
#include <openssl/err.h>
#include <openssl/objects.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "fakes/log_capture.h"
#include "support/certs.h"

namespace {

using message = std::unique_ptr<PKCS7, decltype(&PKCS7_free)>;

struct signer {
  support::cert cert;
  support::key key;
};

// OpenSSL's signed message of these signers, who leave their certificates in it where `carried`.
message made_by(const std::vector<signer> &signers, bool carried = true,
                const std::string &data = "data") {
  const int flags = PKCS7_BINARY | PKCS7_NOSMIMECAP | (carried ? 0 : PKCS7_NOCERTS);
  BIO *in = BIO_new_mem_buf(data.data(), static_cast<int>(data.size()));
  message p7(PKCS7_sign(nullptr, nullptr, nullptr, in, flags | PKCS7_PARTIAL), PKCS7_free);
  for (const signer &each : signers)
    EXPECT_NE(PKCS7_sign_add_signer(p7.get(), each.cert.get(), each.key.get(), nullptr, flags),
              nullptr);
  EXPECT_EQ(PKCS7_final(p7.get(), in, flags), 1);
  BIO_free(in);
  return p7;
}

std::string encoded(const message &p7) {
  unsigned char *der = nullptr;
  int length = i2d_PKCS7(p7.get(), &der);
  EXPECT_GT(length, 0);
  std::string text(reinterpret_cast<char *>(der), static_cast<size_t>(length));
  OPENSSL_free(der);
  return text;
}

struct opened {
  int code;
  std::string content;
};

opened verified_by(const support::key &key, const std::string &der) {
  unsigned char *content = nullptr;
  int length = 0;
  int code = verify_bytes(reinterpret_cast<const unsigned char *>(der.data()),
                          static_cast<int>(der.size()), key.get(), &content, &length);
  EXPECT_EQ(content == nullptr, code != 0) << code;
  std::string text;
  if (content)
    text.assign(reinterpret_cast<char *>(content), static_cast<size_t>(length));
  free(content);
  return {code, text};
}

support::cert named(const std::string &issuer, const std::string &subject, long serial,
                    const support::key &key) {
  support::cert_options options;
  options.issuer = issuer.empty() ? support::make_name({}) : support::common_name(issuer);
  options.subject = support::common_name(subject);
  options.serial = serial;
  options.public_key = key;
  return support::make_cert(options);
}

// Gives the first signer, and the list of digests, a digest that nobody knows.
void set_unknown_digest(const message &p7) {
  ASN1_OBJECT *oid = OBJ_txt2obj("1.3.6.1.4.1.32473.7777", 1);
  PKCS7_SIGNER_INFO *info = sk_PKCS7_SIGNER_INFO_value(p7->d.sign->signer_info, 0);
  X509_ALGOR_set0(info->digest_alg, OBJ_dup(oid), V_ASN1_NULL, nullptr);
  X509_ALGOR_set0(sk_X509_ALGOR_value(p7->d.sign->md_algs, 0), oid, V_ASN1_NULL, nullptr);
}

void add_digests(const message &p7, int count) {
  for (int i = 0; i < count; i++) {
    X509_ALGOR *algorithm = X509_ALGOR_new();
    X509_ALGOR_set0(algorithm, OBJ_nid2obj(NID_sha256), V_ASN1_NULL, nullptr);
    ASSERT_GT(sk_X509_ALGOR_push(p7->d.sign->md_algs, algorithm), 0);
  }
}

class Pkcs7Strangers : public testing::Test {
 protected:
  void SetUp() override {
    support::clear_openssl_errors();
    clear_log();
  }
  void TearDown() override { EXPECT_EQ(ERR_peek_error(), 0UL); }

  // The signer as sign_bytes writes it.
  signer nameless() {
    X509 *cert = nullptr;
    EXPECT_EQ(create_dummy_cert(key.get(), &cert), 0);
    return {support::cert(cert, X509_free), key};
  }
  signer stranger(const std::string &issuer, long serial) {
    return {named(issuer, "stranger", serial, strange_key), strange_key};
  }

  support::key key = support::test_key(0);
  support::key public_key = support::public_part(key);
  support::key strange_key = support::test_key(1);
};

using Pkcs7StrangersBytes = Pkcs7Strangers;

TEST_F(Pkcs7StrangersBytes, ACarriedNamelessCertificateOfAnotherKeyDoesNotCount) {
  EXPECT_EQ(verified_by(public_key, encoded(made_by({stranger("", 1)}))).code, 29);
}

TEST_F(Pkcs7StrangersBytes, ACarriedNamedCertificateOfAnotherKeyDoesNotCount) {
  message p7 = made_by({stranger("stranger", 5)});
  EXPECT_EQ(verified_by(strange_key, encoded(p7)).code, 0);  // its signature is good
  EXPECT_EQ(verified_by(public_key, encoded(p7)).code, 29);
}

TEST_F(Pkcs7StrangersBytes, ACarriedCertificateOfTheKeyCounts) {
  opened result =
      verified_by(public_key, encoded(made_by({{named("issuer", "sender", 7, key), key}})));
  EXPECT_EQ(result.code, 0);
  EXPECT_EQ(result.content, "data");
}

TEST_F(Pkcs7StrangersBytes, ASecondSignatureByAStrangerSpoilsTheFirst) {
  EXPECT_EQ(verified_by(public_key, encoded(made_by({nameless()}, false))).code, 0);
  signer honest = {named("issuer", "sender", 7, key), key};
  EXPECT_EQ(verified_by(public_key, encoded(made_by({honest}))).code, 0);
  EXPECT_EQ(verified_by(public_key, encoded(made_by({honest, stranger("x", 5)}))).code, 29);
  EXPECT_EQ(verified_by(public_key, encoded(made_by({stranger("x", 5), honest}))).code, 29);
}

TEST_F(Pkcs7StrangersBytes, AStrangersSignatureBesideTheNamelessOneIsRefused) {
  message p7 = made_by({nameless(), stranger("x", 5)}, false);
  EXPECT_EQ(verified_by(public_key, encoded(p7)).code, 29);
  ASSERT_EQ(PKCS7_add_certificate(p7.get(), stranger("x", 5).cert.get()), 1);
  EXPECT_EQ(verified_by(public_key, encoded(p7)).code, 29);
}

TEST_F(Pkcs7StrangersBytes, SixteenSignersAreBorneAndSeventeenAreNot) {
  const std::vector<signer> many(16, nameless());
  EXPECT_EQ(verified_by(public_key, encoded(made_by(many, false))).code, 0);
  const std::vector<signer> more(17, nameless());
  EXPECT_EQ(verified_by(public_key, encoded(made_by(more, false))).code, 29);
}

TEST_F(Pkcs7StrangersBytes, SeventeenDigestAlgorithmsAreRefused) {
  message p7 = made_by({nameless()}, false);
  add_digests(p7, 16);
  EXPECT_EQ(verified_by(public_key, encoded(p7)).code, 29);
}

TEST_F(Pkcs7StrangersBytes, SixtyThousandDigestAlgorithmsAreRefusedQuickly) {
  message p7 = made_by({nameless()}, false);
  add_digests(p7, 60000);
  const std::string der = encoded(p7);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(verified_by(public_key, der).code, 29);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST_F(Pkcs7StrangersBytes, SixtyThousandSignersAreRefusedQuickly) {
  message p7 = made_by({nameless()}, false);
  STACK_OF(PKCS7_SIGNER_INFO) *infos = p7->d.sign->signer_info;
  for (int i = 0; i < 60000; i++) {
    void *copy =
        ASN1_item_dup(ASN1_ITEM_rptr(PKCS7_SIGNER_INFO), sk_PKCS7_SIGNER_INFO_value(infos, 0));
    ASSERT_GT(sk_PKCS7_SIGNER_INFO_push(infos, static_cast<PKCS7_SIGNER_INFO *>(copy)), 0);
  }
  // Sorting the set is the encoder's cost, not the library's.
  const std::string der = encoded(p7);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(verified_by(public_key, der).code, 29);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
}

TEST_F(Pkcs7StrangersBytes, AnUnknownDigestIsRefused) {
  message p7 = made_by({nameless()}, false);
  set_unknown_digest(p7);
  EXPECT_EQ(verified_by(public_key, encoded(p7)).code, 29);
}

TEST_F(Pkcs7StrangersBytes, NoSingleOctetMayChangeButTheNameOfTheSignaturesAlgorithm) {
  unsigned char *der = nullptr;
  int length = 0;
  ASSERT_EQ(sign_bytes("data", 4, key.get(), &der, &length), 0);
  const std::string good(reinterpret_cast<char *>(der), static_cast<size_t>(length));
  free(der);
  // rsaEncryption in the SignerInfo; senders write sha256WithRSAEncryption there as well.
  const std::string rsa("\x2a\x86\x48\x86\xf7\x0d\x01\x01\x01", 9);
  const size_t algorithm = good.rfind(rsa) + rsa.size() - 1;
  for (size_t at = 0; at < good.size(); at++)
    for (int change : {1, 2, 4, 8, 0x0a, 16, 32, 64, 128, 255}) {
      std::string bad = good;
      bad[at] = static_cast<char>(bad[at] ^ change);
      opened result = verified_by(public_key, bad);
      clear_log();
      if (at == algorithm && bad[at] == 0x0b)
        EXPECT_EQ(result.content, result.code == 0 ? "data" : "");
      else
        ASSERT_NE(result.code, 0) << "octet " << at << " changed by " << change;
    }
}

// A given signer's message is told from a stranger's.
class Pkcs7StrangersVerify : public Pkcs7Strangers {
 protected:
  // pkcs7_verify with this signer; its outputs must change only on success.
  int verified(const message &p7, const support::cert &given) {
    X509 *signer_cert = given.get();
    PKCS7 *const untouched = p7.get();
    PKCS7 *content = untouched;
    int code = pkcs7_verify(p7.get(), &signer_cert, &content);
    EXPECT_EQ(signer_cert, given.get());
    EXPECT_EQ(content, code == 0 ? p7->d.sign->contents : untouched);
    return code;
  }
  support::cert device = named("device", "device", 5, support::test_key(0));
};

TEST_F(Pkcs7StrangersVerify, TheSignersOwnMessageIsAccepted) {
  EXPECT_EQ(verified(made_by({{device, key}}), device), 0) << log_dump();
  EXPECT_EQ(verified(made_by({{device, key}}, false), device), 0) << log_dump();
}

TEST_F(Pkcs7StrangersVerify, ABadSignatureComesBeforeAWrongSigner) {
  message p7 = made_by({stranger("x", 6)});
  EXPECT_EQ(verified(p7, device), 28);
  PKCS7_SIGNER_INFO *info = sk_PKCS7_SIGNER_INFO_value(p7->d.sign->signer_info, 0);
  info->enc_digest->data[0] ^= 1;
  EXPECT_EQ(verified(p7, device), 26);
}

TEST_F(Pkcs7StrangersVerify, ASubjectOtherThanTheNamedIssuerIsCode28) {
  support::cert issued = named("issuer", "device", 5, key);
  message p7 = made_by({{issued, key}});
  X509 *none = nullptr;
  EXPECT_EQ(pkcs7_verify(p7.get(), &none, nullptr), 0);  // the signature is good
  EXPECT_EQ(verified(p7, issued), 28);
}

TEST_F(Pkcs7StrangersVerify, AnotherSerialIsCode28) {
  message p7 = made_by({{named("device", "device", 6, key), key}});
  EXPECT_EQ(verified(p7, device), 28);
}

TEST_F(Pkcs7StrangersVerify, ACertificateOfTheSameNameAndSerialDoesNotImpersonate) {
  message p7 = made_by({{named("device", "device", 5, strange_key), strange_key}});
  const int code = verified(p7, device);
  EXPECT_TRUE(code == 26 || code == 28) << code;
}

TEST_F(Pkcs7StrangersVerify, ACertificateNamedAsTheSignersSubjectDoesNotImpersonate) {
  // OpenSSL looks for the issuer's name, so it finds the stranger's, not the given one.
  support::cert issued = named("issuer", "device", 5, key);
  message p7 = made_by({{named("device", "x", 5, strange_key), strange_key}});
  const int code = verified(p7, issued);
  EXPECT_TRUE(code == 26 || code == 28) << code;
}

TEST_F(Pkcs7StrangersVerify, ACarriedCertificateOfTheSignersKeyCounts) {
  support::cert issued = named("issuer", "device", 5, key);
  EXPECT_EQ(verified(made_by({{device, key}}), issued), 0) << log_dump();
}

TEST_F(Pkcs7StrangersVerify, TheFirstSignerIsTheOneThatMustBeNamed) {
  message p7 = made_by({{device, key}, stranger("x", 6)});
  // Encoding sorts; the order tested is the one in memory.
  STACK_OF(PKCS7_SIGNER_INFO) *infos = p7->d.sign->signer_info;
  if (ASN1_INTEGER_get(sk_PKCS7_SIGNER_INFO_value(infos, 0)->issuer_and_serial->serial) == 5)
    sk_PKCS7_SIGNER_INFO_push(infos, sk_PKCS7_SIGNER_INFO_shift(infos));
  EXPECT_EQ(verified(p7, device), 28);
}

TEST_F(Pkcs7StrangersVerify, AStrangerWhoCopiesTheSignersNameSecondIsRefused) {
  signer copy = {named("device", "device", 5, strange_key), strange_key};
  const int code = verified(made_by({{device, key}, copy}), device);
  EXPECT_TRUE(code == 26 || code == 28) << code;
}

TEST_F(Pkcs7StrangersVerify, TooManyDigestsOrSignersAreCode26) {
  message p7 = made_by({{device, key}});
  add_digests(p7, 60000);
  EXPECT_EQ(verified(p7, device), 26);
  const std::vector<signer> many(17, {device, key});
  EXPECT_EQ(verified(made_by(many, false), device), 26);
}

TEST_F(Pkcs7StrangersVerify, AnUnknownDigestIsCode26) {
  message p7 = made_by({{device, key}});
  set_unknown_digest(p7);
  EXPECT_EQ(verified(p7, device), 26);
}

}  // namespace
