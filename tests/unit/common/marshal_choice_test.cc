// Choices: one alternative of several, told by a selector.
#include <gtest/gtest.h>
#include <libpki/marshal.h>

#include <climits>

#include "fakes/log_capture.h"
#include "support/marshal.h"

namespace {

using support::block;
using support::decode;
using support::empty_stream;
using support::encoded;
using support::field;
using support::from_hex;
using support::int_block;
using support::last_field;
using support::note;
using support::note_octets;
using support::octets_in;
using support::stream;

enum kind { none = 0, text_kind = 10, number_kind = -3, note_kind = 12 };

// The value stands before the selector here: both offsets have to be used.
struct selected {
  union {
    char *text;
    int number;
    support::note *sub;
  } value;
  int padding;
  int kind;
};
int selected_alive = 0;
void *new_selected() {
  selected_alive++;
  return calloc(1, sizeof(selected));
}
void free_selected(void *object) {
  selected *of = static_cast<selected *>(object);
  if (!of)
    return;
  if (of->kind == text_kind)
    free(of->value.text);
  else if (of->kind == note_kind)
    support::free_note(of->value.sub);
  free(of);
  selected_alive--;
}

const marshal_field alternatives[] = {
    field(static_cast<size_t>(text_kind), 0x41, enc_str, dec_str),
    field(static_cast<size_t>(number_kind), 0x42, enc_int, dec_int),
    field(static_cast<size_t>(note_kind), 0x43, enc_struct, dec_struct, &support::note_desc),
    last_field(),
};
const marshal_choice_desc desc = {0,
                                  0x4f,
                                  new_selected,
                                  free_selected,
                                  offsetof(selected, kind),
                                  offsetof(selected, value),
                                  0,
                                  alternatives};
const marshal_choice_desc inline_desc = {
    0, 0x4f,        nullptr, nullptr, offsetof(selected, kind), offsetof(selected, value),
    1, alternatives};

struct MarshalChoice : testing::Test {
  void SetUp() override { clear_log(); }
  void TearDown() override {
    free_selected(read);
    EXPECT_EQ(selected_alive, 0);
    EXPECT_EQ(support::notes_alive, 0);
  }
  int read_from(const std::string &octets) { return decode(octets, dec_choice, &read, &desc); }
  selected *read = nullptr;
};

TEST_F(MarshalChoice, AlternativeIsWrittenBetweenEmptyBlocks) {
  selected sent = {};
  selected *object = &sent;
  sent.kind = number_kind;
  sent.value.number = 5;
  EXPECT_EQ(encoded(enc_choice, &object, 0x40, &desc),
            block(0x40) + int_block(0x42, 5) + block(0x4f));
  char text[] = "abc";
  sent.kind = text_kind;
  sent.value.text = text;
  EXPECT_EQ(encoded(enc_choice, &object, 0x40, &desc),
            block(0x40) + block(0x41, "abc") + block(0x4f));
  EXPECT_EQ(encoded(enc_choice, &sent, 0x40, &inline_desc),
            block(0x40) + block(0x41, "abc") + block(0x4f));
}

TEST_F(MarshalChoice, NullObjectIsNotWritten) {
  selected *object = nullptr;
  EXPECT_EQ(encoded(enc_choice, &object, 0x40, &desc), "");
}

TEST_F(MarshalChoice, UnknownSelectorIsWrittenAsStartAndEndWithALine) {
  for (int kind : {0, 99, INT_MIN}) {
    clear_log();
    selected sent = {};
    selected *object = &sent;
    sent.kind = kind;
    EXPECT_EQ(encoded(enc_choice, &object, 0x40, &desc), block(0x40) + block(0x4f));
    std::vector<log_entry> expected = {{4, "read unexpected tag: " + std::to_string(kind)}};
    EXPECT_EQ(captured_log(), expected) << log_dump();
  }
}

TEST_F(MarshalChoice, AnEncodersFailureEndsItWithoutAnEndBlock) {
  const marshal_field rows[] = {field(1, 2, support::enc_fails_with_77, dec_int), last_field()};
  marshal_choice_desc failing = inline_desc;
  failing.alternatives = rows;
  selected sent = {};
  sent.kind = 1;
  stream out = empty_stream();
  EXPECT_EQ(enc_choice(out.get(), &sent, 0x40, support::arg(&failing)), 77);
  EXPECT_EQ(octets_in(out), block(0x40));
}

TEST_F(MarshalChoice, ANullEncoderEndsTheTableForWriting) {
  const marshal_field rows[] = {field(1, 2, nullptr, dec_int), field(5, 3, enc_int, dec_int),
                                last_field()};
  marshal_choice_desc shorter = inline_desc;
  shorter.alternatives = rows;
  selected sent = {};
  sent.kind = 5;
  EXPECT_EQ(encoded(enc_choice, &sent, 0x40, &shorter), block(0x40) + block(0x4f));
  EXPECT_TRUE(was_logged(4, "read unexpected tag: 5")) << log_dump();
}

// A key is never written, so its choice is like one without an alternative.
TEST_F(MarshalChoice, AlternativeThatWritesNothingIsStartAndEndOnlyAndReadsAsNone) {
  const marshal_field rows[] = {field(1, 2, enc_pub_key, dec_pub_key), last_field()};
  struct {
    int kind;
    EVP_PKEY *key;
  } sent = {1, support::test_key(0).get()}, back = {7, nullptr};
  using object = decltype(sent);
  const marshal_choice_desc of_keys = {
      9, 0x4f, nullptr, nullptr, offsetof(object, kind), offsetof(object, key), 1, rows};
  std::string octets = encoded(enc_choice, &sent, 0x40, &of_keys);
  EXPECT_EQ(octets, block(0x40) + block(0x4f));
  EXPECT_EQ(decode(octets, dec_choice, &back, &of_keys), 0);
  EXPECT_EQ(back.kind, 7);
  EXPECT_EQ(back.key, nullptr);
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(MarshalChoice, AlternativeComesBackWithItsSelector) {
  ASSERT_EQ(read_from(block(0x40) + block(0x41, "abc") + block(0x4f)), 0);
  EXPECT_EQ(read->kind, text_kind);
  EXPECT_STREQ(read->value.text, "abc");
  ASSERT_EQ(read_from(block(0x40) + int_block(0x42, 5) + block(0x4f)), 0);
  EXPECT_EQ(read->kind, number_kind);
  EXPECT_EQ(read->value.number, 5);
  ASSERT_EQ(read_from(block(0x40) + note_octets("x", 1, 0x43) + block(0x4f)), 0);
  EXPECT_EQ(read->kind, note_kind);
  EXPECT_STREQ(read->value.sub->text, "x");
  EXPECT_EQ(selected_alive, 1) << "the former ones were freed";
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(MarshalChoice, InlineChoiceIsReadIntoItsParent) {
  selected here = {};
  EXPECT_EQ(decode(block(0x40) + block(0x41, "abc") + block(0x4f), dec_choice, &here, &inline_desc),
            0);
  EXPECT_EQ(here.kind, text_kind);
  EXPECT_STREQ(here.value.text, "abc");
  free(here.value.text);
}

void *preselected() {
  selected *made = static_cast<selected *>(new_selected());
  made->kind = 1234;
  made->value.number = 99;
  return made;
}

TEST_F(MarshalChoice, ChoiceWithStartAndEndOnlyLeavesTheObjectAsItWasMadeSilently) {
  marshal_choice_desc made = desc;
  made.ctor = preselected;
  stream in = support::stream_of(block(0x40) + block(0x4f) + block(7));
  EXPECT_EQ(decode(in.get(), dec_choice, &read, &made), 0);
  ASSERT_NE(read, nullptr);
  EXPECT_EQ(read->kind, 1234);
  EXPECT_EQ(read->value.number, 99);
  EXPECT_EQ(octets_in(in), block(7));
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(MarshalChoice, InlineChoiceWithStartAndEndOnlyLeavesItsParentAsItWas) {
  selected here = {};
  here.kind = text_kind;
  here.value.text = strdup("kept");
  EXPECT_EQ(decode(block(0x40) + block(0x4f), dec_choice, &here, &inline_desc), 0);
  EXPECT_EQ(here.kind, text_kind);
  EXPECT_STREQ(here.value.text, "kept");
  free(here.value.text);
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(MarshalChoice, UnknownAlternativeIsSkippedToTheEndWithOneLine) {
  marshal_choice_desc made = desc;
  made.ctor = preselected;
  stream in = support::stream_of(block(0x40) + block(0x99) + block(0x9a, "a") + block(0x41, "b") +
                                 block(0x4f) + block(7));
  EXPECT_EQ(decode(in.get(), dec_choice, &read, &made), 0);
  EXPECT_EQ(read->kind, 1234);
  EXPECT_EQ(octets_in(in), block(7));
  std::vector<log_entry> expected = {{4, "unknown choice type 153"}};
  EXPECT_EQ(captured_log(), expected) << log_dump();
}

TEST_F(MarshalChoice, OnlyTheFirstAlternativeCountsAndTheRestIsSkippedSilently) {
  ASSERT_EQ(
      read_from(block(0x40) + int_block(0x42, 5) + block(0x41, "b") + block(0x77) + block(0x4f)),
      0);
  EXPECT_EQ(read->kind, number_kind);
  EXPECT_EQ(read->value.number, 5);
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(MarshalChoice, EndOfTheDataDoesNotEndIt) {
  ASSERT_EQ(read_from(block(0x40) + int_block(0x42, 5) + support::end_of_data + block(0x4f)), 0);
  EXPECT_EQ(read->value.number, 5);
  EXPECT_EQ(read_from(block(0x40) + int_block(0x42, 5) + support::end_of_data), 42);
  EXPECT_EQ(read, nullptr);
}

TEST_F(MarshalChoice, EndOfTheDataForAnAlternativeIsAnUnknownOne) {
  EXPECT_EQ(read_from(block(0x40) + support::end_of_data + block(0x4f)), 0);
  EXPECT_TRUE(was_logged(4, "unknown choice type 0")) << log_dump();
}

TEST_F(MarshalChoice, TheFirstRowThatFitsCounts) {
  const marshal_field rows[] = {field(1, 2, enc_int, dec_int), field(1, 3, enc_str, dec_str),
                                field(4, 2, enc_str, dec_str), last_field()};
  marshal_choice_desc twice = inline_desc;
  twice.alternatives = rows;
  selected sent = {}, back = {};
  sent.kind = 1;
  sent.value.number = 5;
  const std::string octets = encoded(enc_choice, &sent, 0x40, &twice);
  EXPECT_EQ(octets, block(0x40) + int_block(2, 5) + block(0x4f)) << "by the selector";
  EXPECT_EQ(decode(octets, dec_choice, &back, &twice), 0);
  EXPECT_EQ(back.kind, 1) << "by the tag";
  EXPECT_EQ(back.value.number, 5);
}

TEST_F(MarshalChoice, InlineChoiceIsNeitherMadeNorFreed) {
  marshal_choice_desc here = inline_desc;
  here.ctor = []() -> void * { return ADD_FAILURE(), nullptr; };
  here.dtor = [](void *) { ADD_FAILURE(); };
  selected object = {};
  EXPECT_EQ(decode(block(0x40) + int_block(0x42, 5) + block(0x4f), dec_choice, &object, &here), 0);
  EXPECT_EQ(object.value.number, 5);
  EXPECT_EQ(decode(block(0x40) + int_block(0x42, 6), dec_choice, &object, &here), 42);
  EXPECT_EQ(object.value.number, 6) << "as far as it got";
}

TEST_F(MarshalChoice, StreamThatTakesNoMoreIs9WhereverThatIs) {
  selected sent = {};
  sent.kind = number_kind;
  const std::string whole = encoded(enc_choice, &sent, 0x40, &inline_desc);
  for (size_t room = 0; room < whole.size(); room++) {
    support::script of;
    of.writes_left = room;
    EXPECT_EQ(enc_choice(support::scripted(&of).get(), &sent, 0x40, support::arg(&inline_desc)), 9);
    EXPECT_EQ(of.output, whole.substr(0, room));
  }
}

TEST_F(MarshalChoice, StreamThatFailsIs10AndLeavesNull) {
  const std::string whole = block(0x40) + block(0x41, "abc") + block(0x4f);
  for (size_t given = 2; given < whole.size(); given++) {
    support::script of{.input = whole};
    of.reads_left = given;
    read = static_cast<selected *>(new_selected());
    EXPECT_EQ(decode(support::scripted(&of).get(), dec_choice, &read, &desc), 10) << given;
    EXPECT_EQ(read, nullptr) << given;
  }
}

TEST_F(MarshalChoice, InputThatRunsOutIs42AndLeavesNull) {
  std::string octets = block(0x40) + note_octets("hello", 1, 0x43) + block(0x4f);
  for (size_t length = 2; length < octets.size(); length++) {
    EXPECT_EQ(read_from(octets.substr(0, length)), 42) << length;
    EXPECT_EQ(read, nullptr) << length;
  }
}

TEST_F(MarshalChoice, AFailingAlternativeFreesTheObjectAndKeepsItsCode) {
  read = static_cast<selected *>(new_selected());
  EXPECT_EQ(read_from(block(0x40) + block(0x42, "abc") + block(0x4f)), 42);
  EXPECT_EQ(read, nullptr);
}

int selector_when_called = 0;
int dec_looks_at_selector(BIO *, int, const unsigned char *, int, void *target, void *) {
  const char *object = static_cast<char *>(target) - offsetof(selected, value);
  memcpy(&selector_when_called, object + offsetof(selected, kind), sizeof selector_when_called);
  return 77;
}

TEST_F(MarshalChoice, SelectorIsStoredBeforeTheAlternativeIsRead) {
  const marshal_field rows[] = {field(55, 2, enc_int, dec_looks_at_selector), last_field()};
  marshal_choice_desc looking = inline_desc;
  looking.alternatives = rows;
  selected here = {};
  EXPECT_EQ(decode(block(0x40) + block(2), dec_choice, &here, &looking), 77);
  EXPECT_EQ(selector_when_called, 55);
  EXPECT_EQ(here.kind, 55);
}

TEST_F(MarshalChoice, ANullDecoderEndsTheTableForReading) {
  const marshal_field rows[] = {field(1, 2, enc_int, nullptr), field(5, 3, enc_int, dec_int),
                                last_field()};
  marshal_choice_desc shorter = inline_desc;
  shorter.alternatives = rows;
  selected here = {};
  EXPECT_EQ(decode(block(0x40) + int_block(3, 1) + block(0x4f), dec_choice, &here, &shorter), 0);
  EXPECT_EQ(here.kind, 0);
  EXPECT_TRUE(was_logged(4, "unknown choice type 3")) << log_dump();
}

TEST_F(MarshalChoice, ConstructorWithoutAnObjectIsOutOfMemory) {
  marshal_choice_desc barren = desc;
  barren.ctor = support::no_object;
  EXPECT_EQ(decode(block(0x40) + block(0x4f), dec_choice, &read, &barren), 2);
  EXPECT_EQ(read, nullptr);
}

TEST_F(MarshalChoice, NullArgumentsAreRefused) {
  selected sent = {};
  selected *object = &sent, *target = nullptr;
  stream io = empty_stream();
  EXPECT_EQ(enc_choice(nullptr, &object, 1, support::arg(&desc)), 63);
  EXPECT_EQ(enc_choice(io.get(), nullptr, 1, support::arg(&desc)), 63);
  EXPECT_EQ(enc_choice(io.get(), &object, 1, nullptr), 63);
  EXPECT_EQ(dec_choice(nullptr, 1, nullptr, 0, &target, support::arg(&desc)), 63);
  EXPECT_EQ(dec_choice(io.get(), 1, nullptr, 0, nullptr, support::arg(&desc)), 63);
  EXPECT_EQ(dec_choice(io.get(), 1, nullptr, 0, &target, nullptr), 63);
}

TEST_F(MarshalChoice, NullStreamLeavesTheObjectThatIsThere) {
  read = static_cast<selected *>(new_selected());
  selected *before = read;
  EXPECT_EQ(dec_choice(nullptr, 1, nullptr, 0, &read, support::arg(&desc)), 63);
  EXPECT_EQ(read, before);
}

TEST_F(MarshalChoice, NullStreamIsRefusedWhereNothingWouldBeWrittenToo) {
  selected *none = nullptr;
  EXPECT_EQ(enc_choice(nullptr, &none, 1, support::arg(&desc)), 63);
}

}  // namespace
