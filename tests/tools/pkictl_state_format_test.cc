// The form of pkictl's state.
#include <gtest/gtest.h>
#include <libpki/error.h>
#include <openssl/x509.h>

#include "lab_fixture.h"
#include "state_fixture.h"
#include "tools/common/failure.h"
#include "tools/common/keys.h"

namespace {

using pkictl::decode_state;
using pkictl::encode_state;
using pkictl::saved_state;
using tool_test::octets_of;
using tool_test::the_lab;

// The issuing CA's key with its certificate, and a CA that has the key's public half as its own.
saved_state example(const std::string &document = "a document") {
  saved_state state;
  pkictl::saved_key &key = state.keys["device"];
  key.pair = tools::load_private_key(the_lab().file("issuing-key.pem"));
  key.certs["first"] = tools::load_certificate(the_lab().file("issuing-cert.pem"));
  state.cas["office"] = {"http://ca.example/", document,
                         tools::load_public_key(the_lab().file("doc-key.pub.pem"))};
  return state;
}

std::string encoded(const saved_state &state) {
  return tool_test::text_of(encode_state(state));
}

int code_of(const std::string &text) {
  saved_state state;
  int code = decode_state(octets_of(text), &state);
  EXPECT_TRUE(code == 0 || (state.cas.empty() && state.keys.empty()));
  return code;
}

TEST(PkictlStateFormat, NothingIsReadBackAsNothing) {
  saved_state state = tool_test::decoded(encoded({}));
  EXPECT_TRUE(state.cas.empty());
  EXPECT_TRUE(state.keys.empty());
}

TEST(PkictlStateFormat, EverythingIsReadBack) {
  saved_state made = example();
  saved_state read = tool_test::decoded(encoded(made));
  ASSERT_EQ(read.cas.size(), 1u);
  EXPECT_EQ(read.cas["office"].url, "http://ca.example/");
  EXPECT_EQ(read.cas["office"].document, "a document");
  EXPECT_EQ(EVP_PKEY_eq(read.cas["office"].doc_key.get(), made.cas["office"].doc_key.get()), 1);
  ASSERT_EQ(read.keys.size(), 1u);
  EXPECT_EQ(tools::private_pem(read.keys["device"].pair.get()),
            tools::private_pem(made.keys["device"].pair.get()));
  ASSERT_EQ(read.keys["device"].certs.size(), 1u);
  EXPECT_EQ(
      X509_cmp(read.keys["device"].certs["first"].get(), made.keys["device"].certs["first"].get()),
      0);
}

TEST(PkictlStateFormat, SameStateIsWrittenInTheSameOctets) {
  EXPECT_EQ(encoded(example()), encoded(tool_test::decoded(encoded(example()))));
}

class length_test : public testing::TestWithParam<size_t> {};

TEST_P(length_test, DocumentAndUrlAreReadBack) {
  std::string document(GetParam(), '\0');
  for (size_t at = 0; at < document.size(); at++)
    document[at] = static_cast<char>(at * 7);
  saved_state made = example(document);
  made.cas["office"].url = std::string(GetParam(), 'u');
  saved_state read = tool_test::decoded(encoded(made));
  EXPECT_TRUE(read.cas["office"].document == document);
  EXPECT_TRUE(read.cas["office"].url == std::string(GetParam(), 'u'));
}

INSTANTIATE_TEST_SUITE_P(Octets, length_test,
                         testing::Values(1, 127, 128, 8191, 8192, 8193, 16383, 16384, 16385, 16511,
                                         16512, 24576, 65535, 65536, 65537, 1u << 20));

TEST(PkictlStateFormat, KeyThatOneBlockCannotHoldIsNotWritten) {
  saved_state state;
  tools::key_ptr key(EVP_PKEY_new());
  RSA *rsa = RSA_new();
  BIGNUM *modulus = BN_new();
  BIGNUM *exponent = BN_new();
  BN_set_bit(modulus, 8 * 16384);
  BN_set_word(exponent, 65537);
  RSA_set0_key(rsa, modulus, exponent, nullptr);
  EVP_PKEY_assign_RSA(key.get(), rsa);
  state.cas["office"] = {"http://ca.example/", "a document", std::move(key)};
  EXPECT_THROW(encode_state(state), tools::library_failure);
}

// ---- what is no state ----

TEST(PkictlStateFormat, NoTruncationIsRead) {
  std::string whole = encoded(example());
  for (size_t length = 0; length < whole.size(); length++)
    EXPECT_NE(code_of(whole.substr(0, length)), 0) << length;
}

TEST(PkictlStateFormat, NothingMayFollow) {
  EXPECT_NE(code_of(encoded(example()) + '\0'), 0);
}

// All but the envelope's own block and the tag of the digest, which the digest cannot cover.
TEST(PkictlStateFormat, NoChangedOctetIsRead) {
  std::string whole = encoded(example());
  size_t digest = whole.size() - 24;
  ASSERT_EQ(whole[digest], pkictl::tag_digest);
  for (size_t at = 0; at < whole.size(); at++) {
    if (at == 4 || at == digest)
      continue;
    for (int change : {0x01, 0x80, 0xFF}) {
      std::string changed = whole;
      changed[at] = static_cast<char>(changed[at] ^ change);
      EXPECT_NE(code_of(changed), 0) << at;
    }
  }
}

TEST(PkictlStateFormat, OctetsThatNobodyCoversChangeNothing) {
  std::string whole = encoded(example());
  for (size_t at : {size_t{4}, whole.size() - 24}) {
    std::string changed = whole;
    changed[at] = '\x7f';
    EXPECT_EQ(encoded(tool_test::decoded(changed)), whole) << at;
  }
}

TEST(PkictlStateFormat, OtherMagicIsTold) {
  std::string other = encoded(example());
  other[3] = '2';
  EXPECT_EQ(code_of(other), PKI_WRONG_MAGIC);
}

TEST(PkictlStateFormat, ChangedDigestIsTold) {
  std::string other = encoded(example());
  other[other.size() - 3] = static_cast<char>(other[other.size() - 3] ^ 1);
  EXPECT_EQ(code_of(other), PKI_INVALID_HASH);
}

// ---- whole streams that pkictl does not write ----

TEST(PkictlStateContent, LabelThatIsNoneIsRefused) {
  for (const char *label : {"", "../escape", "a b", ".hidden"}) {
    saved_state state = example();
    state.keys[label].pair = tools::load_private_key(the_lab().file("issuing-key.pem"));
    EXPECT_NE(code_of(encoded(state)), 0) << label;
  }
}

TEST(PkictlStateContent, CaWithoutUrlOrDocumentIsRefused) {
  EXPECT_NE(code_of(encoded(example(""))), 0);
  saved_state state = example();
  state.cas["office"].url = "";
  EXPECT_NE(code_of(encoded(state)), 0);
}

TEST(PkictlStateContent, CertificateOfAnotherKeyIsRefused) {
  saved_state state = example();
  state.keys["device"].certs["foreign"] = tools::load_certificate(the_lab().file("root-cert.pem"));
  EXPECT_NE(code_of(encoded(state)), 0);
}

}  // namespace
