// ReasonFlags BIT STRINGs as masks.
#include <gtest/gtest.h>
#include <libpki/verify.h>
#include <openssl/x509v3.h>

#include <memory>
#include <string>

namespace {

using bit_string = std::unique_ptr<ASN1_BIT_STRING, void (*)(ASN1_BIT_STRING *)>;

bit_string of_octets(const std::string &octets) {
  bit_string made(ASN1_BIT_STRING_new(), ASN1_BIT_STRING_free);
  ASN1_STRING_set(made.get(), octets.data(), static_cast<int>(octets.size()));
  return made;
}

bit_string of_bits(const std::vector<int> &bits) {
  bit_string made(ASN1_BIT_STRING_new(), ASN1_BIT_STRING_free);
  for (int bit : bits)
    ASN1_BIT_STRING_set_bit(made.get(), bit, 1);
  return made;
}

uint32_t mask(const bit_string &reasons) {
  return zv_cv_get_crl_reasons(reasons.get());
}

TEST(CrlReasons, EachBitKeepsItsNumber) {
  for (int bit = 0; bit < 32; bit++)
    EXPECT_EQ(1U << bit, mask(of_bits({bit}))) << bit;
}

TEST(CrlReasons, NamedReasons) {
  EXPECT_EQ(0x2U, mask(of_bits({1})));                          // keyCompromise
  EXPECT_EQ(0x4U, mask(of_bits({2})));                          // cACompromise
  EXPECT_EQ(0x100U, mask(of_bits({8})));                        // aACompromise
  EXPECT_EQ(511U, mask(of_bits({0, 1, 2, 3, 4, 5, 6, 7, 8})));  // all
}

TEST(CrlReasons, EveryOctetIsReversed) {
  EXPECT_EQ(0x01U, mask(of_octets("\x80")));
  EXPECT_EQ(0x35U, mask(of_octets("\xac")));
  EXPECT_EQ(0x4835U, mask(of_octets("\xac\x12")));
  EXPECT_EQ(0x1e6a4835U, mask(of_octets("\xac\x12\x56\x78")));
}

TEST(CrlReasons, FifthAndLaterOctetsAreIgnored) {
  EXPECT_EQ(0x1e6a4835U, mask(of_octets("\xac\x12\x56\x78\xff")));
  EXPECT_EQ(0U, mask(of_bits({32})));
  EXPECT_EQ(0x2U, mask(of_bits({1, 32, 63, 100})));
}

TEST(CrlReasons, ShortStringsHaveNoMoreReasons) {
  EXPECT_EQ(0U, mask(of_octets("")));
  EXPECT_EQ(0xffU, mask(of_octets("\xff")));
  EXPECT_EQ(0xffffffU, mask(of_octets("\xff\xff\xff")));
}

TEST(CrlReasons, ADecodedStringIsRead) {
  const unsigned char der[] = {0x03, 0x03, 0x07, 0x60, 0x80};  // bits 1, 2 and 8
  const unsigned char *in = der;
  bit_string reasons(d2i_ASN1_BIT_STRING(nullptr, &in, sizeof der), ASN1_BIT_STRING_free);
  EXPECT_EQ(0x106U, mask(reasons));
}

TEST(CrlReasons, NullHasNone) {
  EXPECT_EQ(0U, zv_cv_get_crl_reasons(nullptr));
}

}  // namespace
