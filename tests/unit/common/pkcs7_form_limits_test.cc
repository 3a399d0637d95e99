// Signed messages whose lists of digests and signers would cost the receiver more than they are
// worth: OpenSSL nests a filter for each entry before it checks a signature.
#include <gtest/gtest.h>
#include <libpki/error.h>
#include <libpki/pkcs7.h>
#include <openssl/err.h>
#include <openssl/objects.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include "fakes/log_capture.h"
#include "support/ca_info_doc.h"
#include "support/certs.h"

namespace {

using support::pkcs7;

constexpr int most = 16;
constexpr int far_too_many = 60000;

pkcs7 signed_by(const std::vector<support::message_signer> &signers,
                const std::vector<support::cert> &carried = {}) {
  return support::make_message({.signers = signers, .carried = carried});
}

void add_digests(const pkcs7 &message, int count) {
  for (int i = 0; i < count; i++) {
    X509_ALGOR *algorithm = X509_ALGOR_new();
    X509_ALGOR_set0(algorithm, OBJ_nid2obj(NID_sha256), V_ASN1_NULL, nullptr);
    ASSERT_GT(sk_X509_ALGOR_push(message->d.sign->md_algs, algorithm), 0);
  }
}

void add_copies_of_the_first_signer(const pkcs7 &message, int count) {
  STACK_OF(PKCS7_SIGNER_INFO) *signers = message->d.sign->signer_info;
  for (int i = 0; i < count; i++) {
    void *copy =
        ASN1_item_dup(ASN1_ITEM_rptr(PKCS7_SIGNER_INFO), sk_PKCS7_SIGNER_INFO_value(signers, 0));
    ASSERT_GT(sk_PKCS7_SIGNER_INFO_push(signers, static_cast<PKCS7_SIGNER_INFO *>(copy)), 0);
  }
}

// Gives the first signer, and the list of digests, a digest that nobody knows.
void set_unknown_digest(const pkcs7 &message) {
  ASN1_OBJECT *oid = OBJ_txt2obj("1.3.6.1.4.1.32473.7777", 1);
  PKCS7_SIGNER_INFO *info = sk_PKCS7_SIGNER_INFO_value(message->d.sign->signer_info, 0);
  X509_ALGOR_set0(info->digest_alg, OBJ_dup(oid), V_ASN1_NULL, nullptr);
  X509_ALGOR_set0(sk_X509_ALGOR_value(message->d.sign->md_algs, 0), oid, V_ASN1_NULL, nullptr);
}

ASN1_TYPE *digest_value(const pkcs7 &message) {
  return PKCS7_get_signed_attribute(sk_PKCS7_SIGNER_INFO_value(message->d.sign->signer_info, 0),
                                    NID_pkcs9_messageDigest);
}

// Signs the attributes as they are now.
pkcs7 signed_anew(const pkcs7 &message, const support::key &key) {
  PKCS7_SIGNER_INFO *info = sk_PKCS7_SIGNER_INFO_value(message->d.sign->signer_info, 0);
  EVP_PKEY_up_ref(key.get());
  info->pkey = key.get();
  EXPECT_EQ(PKCS7_SIGNER_INFO_sign(info), 1);
  return support::read_message(support::der(message));
}

// Gives the messageDigest another type. A string keeps the digest's octets.
pkcs7 with_digest_of_type(const pkcs7 &message, const support::key &key, int type) {
  ASN1_TYPE *value = digest_value(message);
  const ASN1_STRING *digest = value->value.octet_string;
  const std::string octets(reinterpret_cast<const char *>(ASN1_STRING_get0_data(digest)),
                           static_cast<size_t>(ASN1_STRING_length(digest)));
  switch (type) {
    case V_ASN1_BOOLEAN:
      ASN1_TYPE_set(value, type, value);
      break;
    case V_ASN1_NULL:
      ASN1_TYPE_set(value, type, nullptr);
      break;
    case V_ASN1_OBJECT:
      ASN1_TYPE_set(value, type, OBJ_nid2obj(NID_sha256));
      break;
    default: {
      const std::string content =
          type == V_ASN1_SEQUENCE ? std::string("\x30\x1e\x04\x1c") + octets.substr(4) : octets;
      ASN1_STRING *made = ASN1_STRING_type_new(type);
      ASN1_STRING_set(made, content.data(), static_cast<int>(content.size()));
      ASN1_TYPE_set(value, type, made);
    }
  }
  return signed_anew(message, key);
}

constexpr int types_without_octets[] = {V_ASN1_BOOLEAN, V_ASN1_NULL, V_ASN1_OBJECT,
                                        V_ASN1_SEQUENCE};
// OpenSSL holds these as it holds an OCTET STRING.
constexpr int other_string_types[] = {V_ASN1_UTF8STRING, V_ASN1_PRINTABLESTRING, V_ASN1_IA5STRING,
                                      V_ASN1_BIT_STRING};

void clear_digests(const pkcs7 &message) {
  while (X509_ALGOR *one = sk_X509_ALGOR_pop(message->d.sign->md_algs))
    X509_ALGOR_free(one);
}

// What a slow machine is given; see PKI_TEST_PATIENCE in tests/CMakeLists.txt.
int patience() {
  const char *factor = std::getenv("TEST_PATIENCE");
  return factor ? std::atoi(factor) : 1;
}

struct quiet_limits : testing::Test {
  quiet_limits() {
    support::clear_openssl_errors();
    clear_log();
  }
  ~quiet_limits() override { EXPECT_EQ(ERR_peek_error(), 0u); }

  support::key key = support::test_key(0);
};

struct VerifyBytesLimits : quiet_limits {
  int open(const pkcs7 &signed_message) {
    const std::string der = support::der(signed_message);
    const auto started = std::chrono::steady_clock::now();
    auto *content = reinterpret_cast<unsigned char *>(this);
    int length = 77;
    int code = verify_bytes(reinterpret_cast<const unsigned char *>(der.data()),
                            static_cast<int>(der.size()), key.get(), &content, &length);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(10 * patience()));
    EXPECT_EQ(code == PKI_OK, content != nullptr);
    free(content);
    return code;
  }

  support::message_signer us = {key, nullptr, 1};
  pkcs7 message = signed_by({us});
};

TEST_F(VerifyBytesLimits, SixteenSignersAreBorneAndSeventeenAreNot) {
  EXPECT_EQ(open(signed_by(std::vector(most, us))), PKI_OK) << log_dump();
  EXPECT_EQ(open(signed_by(std::vector(most + 1, us))), PKI_SIG_VERIFY_FAILED);
}

TEST_F(VerifyBytesLimits, SixteenDigestsAreBorneAndSeventeenAreNot) {
  add_digests(message, most - 1);
  EXPECT_EQ(open(message), PKI_OK) << log_dump();
  add_digests(message, 1);
  EXPECT_EQ(open(message), PKI_SIG_VERIFY_FAILED);
}

TEST_F(VerifyBytesLimits, SixtyThousandDigestsAreRefusedQuickly) {
  add_digests(message, far_too_many);
  EXPECT_EQ(open(message), PKI_SIG_VERIFY_FAILED);
}

TEST_F(VerifyBytesLimits, SixtyThousandSignersAreRefusedQuickly) {
  add_copies_of_the_first_signer(message, far_too_many);
  EXPECT_EQ(open(message), PKI_SIG_VERIFY_FAILED);
}

TEST_F(VerifyBytesLimits, UnknownDigestIsRefused) {
  set_unknown_digest(message);
  EXPECT_EQ(open(message), PKI_SIG_VERIFY_FAILED);
}

TEST_F(VerifyBytesLimits, AttributesThatAreSignedAnewAreAsGoodAsBefore) {
  EXPECT_EQ(open(signed_anew(message, key)), PKI_OK) << log_dump();
}

TEST_F(VerifyBytesLimits, MessageDigestThatHoldsNoOctetsIsRefused) {
  for (int type : types_without_octets) {
    SCOPED_TRACE(ASN1_tag2str(type));
    EXPECT_EQ(open(with_digest_of_type(signed_by({us}), key, type)), PKI_SIG_VERIFY_FAILED);
  }
}

TEST_F(VerifyBytesLimits, RightMessageDigestInAnotherStringTypeIsRefused) {
  for (int type : other_string_types) {
    SCOPED_TRACE(ASN1_tag2str(type));
    EXPECT_EQ(open(with_digest_of_type(signed_by({us}), key, type)), PKI_SIG_VERIFY_FAILED);
  }
}

TEST_F(VerifyBytesLimits, EmptyListOfDigestsIsRefused) {
  for (const char *octets : {"content", ""}) {
    pkcs7 hollow = support::make_message({.content = octets, .signers = {us}});
    clear_digests(hollow);
    EXPECT_EQ(open(hollow), PKI_SIG_VERIFY_FAILED) << octets;
  }
}

struct Pkcs7VerifyLimits : quiet_limits {
  int verify(const pkcs7 &signed_message) {
    X509 *given = cert.get();
    auto *content = reinterpret_cast<PKCS7 *>(this);
    int code = pkcs7_verify(signed_message.get(), &given, &content);
    EXPECT_EQ(given, cert.get());
    EXPECT_EQ(content,
              code == PKI_OK ? signed_message->d.sign->contents : reinterpret_cast<PKCS7 *>(this));
    return code;
  }

  support::message_signer us = {key, support::common_name("signer"), 7};
  support::cert cert = support::make_ca("signer", 0, 7);
  pkcs7 message = signed_by({us}, {cert});
};

TEST_F(Pkcs7VerifyLimits, SixteenSignersAreBorneAndSeventeenAreNot) {
  EXPECT_EQ(verify(signed_by(std::vector(most, us))), PKI_OK) << log_dump();
  EXPECT_EQ(verify(signed_by(std::vector(most + 1, us))), PKI_P7_VERIFY_FAILED);
}

TEST_F(Pkcs7VerifyLimits, SixtyThousandDigestsAreAFailedVerification) {
  ASSERT_EQ(verify(message), PKI_OK) << log_dump();
  add_digests(message, far_too_many);
  EXPECT_EQ(verify(message), PKI_P7_VERIFY_FAILED);
}

TEST_F(Pkcs7VerifyLimits, UnknownDigestIsAFailedVerification) {
  set_unknown_digest(message);
  EXPECT_EQ(verify(message), PKI_P7_VERIFY_FAILED);
}

TEST_F(Pkcs7VerifyLimits, MessageDigestThatHoldsNoOctetsIsAFailedVerification) {
  for (int type : types_without_octets) {
    SCOPED_TRACE(ASN1_tag2str(type));
    EXPECT_EQ(verify(with_digest_of_type(signed_by({us}, {cert}), key, type)),
              PKI_P7_VERIFY_FAILED);
  }
}

TEST_F(Pkcs7VerifyLimits, RightMessageDigestInAnotherStringTypeIsAFailedVerification) {
  for (int type : other_string_types) {
    SCOPED_TRACE(ASN1_tag2str(type));
    EXPECT_EQ(verify(with_digest_of_type(signed_by({us}, {cert}), key, type)),
              PKI_P7_VERIFY_FAILED);
  }
}

TEST_F(Pkcs7VerifyLimits, EmptyListOfDigestsIsAFailedVerification) {
  for (const char *octets : {"content", ""}) {
    pkcs7 hollow = support::make_message({.content = octets, .signers = {us}, .carried = {cert}});
    clear_digests(hollow);
    EXPECT_EQ(verify(hollow), PKI_P7_VERIFY_FAILED) << octets;
  }
}

TEST_F(Pkcs7VerifyLimits, EmptyListOfDigestsBesideAnEnvelopeIsAFailedVerification) {
  pkcs7 envelope = support::make_envelope("inner", cert);
  pkcs7 hollow = support::make_message({.content = support::contents_octets(envelope),
                                        .signers = {us},
                                        .carried = {cert},
                                        .inner = envelope});
  ASSERT_EQ(verify(hollow), PKI_OK) << log_dump();
  clear_digests(hollow);
  EXPECT_EQ(verify(hollow), PKI_P7_VERIFY_FAILED);
}

TEST_F(Pkcs7VerifyLimits, SeveralDigestsOverEmptyDataVerify) {
  pkcs7 empty = support::make_message({.content = "", .signers = {us}, .carried = {cert}});
  for (int digests = 1; digests <= most; digests++) {
    EXPECT_EQ(verify(empty), PKI_OK) << digests << "\n" << log_dump();
    add_digests(empty, 1);
  }
  EXPECT_EQ(verify(empty), PKI_P7_VERIFY_FAILED);
}

}  // namespace
