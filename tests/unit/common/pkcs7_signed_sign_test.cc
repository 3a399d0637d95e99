#include <gtest/gtest.h>
#include <libpki/error.h>
#include <libpki/pkcs7.h>
#include <openssl/err.h>

#include <set>
#include <string>
#include <vector>

#include "fakes/log_capture.h"
#include "support/ca_info_doc.h"
#include "support/certs.h"

namespace {

using support::pkcs7;

struct Pkcs7Sign : testing::Test {
  Pkcs7Sign() {
    support::clear_openssl_errors();
    clear_log();
  }
  ~Pkcs7Sign() override {
    for (X509_ATTRIBUTE *attribute : attributes)
      X509_ATTRIBUTE_free(attribute);
    EXPECT_EQ(ERR_peek_error(), 0u);
  }

  support::key key = support::test_key(0);
  support::cert cert = support::make_ca("signer", 0, 7);
  std::vector<X509_ATTRIBUTE *> attributes;

  void add_attribute(int nid, const std::string &value) {
    attributes.push_back(X509_ATTRIBUTE_create_by_NID(nullptr, nid, V_ASN1_UTF8STRING, value.data(),
                                                      static_cast<int>(value.size())));
  }

  // Signs `content`; on success the result owns it.
  int sign(const pkcs7 &content, PKCS7 **out, const EVP_MD *md = EVP_sha1()) {
    return pkcs7_sign(cert.get(), key.get(), md, content.get(), attributes.data(),
                      static_cast<int>(attributes.size()), out);
  }
  pkcs7 sign(PKCS7 *content, const EVP_MD *md = EVP_sha1()) {
    auto *out = reinterpret_cast<PKCS7 *>(this);
    EXPECT_EQ(pkcs7_sign(cert.get(), key.get(), md, content, attributes.data(),
                         static_cast<int>(attributes.size()), &out),
              PKI_OK)
        << log_dump();
    return pkcs7(out, PKCS7_free);
  }
  // A content of its own, for a message that takes it over.
  static PKCS7 *data(const std::string &octets) {
    return PKCS7_dup(support::make_data(octets).get());
  }
};

PKCS7_SIGNER_INFO *signer_of(const pkcs7 &message) {
  return sk_PKCS7_SIGNER_INFO_value(message->d.sign->signer_info, 0);
}

std::string text_attribute(const PKCS7_SIGNER_INFO *info, int nid) {
  const ASN1_TYPE *value = PKCS7_get_signed_attribute(info, nid);
  if (!value || value->type != V_ASN1_UTF8STRING)
    return "(none)";
  return std::string(
      reinterpret_cast<const char *>(ASN1_STRING_get0_data(value->value.asn1_string)),
      static_cast<size_t>(ASN1_STRING_length(value->value.asn1_string)));
}

TEST_F(Pkcs7Sign, ResultOwnsTheContentThatItWasGiven) {
  PKCS7 *content = data("inner");
  pkcs7 message = sign(content);
  ASSERT_TRUE(PKCS7_type_is_signed(message.get()));
  EXPECT_EQ(message->d.sign->contents, content);
}

TEST_F(Pkcs7Sign, CarriesTheSignersCertificateAndNoOther) {
  pkcs7 message = sign(data("inner"));
  ASSERT_EQ(sk_X509_num(message->d.sign->cert), 1);
  EXPECT_EQ(X509_cmp(sk_X509_value(message->d.sign->cert, 0), cert.get()), 0);
}

TEST_F(Pkcs7Sign, HasOneSignerInfoOfTheCertificateAndTheDigest) {
  pkcs7 message = sign(data("inner"), EVP_sha512());
  ASSERT_EQ(sk_PKCS7_SIGNER_INFO_num(message->d.sign->signer_info), 1);
  PKCS7_SIGNER_INFO *info = signer_of(message);
  EXPECT_EQ(X509_NAME_cmp(info->issuer_and_serial->issuer, X509_get_issuer_name(cert.get())), 0);
  EXPECT_EQ(ASN1_INTEGER_get(info->issuer_and_serial->serial), 7);
  EXPECT_EQ(OBJ_obj2nid(info->digest_alg->algorithm), NID_sha512);
}

TEST_F(Pkcs7Sign, ContentTypeAttributeSaysDataWhateverIsInside) {
  pkcs7 envelope = support::make_envelope("inner", cert);
  pkcs7 message = sign(PKCS7_dup(envelope.get()));
  const ASN1_TYPE *type = PKCS7_get_signed_attribute(signer_of(message), NID_pkcs9_contentType);
  ASSERT_NE(type, nullptr);
  ASSERT_EQ(type->type, V_ASN1_OBJECT);
  EXPECT_EQ(OBJ_obj2nid(type->value.object), NID_pkcs7_data);
}

TEST_F(Pkcs7Sign, AllCallersAttributesAreSignedBesideOpenSslsOwn) {
  add_attribute(NID_pkcs9_challengePassword, "A");
  add_attribute(NID_pkcs9_unstructuredName, "B");
  add_attribute(NID_pkcs9_unstructuredAddress, "C");
  pkcs7 message = support::read_message(support::der(sign(data("inner"))));
  PKCS7_SIGNER_INFO *info = signer_of(message);
  EXPECT_EQ(text_attribute(info, NID_pkcs9_challengePassword), "A");
  EXPECT_EQ(text_attribute(info, NID_pkcs9_unstructuredName), "B");
  EXPECT_EQ(text_attribute(info, NID_pkcs9_unstructuredAddress), "C");
  std::multiset<int> nids;
  STACK_OF(X509_ATTRIBUTE) *signed_attributes = PKCS7_get_signed_attributes(info);
  for (int i = 0; i < sk_X509_ATTRIBUTE_num(signed_attributes); i++)
    nids.insert(
        OBJ_obj2nid(X509_ATTRIBUTE_get0_object(sk_X509_ATTRIBUTE_value(signed_attributes, i))));
  EXPECT_EQ(nids, (std::multiset<int>{NID_pkcs9_contentType, NID_pkcs9_signingTime,
                                      NID_pkcs9_messageDigest, NID_pkcs9_challengePassword,
                                      NID_pkcs9_unstructuredName, NID_pkcs9_unstructuredAddress}));
}

TEST_F(Pkcs7Sign, CallersAttributesAreCopied) {
  add_attribute(NID_pkcs9_challengePassword, "A");
  pkcs7 message = sign(data("inner"));
  X509_ATTRIBUTE_free(attributes[0]);
  attributes.clear();
  EXPECT_EQ(text_attribute(signer_of(message), NID_pkcs9_challengePassword), "A");
}

TEST_F(Pkcs7Sign, NoAttributesAreNeeded) {
  PKCS7 *out = nullptr;
  PKCS7 *content = data("inner");
  ASSERT_EQ(pkcs7_sign(cert.get(), key.get(), EVP_sha1(), content, nullptr, 0, &out), PKI_OK);
  EXPECT_EQ(sk_X509_ATTRIBUTE_num(PKCS7_get_signed_attributes(
                sk_PKCS7_SIGNER_INFO_value(out->d.sign->signer_info, 0))),
            3);
  PKCS7_free(out);
}

TEST_F(Pkcs7Sign, OpenSslVerifiesAMessageAroundData) {
  const std::string octets("first\nsecond\r\n\0third", 20);
  pkcs7 received = support::read_message(support::der(sign(data(octets))));
  BIO *out = BIO_new(BIO_s_mem());
  EXPECT_EQ(
      PKCS7_verify(received.get(), nullptr, nullptr, nullptr, out, PKCS7_NOVERIFY | PKCS7_BINARY),
      1);
  char *text = nullptr;
  long length = BIO_get_mem_data(out, &text);
  EXPECT_EQ(std::string(text, static_cast<size_t>(length)), octets);
  BIO_free(out);
}

TEST_F(Pkcs7Sign, OpenSslVerifiesAMessageAroundAnEnvelope) {
  pkcs7 envelope = support::make_envelope("inner", cert);
  pkcs7 received = support::read_message(support::der(sign(PKCS7_dup(envelope.get()))));
  std::string food = support::contents_octets(envelope);
  BIO *in = BIO_new_mem_buf(food.data(), static_cast<int>(food.size()));
  BIO *out = BIO_new(BIO_s_null());
  EXPECT_EQ(PKCS7_verify(received.get(), nullptr, nullptr, in, out, PKCS7_NOVERIFY | PKCS7_BINARY),
            1);
  BIO_free(in);
  BIO_free(out);
}

TEST_F(Pkcs7Sign, LogsNothingWhenItSucceeds) {
  sign(data("inner"));
  EXPECT_EQ(captured_log(), std::vector<log_entry>());
}

TEST_F(Pkcs7Sign, KeyTypeThatPkcs7DoesNotKnowIsOutOfMemory) {
  key = support::key(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"), EVP_PKEY_free);
  auto *out = reinterpret_cast<PKCS7 *>(this);
  EXPECT_EQ(sign(support::make_data("inner"), &out), PKI_OUT_OF_MEMORY);
  EXPECT_EQ(out, nullptr);
  EXPECT_TRUE(logged_containing(3, "OpenSSL error: ")) << log_dump();
}

TEST_F(Pkcs7Sign, DigestThatIsNotToBeHadFailsToOpenTheWriter) {
  // MD4 has a name but no implementation unless the host loads old algorithms.
  auto *out = reinterpret_cast<PKCS7 *>(this);
  EXPECT_EQ(sign(support::make_data("inner"), &out, EVP_md4()), PKI_P7_DATAINIT_FAILED);
  EXPECT_EQ(out, nullptr);
  EXPECT_TRUE(logged_containing(3, "OpenSSL error: ")) << log_dump();
  EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST_F(Pkcs7Sign, KeyWithoutPrivatePartFailsToFinish) {
  key = support::public_part(key);
  auto *out = reinterpret_cast<PKCS7 *>(this);
  pkcs7 content = support::make_data("inner");
  EXPECT_EQ(sign(content, &out), PKI_P7_DATAFINAL_FAILED);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(ASN1_STRING_length(content->d.data), 5) << "the content stays the caller's";
  EXPECT_TRUE(logged_containing(3, "OpenSSL error: ")) << log_dump();
  EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST_F(Pkcs7Sign, AllocationFailureInTheQueueIsOutOfMemory) {
  key = support::public_part(key);
  PKCS7 *out = nullptr;
  support::raise_openssl_error(ERR_R_MALLOC_FAILURE);
  EXPECT_EQ(sign(support::make_data("inner"), &out), PKI_OUT_OF_MEMORY);
}

TEST_F(Pkcs7Sign, ContentThatCannotBeDigestedIsPassedOnAndStaysTheCallers) {
  auto *out = reinterpret_cast<PKCS7 *>(this);
  pkcs7 digested(PKCS7_new(), PKCS7_free);
  ASSERT_EQ(PKCS7_set_type(digested.get(), NID_pkcs7_digest), 1);
  EXPECT_EQ(sign(digested, &out), PKI_UNKNOWN_P7_CONTENT_TYPE);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(sign(support::make_bare_message(NID_pkcs7_enveloped), &out), PKI_INVALID_DER);
  EXPECT_EQ(out, nullptr);
}

TEST_F(Pkcs7Sign, MissingAttributeIsOutOfMemoryInEachPlace) {
  for (size_t place : {0u, 1u, 2u}) {
    SCOPED_TRACE(place);
    add_attribute(NID_pkcs9_challengePassword, "A");
    add_attribute(NID_pkcs9_unstructuredName, "B");
    attributes.insert(attributes.begin() + static_cast<std::ptrdiff_t>(place), nullptr);
    auto *out = reinterpret_cast<PKCS7 *>(this);
    pkcs7 content = support::make_data("inner");
    EXPECT_EQ(sign(content, &out), PKI_OUT_OF_MEMORY);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(ASN1_STRING_length(content->d.data), 5) << "the content stays the caller's";
    for (X509_ATTRIBUTE *each : attributes)
      X509_ATTRIBUTE_free(each);
    attributes.clear();
  }
}

TEST_F(Pkcs7Sign, NullAndNegativeArgumentsAreRefused) {
  pkcs7 content = support::make_data("inner");
  PKCS7 *out = nullptr;
  X509 *c = cert.get();
  EVP_PKEY *k = key.get();
  const EVP_MD *md = EVP_sha1();
  EXPECT_EQ(pkcs7_sign(nullptr, k, md, content.get(), nullptr, 0, &out), PKI_INVALID_ARGS);
  EXPECT_EQ(pkcs7_sign(c, nullptr, md, content.get(), nullptr, 0, &out), PKI_INVALID_ARGS);
  EXPECT_EQ(pkcs7_sign(c, k, nullptr, content.get(), nullptr, 0, &out), PKI_INVALID_ARGS);
  EXPECT_EQ(pkcs7_sign(c, k, md, nullptr, nullptr, 0, &out), PKI_INVALID_ARGS);
  EXPECT_EQ(pkcs7_sign(c, k, md, content.get(), nullptr, 1, &out), PKI_INVALID_ARGS);
  EXPECT_EQ(pkcs7_sign(c, k, md, content.get(), nullptr, -1, &out), PKI_INVALID_ARGS);
  EXPECT_EQ(pkcs7_sign(c, k, md, content.get(), nullptr, 0, nullptr), PKI_INVALID_ARGS);
  EXPECT_EQ(out, nullptr);
}

}  // namespace
