#include "tools/common/text.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "run_tool.h"
#include "support/certs.h"
#include "tools/common/cert_text.h"
#include "tools/common/failure.h"
#include "tools/common/files.h"

namespace {

using tools::printable;

TEST(ToolText, PrintableKeepsTextAndReplacesControls) {
  EXPECT_EQ(printable("plain, \xC3\xA9, \xE2\x82\xAC, \xF0\x9F\x98\x80"),
            "plain, \xC3\xA9, \xE2\x82\xAC, \xF0\x9F\x98\x80");
  EXPECT_EQ(printable("a\nb\x1b[31m\x7f"), "a?b?[31m?");
  EXPECT_EQ(printable("\xC2\x9B"), "?");
}

TEST(ToolText, PrintableReplacesWhatIsNoUtf8) {
  EXPECT_EQ(printable("a\xFF"), "a?");
  EXPECT_EQ(printable("\xC3"), "?");
  EXPECT_EQ(printable("\xC0\x80"), "??");
  EXPECT_EQ(printable("\xE0\x80\x80"), "???");
  EXPECT_EQ(printable("\xED\xA0\x80"), "???");
  EXPECT_EQ(printable("\xF4\x90\x80\x80"), "????");
}

TEST(ToolText, HexIsUpperCase) {
  EXPECT_EQ(tools::hex(std::string("\x00\xAB", 2)), "00AB");
  EXPECT_EQ(tools::hex("\x01\x02", ':'), "01:02");
  EXPECT_EQ(tools::hex(""), "");
}

TEST(ToolText, Base64ComesInLinesOf64) {
  EXPECT_EQ(tools::base64_lines(""), "");
  EXPECT_EQ(tools::base64_lines("abcd"), "YWJjZA==\n");
  EXPECT_EQ(tools::base64_lines(std::string(48, 'a')),
            tools::base64_lines(std::string(24, 'a')).substr(0, 32) +
                tools::base64_lines(std::string(24, 'a')).substr(0, 32) + "\n");
  EXPECT_EQ(tools::base64_lines(std::string(49, 'a')).find('\n'), 64u);
}

TEST(ToolText, PercentEncodeTouchesOnlyWhatNoUrlCarries) {
  EXPECT_EQ(tools::percent_encode("/a?b=1&c=%20+~"), "/a?b=1&c=%20+~");
  EXPECT_EQ(tools::percent_encode("a b\r\n\x7f\xFF"), "a%20b%0D%0A%7F%FF");
}

TEST(ToolText, TrimTakesBlanksOffBothEnds) {
  EXPECT_EQ(tools::trim(" \ta b\r\n"), "a b");
  EXPECT_EQ(tools::trim(" \n"), "");
}

TEST(ToolCertText, NamesBeginWithTheMostSpecificPart) {
  support::name name = support::make_name({{"C", "US"}, {"O", "A, B"}, {"CN", "d\xC3\xA9vice"}});
  EXPECT_EQ(tools::name_text(name.get()), "CN=d\xC3\xA9vice, O=A\\, B, C=US");
  EXPECT_EQ(tools::name_text(nullptr), "");
}

TEST(ToolCertText, SerialsAreHexadecimal) {
  EXPECT_EQ(tools::serial_text(support::make_serial(266).get()), "010A");
  EXPECT_EQ(tools::serial_text(support::make_serial(-1).get()), "-01");
}

TEST(ToolCertText, TimesAreUtc) {
  EXPECT_EQ(tools::time_text(support::make_time(0).get()), "1970-01-01 00:00:00Z");
  EXPECT_EQ(tools::time_text(nullptr), "unreadable");
}

TEST(ToolFiles, WriteReplacesWholeFilesAndSetsTheMode) {
  tool_test::folder home;
  tools::write_file(home / "f", "one", 0600);
  tools::write_file(home / "f", "two", 0644);
  EXPECT_EQ(tools::read_file(home / "f"), "two");
  struct stat info = {};
  ASSERT_EQ(stat((home / "f").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0644u);
}

TEST(ToolFiles, FolderWhereAFileBelongsIsRefused) {
  tool_test::folder home;
  EXPECT_THROW(tools::read_file(home / ""), tools::failure);
  EXPECT_THROW(tools::write_file(home / "", "x", 0600), tools::failure);
  EXPECT_THROW(tools::read_file(home / "none"), tools::failure);
}

}  // namespace
