// A whole item in a stream: magic, item, end of the data.
#include <gtest/gtest.h>
#include <libpki/marshal.h>

#include <climits>

#include "fakes/allocator.h"
#include "fakes/log_capture.h"
#include "support/marshal.h"

namespace {

using support::block;
using support::empty_stream;
using support::end_of_data;
using support::hex;
using support::note;
using support::note_item;
using support::note_octets;
using support::note_owner;
using support::octets_in;
using support::stream;
using support::stream_of;

struct MarshalItem : testing::Test {
  void SetUp() override { clear_log(); }
  static std::string marshalled(void *object, const char *magic, int magic_len) {
    stream out = empty_stream();
    EXPECT_EQ(marshall(out.get(), object, &note_item, magic, magic_len), 0);
    return octets_in(out);
  }
  int read(const std::string &octets, const char *magic, int magic_len) {
    return unmarshall(stream_of(octets).get(), &target.object, &note_item, magic, magic_len);
  }
  note_owner target;
};

TEST_F(MarshalItem, IsWrittenAsMagicItemAndEndOfTheData) {
  note_owner sent("hi", 3);
  EXPECT_EQ(hex(marshalled(sent.object, "MAGIC", 5)),
            hex("MAGIC" + note_octets("hi", 3) + end_of_data));
}

TEST_F(MarshalItem, MagicIsOctetsWithoutABlock) {
  note_owner sent("hi", 3);
  EXPECT_EQ(marshalled(sent.object, "M\0\xff", 3),
            std::string("M\0\xff", 3) + note_octets("hi", 3) + end_of_data);
  EXPECT_EQ(marshalled(sent.object, "abc", 0), note_octets("hi", 3) + end_of_data);
}

TEST_F(MarshalItem, NullMagicIsNeitherWrittenNorRead) {
  note_owner sent("hi", 3);
  std::string octets = marshalled(sent.object, nullptr, 5);
  EXPECT_EQ(octets, note_octets("hi", 3) + end_of_data);
  EXPECT_EQ(read(octets, nullptr, 5), 0);
  EXPECT_STREQ(target->text, "hi");
}

TEST_F(MarshalItem, ComesBackAndLeavesTheEndOfTheDataUnread) {
  note_owner sent("hi", 3);
  stream in = stream_of(marshalled(sent.object, "MAGIC", 5));
  EXPECT_EQ(unmarshall(in.get(), &target.object, &note_item, "MAGIC", 5), 0);
  EXPECT_STREQ(target->text, "hi");
  EXPECT_EQ(target->number, 3);
  EXPECT_EQ(octets_in(in), end_of_data);
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(MarshalItem, TagOfTheFirstBlockIsNotCompared) {
  EXPECT_EQ(read(note_octets("hi", 3, 0xee), nullptr, 0), 0);
  EXPECT_STREQ(target->text, "hi");
}

TEST_F(MarshalItem, NullObjectIsMagicAndEndOnly) {
  EXPECT_EQ(marshalled(nullptr, "MAGIC", 5), "MAGIC" + end_of_data);
  EXPECT_EQ(marshalled(nullptr, nullptr, 0), end_of_data);
}

TEST_F(MarshalItem, NullObjectDoesNotComeBack) {
  EXPECT_EQ(read(marshalled(nullptr, "MAGIC", 5), "MAGIC", 5), 42);
  EXPECT_EQ(target.object, nullptr);
}

int seen_tag, seen_length;
int dec_block_seen(BIO *, int tag, const unsigned char *, int len, void *, void *) {
  seen_tag = tag;
  seen_length = len;
  return 33;
}

TEST_F(MarshalItem, NullObjectsStreamGivesTheDecoderABlockOfTagZero) {
  const marshal_item item = {1, enc_struct, nullptr, dec_block_seen, nullptr};
  seen_tag = seen_length = -1;
  EXPECT_EQ(unmarshall(stream_of("MAGIC" + end_of_data).get(), &target.object, &item, "MAGIC", 5),
            33)
      << "the decoder's code";
  EXPECT_EQ(seen_tag, 0);
  EXPECT_EQ(seen_length, 0);
}

void *item_field;
int item_tag;
void *item_arg;
int enc_item(BIO *bio, void *field, int tag, void *arg) {
  item_field = *static_cast<void **>(field);
  item_tag = tag;
  item_arg = arg;
  return write_fully(bio, "item", 4);
}

TEST_F(MarshalItem, EncoderIsGivenTheAddressOfThePointerTheTagAndItsArgument) {
  int anything = 0;
  const marshal_item item = {0x55, enc_item, &anything, dec_block_seen, nullptr};
  stream out = empty_stream();
  EXPECT_EQ(marshall(out.get(), &seen_tag, &item, nullptr, 0), 0);
  EXPECT_EQ(octets_in(out), "item" + end_of_data);
  EXPECT_EQ(item_field, &seen_tag);
  EXPECT_EQ(item_tag, 0x55);
  EXPECT_EQ(item_arg, &anything);
}

int enc_fails(BIO *, void *, int, void *) {
  return 77;
}

TEST_F(MarshalItem, AnEncodersFailureWritesNoEnd) {
  const marshal_item item = {1, enc_fails, nullptr, dec_block_seen, nullptr};
  stream out = empty_stream();
  EXPECT_EQ(marshall(out.get(), nullptr, &item, "MAGIC", 5), 77);
  EXPECT_EQ(octets_in(out), "MAGIC");
}

TEST_F(MarshalItem, AMagicThatIsNotWrittenIsFollowedByNothing) {
  support::script of;
  of.writes_left = 2;
  note_owner sent("hi", 3);
  EXPECT_EQ(marshall(support::scripted(&of).get(), sent.object, &note_item, "MAGIC", 5), 9);
  EXPECT_EQ(of.output, "MA");
}

// ---- wrong magic ----

TEST_F(MarshalItem, WrongMagicIs7WithALineAtLevel2) {
  EXPECT_EQ(read("MAGIX" + note_octets("hi", 3), "MAGIC", 5), 7);
  EXPECT_EQ(target.object, nullptr);
  std::vector<log_entry> expected = {{2, "magic is wrong: got 'MAGIX', expected 'MAGIC'"}};
  EXPECT_EQ(captured_log(), expected) << log_dump();
}

TEST_F(MarshalItem, WrongMagicIsShownUpToItsLengthWithoutANul) {
  const char expected_magic[] = {'A', 'B', 'C', 'D', 'E', 'F'};
  EXPECT_EQ(read("abcdef" + note_octets("hi", 3), expected_magic, 3), 7);
  EXPECT_TRUE(was_logged(2, "magic is wrong: got 'abc', expected 'ABC'")) << log_dump();
}

TEST_F(MarshalItem, WrongMagicIsNoFormat) {
  EXPECT_EQ(read("%s%n" + note_octets("hi", 3), "%d%u", 4), 7);
  EXPECT_TRUE(was_logged(2, "magic is wrong: got '%s%n', expected '%d%u'")) << log_dump();
}

TEST_F(MarshalItem, WrongMagicIsShownWithDotsForWhatIsNotPrintable) {
  EXPECT_EQ(read(std::string("A\0\n\x7f\x80 ~", 7) + note_octets("hi", 3), "M\x1fGIC\xff.", 7), 7);
  EXPECT_TRUE(was_logged(2, "magic is wrong: got 'A.... ~', expected 'M.GIC..'")) << log_dump();
}

TEST_F(MarshalItem, WrongMagicIsShownWholeHoweverLongItIs) {
  for (size_t length : {255, 256, 257, 5000}) {
    const std::string got(length, 'g'), wanted(length, 'w');
    EXPECT_EQ(read(got, wanted.data(), static_cast<int>(length)), 7);
    EXPECT_TRUE(was_logged(2, "magic is wrong: got '" + got + "', expected '" + wanted + "'"));
  }
}

// The first allocation is for the magic itself.
TEST_F(MarshalItem, WrongMagicIsShownWithoutMemoryToo) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be told to fail";
  for (size_t length : {5, 256, 257, 5000}) {
    const std::string got(length, 'g'), wanted(length, 'w');
    stream in = stream_of(got);
    fake_allocator::fail_at(2, true);
    int code =
        unmarshall(in.get(), &target.object, &note_item, wanted.data(), static_cast<int>(length));
    fake_allocator::stop_failing();
    EXPECT_EQ(code, 7);
    EXPECT_TRUE(was_logged(2, "magic is wrong: got '" + got.substr(0, 256) + "', expected '" +
                                  wanted.substr(0, 256) + "'"))
        << log_dump();
  }
}

TEST_F(MarshalItem, EachOctetOfTheMagicIsCompared) {
  const std::string magic(
      "M\0G\xff"
      "C",
      5);
  for (size_t at = 0; at < magic.size(); at++) {
    std::string other = magic;
    other[at] ^= 1;
    EXPECT_EQ(read(other + note_octets("hi", 3), magic.data(), 5), 7) << at;
  }
  EXPECT_EQ(read(magic + note_octets("hi", 3), magic.data(), 5), 0);
}

TEST_F(MarshalItem, MagicOfNoLengthIsAlwaysRight) {
  EXPECT_EQ(read(note_octets("hi", 3), "MAGIC", 0), 0);
  EXPECT_STREQ(target->text, "hi");
}

TEST_F(MarshalItem, MagicThatEndsEarlyIs42WithoutALine) {
  EXPECT_EQ(read("MAG", "MAGIC", 5), 42);
  EXPECT_EQ(read("", "MAGIC", 5), 42);
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(MarshalItem, InputThatEndsBehindTheMagicIs42WithALine) {
  EXPECT_EQ(read("MAGIC", "MAGIC", 5), 42);
  EXPECT_TRUE(was_logged(4, "premature EOD on bio")) << log_dump();
}

// ---- the target ----

TEST_F(MarshalItem, ObjectThatIsThereIsReplaced) {
  note_owner read("old", 1);
  EXPECT_EQ(
      unmarshall(stream_of(note_octets("new", 2)).get(), &read.object, &note_item, nullptr, 0), 0);
  EXPECT_STREQ(read->text, "new");
  EXPECT_EQ(support::notes_alive, 1);
}

TEST_F(MarshalItem, AFailureInTheItemFreesTheObjectThatIsThere) {
  note_owner read("old", 1);
  EXPECT_EQ(unmarshall(stream_of(block(1)).get(), &read.object, &note_item, nullptr, 0), 42);
  EXPECT_EQ(read.object, nullptr);
  EXPECT_EQ(support::notes_alive, 0);
}

TEST_F(MarshalItem, AFailureBeforeTheItemLeavesTheObjectThatIsThere) {
  note_owner read("old", 1);
  note *before = read.object;
  EXPECT_EQ(unmarshall(stream_of("MAGIX").get(), &read.object, &note_item, "MAGIC", 5), 7);
  EXPECT_EQ(unmarshall(stream_of("MAGIC").get(), &read.object, &note_item, "MAGIC", 5), 42);
  ASSERT_EQ(read.object, before);
  EXPECT_STREQ(read->text, "old");
}

TEST_F(MarshalItem, ItemsFollowEachOtherInAStream) {
  note_owner first("one", 1), second("two", 2);
  stream io = stream_of(marshalled(first.object, "A", 1) + marshalled(second.object, "A", 1));
  for (const char *text : {"one", "two"}) {
    EXPECT_EQ(unmarshall(io.get(), &target.object, &note_item, "A", 1), 0);
    EXPECT_STREQ(target->text, text);
    char end[2];
    EXPECT_EQ(read_fully(io.get(), end, 2), 0);
  }
}

TEST_F(MarshalItem, NullArgumentsAndNegativeLengthsAreRefused) {
  stream io = stream_of("MAGIC");
  note_owner sent("hi", 3);
  const marshal_item no_functions = {1, nullptr, nullptr, nullptr, nullptr};
  EXPECT_EQ(marshall(nullptr, sent.object, &note_item, "M", 1), 63);
  EXPECT_EQ(marshall(io.get(), sent.object, nullptr, "M", 1), 63);
  EXPECT_EQ(marshall(io.get(), sent.object, &no_functions, "M", 1), 63);
  EXPECT_EQ(marshall(io.get(), sent.object, &note_item, "M", -1), 63);
  EXPECT_EQ(unmarshall(nullptr, &target.object, &note_item, "M", 1), 63);
  EXPECT_EQ(unmarshall(io.get(), nullptr, &note_item, "M", 1), 63);
  EXPECT_EQ(unmarshall(io.get(), &target.object, nullptr, "M", 1), 63);
  EXPECT_EQ(unmarshall(io.get(), &target.object, &no_functions, "M", 1), 63);
  EXPECT_EQ(unmarshall(io.get(), &target.object, &note_item, "M", -1), 63);
  EXPECT_EQ(octets_in(io), "MAGIC");
}

}  // namespace
