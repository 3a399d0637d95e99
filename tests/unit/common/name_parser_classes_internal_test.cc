#include <gtest/gtest.h>

#include <cctype>
#include <climits>

#include "common/text.h"

namespace {

// The test program runs in the POSIX locale, whose own classes are the measure.
TEST(NameParserClasses, AreThoseOfThePosixLocaleForEveryOctet) {
  for (int octet = 0; octet < 256; octet++) {
    char c = static_cast<char>(octet);
    EXPECT_EQ(pki::is_space(c), octet < 128 && isspace(octet)) << octet;
    EXPECT_EQ(pki::is_digit(c), octet < 128 && isdigit(octet)) << octet;
    EXPECT_EQ(pki::is_letter(c), octet < 128 && isalpha(octet)) << octet;
    int lower = octet < 128 ? tolower(octet) : octet;
    EXPECT_EQ(pki::to_lower(c), static_cast<char>(lower)) << octet;
  }
}

TEST(NameParserClasses, ComparisonIgnoresLetterCase) {
  EXPECT_TRUE(pki::equal_ignoring_case("Content-Type", "cONTENT-tYPE"));
  EXPECT_FALSE(pki::equal_ignoring_case("Content-Type", "Content-Typ"));
  EXPECT_FALSE(pki::equal_ignoring_case("a", "b"));
  EXPECT_TRUE(pki::equal_ignoring_case("", ""));
}

TEST(NameParserClasses, ComparisonFoldsLettersOnly) {
  EXPECT_FALSE(pki::equal_ignoring_case("[", "{"));
  EXPECT_FALSE(pki::equal_ignoring_case("@", "`"));
  EXPECT_FALSE(pki::equal_ignoring_case("\xC9", "\xE9"));
}

TEST(NameParserClasses, ComparisonStopsAtItsLimit) {
  EXPECT_TRUE(pki::equal_ignoring_case("OID.x", "oid.y", 4));
  EXPECT_FALSE(pki::equal_ignoring_case("OID.x", "oid.y", 5));
  EXPECT_FALSE(pki::equal_ignoring_case("OID", "oid.", 4));
  EXPECT_TRUE(pki::equal_ignoring_case("a", "b", 0));
}

TEST(NameParserClasses, ComparisonStopsAtTheEndOfTheText) {
  const char text[] = {'a', '\0', 'x'};
  const char other[] = {'A', '\0', 'y'};
  EXPECT_TRUE(pki::equal_ignoring_case(text, other, 3));
}

TEST(NameParserClasses, DecimalPrefix) {
  EXPECT_EQ(pki::decimal_prefix("120"), 120);
  EXPECT_EQ(pki::decimal_prefix(" \t+7 rest"), 7);
  EXPECT_EQ(pki::decimal_prefix("-7"), -7);
  EXPECT_EQ(pki::decimal_prefix("007x"), 7);
}

TEST(NameParserClasses, DecimalPrefixThatIsMissingIsZero) {
  for (const char *text : {"", " ", "x1", "-", "+", "- 1"})
    EXPECT_EQ(pki::decimal_prefix(text), 0) << text;
}

TEST(NameParserClasses, DecimalPrefixIsCutToAnInt) {
  EXPECT_EQ(pki::decimal_prefix("2147483647"), INT_MAX);
  EXPECT_EQ(pki::decimal_prefix("2147483648"), INT_MAX);
  EXPECT_EQ(pki::decimal_prefix("-2147483649"), INT_MIN);
  EXPECT_EQ(pki::decimal_prefix("99999999999999999999999999"), INT_MAX);
  EXPECT_EQ(pki::decimal_prefix("-99999999999999999999999999"), INT_MIN);
}

}  // namespace
