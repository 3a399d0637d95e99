// Octets of a block, and blocks that should not be there.
#include <gtest/gtest.h>
#include <libpki/marshal.h>

#include <climits>

#include "fakes/log_capture.h"
#include "support/marshal.h"

namespace {

using support::block;
using support::empty_stream;
using support::from_hex;
using support::hex;
using support::octets_in;
using support::premature;
using support::stream;
using support::stream_of;

struct MarshalBlocks : testing::Test {
  void SetUp() override { clear_log(); }
  void TearDown() override { free(data); }

  int read(const std::string &octets) { return read_from(stream_of(octets).get()); }
  int read_from(BIO *bio) {
    free(data);
    data = nullptr;
    tag = length = -7;
    return read_block(bio, &tag, &length, &data);
  }
  std::string payload() const {
    return std::string(reinterpret_cast<char *>(data), static_cast<size_t>(length));
  }
  int tag = -7;
  int length = -7;
  unsigned char *data = nullptr;
};

std::string header_of(int length) {
  std::string data(static_cast<size_t>(length), 'x');
  stream out = empty_stream();
  EXPECT_EQ(write_block(out.get(), 1, data.data(), length), 0);
  std::string made = octets_in(out);
  return hex(made.substr(1, made.size() - 1 - data.size()));
}

TEST_F(MarshalBlocks, LengthIsWrittenInBase128) {
  EXPECT_EQ(header_of(0), "00");
  EXPECT_EQ(header_of(1), "01");
  EXPECT_EQ(header_of(127), "7f");
  EXPECT_EQ(header_of(128), "8100");
  EXPECT_EQ(header_of(129), "8101");
  EXPECT_EQ(header_of(300), "822c");
  EXPECT_EQ(header_of(16256), "ff00");
  EXPECT_EQ(header_of(16383), "ff7f");
}

TEST_F(MarshalBlocks, ZeroGroupsOfALengthAreLeftOutWhereverTheyStand) {
  EXPECT_EQ(header_of(16384), "8100");
  EXPECT_EQ(header_of(16385), "8101");
  EXPECT_EQ(header_of(16512), "818100");
  EXPECT_EQ(header_of(1 << 21), "8100");
  EXPECT_EQ(header_of((1 << 21) + 5), "8105");
  EXPECT_EQ(header_of((1 << 21) + (3 << 14)), "818300");
  EXPECT_EQ(header_of((1 << 21) + (3 << 7)), "818300");
  EXPECT_EQ(header_of((1 << 21) + (3 << 14) + (4 << 7) + 5), "81838405");
}

TEST_F(MarshalBlocks, AllFiveGroupsOfALengthAreWritten) {
  const int size = (2 << 28) | (3 << 21) | (4 << 14) | (5 << 7) | 6;
  support::script of;
  of.chunk = 1 << 20;
  of.writes_left = 6;
  stream out = support::scripted(&of);
  // The payload is never looked at: the stream takes the header only.
  EXPECT_EQ(write_block(out.get(), 1, "", size), 9);
  EXPECT_EQ(hex(of.output), "018283848506");
}

TEST_F(MarshalBlocks, GroupsThatWereLeftOutAreMissedByTheReader) {
  std::string long_one(16384, 'a');
  stream io = empty_stream();
  ASSERT_EQ(write_block(io.get(), 9, long_one.data(), 16384), 0);
  EXPECT_EQ(read_from(io.get()), 0);
  EXPECT_EQ(length, 128);
  EXPECT_EQ(payload(), std::string(128, 'a'));
}

TEST_F(MarshalBlocks, LengthsWithoutInnerZeroGroupsComeBack) {
  for (int size : {0, 1, 127, 128, 300, 16383, 16512, 20000, 65535, 100000, 2113664}) {
    std::string sent(static_cast<size_t>(size), 'z');
    stream io = empty_stream();
    ASSERT_EQ(write_block(io.get(), 77, sent.data(), size), 0);
    ASSERT_EQ(read_from(io.get()), 0) << size;
    EXPECT_EQ(tag, 77);
    ASSERT_EQ(length, size);
    EXPECT_TRUE(payload() == sent) << size;
    EXPECT_EQ(octets_in(io), "");
  }
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(MarshalBlocks, BlockIsTagLengthAndData) {
  stream out = empty_stream();
  EXPECT_EQ(write_block(out.get(), 0x42, "ab\0c", 4), 0);
  EXPECT_EQ(hex(octets_in(out)), "420461620063");
}

TEST_F(MarshalBlocks, OnlyTheLowEightBitsOfATagAreWritten) {
  stream out = empty_stream();
  EXPECT_EQ(write_block(out.get(), 0, nullptr, 0), 0);
  EXPECT_EQ(write_block(out.get(), 256, nullptr, 0), 0);
  EXPECT_EQ(write_block(out.get(), 0x1ff, nullptr, 0), 0);
  EXPECT_EQ(write_block(out.get(), -1, nullptr, 0), 0);
  EXPECT_EQ(hex(octets_in(out)), "00000000ff00ff00");
}

TEST_F(MarshalBlocks, LengthZeroWritesNoData) {
  stream out = empty_stream();
  EXPECT_EQ(write_fully(out.get(), "abc", 0), 0);
  EXPECT_EQ(hex(octets_in(out)), "");
  EXPECT_EQ(write_block(out.get(), 5, "abc", 0), 0);
  EXPECT_EQ(hex(octets_in(out)), "0500");
}

TEST_F(MarshalBlocks, LengthsThatNoReaderTakesAreRefused) {
  char buffer[4];
  for (int wrong : {-1, INT_MIN, INT_MAX}) {
    stream out = empty_stream();
    EXPECT_EQ(write_block(out.get(), 5, "abc", wrong), 63) << wrong;
    EXPECT_EQ(octets_in(out), "") << wrong;
  }
  stream out = empty_stream();
  EXPECT_EQ(write_fully(out.get(), "abc", -1), 63);
  EXPECT_EQ(write_fully(out.get(), "abc", INT_MIN), 63);
  EXPECT_EQ(read_fully(stream_of("abc").get(), buffer, -1), 63);
}

TEST_F(MarshalBlocks, HeaderIsOneWriteAndDataAnother) {
  support::script of;
  of.chunk = 1000;
  stream out = support::scripted(&of);
  EXPECT_EQ(write_block(out.get(), 1, "abc", 3), 0);
  EXPECT_EQ(of.asked, (std::vector<size_t>{2, 3}));
  of.asked.clear();
  EXPECT_EQ(write_block(out.get(), 1, std::string(300, 'x').data(), 300), 0);
  EXPECT_EQ(of.asked, (std::vector<size_t>{3, 300}));
  of.asked.clear();
  EXPECT_EQ(write_block(out.get(), 1, nullptr, 0), 0);
  EXPECT_EQ(of.asked, (std::vector<size_t>{2}));
}

TEST_F(MarshalBlocks, EmptyBlockReadsAsNullAndLengthZero) {
  EXPECT_EQ(read(from_hex("0700")), 0);
  EXPECT_EQ(tag, 7);
  EXPECT_EQ(length, 0);
  EXPECT_EQ(data, nullptr);
}

TEST_F(MarshalBlocks, TagsAbove127AreNotNegative) {
  EXPECT_EQ(read(from_hex("ff00")), 0);
  EXPECT_EQ(tag, 255);
  EXPECT_EQ(read(from_hex("8000")), 0);
  EXPECT_EQ(tag, 128);
}

TEST_F(MarshalBlocks, NothingBehindABlockIsRead) {
  stream in = stream_of(from_hex("0102aabb0301cc"));
  EXPECT_EQ(read_from(in.get()), 0);
  EXPECT_EQ(hex(payload()), "aabb");
  EXPECT_EQ(hex(octets_in(in)), "0301cc");
}

TEST_F(MarshalBlocks, LeadingZeroGroupsOfALengthAreAllowed) {
  EXPECT_EQ(read(from_hex("01 80 80 80 03 616263")), 0);
  EXPECT_EQ(payload(), "abc");
  std::string thousands = "\x01" + std::string(5000, '\x80') + "\x03" + "abc";
  EXPECT_EQ(read(thousands), 0);
  EXPECT_EQ(payload(), "abc");
  EXPECT_EQ(read("\x01" + std::string(5000, '\x80') + std::string(1, '\0')), 0);
  EXPECT_EQ(data, nullptr);
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(MarshalBlocks, EmptyInputIs42WithALine) {
  EXPECT_EQ(read(""), 42);
  EXPECT_EQ(data, nullptr);
  EXPECT_EQ(captured_log(), (std::vector<log_entry>{{4, premature}})) << log_dump();
}

TEST_F(MarshalBlocks, InputThatEndsBehindATagIs42WithALine) {
  EXPECT_EQ(read("\x05"), 42);
  EXPECT_EQ(data, nullptr);
  EXPECT_EQ(captured_log(), (std::vector<log_entry>{{4, premature}})) << log_dump();
}

TEST_F(MarshalBlocks, InputThatEndsInALengthIs42WithALine) {
  EXPECT_EQ(read("\x05\x81"), 42);
  EXPECT_EQ(data, nullptr);
  EXPECT_EQ(captured_log(), (std::vector<log_entry>{{4, premature}})) << log_dump();
  clear_log();
  EXPECT_EQ(read("\x05" + std::string(5000, '\x80')), 42);
  EXPECT_EQ(captured_log(), (std::vector<log_entry>{{4, premature}})) << log_dump();
}

TEST_F(MarshalBlocks, InputThatEndsInTheDataIs42WithoutALine) {
  for (const char *octets : {"0503", "05036161", "05ff7f61"}) {
    EXPECT_EQ(read(from_hex(octets)), 42) << octets;
    EXPECT_EQ(data, nullptr) << octets;
  }
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(MarshalBlocks, LengthsThatNoIntHoldsAreOutOfMemory) {
  for (const char *octets : {"01 87ffffff7f",  // 2^31 - 1: with a NUL behind it no int any more
                             "01 8880808000",  // 2^31
                             "01 9080808000",  // 2^32
                             "01 9080808003",  // 2^32 + 3
                             "01 81808080808080808003",    // 2^63 + 3
                             "01 8180808080808080808003",  // 2^70 + 3
                             "01 ffffffffffffffffffff7f"}) {
    EXPECT_EQ(read(from_hex(octets) + "abc"), 2) << octets;
    EXPECT_EQ(data, nullptr) << octets;
  }
}

// 2^31 - 2: whether there is memory for it or not, the data is not.
TEST_F(MarshalBlocks, LongestLengthIsTriedAndMissed) {
  int code = read(from_hex("01 87ffffff7e") + "abc");
  EXPECT_TRUE(code == 42 || code == 2) << code;
  EXPECT_EQ(data, nullptr);
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(MarshalBlocks, LengthOfThousandsOfOctetsIsOutOfMemory) {
  for (char octet : {'\x80', '\x81', '\xff'})
    for (char last : {'\x00', '\x03'}) {
      std::string octets = "\x01\x81" + std::string(5000, octet) + std::string(1, last) + "abc";
      EXPECT_EQ(read(octets), 2) << static_cast<int>(octet);
      EXPECT_EQ(data, nullptr);
    }
}

TEST_F(MarshalBlocks, ReadFullyReadsExactlyWhatIsAskedFor) {
  stream in = stream_of("abcdef");
  char buffer[6] = "-----";
  EXPECT_EQ(read_fully(in.get(), buffer, 4), 0);
  EXPECT_STREQ(buffer, "abcd-");
  EXPECT_EQ(octets_in(in), "ef");
}

TEST_F(MarshalBlocks, ReadFullyOfNothingSucceedsAtTheEnd) {
  char none = '-';
  EXPECT_EQ(read_fully(stream_of("").get(), &none, 0), 0);
  EXPECT_EQ(none, '-');
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(MarshalBlocks, ReadFullyAtTheEndOfInputIs42WithoutALine) {
  char buffer[8];
  EXPECT_EQ(read_fully(stream_of("abcdef").get(), buffer, 7), 42);
  EXPECT_EQ(read_fully(stream_of("").get(), buffer, 1), 42);
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

// BIO_s_mem says "try again" at its end unless it is told otherwise; that is an end all the same.
TEST_F(MarshalBlocks, EndOfAStreamInMemoryIsAnEndInEachOfItsModes) {
  char buffer[4];
  stream growing = empty_stream();
  BIO_write(growing.get(), "ab", 2);
  EXPECT_EQ(read_fully(growing.get(), buffer, 3), 42);
  stream fixed(BIO_new_mem_buf("ab", 2));
  EXPECT_EQ(read_fully(fixed.get(), buffer, 3), 42);
}

TEST_F(MarshalBlocks, WriteFullyWritesItAll) {
  stream out = empty_stream();
  EXPECT_EQ(write_fully(out.get(), "a\0b", 3), 0);
  EXPECT_EQ(hex(octets_in(out)), "610062");
}

TEST_F(MarshalBlocks, NullArgumentsAreRefused) {
  stream io = stream_of(from_hex("0102aabb"));
  char buffer[2];
  EXPECT_EQ(write_fully(nullptr, "a", 1), 63);
  EXPECT_EQ(write_fully(io.get(), nullptr, 1), 63);
  EXPECT_EQ(read_fully(nullptr, buffer, 1), 63);
  EXPECT_EQ(read_fully(io.get(), nullptr, 1), 63);
  EXPECT_EQ(write_block(nullptr, 1, "a", 1), 63);
  EXPECT_EQ(write_block(io.get(), 1, nullptr, 1), 63);
  EXPECT_EQ(read_block(nullptr, &tag, &length, &data), 63);
  EXPECT_EQ(read_block(io.get(), nullptr, &length, &data), 63);
  EXPECT_EQ(read_block(io.get(), &tag, nullptr, &data), 63);
  EXPECT_EQ(read_block(io.get(), &tag, &length, nullptr), 63);
  EXPECT_EQ(hex(octets_in(io)), "0102aabb");
}

TEST_F(MarshalBlocks, AFailureLeavesNoLengthEither) {
  for (const char *octets : {"", "05", "0581", "050361", "018880808000"}) {
    EXPECT_NE(read(from_hex(octets)), 0);
    EXPECT_EQ(length, 0) << octets;
    EXPECT_EQ(data, nullptr) << octets;
  }
}

}  // namespace
