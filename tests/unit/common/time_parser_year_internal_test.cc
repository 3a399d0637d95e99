// What follows the month. No whole date gets here through parse_time_str, because its comparison
// of the month wants the text to end there.
#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>

#include "common/time_parser.h"

namespace {

struct result {
  int code;
  struct tm time;
};

// As after "05 Nov".
result parse(const std::string &text, int day = 5, int month = 10) {
  result got;
  memset(&got.time, 0x55, sizeof got.time);
  got.time.tm_mday = day;
  got.time.tm_mon = month;
  std::unique_ptr<char[]> copy(new char[text.size() + 1]);
  memcpy(copy.get(), text.c_str(), text.size() + 1);
  got.code = pki::parse_year_and_time(copy.get(), &got.time);
  return got;
}

int year_of(const std::string &digits) {
  result got = parse(" " + digits + " 10:11:12 GMT");
  EXPECT_EQ(got.code, 0) << digits;
  return got.time.tm_year;
}

TEST(TimeParserYear, WholeTime) {
  result got = parse(" 2024 10:11:12 GMT");
  EXPECT_EQ(got.code, 0);
  EXPECT_EQ(got.time.tm_year, 124);
  EXPECT_EQ(got.time.tm_mon, 10);
  EXPECT_EQ(got.time.tm_mday, 5);
  EXPECT_EQ(got.time.tm_hour, 10);
  EXPECT_EQ(got.time.tm_min, 11);
  EXPECT_EQ(got.time.tm_sec, 12);
}

TEST(TimeParserYear, ZoneIsGmtWithoutOffsetOrSummerTime) {
  result got = parse(" 2024 10:11:12 +0200");
  EXPECT_EQ(got.code, 0);
  EXPECT_STREQ(got.time.tm_zone, "GMT");
  EXPECT_EQ(got.time.tm_gmtoff, 0);
  EXPECT_EQ(got.time.tm_isdst, 0);
  EXPECT_EQ(got.time.tm_hour, 10);
}

TEST(TimeParserYear, DayOfWeekAndYearAreWorkedOut) {
  result got = parse(" 2024 10:11:12 GMT");
  EXPECT_EQ(got.time.tm_wday, 2);  // 5 November 2024 was a Tuesday,
  EXPECT_EQ(got.time.tm_yday, 309);
}

TEST(TimeParserYear, HostsTimeZoneDoesNotMatter) {
  setenv("TZ", "America/New_York", 1);
  tzset();
  result got = parse(" 2024 10:11:12 GMT", 5, 6);  // summer there
  unsetenv("TZ");
  tzset();
  EXPECT_EQ(got.code, 0);
  EXPECT_EQ(got.time.tm_hour, 10);
  EXPECT_EQ(got.time.tm_mday, 5);
  EXPECT_EQ(got.time.tm_isdst, 0);
}

TEST(TimeParserYear, FieldsAreNormalised) {
  result got = parse(" 2023 23:59:60 GMT", 31, 11);
  EXPECT_EQ(got.code, 0);
  EXPECT_EQ(got.time.tm_year, 124);
  EXPECT_EQ(got.time.tm_mon, 0);
  EXPECT_EQ(got.time.tm_mday, 1);
  EXPECT_EQ(got.time.tm_hour, 0);
  EXPECT_EQ(got.time.tm_min, 0);
  EXPECT_EQ(got.time.tm_sec, 0);
}

TEST(TimeParserYear, DayThatTheMonthLacksIsOneOfTheNext) {
  result leap = parse(" 2024 1:2:3", 30, 1);
  EXPECT_EQ(leap.time.tm_mon, 2);
  EXPECT_EQ(leap.time.tm_mday, 1);
  result common = parse(" 2023 1:2:3", 30, 1);
  EXPECT_EQ(common.time.tm_mon, 2);
  EXPECT_EQ(common.time.tm_mday, 2);
}

TEST(TimeParserYear, TwoDigitsBelow70AreOfThisCentury) {
  EXPECT_EQ(year_of("00"), 100);
  EXPECT_EQ(year_of("24"), 124);
  EXPECT_EQ(year_of("69"), 169);
}

TEST(TimeParserYear, TwoDigitsFrom70AreOfTheLast) {
  EXPECT_EQ(year_of("70"), 70);
  EXPECT_EQ(year_of("99"), 99);
}

TEST(TimeParserYear, From100OnIsTheYearItself) {
  EXPECT_EQ(year_of("1970"), 70);
  EXPECT_EQ(year_of("2100"), 200);
  EXPECT_EQ(year_of("9999"), 8099);
  EXPECT_EQ(year_of("100"), -1800);
}

TEST(TimeParserYear, RestOfTheMonthsLettersIsSkipped) {
  EXPECT_EQ(parse("ember 2024 1:2:3").code, 0);
}

TEST(TimeParserYear, AnythingMayStandBetweenTheNumbers) {
  result got = parse("-24T10h11m12s");
  EXPECT_EQ(got.code, 0);
  EXPECT_EQ(got.time.tm_year, 124);
  EXPECT_EQ(got.time.tm_hour, 10);
  EXPECT_EQ(got.time.tm_min, 11);
  EXPECT_EQ(got.time.tm_sec, 12);
}

TEST(TimeParserYear, ZoneWordIsNotNeeded) {
  EXPECT_EQ(parse(" 2024 10:11:12").code, 0);
}

TEST(TimeParserYear, NoYearIs38) {
  for (const char *text : {"", " ", "ember", " GMT", "\xB2"})
    EXPECT_EQ(parse(text).code, 38) << text;
}

TEST(TimeParserYear, NoHourIs39) {
  for (const char *text : {" 2024", " 2024 ", " 2024 GMT"}) {
    result got = parse(text);
    EXPECT_EQ(got.code, 39) << text;
    EXPECT_EQ(got.time.tm_year, 124) << text;
  }
}

TEST(TimeParserYear, NoMinutesIs40) {
  for (const char *text : {" 2024 10", " 2024 10:", " 2024 10 GMT"}) {
    result got = parse(text);
    EXPECT_EQ(got.code, 40) << text;
    EXPECT_EQ(got.time.tm_year, 124) << text;
    EXPECT_EQ(got.time.tm_hour, 10) << text;
  }
}

TEST(TimeParserYear, NoSecondsIs41) {
  for (const char *text : {" 2024 10:11", " 2024 10:11:", " 2024 10:11 GMT"}) {
    result got = parse(text);
    EXPECT_EQ(got.code, 41) << text;
    EXPECT_EQ(got.time.tm_hour, 10) << text;
    EXPECT_EQ(got.time.tm_min, 11) << text;
    EXPECT_EQ(got.time.tm_mday, 5) << text;
    EXPECT_EQ(got.time.tm_mon, 10) << text;
  }
}

// So many hours lead past the last year that a tm holds, and nothing is worked out then.
TEST(TimeParserYear, DayOfWeekAndYearAreUnknownWhereTheTimeIsTooLate) {
  const std::string great(30, '9');
  result got = parse(" " + great + " " + great + ":2:3");
  EXPECT_EQ(got.code, 0);
  EXPECT_EQ(got.time.tm_wday, -1);
  EXPECT_EQ(got.time.tm_yday, -1);
  EXPECT_EQ(got.time.tm_hour, INT_MAX);
  EXPECT_EQ(got.time.tm_min, 2);
}

TEST(TimeParserYear, GreatNumbersAreSurvived) {
  const std::string great(30, '9');
  EXPECT_EQ(parse(" " + great + " 1:2:3").code, 0);
  EXPECT_EQ(parse(" 2024 " + great + ":" + great + ":" + great).code, 0);
}

}  // namespace
