// Structures: what is written, in which order it may be read, and what a failure leaves behind.
#include <gtest/gtest.h>
#include <libpki/marshal.h>

#include "fakes/log_capture.h"
#include "support/marshal.h"

namespace {

using support::block;
using support::decode;
using support::empty_stream;
using support::encoded;
using support::field;
using support::from_hex;
using support::hex;
using support::int_block;
using support::last_field;
using support::note;
using support::note_desc;
using support::note_octets;
using support::note_owner;
using support::octets_in;
using support::stream;

struct MarshalStruct : testing::Test {
  void SetUp() override { clear_log(); }
  void TearDown() override { EXPECT_EQ(support::notes_alive, 0); }
};

// An object with one note within it and one beside it.
struct folder {
  int before;
  note inner;
  note *outer;
};
int folders_freed = 0;
void *new_folder() {
  return calloc(1, sizeof(folder));
}
void free_folder(void *object) {
  folder *of = static_cast<folder *>(object);
  if (!of)
    return;
  folders_freed++;
  free(of->inner.text);
  support::free_note(of->outer);
  free(of);
}
const marshal_field folder_fields[] = {
    field(offsetof(folder, before), 0x30, enc_int, dec_int),
    field(offsetof(folder, inner), 0x31, enc_struct, dec_struct, &support::inline_note_desc),
    field(offsetof(folder, outer), 0x32, enc_struct, dec_struct, &note_desc),
    last_field(),
};
const marshal_struct_desc folder_desc = {0, 0x3f, new_folder, free_folder, 0, folder_fields};

// ---- writing ----

TEST_F(MarshalStruct, IsWrittenBetweenEmptyBlocksInTheTablesOrder) {
  note_owner sent("hello", 7);
  EXPECT_EQ(hex(encoded(enc_struct, &sent.object, 0x20, &note_desc)),
            "2000"
            "120568656c6c6f"
            "1304" +
                hex(support::image(7)) + "1100");
}

TEST_F(MarshalStruct, NullObjectIsNotWritten) {
  note *none = nullptr;
  EXPECT_EQ(encoded(enc_struct, &none, 0x20, &note_desc), "");
}

TEST_F(MarshalStruct, InlineStructureIsWrittenLikeAnyOther) {
  note here;
  here.number = 3;
  EXPECT_EQ(encoded(enc_struct, &here, 0x20, &support::inline_note_desc),
            block(0x20) + int_block(0x13, 3) + block(0x11));
}

TEST_F(MarshalStruct, FieldsThatWriteNothingAreAbsent) {
  folder of = {};
  folder *object = &of;
  EXPECT_EQ(
      encoded(enc_struct, &object, 1, &folder_desc),
      block(1) + int_block(0x30, 0) + block(0x31) + int_block(0x13, 0) + block(0x11) + block(0x3f));
}

int unreachable_enc(BIO *, void *, int, void *) {
  ADD_FAILURE() << "called behind a failure";
  return 0;
}

TEST_F(MarshalStruct, AnEncodersFailureEndsItWithoutAnEndBlock) {
  const marshal_field fields[] = {field(offsetof(note, number), 1, enc_int, dec_int),
                                  field(0, 2, support::enc_fails_with_77, dec_int),
                                  field(0, 3, unreachable_enc, dec_int), last_field()};
  const marshal_struct_desc desc = {0, 9, nullptr, nullptr, 1, fields};
  note here;
  stream out = empty_stream();
  EXPECT_EQ(enc_struct(out.get(), &here, 5, support::arg(&desc)), 77);
  EXPECT_EQ(octets_in(out), block(5) + int_block(1, 0));
}

TEST_F(MarshalStruct, ANullEncoderEndsTheTableForWriting) {
  const marshal_field fields[] = {field(offsetof(note, number), 1, enc_int, dec_int),
                                  field(0, 2, nullptr, dec_int),
                                  field(0, 3, unreachable_enc, dec_int), last_field()};
  const marshal_struct_desc desc = {0, 9, nullptr, nullptr, 1, fields};
  note here;
  EXPECT_EQ(encoded(enc_struct, &here, 5, &desc), block(5) + int_block(1, 0) + block(9));
}

struct seen_arguments {
  BIO *bio;
  void *field;
  int tag;
  void *arg;
} seen;
int enc_seen(BIO *bio, void *field, int tag, void *arg) {
  seen = {bio, field, tag, arg};
  return 0;
}

TEST_F(MarshalStruct, AnEncoderIsGivenTheFieldsPlaceTagAndArgument) {
  int anything = 0;
  const marshal_field fields[] = {field(offsetof(note, number), 0x77, enc_seen, dec_int, &anything),
                                  last_field()};
  const marshal_struct_desc desc = {0, 9, nullptr, nullptr, 1, fields};
  note here;
  stream out = empty_stream();
  EXPECT_EQ(enc_struct(out.get(), &here, 5, support::arg(&desc)), 0);
  EXPECT_EQ(seen.bio, out.get());
  EXPECT_EQ(seen.field, &here.number);
  EXPECT_EQ(seen.tag, 0x77);
  EXPECT_EQ(seen.arg, &anything);
}

// ---- reading ----

TEST_F(MarshalStruct, ComesBackAsItWas) {
  note_owner sent("hello", -7), read;
  EXPECT_EQ(decode(encoded(enc_struct, &sent.object, 1, &note_desc), dec_struct, &read.object,
                   &note_desc),
            0);
  EXPECT_STREQ(read->text, "hello");
  EXPECT_EQ(read->number, -7);
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(MarshalStruct, ReadingStopsBehindTheEndBlock) {
  stream in = support::stream_of(note_octets("a", 1) + block(5));
  note_owner read;
  EXPECT_EQ(decode(in.get(), dec_struct, &read.object, &note_desc), 0);
  EXPECT_EQ(octets_in(in), block(5));
}

TEST_F(MarshalStruct, FieldsMayComeInAnyOrder) {
  note_owner read;
  EXPECT_EQ(decode(block(1) + int_block(0x13, 4) + block(0x12, "x") + block(0x11), dec_struct,
                   &read.object, &note_desc),
            0);
  EXPECT_STREQ(read->text, "x");
  EXPECT_EQ(read->number, 4);
}

TEST_F(MarshalStruct, TheLastOfARepeatedFieldCounts) {
  note_owner read;
  EXPECT_EQ(decode(block(1) + block(0x12, "x") + int_block(0x13, 4) + int_block(0x13, 5) +
                       block(0x12, "y") + block(0x11),
                   dec_struct, &read.object, &note_desc),
            0);
  EXPECT_STREQ(read->text, "y");
  EXPECT_EQ(read->number, 5);
  std::vector<log_entry> expected = {{4, "read duplicate string: old='x', new='y'"}};
  EXPECT_EQ(captured_log(), expected) << log_dump();
}

void *note_with_defaults() {
  note *made = static_cast<note *>(support::new_note());
  made->text = strdup("default");
  made->number = 1234;
  return made;
}

TEST_F(MarshalStruct, MissingFieldsStayAsTheConstructorLeftThem) {
  const marshal_struct_desc desc = {
      0, 0x11, note_with_defaults, support::free_note, 0, support::note_fields};
  note_owner read;
  EXPECT_EQ(decode(block(1) + block(0x11), dec_struct, &read.object, &desc), 0);
  EXPECT_STREQ(read->text, "default");
  EXPECT_EQ(read->number, 1234);
}

TEST_F(MarshalStruct, MissingInlineStructureStaysAsTheParentLeftIt) {
  note here;
  here.number = 9;
  EXPECT_EQ(decode(block(1) + block(0x11), dec_struct, &here, &support::inline_note_desc), 0);
  EXPECT_EQ(here.number, 9);
}

int constructed = 0;
void *counting_ctor() {
  constructed++;
  return support::new_note();
}

TEST_F(MarshalStruct, AbsentStructureIsNotConstructed) {
  const marshal_struct_desc counted = {
      0, 0x11, counting_ctor, support::free_note, 0, support::note_fields};
  const marshal_field fields[] = {
      field(offsetof(folder, outer), 0x32, enc_struct, dec_struct, &counted), last_field()};
  const marshal_struct_desc desc = {0, 0x3f, new_folder, free_folder, 0, fields};
  constructed = 0;
  folder *read = nullptr;
  EXPECT_EQ(decode(block(1) + block(0x3f), dec_struct, &read, &desc), 0);
  EXPECT_EQ(read->outer, nullptr);
  EXPECT_EQ(constructed, 0);
  free_folder(read);
}

TEST_F(MarshalStruct, UnknownTagsAreSkippedABlockAtATimeWithALineEach) {
  note_owner read;
  EXPECT_EQ(decode(block(1) + block(0x40) + block(0x41, "abc") + int_block(0x13, 5) + block(0xff) +
                       block(0x11),
                   dec_struct, &read.object, &note_desc),
            0);
  EXPECT_EQ(read->number, 5);
  std::vector<log_entry> expected = {{4, "read unexpected tag: 64"},
                                     {4, "read unexpected tag: 65"},
                                     {4, "read unexpected tag: 255"}};
  EXPECT_EQ(captured_log(), expected) << log_dump();
}

TEST_F(MarshalStruct, BlocksWithinAnUnknownStructureAreReadAsFields) {
  note_owner read;
  EXPECT_EQ(decode(block(1) + block(0x40) + int_block(0x13, 99) + block(0x41) + block(0x11),
                   dec_struct, &read.object, &note_desc),
            0);
  EXPECT_EQ(read->number, 99);
  EXPECT_EQ(count_logged(4, "read unexpected tag: 64") + count_logged(4, "read unexpected tag: 65"),
            2u)
      << log_dump();
}

TEST_F(MarshalStruct, EndOfTheDataBeforeTheEndTagIsSuccessWithALine) {
  stream in = support::stream_of(block(1) + int_block(0x13, 5) + support::end_of_data + block(9));
  note_owner read;
  EXPECT_EQ(decode(in.get(), dec_struct, &read.object, &note_desc), 0);
  ASSERT_NE(read.object, nullptr);
  EXPECT_EQ(read->number, 5);
  EXPECT_EQ(octets_in(in), block(9));
  std::vector<log_entry> expected = {{4, "unexpected EOD - no end-tag found"}};
  EXPECT_EQ(captured_log(), expected) << log_dump();
}

TEST_F(MarshalStruct, EndAndEndOfTheDataMayCarryData) {
  note_owner read;
  EXPECT_EQ(decode(block(1, "ab") + block(0x11, "cd"), dec_struct, &read.object, &note_desc), 0);
  EXPECT_EQ(decode(block(1) + block(0, "cd"), dec_struct, &read.object, &note_desc), 0);
}

TEST_F(MarshalStruct, ObjectThatIsThereIsFreedAndMadeAnew) {
  note_owner read("old", 5);
  EXPECT_EQ(decode(block(1) + block(0x11), dec_struct, &read.object, &note_desc), 0);
  EXPECT_EQ(support::notes_alive, 1);
  EXPECT_EQ(read->text, nullptr);
  EXPECT_EQ(read->number, 0);
}

TEST_F(MarshalStruct, InputThatRunsOutIs42AndLeavesNull) {
  std::string octets = note_octets("hello", 7);
  for (size_t length = 2; length < octets.size(); length++) {
    note_owner read("old", 5);
    EXPECT_EQ(decode(octets.substr(0, length), dec_struct, &read.object, &note_desc), 42);
    EXPECT_EQ(read.object, nullptr) << length;
    EXPECT_EQ(support::notes_alive, 0);
  }
}

TEST_F(MarshalStruct, AFailingFieldFreesTheObjectAndKeepsItsCode) {
  note_owner read;
  EXPECT_EQ(decode(block(1) + block(0x12, "hello") + block(0x13, "abc") + block(0x11), dec_struct,
                   &read.object, &note_desc),
            42);
  EXPECT_EQ(read.object, nullptr);
}

TEST_F(MarshalStruct, CodesOfADecoderOfTheHostComeThroughAllLevels) {
  const marshal_field inner_fields[] = {field(0, 2, enc_int, support::dec_fails_with_77),
                                        last_field()};
  const marshal_struct_desc inner = {0, 3, nullptr, nullptr, 1, inner_fields};
  const marshal_field fields[] = {field(0, 4, enc_struct, dec_struct, &inner), last_field()};
  const marshal_struct_desc outer = {0, 5, support::new_note, support::free_note, 0, fields};
  note_owner read;
  EXPECT_EQ(decode(block(1) + block(4) + block(2), dec_struct, &read.object, &outer), 77);
  EXPECT_EQ(read.object, nullptr);
}

TEST_F(MarshalStruct, InlineStructureStaysAsFarAsItGot) {
  note here;
  EXPECT_EQ(decode(block(1) + block(0x12, "kept") + int_block(0x13, 8), dec_struct, &here,
                   &support::inline_note_desc),
            42);
  ASSERT_NE(here.text, nullptr);
  EXPECT_STREQ(here.text, "kept");
  EXPECT_EQ(here.number, 8);
  free(here.text);
}

TEST_F(MarshalStruct, InlineStructureIsNeitherMadeNorFreed) {
  marshal_struct_desc here = support::inline_note_desc;
  here.ctor = []() -> void * { return ADD_FAILURE(), nullptr; };
  here.dtor = [](void *) { ADD_FAILURE(); };
  note object;
  EXPECT_EQ(decode(block(1) + int_block(support::note_number, 5) + block(support::note_end),
                   dec_struct, &object, &here),
            0);
  EXPECT_EQ(object.number, 5);
  EXPECT_EQ(decode(block(1) + int_block(support::note_number, 6), dec_struct, &object, &here), 42);
  EXPECT_EQ(object.number, 6);
}

TEST_F(MarshalStruct, NullStreamLeavesTheObjectThatIsThere) {
  note_owner there("kept", 1);
  note *before = there.object;
  EXPECT_EQ(dec_struct(nullptr, 1, nullptr, 0, &there.object, support::arg(&note_desc)), 63);
  ASSERT_EQ(there.object, before);
  EXPECT_STREQ(there->text, "kept");
}

TEST_F(MarshalStruct, NullStreamIsRefusedWhereNothingWouldBeWrittenToo) {
  note *none = nullptr;
  EXPECT_EQ(enc_struct(nullptr, &none, 1, support::arg(&note_desc)), 63);
}

TEST_F(MarshalStruct, ConstructorWithoutAnObjectIsOutOfMemory) {
  const marshal_struct_desc desc = {
      0, 0x11, support::no_object, support::free_note, 0, support::note_fields};
  note_owner read("old", 1);
  EXPECT_EQ(decode(note_octets("a", 1), dec_struct, &read.object, &desc), 2);
  EXPECT_EQ(read.object, nullptr);
}

int dec_seen_tag, dec_seen_length;
void *dec_seen_target, *dec_seen_arg;
std::string dec_seen_data;
int dec_seen(BIO *, int tag, const unsigned char *data, int len, void *target, void *arg) {
  dec_seen_tag = tag;
  dec_seen_length = len;
  dec_seen_target = target;
  dec_seen_arg = arg;
  dec_seen_data =
      data ? std::string(reinterpret_cast<const char *>(data), static_cast<size_t>(len)) : "null";
  return 0;
}

TEST_F(MarshalStruct, ADecoderIsGivenItsBlockTheFieldsPlaceAndItsArgument) {
  int anything = 0;
  const marshal_field fields[] = {
      field(offsetof(note, number), 0x77, enc_seen, dec_seen, &anything), last_field()};
  const marshal_struct_desc desc = {0, 9, nullptr, nullptr, 1, fields};
  note here;
  EXPECT_EQ(decode(block(1) + block(0x77, "data") + block(9), dec_struct, &here, &desc), 0);
  EXPECT_EQ(dec_seen_tag, 0x77);
  EXPECT_EQ(dec_seen_length, 4);
  EXPECT_EQ(dec_seen_data, "data");
  EXPECT_EQ(dec_seen_target, &here.number);
  EXPECT_EQ(dec_seen_arg, &anything);
  EXPECT_EQ(decode(block(1) + block(0x77) + block(9), dec_struct, &here, &desc), 0);
  EXPECT_EQ(dec_seen_length, 0);
  EXPECT_EQ(dec_seen_data, "null");
}

TEST_F(MarshalStruct, TheFirstRowThatFitsCounts) {
  const marshal_field fields[] = {field(0, 7, enc_int, dec_seen), field(4, 7, enc_int, dec_int),
                                  last_field()};
  const marshal_struct_desc desc = {0, 9, nullptr, nullptr, 1, fields};
  int here[2] = {5, 6};
  EXPECT_EQ(decode(block(1) + int_block(7, 99) + block(9), dec_struct, here, &desc), 0);
  EXPECT_EQ(here[0], 5);
  EXPECT_EQ(here[1], 6);
}

TEST_F(MarshalStruct, ANullDecoderEndsTheTableForReading) {
  const marshal_field fields[] = {field(offsetof(note, number), 1, enc_int, dec_int),
                                  field(0, 2, enc_int, nullptr),
                                  field(0, 3, enc_int, support::dec_fails_with_77), last_field()};
  const marshal_struct_desc desc = {0, 9, nullptr, nullptr, 1, fields};
  note here;
  EXPECT_EQ(decode(block(5) + int_block(1, 8) + int_block(2, 8) + int_block(3, 8) + block(9),
                   dec_struct, &here, &desc),
            0);
  EXPECT_EQ(here.number, 8);
  EXPECT_EQ(count_logged(4, "read unexpected tag: 2"), 1u);
  EXPECT_EQ(count_logged(4, "read unexpected tag: 3"), 1u);
}

TEST_F(MarshalStruct, StructuresNestInlineAndAside) {
  folder sent = {};
  sent.before = 1;
  sent.inner.text = strdup("in");
  sent.inner.number = 2;
  note_owner beside("out", 3);
  sent.outer = beside.object;
  folder *object = &sent;
  std::string octets = encoded(enc_struct, &object, 0x3e, &folder_desc);
  free(sent.inner.text);
  EXPECT_EQ(hex(octets), hex(block(0x3e) + int_block(0x30, 1) + note_octets("in", 2, 0x31) +
                             note_octets("out", 3, 0x32) + block(0x3f)));
  folder *read = nullptr;
  ASSERT_EQ(decode(octets, dec_struct, &read, &folder_desc), 0);
  EXPECT_EQ(read->before, 1);
  EXPECT_STREQ(read->inner.text, "in");
  EXPECT_EQ(read->inner.number, 2);
  EXPECT_STREQ(read->outer->text, "out");
  EXPECT_EQ(read->outer->number, 3);
  free_folder(read);
}

TEST_F(MarshalStruct, RepeatedStructuresReplaceTheirFormerSelves) {
  folder *read = nullptr;
  ASSERT_EQ(decode(block(1) + note_octets("a", 1, 0x32) + note_octets("b", 2, 0x32) +
                       note_octets("c", 1, 0x31) + note_octets("d", 2, 0x31) + block(0x3f),
                   dec_struct, &read, &folder_desc),
            0);
  EXPECT_STREQ(read->outer->text, "b");
  EXPECT_STREQ(read->inner.text, "d");
  free_folder(read);
  // The inline one is read into the same place, where its text stood.
  std::vector<log_entry> expected = {{4, "read duplicate string: old='c', new='d'"}};
  EXPECT_EQ(captured_log(), expected) << log_dump();
}

TEST_F(MarshalStruct, AFailureInANestedStructureFreesTheOuterOneOnce) {
  std::string octets = block(1) + note_octets("in", 2, 0x31) + note_octets("out", 3, 0x32);
  for (size_t length = 2; length <= octets.size(); length++) {
    folders_freed = 0;
    folder *read = nullptr;
    EXPECT_EQ(decode(octets.substr(0, length), dec_struct, &read, &folder_desc), 42) << length;
    EXPECT_EQ(read, nullptr);
    EXPECT_EQ(folders_freed, 1);
    EXPECT_EQ(support::notes_alive, 0);
  }
}

TEST_F(MarshalStruct, FirstWordOfADescriptionIsTheHosts) {
  for (int word : {0, 1, -1, 0x10, 0x11}) {
    marshal_struct_desc desc = note_desc;
    desc.own = word;
    note_owner sent("a", 1), read;
    std::string octets = encoded(enc_struct, &sent.object, 0x20, &desc);
    EXPECT_EQ(octets, note_octets("a", 1, 0x20));
    EXPECT_EQ(decode(octets, dec_struct, &read.object, &desc), 0);
  }
}

TEST_F(MarshalStruct, NullArgumentsAreRefused) {
  note_owner sent("a", 1);
  note *target = nullptr;
  stream io = empty_stream();
  EXPECT_EQ(enc_struct(nullptr, &sent.object, 1, support::arg(&note_desc)), 63);
  EXPECT_EQ(enc_struct(io.get(), nullptr, 1, support::arg(&note_desc)), 63);
  EXPECT_EQ(enc_struct(io.get(), &sent.object, 1, nullptr), 63);
  EXPECT_EQ(dec_struct(nullptr, 1, nullptr, 0, &target, support::arg(&note_desc)), 63);
  EXPECT_EQ(dec_struct(io.get(), 1, nullptr, 0, nullptr, support::arg(&note_desc)), 63);
  EXPECT_EQ(dec_struct(io.get(), 1, nullptr, 0, &target, nullptr), 63);
  EXPECT_EQ(octets_in(io), "");
}

}  // namespace
