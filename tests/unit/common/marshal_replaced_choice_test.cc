// A choice that holds a value when another alternative is read: nothing of that value is taken for
// a part of the next one, whatever the stream leaves out.
#include <gtest/gtest.h>
#include <libpki/marshal.h>

#include "fakes/log_capture.h"
#include "support/marshal.h"

namespace replaced_choice {

namespace {

using support::block;
using support::decode;
using support::field;
using support::image;
using support::inner_choice;
using support::int_block;
using support::last_field;

// ---- alternatives that are structures within ----

struct event {
  char *name;
  int count;
  time_t since;
  tm when;
};
struct numbers {
  int values[24];
};
// `handle` is read by a decoder of the host's.
struct connection {
  char *name;
  void *handle;
};
struct wrapped_connection {
  int before;
  connection inner;
};

enum kind {
  zero,
  an_event,
  some_numbers,
  a_text,
  a_handle,
  a_connection,
  wrapped,
  written_only,
  a_choice,
  a_choice_from_zero,
  a_placeholder,
  skipped
};
struct slot {
  int kind;
  union {
    event of;
    numbers all;
    char *text;
    void *handle;
    connection line;
    wrapped_connection wrapped;
    inner_choice choice;
  } value;
};

int handles_read = 0;
int dec_handle(BIO *, int, const unsigned char *, int, void *target, void *) {
  handles_read++;
  static int handle;
  *static_cast<void **>(target) = &handle;
  return 0;
}
int enc_nothing(BIO *, void *, int, void *) {
  return 0;
}

const marshal_field event_fields[] = {
    field(offsetof(event, name), 0x21, enc_str, dec_str),
    field(offsetof(event, count), 0x22, enc_int, dec_int),
    field(offsetof(event, since), 0x23, enc_time, dec_time),
    field(offsetof(event, when), 0x24, enc_struct_tm, dec_struct_tm), last_field()};
const marshal_struct_desc event_desc = {0, 0x2f, nullptr, nullptr, 1, event_fields};

struct number_rows {
  number_rows() {
    for (int i = 0; i < 24; i++)
      rows[i] = field(sizeof(int) * static_cast<size_t>(i), 0xa0 + i, enc_int, dec_int);
  }
  marshal_field rows[25] = {};
};
const number_rows number_fields;
const marshal_struct_desc numbers_desc = {0, 0x3f, nullptr, nullptr, 1, number_fields.rows};

const marshal_field connection_fields[] = {
    field(offsetof(connection, name), 0x41, enc_str, dec_str),
    field(offsetof(connection, handle), 0x42, enc_nothing, dec_handle), last_field()};
const marshal_struct_desc connection_desc = {0, 0x4f, nullptr, nullptr, 1, connection_fields};

const marshal_field wrapped_fields[] = {
    field(offsetof(wrapped_connection, before), 0x45, enc_int, dec_int),
    field(offsetof(wrapped_connection, inner), 0x46, enc_struct, dec_struct, &connection_desc),
    last_field()};
const marshal_struct_desc wrapped_desc = {0, 0x4e, nullptr, nullptr, 1, wrapped_fields};

// Written, and never read: the library cannot know what it is.
const marshal_field written_fields[] = {
    field(offsetof(connection, name), 0x41, enc_str, dec_str),
    field(offsetof(connection, handle), 0x42, enc_nothing, nullptr), last_field()};
const marshal_struct_desc written_desc = {0, 0x4f, nullptr, nullptr, 1, written_fields};

const marshal_field inner_rows[] = {field(1, 0x51, enc_str, dec_str),
                                    field(2, 0x52, enc_int, dec_int), last_field()};
const marshal_field inner_rows_from_zero[] = {field(0, 0x51, enc_str, dec_str),
                                              field(1, 0x52, enc_int, dec_int), last_field()};
marshal_choice_desc inner_desc(const marshal_field *rows) {
  return {0, 0x5f, nullptr, nullptr, offsetof(inner_choice, kind), offsetof(inner_choice, value),
          1, rows};
}
const marshal_choice_desc choice_within = inner_desc(inner_rows);
const marshal_choice_desc choice_from_zero = inner_desc(inner_rows_from_zero);

// A member that stays as it is: its blocks are skipped.
const int skipped_end = 0x5e;
const marshal_field placeholder_fields[] = {field(0, 0x21, enc_str, dec_str),
                                            field(0, 0x5d, enc_nothing, skip_struct, &skipped_end),
                                            last_field()};
const marshal_struct_desc placeholder_desc = {0, 0x2f, nullptr, nullptr, 1, placeholder_fields};

const marshal_field event_row = field(an_event, 0x61, enc_struct, dec_struct, &event_desc);
const marshal_field numbers_row = field(some_numbers, 0x62, enc_struct, dec_struct, &numbers_desc);
const marshal_field text_row = field(a_text, 0x63, enc_str, dec_str);
const marshal_field handle_row = field(a_handle, 0x64, enc_nothing, dec_handle);
const marshal_field connection_row =
    field(a_connection, 0x65, enc_struct, dec_struct, &connection_desc);
const marshal_field wrapped_row = field(wrapped, 0x66, enc_struct, dec_struct, &wrapped_desc);
const marshal_field written_row = field(written_only, 0x67, enc_struct, dec_struct, &written_desc);
const marshal_field skipped_row = field(skipped, 0x6b, enc_nothing, skip_struct, &skipped_end);

// What the library knows all of.
const marshal_field rows[] = {
    event_row,
    numbers_row,
    text_row,
    skipped_row,
    field(a_choice, 0x68, enc_choice, dec_choice, &choice_within),
    field(a_choice_from_zero, 0x69, enc_choice, dec_choice, &choice_from_zero),
    field(a_placeholder, 0x6a, enc_struct, dec_struct, &placeholder_desc),
    last_field()};
const marshal_choice_desc slot_desc = {
    0, 0x6f, nullptr, nullptr, offsetof(slot, kind), offsetof(slot, value), 1, rows};

// A table with one alternative that decoders of the host's fill, or only its encoders know.
struct table_with {
  explicit table_with(const marshal_field &of_the_host)
      : rows{event_row, numbers_row, text_row, skipped_row, of_the_host, last_field()},
        desc{0, 0x6f, nullptr, nullptr, offsetof(slot, kind), offsetof(slot, value), 1, rows} {}
  marshal_field rows[6];
  marshal_choice_desc desc;
};

// ---- streams ----

std::string choice_of(const std::string &alternative) {
  return block(0x60) + alternative + block(0x6f);
}
std::string structure(int start, const std::string &fields, int end) {
  return choice_of(block(start) + fields + block(end));
}
std::string event_with(const std::string &fields) {
  return structure(0x61, fields, 0x2f);
}
// Numbers in every place that an alternative has.
std::string numbers_everywhere() {
  std::string fields;
  for (int i = 0; i < 24; i++)
    fields += int_block(0xa0 + i, 0x41414141);
  return structure(0x62, fields, 0x3f);
}

struct MarshalReplacedChoice : testing::Test {
  void SetUp() override {
    clear_log();
    handles_read = 0;
    memset(&here, 0, sizeof here);
  }
  int read(const std::string &octets, const marshal_choice_desc &desc = slot_desc) {
    return decode(octets, dec_choice, &here, &desc);
  }
  void expect_refused(int next, int present, const std::string &octets, const table_with &table) {
    slot before = {};
    memcpy(&before, &here, sizeof here);
    clear_log();
    EXPECT_EQ(read(octets, table.desc), 42);
    EXPECT_EQ(memcmp(&before, &here, sizeof here), 0) << "left as it was";
    std::vector<log_entry> expected = {{4, "choice type " + std::to_string(next) +
                                               " cannot replace type " + std::to_string(present)}};
    EXPECT_EQ(captured_log(), expected) << log_dump();
  }
  slot here;
};

// ---- fields of a fixed size ----

TEST_F(MarshalReplacedChoice, TimesThatAreMissingAreNotTheNumbersThatStoodThere) {
  ASSERT_EQ(read(numbers_everywhere()), 0);
  ASSERT_EQ(here.value.all.values[23], 0x41414141);
  ASSERT_EQ(read(event_with(block(0x21, "name"))), 0);
  EXPECT_EQ(here.kind, an_event);
  EXPECT_STREQ(here.value.of.name, "name");
  EXPECT_EQ(here.value.of.when.tm_zone, nullptr);
  EXPECT_EQ(here.value.of.when.tm_year, 0);
  EXPECT_EQ(here.value.of.when.tm_gmtoff, 0);
  EXPECT_EQ(here.value.of.since, 0);
  EXPECT_EQ(here.value.of.count, 0);
  free(here.value.of.name);
}

TEST_F(MarshalReplacedChoice, EmptyStructureIsZerosAndNulls) {
  ASSERT_EQ(read(numbers_everywhere()), 0);
  ASSERT_EQ(read(event_with("")), 0);
  EXPECT_EQ(here.value.of.name, nullptr);
  EXPECT_EQ(here.value.of.when.tm_zone, nullptr);
}

TEST_F(MarshalReplacedChoice, ValueIsFreedAndItsOctetsAreNotTheNextOnes) {
  ASSERT_EQ(read(event_with(block(0x21, "name") + int_block(0x22, 5) + int_block(0x23, 6))), 0);
  ASSERT_EQ(read(structure(0x62, "", 0x3f)), 0);
  for (size_t i = 0; i < sizeof(event) / sizeof(int) && i < 24; i++)
    EXPECT_EQ(here.value.all.values[i], 0) << i;
}

TEST_F(MarshalReplacedChoice, SameAlternativeKeepsWhatIsMissing) {
  ASSERT_EQ(read(event_with(block(0x21, "name") + int_block(0x22, 5))), 0);
  ASSERT_EQ(read(event_with(int_block(0x23, 6))), 0);
  EXPECT_STREQ(here.value.of.name, "name");
  EXPECT_EQ(here.value.of.count, 5);
  EXPECT_EQ(here.value.of.since, 6);
  free(here.value.of.name);
}

// ---- members that a decoder of the host's fills ----

const std::string empty_connection = structure(0x65, "", 0x4f);
const std::string empty_wrapped = structure(0x66, block(0x46) + block(0x4f), 0x4e);

TEST_F(MarshalReplacedChoice, MembersOfTheHostAreNotMadeOfNumbers) {
  const table_with table(connection_row);
  ASSERT_EQ(read(numbers_everywhere(), table.desc), 0);
  expect_refused(0x65, 0x62, empty_connection, table);
  expect_refused(0x65, 0x62, structure(0x65, block(0x42), 0x4f), table);
  EXPECT_EQ(handles_read, 0);
}

TEST_F(MarshalReplacedChoice, MembersOfTheHostCountAtAnyDepth) {
  const table_with table(wrapped_row);
  ASSERT_EQ(read(numbers_everywhere(), table.desc), 0);
  expect_refused(0x66, 0x62, empty_wrapped, table);
}

TEST_F(MarshalReplacedChoice, MembersThatAreOnlyWrittenAreTheHostsToo) {
  const table_with table(written_row);
  ASSERT_EQ(read(numbers_everywhere(), table.desc), 0);
  expect_refused(0x67, 0x62, structure(0x67, "", 0x4f), table);
}

TEST_F(MarshalReplacedChoice, AlternativeOfTheHostsOwnIsNotMadeOfNumbers) {
  const table_with table(handle_row);
  ASSERT_EQ(read(numbers_everywhere(), table.desc), 0);
  expect_refused(0x64, 0x62, choice_of(block(0x64)), table);
  EXPECT_EQ(handles_read, 0);
}

// Or a third alternative would find what the first one left.
TEST_F(MarshalReplacedChoice, NothingReplacesMembersOfTheHost) {
  const table_with table(connection_row);
  ASSERT_EQ(read(structure(0x65, block(0x41, "name") + block(0x42), 0x4f), table.desc), 0);
  expect_refused(0x63, 0x65, choice_of(block(0x63, "text")), table);
  expect_refused(0x6b, 0x65, choice_of(block(0x6b) + block(skipped_end)), table);
  EXPECT_STREQ(here.value.line.name, "name");
  free(here.value.line.name);
}

TEST_F(MarshalReplacedChoice, NeitherZerosNorSkippedOctetsMakeAWayToMembersOfTheHost) {
  const table_with table(connection_row);
  ASSERT_EQ(read(structure(0x62, int_block(0xa0, 0), 0x3f), table.desc), 0);
  expect_refused(0x65, 0x62, empty_connection, table);
  here.kind = skipped;
  expect_refused(0x65, 0x6b, empty_connection, table);
}

TEST_F(MarshalReplacedChoice, ARefusalFreesThePresentValueAsWhatItIs) {
  struct parent {
    slot choice;
  };
  static int freed;
  freed = 0;
  const table_with table(connection_row);
  const marshal_field fields[] = {field(0, 0x60, enc_choice, dec_choice, &table.desc),
                                  last_field()};
  const marshal_struct_desc desc = {0,
                                    2,
                                    [] { return calloc(1, sizeof(parent)); },
                                    [](void *object) {
                                      parent *of = static_cast<parent *>(object);
                                      if (of && of->choice.kind == a_text) {
                                        EXPECT_STREQ(of->choice.value.text, "text");
                                        free(of->choice.value.text);
                                        freed++;
                                      }
                                      free(of);
                                    },
                                    0,
                                    fields};
  parent *target = nullptr;
  EXPECT_EQ(decode(block(1) + choice_of(block(0x63, "text")) + empty_connection + block(2),
                   dec_struct, &target, &desc),
            42);
  EXPECT_EQ(target, nullptr);
  EXPECT_EQ(freed, 1);
}

TEST_F(MarshalReplacedChoice, MembersOfTheHostAreReadWhereNothingStands) {
  const table_with table(connection_row);
  ASSERT_EQ(read(structure(0x65, block(0x41, "name") + block(0x42), 0x4f), table.desc), 0);
  EXPECT_EQ(here.kind, a_connection);
  EXPECT_NE(here.value.line.handle, nullptr);
  free(here.value.line.name);
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(MarshalReplacedChoice, MembersOfTheHostAreReadAgainInTheirOwnPlace) {
  const table_with table(connection_row);
  ASSERT_EQ(read(structure(0x65, block(0x41, "name") + block(0x42), 0x4f), table.desc), 0);
  ASSERT_EQ(read(structure(0x65, block(0x42), 0x4f), table.desc), 0);
  EXPECT_EQ(handles_read, 2);
  EXPECT_STREQ(here.value.line.name, "name");
  free(here.value.line.name);
}

TEST_F(MarshalReplacedChoice, SkippedMembersAreNobodys) {
  ASSERT_EQ(read(numbers_everywhere()), 0);
  ASSERT_EQ(read(structure(0x6a, block(0x5d) + block(0x77, "x") + block(skipped_end), 0x2f)), 0);
  EXPECT_EQ(here.kind, a_placeholder);
  EXPECT_EQ(here.value.text, nullptr);
}

TEST_F(MarshalReplacedChoice, ValueOfAnEnvelopeWithoutAStructureIsForgotten) {
  const marshal_envelope_desc nothing = {};
  const marshal_field alternatives[] = {
      field(a_handle, 0x64, create_digest, verify_digest, &nothing),
      field(a_text, 0x63, enc_str, dec_str), last_field()};
  marshal_choice_desc desc = slot_desc;
  desc.alternatives = alternatives;
  here.kind = a_handle;
  here.value.handle = &here;
  ASSERT_EQ(decode(choice_of(block(0x63, "text")), dec_choice, &here, &desc), 0);
  EXPECT_STREQ(here.value.text, "text");
  free(here.value.text);
}

// ---- a choice within ----

TEST_F(MarshalReplacedChoice, SelectorOfAChoiceWithinNamesNothingAtFirst) {
  ASSERT_EQ(read(choice_of(block(0x62) + int_block(0xa0, 1) + block(0x3f))), 0);
  ASSERT_EQ(here.value.choice.kind, 1);
  ASSERT_EQ(read(choice_of(block(0x68) + block(0x5f))), 0);
  EXPECT_EQ(here.kind, a_choice);
  EXPECT_EQ(here.value.choice.kind, 0) << "no alternative";
}

TEST_F(MarshalReplacedChoice, SelectorThatNamesNothingIsAnotherWhere0NamesSomething) {
  ASSERT_EQ(read(numbers_everywhere()), 0);
  ASSERT_EQ(read(choice_of(block(0x69) + block(0x5f))), 0);
  EXPECT_EQ(here.kind, a_choice_from_zero);
  EXPECT_EQ(here.value.choice.kind, 2) << "the first that is not listed";
}

TEST_F(MarshalReplacedChoice, ChoiceWithinIsReadInTheEmptyPlace) {
  ASSERT_EQ(read(numbers_everywhere()), 0);
  ASSERT_EQ(read(choice_of(block(0x69) + block(0x51, "deep") + block(0x5f))), 0);
  EXPECT_EQ(here.value.choice.kind, 0);
  EXPECT_STREQ(here.value.choice.value.text, "deep");
  // And freed, when something else follows.
  ASSERT_EQ(read(numbers_everywhere()), 0);
  EXPECT_EQ(here.kind, some_numbers);
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

// ---- a choice that is not inline, whose constructor chose ----

int made_kind = zero;
void *new_slot() {
  slot *made = static_cast<slot *>(calloc(1, sizeof(slot)));
  made->kind = made_kind;
  if (made_kind == a_text)
    made->value.text = strdup("default");
  if (made_kind == a_handle)
    made->value.handle = &made_kind;
  return made;
}
void free_slot(void *object) {
  slot *of = static_cast<slot *>(object);
  if (of && of->kind == a_text)
    free(of->value.text);
  if (of && of->kind == an_event)
    free(of->value.of.name);
  free(of);
}
void free_note_of_the_stream(void *object) {
  EXPECT_EQ(object, nullptr) << "not a note";
}
const marshal_struct_desc strict_note_desc = {
    0, support::note_end, support::new_note, free_note_of_the_stream, 0, support::note_fields};

struct MarshalPreparedChoice : testing::Test {
  void SetUp() override {
    clear_log();
    made_kind = a_text;
  }
  void TearDown() override { free_slot(read); }
  int read_from(const std::string &octets, const marshal_field *alternatives = rows) {
    marshal_choice_desc desc = slot_desc;
    desc.is_inline = 0;
    desc.ctor = new_slot;
    desc.dtor = free_slot;
    desc.alternatives = alternatives;
    return decode(octets, dec_choice, &read, &desc);
  }
  slot *read = nullptr;
};

TEST_F(MarshalPreparedChoice, DefaultIsNotTakenForAnObjectOfTheNextType) {
  const marshal_field alternatives[] = {
      field(a_text, 0x63, enc_str, dec_str),
      field(an_event, 0x61, enc_struct, dec_struct, &strict_note_desc), last_field()};
  ASSERT_EQ(read_from(choice_of(block(0x61) + block(support::note_end)), alternatives), 0);
  EXPECT_EQ(read->kind, an_event);
  support::free_note(read->value.handle);
  read->value.handle = nullptr;
}

TEST_F(MarshalPreparedChoice, DefaultIsFreedAndLeavesZeros) {
  ASSERT_EQ(read_from(event_with("")), 0);
  EXPECT_EQ(read->kind, an_event);
  EXPECT_EQ(read->value.of.name, nullptr) << "the leak of the default is a sanitizer's to find";
}

TEST_F(MarshalPreparedChoice, DefaultOfTheSameTypeIsReplacedAsAnyText) {
  ASSERT_EQ(read_from(choice_of(block(0x63, "new"))), 0);
  EXPECT_STREQ(read->value.text, "new");
  std::vector<log_entry> expected = {{4, "read duplicate string: old='default', new='new'"}};
  EXPECT_EQ(captured_log(), expected) << log_dump();
}

TEST_F(MarshalPreparedChoice, MembersOfTheHostFindAKnownDefaultsPlaceEmpty) {
  const table_with table(connection_row);
  ASSERT_EQ(read_from(empty_connection, table.rows), 0);
  EXPECT_EQ(read->kind, a_connection);
  EXPECT_EQ(read->value.line.name, nullptr);
  EXPECT_EQ(read->value.line.handle, nullptr);
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(MarshalPreparedChoice, MembersOfTheHostReplaceAnyDefault) {
  made_kind = a_handle;
  const marshal_field alternatives[] = {handle_row, connection_row, last_field()};
  ASSERT_EQ(read_from(empty_connection, alternatives), 0);
  EXPECT_EQ(read->kind, a_connection);
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

// ---- an inline choice in an object that is made for the stream ----

// Its first alternative has the selector that zeros name.
const marshal_field rows_from_zero[] = {
    field(zero, 0x62, enc_struct, dec_struct, &numbers_desc),
    field(a_connection, 0x65, enc_struct, dec_struct, &connection_desc),
    field(an_event, 0x61, enc_struct, dec_struct, &event_desc), last_field()};
const marshal_choice_desc slot_from_zero = {
    0, 0x6f, nullptr, nullptr, offsetof(slot, kind), offsetof(slot, value), 1, rows_from_zero};

struct holder {
  slot first;
};
const marshal_field part_fields[] = {
    field(offsetof(holder, first), 0x60, enc_choice, dec_choice, &slot_from_zero), last_field()};
const marshal_struct_desc part_desc = {0, 0x2e, nullptr, nullptr, 1, part_fields};
const marshal_field holder_fields[] = {
    field(offsetof(holder, first), 0x60, enc_choice, dec_choice, &slot_from_zero),
    field(offsetof(holder, first), 0x6c, enc_choice, dec_choice, &slot_from_zero),
    field(0, 0x2d, enc_struct, dec_struct, &part_desc), last_field()};

int prepared_count = 0;
void *new_holder() {
  auto *made = static_cast<holder *>(calloc(1, sizeof(holder)));
  made->first.value.all.values[23] = prepared_count;
  if (prepared_count)
    made->first.kind = a_handle;  // which the table does not list
  return made;
}
void free_holder(void *made) {
  free(made);
}
const marshal_struct_desc holder_desc = {0, 0x1f, new_holder, free_holder, 0, holder_fields};

struct MarshalFreshChoice : testing::Test {
  void SetUp() override {
    clear_log();
    prepared_count = 0;
  }
  void TearDown() override { free(read); }
  int read_from(const std::string &fields) {
    return decode(block(0x1e) + fields + block(0x1f), dec_struct, &read, &holder_desc);
  }
  static std::string within_a_part(const std::string &choice) {
    return block(0x2d) + choice + block(0x2e);
  }
  holder *read = nullptr;
};

TEST_F(MarshalFreshChoice, ZerosThatNameAnAlternativeAreReplacedByMembersOfTheHost) {
  ASSERT_EQ(read_from(empty_connection), 0);
  EXPECT_EQ(read->first.kind, a_connection);
  EXPECT_EQ(read->first.value.line.handle, nullptr);
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(MarshalFreshChoice, WhatTheStreamLeftIsNot) {
  EXPECT_EQ(read_from(numbers_everywhere() + empty_connection), 42);
  EXPECT_EQ(read, nullptr);
  EXPECT_TRUE(was_logged(4, "choice type 101 cannot replace type 98")) << log_dump();
}

TEST_F(MarshalFreshChoice, WhatTheStreamLeftInAStructureThatStandsTwiceIsNotEither) {
  EXPECT_EQ(read_from(within_a_part(numbers_everywhere()) + within_a_part(empty_connection)), 42);
  EXPECT_EQ(read, nullptr);
}

TEST_F(MarshalFreshChoice, ZerosOfTheStreamAreNotEither) {
  EXPECT_EQ(read_from(structure(0x62, int_block(0xa0, 0), 0x3f) + empty_connection), 42);
  EXPECT_EQ(read, nullptr);
}

TEST_F(MarshalFreshChoice, WhatTheStreamLeftUnderAnotherTagIsNotEither) {
  std::string aliased = empty_connection;
  aliased[0] = 0x6c;
  EXPECT_EQ(read_from(numbers_everywhere() + aliased), 42);
  EXPECT_EQ(read, nullptr);
}

TEST_F(MarshalFreshChoice, DefaultsThatNoSelectorNamesStay) {
  prepared_count = 7;
  ASSERT_EQ(read_from(structure(0x62, int_block(0xa0, 1), 0x3f)), 0);
  EXPECT_EQ(read->first.value.all.values[0], 1);
  EXPECT_EQ(read->first.value.all.values[23], 7);
}

}  // namespace

}  // namespace replaced_choice
