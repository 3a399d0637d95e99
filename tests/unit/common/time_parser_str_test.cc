#include <gtest/gtest.h>
#include <libpki/names.h>

#include <cstring>
#include <ctime>
#include <memory>
#include <string>

#include "fakes/log_capture.h"

namespace {

struct result {
  int code;
  struct tm time;
};

result parse(const std::string &text) {
  result got;
  memset(&got.time, 0x55, sizeof got.time);
  // A copy of just its size, so that a reader past the end is noticed.
  std::unique_ptr<char[]> copy(new char[text.size() + 1]);
  memcpy(copy.get(), text.c_str(), text.size() + 1);
  got.code = parse_time_str(copy.get(), &got.time);
  return got;
}

TEST(TimeParserDay, TextWithoutDigitsIs36) {
  for (const char *text : {"", " ", "Nov", "Tue, Nov", "never", "-", "\xB2"})
    EXPECT_EQ(parse(text).code, 36) << text;
}

TEST(TimeParserDay, IsLookedForBehindTheFirstComma) {
  EXPECT_EQ(parse("5 Nov,").code, 36);
  result got = parse("1 Jan, 5 Feb");
  EXPECT_EQ(got.code, 38);
  EXPECT_EQ(got.time.tm_mday, 5);
  EXPECT_EQ(got.time.tm_mon, 1);
}

TEST(TimeParserDay, OnlyTheFirstCommaCounts) {
  result got = parse("a, b, 5 Nov");
  EXPECT_EQ(got.code, 38);
  EXPECT_EQ(got.time.tm_mday, 5);
}

TEST(TimeParserDay, IsReadAsADecimalNumber) {
  EXPECT_EQ(parse("08 Nov").time.tm_mday, 8);
  EXPECT_EQ(parse("31 Nov").time.tm_mday, 31);
  EXPECT_EQ(parse("Tue 05 Nov").time.tm_mday, 5);
  EXPECT_EQ(parse("-5 Nov").time.tm_mday, 5);
}

TEST(TimeParserDay, StaysFilledOnFailure) {
  result got = parse("17 no-month");
  EXPECT_EQ(got.code, 37);
  EXPECT_EQ(got.time.tm_mday, 17);
}

TEST(TimeParserDay, GreatNumberIsSurvived) {
  EXPECT_EQ(parse("99999999999999999999999999 Nov").code, 38);
}

TEST(TimeParserMonth, EveryMonthAtTheEndOfTheText) {
  const char *const months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  for (int i = 0; i < 12; i++) {
    result got = parse("Tue, 05 " + std::string(months[i]));
    EXPECT_EQ(got.code, 38) << months[i];
    EXPECT_EQ(got.time.tm_mon, i) << months[i];
    EXPECT_EQ(got.time.tm_mday, 5) << months[i];
  }
}

TEST(TimeParserMonth, LetterCaseDoesNotMatter) {
  for (const char *text : {"5 nov", "5 NOV", "5 nOv"}) {
    result got = parse(text);
    EXPECT_EQ(got.code, 38) << text;
    EXPECT_EQ(got.time.tm_mon, 10) << text;
  }
}

TEST(TimeParserMonth, AnythingMayStandBeforeIt) {
  EXPECT_EQ(parse("5Nov").code, 38);
  EXPECT_EQ(parse("5-Nov").code, 38);
  EXPECT_EQ(parse("5 11 Nov").code, 38);
}

// The comparison takes in the octet behind the three letters.
TEST(TimeParserMonth, TextBehindTheMonthIs37) {
  for (const char *text : {"Tue, 05 Nov 2024 10:11:12 GMT", "5 Nov 2024", "5 Nov ", "5 Nov-24",
                           "5 November", "5 Nov5"})
    EXPECT_EQ(parse(text).code, 37) << text;
}

TEST(TimeParserMonth, UnknownMonthIs37) {
  for (const char *text : {"5 Nox", "5 GMT", "5 xNov", "5 Dez"})
    EXPECT_EQ(parse(text).code, 37) << text;
}

TEST(TimeParserMonth, TextThatEndsBeforeItIs37) {
  for (const char *text : {"5", "5 ", "5 N", "5 No", "5 11", "Tue, 5"})
    EXPECT_EQ(parse(text).code, 37) << text;
}

TEST(TimeParserMonth, HighOctetsAreNoLetters) {
  EXPECT_EQ(parse("5 \xE9 Nov").code, 38);
  EXPECT_EQ(parse("5 N\xEFv").code, 37);
}

TEST(TimeParserArguments, NullIs63) {
  struct tm time = {};
  EXPECT_EQ(parse_time_str(nullptr, &time), 63);
  EXPECT_EQ(parse_time_str("5 Nov", nullptr), 63);
}

TEST(TimeParserArguments, NothingIsLogged) {
  clear_log();
  parse("");
  parse("5");
  parse("5 Nov");
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

}  // namespace
