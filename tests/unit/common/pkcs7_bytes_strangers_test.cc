// Messages that anyone could make, offered to a receiver who knows one key.
#include <gtest/gtest.h>
#include <libpki/error.h>
#include <libpki/pkcs7.h>
#include <openssl/err.h>

#include <cstdlib>
#include <string>

#include "fakes/log_capture.h"
#include "support/ca_info_doc.h"
#include "support/certs.h"
#include "unit/common/first_signer.h"

namespace {

using support::message_options;
using support::pkcs7;

struct VerifyBytesStrangers : testing::Test {
  VerifyBytesStrangers() {
    support::clear_openssl_errors();
    clear_log();
  }
  ~VerifyBytesStrangers() override { EXPECT_EQ(ERR_peek_error(), 0u); }

  support::key ours = support::test_key(0);
  support::key theirs = support::test_key(1);

  // The code, with our public key; content and code must agree.
  int open(const pkcs7 &message, const std::string &expected = "content") {
    std::string der = support::der(message);
    return open_der(der, expected);
  }
  int open_der(const std::string &der, const std::string &expected = "content") {
    auto *content = reinterpret_cast<unsigned char *>(this);
    int length = 77;
    int code = verify_bytes(reinterpret_cast<const unsigned char *>(der.data()),
                            static_cast<int>(der.size()), support::public_part(ours).get(),
                            &content, &length);
    if (code == PKI_OK) {
      EXPECT_EQ(std::string(reinterpret_cast<char *>(content), static_cast<size_t>(length)),
                expected);
      free(content);
      return code;
    }
    EXPECT_EQ(content, nullptr);
    EXPECT_EQ(length, 0);
    return code;
  }

  support::cert certificate(const support::key &key, const support::name &issuer, long serial) {
    support::cert_options options;
    options.subject = support::common_name("signer");
    options.issuer = issuer;
    options.serial = serial;
    options.public_key = key;
    return support::make_cert(options);
  }
};

const support::name nobody = support::make_name({});

// What the first signature covers in a message with attributes: their DER, as a SET.
std::string signed_attributes(const pkcs7 &message) {
  unsigned char *out = nullptr;
  int length = ASN1_item_i2d(reinterpret_cast<ASN1_VALUE *>(first_signer(message)->auth_attr), &out,
                             ASN1_ITEM_rptr(PKCS7_ATTR_VERIFY));
  std::string octets(reinterpret_cast<char *>(out), length > 0 ? static_cast<size_t>(length) : 0);
  OPENSSL_free(out);
  return octets;
}

// The same message, signature and all, with its attributes as the content and none beside it.
pkcs7 with_attributes_as_content(const pkcs7 &message) {
  const std::string content = signed_attributes(message);
  PKCS7_SIGNER_INFO *info = first_signer(message);
  sk_X509_ATTRIBUTE_pop_free(info->auth_attr, X509_ATTRIBUTE_free);
  info->auth_attr = nullptr;
  ASN1_OCTET_STRING_set(message->d.sign->contents->d.data,
                        reinterpret_cast<const unsigned char *>(content.data()),
                        static_cast<int>(content.size()));
  return support::read_message(support::der(message));
}

TEST_F(VerifyBytesStrangers, OurSignatureUnderTheStandInNameIsAccepted) {
  EXPECT_EQ(open(support::make_message({.signers = {{ours, nullptr, 1}}})), PKI_OK);
}

TEST_F(VerifyBytesStrangers, SignatureWithoutAttributesIsAccepted) {
  EXPECT_EQ(open(support::make_message({.signers = {{ours, nullptr, 1}}, .attributes = false})),
            PKI_OK);
}

TEST_F(VerifyBytesStrangers, OurSignatureUnderACarriedCertificateOfOurKeyIsAccepted) {
  support::name issuer = support::common_name("document signer");
  EXPECT_EQ(open(support::make_message(
                {.signers = {{ours, issuer, 5}}, .carried = {certificate(ours, issuer, 5)}})),
            PKI_OK);
}

TEST_F(VerifyBytesStrangers, OurSignatureUnderANameThatNoCertificateHasIsRefused) {
  EXPECT_EQ(open(support::make_message({.signers = {{ours, support::common_name("x"), 5}}})),
            PKI_SIG_VERIFY_FAILED);
}

TEST_F(VerifyBytesStrangers, SerialOtherThanOneUnderTheEmptyNameIsRefused) {
  EXPECT_EQ(open(support::make_message({.signers = {{ours, nullptr, 2}}})), PKI_SIG_VERIFY_FAILED);
}

TEST_F(VerifyBytesStrangers, CarriedCertificatesThatSignedNothingDoNoHarm) {
  support::name issuer = support::common_name("bystander");
  EXPECT_EQ(open(support::make_message(
                {.signers = {{ours, nullptr, 1}}, .carried = {certificate(theirs, issuer, 5)}})),
            PKI_OK);
}

TEST_F(VerifyBytesStrangers, TwoSignaturesOfOurKeyAreAccepted) {
  support::name issuer = support::common_name("document signer");
  EXPECT_EQ(open(support::make_message({.signers = {{ours, nullptr, 1}, {ours, issuer, 5}},
                                        .carried = {certificate(ours, issuer, 5)}})),
            PKI_OK);
}

TEST_F(VerifyBytesStrangers, StrangerUnderACarriedCertificateOfItsOwnIsRefused) {
  support::name issuer = support::common_name("stranger");
  EXPECT_EQ(open(support::make_message(
                {.signers = {{theirs, issuer, 5}}, .carried = {certificate(theirs, issuer, 5)}})),
            PKI_SIG_VERIFY_FAILED);
}

TEST_F(VerifyBytesStrangers, StrangerUnderTheStandInNameIsRefused) {
  EXPECT_EQ(open(support::make_message({.signers = {{theirs, nullptr, 1}}})),
            PKI_SIG_VERIFY_FAILED);
}

TEST_F(VerifyBytesStrangers, StrangersCertificateUnderTheStandInNameIsRefused) {
  EXPECT_EQ(open(support::make_message(
                {.signers = {{theirs, nullptr, 1}}, .carried = {certificate(theirs, nobody, 1)}})),
            PKI_SIG_VERIFY_FAILED);
}

TEST_F(VerifyBytesStrangers, StrangersSignatureUnderACertificateOfOurKeyIsRefused) {
  support::name issuer = support::common_name("document signer");
  EXPECT_EQ(open(support::make_message(
                {.signers = {{theirs, issuer, 5}}, .carried = {certificate(ours, issuer, 5)}})),
            PKI_SIG_VERIFY_FAILED);
}

TEST_F(VerifyBytesStrangers, TwoCertificatesOfOneNameDoNotLetTheStrangerIn) {
  support::name issuer = support::common_name("document signer");
  support::cert real = certificate(ours, issuer, 5);
  support::cert fake = certificate(theirs, issuer, 5);
  EXPECT_EQ(
      open(support::make_message({.signers = {{theirs, issuer, 5}}, .carried = {real, fake}})),
      PKI_SIG_VERIFY_FAILED);
  EXPECT_EQ(
      open(support::make_message({.signers = {{theirs, issuer, 5}}, .carried = {fake, real}})),
      PKI_SIG_VERIFY_FAILED);
}

TEST_F(VerifyBytesStrangers, StrangersSignatureBesideOursIsRefusedInEitherPlace) {
  support::name issuer = support::common_name("stranger");
  support::name our_issuer = support::common_name("document signer");
  support::message_signer them = {theirs, issuer, 5};
  std::vector<support::cert> carried = {certificate(theirs, issuer, 5),
                                        certificate(ours, our_issuer, 7)};
  const support::message_signer unnamed = {ours, nullptr, 1};
  const support::message_signer named = {ours, our_issuer, 7};
  for (const support::message_signer &us : {unnamed, named}) {
    EXPECT_EQ(open(support::make_message({.signers = {us, them}, .carried = carried})),
              PKI_SIG_VERIFY_FAILED);
    EXPECT_EQ(open(support::make_message({.signers = {them, us}, .carried = carried})),
              PKI_SIG_VERIFY_FAILED);
  }
}

TEST_F(VerifyBytesStrangers, StrangersSignatureWithoutACertificateBesideOursIsRefused) {
  EXPECT_EQ(open(support::make_message(
                {.signers = {{ours, nullptr, 1}, {theirs, support::common_name("x"), 5}}})),
            PKI_SIG_VERIFY_FAILED);
}

TEST_F(VerifyBytesStrangers, StrangersSignatureOfAnotherKeyTypeBesideOursIsRefused) {
  support::name issuer = support::common_name("stranger");
  support::key elliptic = support::make_ec_key();
  EXPECT_EQ(open(support::make_message({.signers = {{ours, nullptr, 1}, {elliptic, issuer, 5}},
                                        .carried = {certificate(elliptic, issuer, 5)}})),
            PKI_SIG_VERIFY_FAILED);
}

TEST_F(VerifyBytesStrangers, SecondSignatureUnderTheStandInNameMustBeOursToo) {
  support::message_signer us = {ours, nullptr, 1};
  support::message_signer them = {theirs, nullptr, 1};
  EXPECT_EQ(open(support::make_message({.signers = {us, them}})), PKI_SIG_VERIFY_FAILED);
  EXPECT_EQ(open(support::make_message({.signers = {them, us}})), PKI_SIG_VERIFY_FAILED);
}

TEST_F(VerifyBytesStrangers, MessageWithoutSignersIsRefused) {
  EXPECT_EQ(open(support::make_message({})), PKI_SIG_VERIFY_FAILED);
  support::cert ours_carried = certificate(ours, nobody, 1);
  EXPECT_EQ(open(support::make_message({.carried = {ours_carried}})), PKI_SIG_VERIFY_FAILED);
}

TEST_F(VerifyBytesStrangers, DetachedContentIsRefused) {
  EXPECT_EQ(open(support::make_message({.signers = {{ours, nullptr, 1}}, .detached = true})),
            PKI_SIG_VERIFY_FAILED);
}

TEST_F(VerifyBytesStrangers, DetachedEmptyContentIsRefused) {
  EXPECT_EQ(open(support::make_message(
                {.content = "", .signers = {{ours, nullptr, 1}}, .detached = true})),
            PKI_SIG_VERIFY_FAILED);
}

TEST_F(VerifyBytesStrangers, ReplacedContentIsRefused) {
  pkcs7 message = support::make_message({.signers = {{ours, nullptr, 1}}});
  ASN1_OCTET_STRING_set(message->d.sign->contents->d.data,
                        reinterpret_cast<const unsigned char *>("another"), 7);
  EXPECT_EQ(open(message), PKI_SIG_VERIFY_FAILED);
}

TEST_F(VerifyBytesStrangers, SignedAttributesPresentedAsContentAreRefused) {
  unsigned char *der = nullptr;
  int length = 0;
  ASSERT_EQ(sign_bytes("content", 7, ours.get(), &der, &length), PKI_OK);
  const std::string honest(reinterpret_cast<char *>(der), static_cast<size_t>(length));
  free(der);
  ASSERT_EQ(open_der(honest), PKI_OK);
  const std::string attributes = signed_attributes(support::read_message(honest));
  ASSERT_EQ(attributes.at(0), '1');
  EXPECT_EQ(open(with_attributes_as_content(support::read_message(honest)), attributes),
            PKI_SIG_VERIFY_FAILED);
}

TEST_F(VerifyBytesStrangers, SignedAttributesOfAnotherSignersMakingAreRefusedAsContentToo) {
  // Without a signing time, and with another digest than the library's own messages have.
  pkcs7 honest = support::make_message({.signers = {{ours, nullptr, 1}}});
  const std::string attributes = signed_attributes(honest);
  EXPECT_EQ(open(with_attributes_as_content(honest), attributes), PKI_SIG_VERIFY_FAILED);
}

TEST_F(VerifyBytesStrangers, ContentThatMerelyBeginsLikeASetIsAcceptedWithoutAttributes) {
  const std::string attributes =
      signed_attributes(support::make_message({.signers = {{ours, nullptr, 1}}}));
  const std::string cut = attributes.substr(0, attributes.size() - 1);
  for (const std::string &content :
       {std::string("1"), std::string("1 text"), std::string("\x31\x03\x02\x01\x05"),
        std::string("\x31\x05\x30\x03\x02\x01\x05"), std::string("\x31\x80\x30\x80"), cut}) {
    SCOPED_TRACE(content);
    EXPECT_EQ(open(support::make_message(
                       {.content = content, .signers = {{ours, nullptr, 1}}, .attributes = false}),
                   content),
              PKI_OK);
  }
}

TEST_F(VerifyBytesStrangers, SetOfAttributesAsContentIsAcceptedWhereAttributesAreSigned) {
  const std::string content =
      signed_attributes(support::make_message({.signers = {{ours, nullptr, 1}}}));
  EXPECT_EQ(
      open(support::make_message({.content = content, .signers = {{ours, nullptr, 1}}}), content),
      PKI_OK);
}

TEST_F(VerifyBytesStrangers, OtherOuterTypesAreRefused) {
  support::cert recipient = certificate(ours, nobody, 1);
  EXPECT_EQ(open(support::make_data("content")), PKI_SIG_VERIFY_FAILED);
  EXPECT_EQ(open(support::make_envelope("content", recipient)), PKI_SIG_VERIFY_FAILED);
  EXPECT_EQ(open(support::make_signed_and_enveloped("content", ours, recipient)),
            PKI_SIG_VERIFY_FAILED);
}

TEST_F(VerifyBytesStrangers, TypesWithoutContentAreRefused) {
  for (int nid : {NID_pkcs7_data, NID_pkcs7_signed, NID_pkcs7_enveloped,
                  NID_pkcs7_signedAndEnveloped, NID_pkcs7_digest, NID_pkcs7_encrypted}) {
    SCOPED_TRACE(OBJ_nid2ln(nid));
    EXPECT_EQ(open(support::make_bare_message(nid)), PKI_SIG_VERIFY_FAILED);
  }
}

TEST_F(VerifyBytesStrangers, SignedContentThatIsNotDataIsRefused) {
  pkcs7 envelope = support::make_envelope("content", certificate(ours, nobody, 1));
  pkcs7 nested = support::make_message({.signers = {{ours, nullptr, 1}}});
  for (const pkcs7 &inner : {envelope, nested}) {
    EXPECT_EQ(open(support::make_message({.content = support::contents_octets(inner),
                                          .signers = {{ours, nullptr, 1}},
                                          .inner = inner})),
              PKI_UNKNOWN_P7_CONTENT_TYPE);
  }
}

TEST_F(VerifyBytesStrangers, SignedContentOfATypeWithoutContentIsRefused) {
  EXPECT_EQ(open(support::make_message({.content = "",
                                        .signers = {{ours, nullptr, 1}},
                                        .inner = support::make_bare_message(NID_pkcs7_enveloped)})),
            PKI_UNKNOWN_P7_CONTENT_TYPE);
}

TEST_F(VerifyBytesStrangers, ContentTypeIsJudgedBeforeTheSignature) {
  pkcs7 envelope = support::make_envelope("content", certificate(ours, nobody, 1));
  EXPECT_EQ(open(support::make_message({.signers = {{theirs, nullptr, 1}}, .inner = envelope})),
            PKI_UNKNOWN_P7_CONTENT_TYPE);
}

}  // namespace
