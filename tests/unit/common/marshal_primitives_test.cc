// Numbers, times and texts: their octets, and what becomes of them.
#include <gtest/gtest.h>
#include <libpki/marshal.h>

#include <climits>
#include <cstdint>

#include "fakes/log_capture.h"
#include "support/marshal.h"

namespace {

using support::block;
using support::decode;
using support::empty_stream;
using support::encoded;
using support::from_hex;
using support::hex;
using support::image;
using support::octets_in;
using support::stream;

struct MarshalPrimitives : testing::Test {
  void SetUp() override { clear_log(); }
};

// ---- int ----

TEST_F(MarshalPrimitives, IntIsFourOctetsAsInMemory) {
  for (int value : {0, 1, -1, 0x01020304, INT_MAX, INT_MIN}) {
    std::string octets = encoded(enc_int, &value, 0x21);
    EXPECT_EQ(hex(octets), "2104" + hex(image<int32_t>(value)));
    int back = 55;
    EXPECT_EQ(decode(octets, dec_int, &back), 0);
    EXPECT_EQ(back, value);
  }
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(MarshalPrimitives, ShortIntIs42AndStoresNothing) {
  for (size_t length = 0; length < 4; length++) {
    int target = 55;
    EXPECT_EQ(decode(block(1, std::string(length, '\1')), dec_int, &target), 42) << length;
    EXPECT_EQ(target, 55);
  }
}

TEST_F(MarshalPrimitives, LongIntIsReadFromItsFirstOctets) {
  int target = 0;
  EXPECT_EQ(decode(block(1, image<int32_t>(-12345) + "more"), dec_int, &target), 0);
  EXPECT_EQ(target, -12345);
}

// ---- time_t ----

TEST_F(MarshalPrimitives, TimeIsFourOctetsOfSecondsSinceTheEpoch) {
  for (time_t value : {time_t{0}, time_t{1}, time_t{1700000000}, time_t{INT32_MAX}, time_t{-1},
                       time_t{INT32_MIN}}) {
    std::string octets = encoded(enc_time, &value, 0x22);
    EXPECT_EQ(hex(octets), "2204" + hex(image(static_cast<int32_t>(value))));
    time_t back = 55;
    EXPECT_EQ(decode(octets, dec_time, &back), 0);
    EXPECT_EQ(back, value) << "sign and upper half included";
  }
}

TEST_F(MarshalPrimitives, TimeThat32BitsCannotHoldIsRefusedAndNotWritten) {
  if (sizeof(time_t) == sizeof(int32_t))
    GTEST_SKIP() << "there is no such time here";
  for (int64_t value :
       {int64_t{INT32_MAX} + 1, int64_t{INT32_MIN} - 1, int64_t{1} << 32, INT64_MAX, INT64_MIN}) {
    time_t time = static_cast<time_t>(value);
    stream out = empty_stream();
    EXPECT_EQ(enc_time(out.get(), &time, 1, nullptr), 63) << value;
    EXPECT_EQ(octets_in(out), "") << value;
  }
}

TEST_F(MarshalPrimitives, ShortTimeIs42AndStoresNothing) {
  for (size_t length = 0; length < 4; length++) {
    time_t target = 55;
    EXPECT_EQ(decode(block(1, std::string(length, '\1')), dec_time, &target), 42) << length;
    EXPECT_EQ(target, 55);
  }
}

TEST_F(MarshalPrimitives, LongTimeIsReadFromItsFirstOctets) {
  time_t target = 0;
  EXPECT_EQ(decode(block(1, image<int32_t>(1700000000) + "more"), dec_time, &target), 0);
  EXPECT_EQ(target, 1700000000);
}

// ---- struct tm ----

tm some_time() {
  tm time = {};
  time.tm_sec = 1;
  time.tm_min = 2;
  time.tm_hour = 3;
  time.tm_mday = 4;
  time.tm_mon = 5;
  time.tm_year = 106;
  time.tm_wday = 7;
  time.tm_yday = 208;
  time.tm_isdst = -1;
  time.tm_gmtoff = -18000;
  time.tm_zone = "EST";
  return time;
}

std::string octets_of(const tm &time) {
  return image(time.tm_sec) + image(time.tm_min) + image(time.tm_hour) + image(time.tm_mday) +
         image(time.tm_mon) + image(time.tm_year) + image(time.tm_wday) + image(time.tm_yday) +
         image(time.tm_isdst) + image(static_cast<int32_t>(time.tm_gmtoff)) + image<int32_t>(0);
}

TEST_F(MarshalPrimitives, BrokenDownTimeIs44OctetsWithoutTheZonesName) {
  tm time = some_time();
  std::string octets = encoded(enc_struct_tm, &time, 0x23);
  EXPECT_EQ(octets.size(), 46u);
  EXPECT_EQ(hex(octets), "232c" + hex(octets_of(time)));
}

TEST_F(MarshalPrimitives, BrokenDownTimeComesBackWithItsOffset) {
  tm time = some_time(), back = {};
  back.tm_zone = "old";
  EXPECT_EQ(decode(encoded(enc_struct_tm, &time, 1), dec_struct_tm, &back), 0);
  EXPECT_EQ(octets_of(back), octets_of(time));
  EXPECT_EQ(back.tm_gmtoff, -18000);
  EXPECT_EQ(back.tm_zone, nullptr);
}

TEST_F(MarshalPrimitives, ZoneNeverComesFromTheStream) {
  tm back = some_time();
  EXPECT_EQ(decode(block(1, std::string(100, '\x41')), dec_struct_tm, &back), 0);
  EXPECT_EQ(back.tm_sec, 0x41414141);
  EXPECT_EQ(back.tm_isdst, 0x41414141);
  EXPECT_EQ(back.tm_gmtoff, 0x41414141);
  EXPECT_EQ(back.tm_zone, nullptr);
}

TEST_F(MarshalPrimitives, OffsetThat32BitsCannotHoldIsRefusedAndNotWritten) {
  if (sizeof(tm::tm_gmtoff) == sizeof(int32_t))
    GTEST_SKIP() << "there is no such offset here";
  for (int64_t offset : {int64_t{INT32_MAX} + 1, int64_t{INT32_MIN} - 1, INT64_MAX, INT64_MIN}) {
    tm time = some_time();
    time.tm_gmtoff = static_cast<long>(offset);
    stream out = empty_stream();
    EXPECT_EQ(enc_struct_tm(out.get(), &time, 1, nullptr), 63) << offset;
    EXPECT_EQ(octets_in(out), "") << offset;
  }
}

TEST_F(MarshalPrimitives, ShortBrokenDownTimeIs42AndStoresNothing) {
  for (size_t length = 0; length < 44; length++) {
    tm target = some_time();
    const tm before = target;
    EXPECT_EQ(decode(block(1, std::string(length, '\1')), dec_struct_tm, &target), 42) << length;
    EXPECT_EQ(octets_of(target), octets_of(before));
    EXPECT_EQ(target.tm_zone, before.tm_zone);
  }
}

// ---- texts ----

TEST_F(MarshalPrimitives, TextIsWrittenWithoutItsNul) {
  const char *text = "abc";
  EXPECT_EQ(hex(encoded(enc_str, &text, 0x24)), "2403616263");
}

TEST_F(MarshalPrimitives, NullTextIsNotWritten) {
  const char *text = nullptr;
  EXPECT_EQ(encoded(enc_str, &text, 0x24), "");
}

TEST_F(MarshalPrimitives, EmptyTextIsABlockOfLengthZeroAndComesBackEmpty) {
  const char *text = "";
  EXPECT_EQ(hex(encoded(enc_str, &text, 0x24)), "2400");
  char *back = nullptr;
  EXPECT_EQ(decode(from_hex("2400"), dec_str, &back), 0);
  ASSERT_NE(back, nullptr);
  EXPECT_STREQ(back, "");
  free(back);
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(MarshalPrimitives, TextComesBackWithANul) {
  char *back = nullptr;
  EXPECT_EQ(decode(block(1, "some text"), dec_str, &back), 0);
  EXPECT_STREQ(back, "some text");
  free(back);
}

TEST_F(MarshalPrimitives, OctetsZeroInATextAreKept) {
  char *back = nullptr;
  EXPECT_EQ(decode(block(1, std::string("a\0b", 3)), dec_str, &back), 0);
  EXPECT_EQ(std::string(back, 4), std::string("a\0b\0", 4));
  free(back);
}

TEST_F(MarshalPrimitives, SecondTextReplacesTheFirstWithALine) {
  char *text = strdup("first");
  EXPECT_EQ(decode(block(1, "second"), dec_str, &text), 0);
  EXPECT_STREQ(text, "second");
  free(text);
  std::vector<log_entry> expected = {{4, "read duplicate string: old='first', new='second'"}};
  EXPECT_EQ(captured_log(), expected) << log_dump();
}

TEST_F(MarshalPrimitives, TextsAreNoFormats) {
  char *text = strdup("%s%n");
  EXPECT_EQ(decode(block(1, "%d 100%"), dec_str, &text), 0);
  free(text);
  EXPECT_TRUE(was_logged(4, "read duplicate string: old='%s%n', new='%d 100%'")) << log_dump();
}

TEST_F(MarshalPrimitives, EqualTextIsADuplicateAllTheSame) {
  char *text = strdup("");
  EXPECT_EQ(decode(block(1), dec_str, &text), 0);
  EXPECT_STREQ(text, "");
  free(text);
  EXPECT_TRUE(was_logged(4, "read duplicate string: old='', new=''")) << log_dump();
}

TEST_F(MarshalPrimitives, DataIsLeftToTheCaller) {
  unsigned char data[] = {'a', 'b', 'c', 0};
  char *text = nullptr;
  EXPECT_EQ(dec_str(nullptr, 1, data, 3, &text, nullptr), 0);
  data[0] = 'x';
  EXPECT_STREQ(text, "abc");
  free(text);
}

// ---- all ----

TEST_F(MarshalPrimitives, OnlyTheLowEightBitsOfATagAreWritten) {
  int number = 0;
  EXPECT_EQ(encoded(enc_int, &number, 0x1fe)[0], '\xfe');
  EXPECT_EQ(encoded(enc_int, &number, 256)[0], '\0');
  const char *text = "";
  EXPECT_EQ(encoded(enc_str, &text, 0x305)[0], '\5');
}

TEST_F(MarshalPrimitives, NullArgumentsAreRefused) {
  stream out = empty_stream();
  int number = 0;
  time_t time = 0;
  tm broken = {};
  char *text = nullptr;
  for (auto [enc, field] : {std::pair<marshal_enc_fn *, void *>{enc_int, &number},
                            {enc_time, &time},
                            {enc_struct_tm, &broken}}) {
    EXPECT_EQ(enc(nullptr, field, 1, nullptr), 63);
    EXPECT_EQ(enc(out.get(), nullptr, 1, nullptr), 63);
  }
  EXPECT_EQ(enc_str(out.get(), nullptr, 1, nullptr), 63);
  EXPECT_EQ(octets_in(out), "");
  const unsigned char data[44] = {};
  for (marshal_dec_fn *dec : {dec_int, dec_time, dec_struct_tm, dec_str})
    EXPECT_EQ(dec(out.get(), 1, data, 44, nullptr, nullptr), 63);
  EXPECT_EQ(dec_str(out.get(), 1, nullptr, 3, &text, nullptr), 63);
  EXPECT_EQ(text, nullptr);
}

// ---- skipping ----

TEST_F(MarshalPrimitives, SkipGoesToTheEndTagAndNoFurther) {
  int end_tag = 9;
  stream in = support::stream_of(block(1, "abc") + block(2) + block(9, "xy") + block(3));
  EXPECT_EQ(skip_struct(in.get(), 7, nullptr, 0, nullptr, &end_tag), 0);
  EXPECT_EQ(octets_in(in), block(3));
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(MarshalPrimitives, SkipReadsNothingWhenTheTagIsTheEndAlready) {
  int end_tag = 9;
  stream in = support::stream_of(block(1) + block(9));
  EXPECT_EQ(skip_struct(in.get(), 9, nullptr, 0, nullptr, &end_tag), 0);
  EXPECT_EQ(octets_in(in), block(1) + block(9));
}

TEST_F(MarshalPrimitives, SkipCountsNoNestingAndGoesOverTheEndOfTheData) {
  int end_tag = 9;
  stream in = support::stream_of(support::end_of_data + block(8) + block(8) + block(9) + block(9));
  EXPECT_EQ(skip_struct(in.get(), 8, nullptr, 0, nullptr, &end_tag), 0);
  EXPECT_EQ(octets_in(in), block(9));
}

TEST_F(MarshalPrimitives, SkipReturnsWhatReadingABlockReturns) {
  int end_tag = 9;
  auto skip = [&](const std::string &octets) {
    return skip_struct(support::stream_of(octets).get(), 1, nullptr, 0, nullptr, &end_tag);
  };
  EXPECT_EQ(skip(block(1)), 42);
  EXPECT_TRUE(was_logged(4, "premature EOD on bio")) << log_dump();
  EXPECT_EQ(skip(from_hex("01 88 80 80 80 00")), 2);
  support::script of{.input = block(1)};
  of.reads_left = 2;
  EXPECT_EQ(skip_struct(support::scripted(&of).get(), 1, nullptr, 0, nullptr, &end_tag), 10);
  EXPECT_EQ(skip_struct(support::stream_of("").get(), 1, nullptr, 0, nullptr, nullptr), 63);
}

TEST_F(MarshalPrimitives, SkipServesAsTheDecoderOfAField) {
  static const int end_tag = 0x51;
  const marshal_field fields[] = {
      support::field(offsetof(support::note, number), 0x13, enc_int, dec_int),
      support::field(0, 0x50, enc_asn1_struct, skip_struct, &end_tag), support::last_field()};
  const marshal_struct_desc desc = {0, 2, nullptr, nullptr, 1, fields};
  support::note target;
  std::string octets = block(1) + block(0x50) + support::int_block(0x13, 5) + block(0x51) +
                       support::int_block(0x13, 6) + block(2);
  EXPECT_EQ(decode(octets, dec_struct, &target, &desc), 0);
  EXPECT_EQ(target.number, 6);
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

}  // namespace
