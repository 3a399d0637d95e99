#include "tools/common/scep_message.h"

#include <gtest/gtest.h>

#include "tools/common/text.h"

namespace {

using tools::decode_message_text;
using tools::query_value;

TEST(ToolScepMessage, TextIsUnescapedAndPlusIsAPlus) {
  EXPECT_EQ(decode_message_text("+/+/"), std::string("\xFB\xFF\xBF"));
  EXPECT_EQ(decode_message_text("%2B%2F%2b/"), std::string("\xFB\xFF\xBF"));
  EXPECT_EQ(decode_message_text("YWI%3D"), "ab");
}

TEST(ToolScepMessage, WhiteSpaceInTheTextIsIgnored) {
  EXPECT_EQ(decode_message_text("YW\nJj\r\n ZA\t=="), "abcd");
}

TEST(ToolScepMessage, TextThatIsNoBase64HasNoOctets) {
  for (const char *text : {"", "A", "AAA", "A===", "AA=A", "AAAA=", "AA*A", "%zzAA", "AAAA===="})
    EXPECT_EQ(decode_message_text(text), std::nullopt) << text;
}

TEST(ToolScepMessage, QueryValuesAreFoundByTheirWholeName) {
  EXPECT_EQ(query_value("a=1&message=x=y&b=", "message"), "x=y");
  EXPECT_EQ(query_value("a=1&b=", "b"), "");
  EXPECT_EQ(query_value("xmessage=1&messages=2&message", "message"), std::nullopt);
  EXPECT_EQ(query_value("", "a"), std::nullopt);
}

TEST(ToolScepMessage, NumbersAreWholeAndNotNegative) {
  EXPECT_EQ(tools::scep_number("19"), 19);
  for (const char *text : {"", "-1", "1x", "x", "99999999999"})
    EXPECT_EQ(tools::scep_number(text), -1) << text;
  EXPECT_EQ(tools::scep_number(std::nullopt), -1);
}

TEST(ToolScepMessage, UnknownNumbersHaveNoName) {
  EXPECT_EQ(tools::scep_type_name(99), "");
  EXPECT_EQ(tools::scep_status_name(1), "");
  EXPECT_EQ(tools::scep_fail_info_name(5), "");
  EXPECT_EQ(tools::scep_fail_info_name(-1), "");
  EXPECT_EQ(tools::scep_fail_info_name(4), "badCertId");
}

TEST(ToolText, PercentDecodeLeavesWhatIsNoEscape) {
  EXPECT_EQ(tools::percent_decode("a%20b%2"), "a b%2");
  EXPECT_EQ(tools::percent_decode("%%41%G1%-1%+1%"), "%A%G1%-1%+1%");
}

TEST(ToolScepMessage, NamesStandInFrontOfTheirNumbers) {
  auto text = [](const std::string &number) {
    return tools::scep_name_and_number(number, tools::scep_fail_info_name);
  };
  EXPECT_EQ(text("0"), "badAlg (0)");
  EXPECT_EQ(text("1"), "badMessageCheck (1)");
  EXPECT_EQ(text("2"), "badRequest (2)");
  EXPECT_EQ(text("3"), "badTime (3)");
  EXPECT_EQ(text("4"), "badCertId (4)");
  for (const char *unknown : {"5", "-1", "", "4x", "99999999999"})
    EXPECT_EQ(text(unknown), unknown);
}

}  // namespace
