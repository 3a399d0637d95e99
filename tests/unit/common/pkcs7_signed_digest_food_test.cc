#include <gtest/gtest.h>
#include <libpki/error.h>
#include <libpki/pkcs7.h>
#include <openssl/asn1t.h>
#include <openssl/err.h>

#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "fakes/log_capture.h"
#include "support/ca_info_doc.h"
#include "support/certs.h"

namespace {

// What OpenSSL's encoder of EnvelopedData answers instead of the real encoding.
std::optional<std::string> fake_encoding;
bool second_call_fails = false;

}  // namespace

extern "C" int i2d_PKCS7_ENVELOPE(const PKCS7_ENVELOPE *envelope, unsigned char **out) {
  if (!fake_encoding)
    return ASN1_item_i2d(reinterpret_cast<const ASN1_VALUE *>(envelope), out,
                         ASN1_ITEM_rptr(PKCS7_ENVELOPE));
  if (out && second_call_fails)
    return 0;
  if (out) {
    memcpy(*out, fake_encoding->data(), fake_encoding->size());
    *out += fake_encoding->size();
  }
  return static_cast<int>(fake_encoding->size());
}

namespace {

using support::pkcs7;

struct DigestFood : testing::Test {
  DigestFood() {
    support::clear_openssl_errors();
    clear_log();
  }
  ~DigestFood() override {
    fake_encoding.reset();
    second_call_fails = false;
    EXPECT_EQ(ERR_peek_error(), 0u);
  }

  support::cert recipient = support::simple_cert("issuer", "recipient", 3);
  pkcs7 envelope = support::make_envelope("content", recipient);

  struct food {
    int code;
    std::string octets;
    bool has_buffer;
  };
  food take(const pkcs7 &content) {
    auto *bio = reinterpret_cast<BIO *>(this);
    auto *buffer = reinterpret_cast<unsigned char *>(this);
    food result = {get_pkcs7_digest_food(content.get(), &bio, &buffer), "", buffer != nullptr};
    EXPECT_EQ(result.code == PKI_OK, bio != nullptr);
    if (result.code != PKI_OK) {
      EXPECT_EQ(buffer, nullptr);
      return result;
    }
    char chunk[100];
    int got;
    while ((got = BIO_read(bio, chunk, sizeof chunk)) > 0)
      result.octets.append(chunk, static_cast<size_t>(got));
    BIO_free(bio);
    free(buffer);
    return result;
  }
  food take_encoding(const std::string &encoding) {
    fake_encoding = encoding;
    return take(envelope);
  }
};

TEST_F(DigestFood, DataGivesItsOctetsAndNoBuffer) {
  food result = take(support::make_data(std::string("a\0b\r\n", 5)));
  EXPECT_EQ(result.code, PKI_OK);
  EXPECT_EQ(result.octets, std::string("a\0b\r\n", 5));
  EXPECT_FALSE(result.has_buffer);
}

TEST_F(DigestFood, EmptyDataGivesAnEmptyStreamAndNoBuffer) {
  food result = take(support::make_data(""));
  EXPECT_EQ(result.code, PKI_OK);
  EXPECT_EQ(result.octets, "");
  EXPECT_FALSE(result.has_buffer);
}

TEST_F(DigestFood, DataWithoutOctetStringGivesAnEmptyStreamAndNoBuffer) {
  food result = take(support::make_data("", false));
  EXPECT_EQ(result.code, PKI_OK);
  EXPECT_EQ(result.octets, "");
  EXPECT_FALSE(result.has_buffer);
}

TEST_F(DigestFood, EnvelopeGivesItsContentsOctets) {
  food result = take(envelope);
  EXPECT_EQ(result.code, PKI_OK);
  EXPECT_EQ(result.octets, support::contents_octets(envelope));
  EXPECT_TRUE(result.has_buffer);
}

TEST_F(DigestFood, SignedDataGivesItsContentsOctets) {
  pkcs7 message = support::make_message({.signers = {{support::test_key(0), nullptr, 1}}});
  food result = take(message);
  EXPECT_EQ(result.code, PKI_OK);
  EXPECT_EQ(result.octets, support::contents_octets(message));
  EXPECT_TRUE(result.has_buffer);
}

TEST_F(DigestFood, SignedDataOfAShortLengthGivesItsContentsOctets) {
  pkcs7 message = support::make_message({});
  ASSERT_LT(support::contents_octets(message).size(), 128u);
  EXPECT_EQ(take(message).octets, support::contents_octets(message));
}

TEST_F(DigestFood, SignedAndEnvelopedDataGivesItsContentsOctets) {
  pkcs7 message = support::make_signed_and_enveloped("content", support::test_key(0), recipient);
  food result = take(message);
  EXPECT_EQ(result.code, PKI_OK);
  EXPECT_EQ(result.octets, support::contents_octets(message));
}

TEST_F(DigestFood, OtherTypesAreUnknown) {
  for (int nid : {NID_pkcs7_digest, NID_pkcs7_encrypted}) {
    pkcs7 message(PKCS7_new(), PKCS7_free);
    ASSERT_EQ(PKCS7_set_type(message.get(), nid), 1);
    EXPECT_EQ(take(message).code, PKI_UNKNOWN_P7_CONTENT_TYPE);
  }
  pkcs7 untyped(PKCS7_new(), PKCS7_free);
  EXPECT_EQ(take(untyped).code, PKI_UNKNOWN_P7_CONTENT_TYPE);
}

TEST_F(DigestFood, StructuredTypesWithoutContentAreInvalid) {
  for (int nid : {NID_pkcs7_signed, NID_pkcs7_enveloped, NID_pkcs7_signedAndEnveloped}) {
    SCOPED_TRACE(OBJ_nid2ln(nid));
    EXPECT_EQ(take(support::make_bare_message(nid)).code, PKI_INVALID_DER);
  }
}

TEST_F(DigestFood, HeaderIsSteppedOverInAllItsForms) {
  const std::string high_tag = "\x3f\x81\x83\x05";
  EXPECT_EQ(take_encoding(std::string("\x30\x03") + "abc").octets, "abc");
  EXPECT_EQ(take_encoding(std::string("\x30\x81\x03") + "abc").octets, "abc");
  EXPECT_EQ(take_encoding(std::string("\x30\x84\x00\x00\x00\x03", 6) + "abc").octets, "abc");
  EXPECT_EQ(take_encoding(std::string("\x30\x80") + "abc").octets, "abc");
  EXPECT_EQ(take_encoding(high_tag + "\x03" + "abc").octets, "abc");
  EXPECT_EQ(take_encoding(high_tag + "\x82" + std::string("\x00\x03", 2) + "abc").octets, "abc");
  EXPECT_EQ(take_encoding(std::string("\x1f\x01\x03") + "abc").octets, "abc");
}

TEST_F(DigestFood, HeaderUpToTheEndIsInvalidAndLoggedInHex) {
  const struct {
    std::string encoding, hex;
  } cases[] = {
      {"\x30", "30"},
      {std::string("\x30\x00", 2), "3000"},
      {"\x30\x81\x03", "308103"},
      {"\x30\x84\x01\x02", "30840102"},
      {"\x30\xff\x41\x42", "30FF4142"},
      {"\x3f", "3F"},
      {"\x3f\x81\x82", "3F8182"},
      {"\x3f\x81\x05", "3F8105"},
      {std::string("\x3f\x81\x05\x00", 4), "3F810500"},
  };
  for (const auto &it : cases) {
    clear_log();
    EXPECT_EQ(take_encoding(it.encoding).code, PKI_INVALID_DER) << it.hex;
    EXPECT_EQ(count_logged(3, "Invalid DER-encoding encountered! der=" + it.hex), 1u)
        << it.hex << "\n"
        << log_dump();
  }
}

TEST_F(DigestFood, StructureThatDoesNotEncodeIsOutOfMemory) {
  EXPECT_EQ(take_encoding("").code, PKI_OUT_OF_MEMORY);
  second_call_fails = true;
  EXPECT_EQ(take_encoding("\x30\x01x").code, PKI_OUT_OF_MEMORY);
}

TEST_F(DigestFood, NullArgumentsAreRefused) {
  auto *bio = reinterpret_cast<BIO *>(this);
  auto *buffer = reinterpret_cast<unsigned char *>(this);
  EXPECT_EQ(get_pkcs7_digest_food(nullptr, &bio, &buffer), PKI_INVALID_DER);
  EXPECT_EQ(bio, nullptr);
  EXPECT_EQ(buffer, nullptr);
  EXPECT_EQ(get_pkcs7_digest_food(envelope.get(), nullptr, &buffer), PKI_INVALID_ARGS);
  EXPECT_EQ(get_pkcs7_digest_food(envelope.get(), &bio, nullptr), PKI_INVALID_ARGS);
}

}  // namespace
