// What the dump of a stream prints, to the letter.
#include <gtest/gtest.h>
#include <libpki/marshal.h>

#include <climits>

#include "fakes/allocator.h"
#include "fakes/log_capture.h"
#include "support/marshal.h"

namespace {

using support::block;
using support::end_of_data;
using support::octets_in;
using support::stream;
using support::stream_of;

struct MarshalDump : testing::Test {
  void SetUp() override { clear_log(); }
  // The code and, in `printed`, the output.
  int dump(BIO *bio, int magic_len, std::vector<const char *> names = {}) {
    testing::internal::CaptureStdout();
    int code = dump_raw_bio(bio, magic_len, names.data(), static_cast<int>(names.size()));
    printed = testing::internal::GetCapturedStdout();
    return code;
  }
  int dump(const std::string &octets, int magic_len, const std::vector<const char *> &names = {}) {
    return dump(stream_of(octets).get(), magic_len, names);
  }
  std::string printed;
};

TEST_F(MarshalDump, EndOfTheDataIsTheLastLine) {
  stream in = stream_of(end_of_data + block(1));
  EXPECT_EQ(dump(in.get(), 0), 0);
  EXPECT_EQ(printed, "magic: `'\n<0 val=\"\">\n");
  EXPECT_EQ(octets_in(in), block(1));
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(MarshalDump, MagicIsPrintedAsItIs) {
  EXPECT_EQ(dump("MAGIC" + end_of_data, 5), 0);
  EXPECT_EQ(printed, "magic: `MAGIC'\n<0 val=\"\">\n");
  EXPECT_EQ(dump("%s%n" + end_of_data, 4), 0);
  EXPECT_EQ(printed, "magic: `%s%n'\n<0 val=\"\">\n");
}

TEST_F(MarshalDump, MagicOf100OctetsIsPrintedAndOf101NothingIsRead) {
  std::string magic(100, 'm');
  EXPECT_EQ(dump(magic + end_of_data, 100), 0);
  EXPECT_EQ(printed, "magic: `" + magic + "'\n<0 val=\"\">\n");
  stream in = stream_of(magic + "m" + end_of_data);
  for (int length : {101, 1000000, INT_MAX}) {
    EXPECT_EQ(dump(in.get(), length), 2);
    EXPECT_EQ(printed, "");
    EXPECT_EQ(octets_in(in).size(), 103u);
  }
}

TEST_F(MarshalDump, MagicIsPrintedUpToItsNul) {
  EXPECT_EQ(dump(std::string("MA\0IC", 5) + end_of_data, 5), 0);
  EXPECT_EQ(printed, "magic: `MA'\n<0 val=\"\">\n");
}

TEST_F(MarshalDump, MagicOfNegativeLengthIsRefused) {
  stream in = stream_of(end_of_data);
  for (int length : {-1, INT_MIN}) {
    EXPECT_EQ(dump(in.get(), length), 63);
    EXPECT_EQ(printed, "");
    EXPECT_EQ(octets_in(in), end_of_data);
  }
}

TEST_F(MarshalDump, BlocksAreNumbersAndUpperCaseDigits) {
  EXPECT_EQ(dump(block(7, "\x01\xab") + block(255, "") + end_of_data, 0), 0);
  EXPECT_EQ(printed, "magic: `'\n<7 val=\"01AB\">\n<255 val=\"\">\n<0 val=\"\">\n");
}

TEST_F(MarshalDump, TagsBelowTheCountHaveNames) {
  EXPECT_EQ(dump(block(1, "a") + block(2, "b") + block(3, "c") + end_of_data, 0,
                 {"nothing", "first", "%d second"}),
            0);
  EXPECT_EQ(printed,
            "magic: `'\n"
            "<first val=\"61\">\n"
            "<%d second val=\"62\">\n"
            "<3 val=\"63\">\n"
            "<nothing val=\"\">\n");
}

TEST_F(MarshalDump, NullNameIsANumber) {
  EXPECT_EQ(dump(block(1, "a") + end_of_data, 0, {nullptr, nullptr, "x"}), 0);
  EXPECT_EQ(printed, "magic: `'\n<1 val=\"61\">\n<0 val=\"\">\n");
}

TEST_F(MarshalDump, StartAndEndIndentWhatIsBetween) {
  std::vector<const char *> names = {"EOD",  "NOTE_START", "NOTE_END",
                                     "text", "list-start", "list-end"};
  EXPECT_EQ(dump(block(1) + block(3, "a") + block(4) + block(3, "b") + block(9, "c") + block(5) +
                     block(3, "d") + block(2) + block(3, "e") + end_of_data,
                 0, names),
            0);
  EXPECT_EQ(printed,
            "magic: `'\n"
            "<NOTE_START val=\"\">\n"
            "  <text val=\"61\">\n"
            "  <list-start val=\"\">\n"
            "    <text val=\"62\">\n"
            "    <9 val=\"63\">\n"
            "  <list-end val=\"\">\n"
            "  <text val=\"64\">\n"
            "<NOTE_END val=\"\">\n"
            "<text val=\"65\">\n"
            "<EOD val=\"\">\n");
}

TEST_F(MarshalDump, EndWithoutAStartIsToldAndLeavesTheLevel) {
  EXPECT_EQ(dump(block(2) + block(1) + block(3) + block(2) + block(2) + end_of_data, 0,
                 {"EOD", "START", "END", "x"}),
            0);
  EXPECT_EQ(printed,
            "magic: `'\n"
            "ERROR: found end-tag but level is 0\n"
            "<END val=\"\">\n"
            "<START val=\"\">\n"
            "  <x val=\"\">\n"
            "<END val=\"\">\n"
            "ERROR: found end-tag but level is 0\n"
            "<END val=\"\">\n"
            "<EOD val=\"\">\n");
}

TEST_F(MarshalDump, ANameMayStartAndEnd) {
  EXPECT_EQ(
      dump(block(1) + block(2) + block(3) + end_of_data, 0, {"EOD", "start", "end-start", "x"}), 0);
  EXPECT_EQ(printed,
            "magic: `'\n"
            "<start val=\"\">\n"
            "<end-start val=\"\">\n"
            "  <x val=\"\">\n"
            "  <EOD val=\"\">\n");
}

TEST_F(MarshalDump, MixedCaseNeitherStartsNorEnds) {
  EXPECT_EQ(dump(block(1) + block(2) + block(1) + end_of_data, 0, {"EOD", "Start", "End"}), 0);
  EXPECT_EQ(printed,
            "magic: `'\n<Start val=\"\">\n<End val=\"\">\n<Start val=\"\">\n"
            "<EOD val=\"\">\n");
}

TEST_F(MarshalDump, WordsWithinWordsCount) {
  EXPECT_EQ(dump(block(1) + block(2) + end_of_data, 0, {"EOD", "restarted", "vendor"}), 0);
  EXPECT_EQ(printed, "magic: `'\n<restarted val=\"\">\n<vendor val=\"\">\n<EOD val=\"\">\n");
}

TEST_F(MarshalDump, NameOfTheEndOfTheDataCountsLikeAnyOther) {
  EXPECT_EQ(dump(block(1) + end_of_data, 0, {"END", "START"}), 0);
  EXPECT_EQ(printed, "magic: `'\n<START val=\"\">\n<END val=\"\">\n");
}

TEST_F(MarshalDump, EndOfTheDataMayCarryData) {
  EXPECT_EQ(dump(block(0, "a") + block(1), 0), 0);
  EXPECT_EQ(printed, "magic: `'\n<0 val=\"61\">\n");
}

TEST_F(MarshalDump, ReadErrorEndsItBehindWhatWasPrinted) {
  EXPECT_EQ(dump(block(1, "a"), 0), 42);
  EXPECT_EQ(printed, "magic: `'\n<1 val=\"61\">\n");
  EXPECT_TRUE(was_logged(4, "premature EOD on bio")) << log_dump();
  EXPECT_EQ(dump(block(1, "a") + support::from_hex("028880808000"), 0), 2);
  EXPECT_EQ(printed, "magic: `'\n<1 val=\"61\">\n");
  support::script of{.input = block(1, "a") + block(2, "abc")};
  of.reads_left = 6;
  EXPECT_EQ(dump(support::scripted(&of).get(), 0), 10);
  EXPECT_EQ(printed, "magic: `'\n<1 val=\"61\">\n");
}

TEST_F(MarshalDump, MagicThatIsNotThereIsTheReadersError) {
  EXPECT_EQ(dump("MAG", 5), 42);
  EXPECT_EQ(printed, "");
}

TEST_F(MarshalDump, LongDataIsPrintedWhole) {
  EXPECT_EQ(dump(block(1, std::string(100000, '\xee')) + end_of_data, 0), 0);
  EXPECT_EQ(printed, "magic: `'\n<1 val=\"" + std::string(200000, 'E') + "\">\n<0 val=\"\">\n");
}

TEST_F(MarshalDump, DeepNestingIsNoMatter) {
  for (int depth : {256, 5000}) {
    std::string octets;
    for (int i = 0; i < depth; i++)
      octets += block(1);
    for (int i = 0; i < depth; i++)
      octets += block(2);
    EXPECT_EQ(dump(octets + end_of_data, 0, {"EOD", "START", "END"}), 0);
    EXPECT_NE(printed.find("\n" + std::string(510, ' ') + "<START val=\"\">\n"), std::string::npos);
    EXPECT_EQ(printed.find("ERROR"), std::string::npos);
    EXPECT_NE(printed.find("\n  <END val=\"\">\n<END val=\"\">\n<EOD val=\"\">\n"),
              std::string::npos);
  }
}

TEST_F(MarshalDump, DataThatThereIsNoMemoryToPrintIsToldSo) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be told to fail";
  // Standard output has its buffer by now.
  ASSERT_EQ(dump(block(1, "abc") + end_of_data, 0), 0);
  stream in = stream_of(block(1, "abc") + end_of_data);
  testing::internal::CaptureStdout();
  // The first allocation is for the data, the second for its text.
  fake_allocator::fail_at(2);
  int code = dump_raw_bio(in.get(), 0, nullptr, 0);
  fake_allocator::stop_failing();
  printed = testing::internal::GetCapturedStdout();
  EXPECT_EQ(code, 0);
  EXPECT_EQ(printed, "magic: `'\n<1 val=\"no-mem\">\n<0 val=\"\">\n");
}

TEST_F(MarshalDump, NullStreamIsRefused) {
  EXPECT_EQ(dump(static_cast<BIO *>(nullptr), 0), 63);
  EXPECT_EQ(printed, "");
}

TEST(MarshalIndent, PrintsSoManyBlanks) {
  for (int n : {1, 2, 10, 1000}) {
    testing::internal::CaptureStdout();
    indent(n);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), std::string(static_cast<size_t>(n), ' '));
  }
}

TEST(MarshalIndent, PrintsNothingForZeroOrLess) {
  for (int n : {0, -1, INT_MIN}) {
    testing::internal::CaptureStdout();
    indent(n);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  }
}

}  // namespace
