// Stacks: lists of elements of one type.
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
using support::last_field;
using support::note_octets;
using support::octets_in;
using support::stream;

int freed = 0;
void free_text(void *text) {
  freed++;
  free(text);
}
const marshal_stack_desc text_stack = {0, 0x51, free_text, field(0, 0x52, enc_str, dec_str)};
const marshal_stack_desc note_stack = {0, 0x51, support::free_note,
                                       field(0, 0x52, enc_struct, dec_struct, &support::note_desc)};

struct MarshalStack : testing::Test {
  void SetUp() override {
    clear_log();
    freed = 0;
  }
  void TearDown() override {
    OPENSSL_sk_pop_free(read, free_text);
    EXPECT_EQ(support::notes_alive, 0);
  }
  int read_from(const std::string &octets) { return decode(octets, dec_stack, &read, &text_stack); }
  const char *text(int i) const { return static_cast<char *>(OPENSSL_sk_value(read, i)); }
  STACK *read = nullptr;
};

STACK *stack_of(const std::vector<const char *> &values) {
  STACK *made = OPENSSL_sk_new_null();
  for (const char *value : values)
    OPENSSL_sk_push(made, value ? strdup(value) : nullptr);
  return made;
}

TEST_F(MarshalStack, ElementsAreWrittenInTheirOrderBetweenEmptyBlocks) {
  STACK *sent = stack_of({"b", "a", ""});
  EXPECT_EQ(encoded(enc_stack, &sent, 0x50, &text_stack),
            block(0x50) + block(0x52, "b") + block(0x52, "a") + block(0x52) + block(0x51));
  OPENSSL_sk_pop_free(sent, free_text);
}

TEST_F(MarshalStack, NullElementsAreLeftOut) {
  STACK *sent = stack_of({nullptr, "a", nullptr, "b", nullptr});
  EXPECT_EQ(encoded(enc_stack, &sent, 0x50, &text_stack),
            block(0x50) + block(0x52, "a") + block(0x52, "b") + block(0x51));
  OPENSSL_sk_pop_free(sent, free_text);
}

TEST_F(MarshalStack, NullStackIsWrittenAsAnEmptyOneAndComesBackEmpty) {
  STACK *sent = nullptr;
  std::string octets = encoded(enc_stack, &sent, 0x50, &text_stack);
  EXPECT_EQ(octets, block(0x50) + block(0x51));
  EXPECT_EQ(read_from(octets), 0);
  ASSERT_NE(read, nullptr);
  EXPECT_EQ(OPENSSL_sk_num(read), 0);
}

int fails_at_b(BIO *bio, void *field, int tag, void *arg) {
  return **static_cast<char **>(field) == 'b' ? 77 : enc_str(bio, field, tag, arg);
}

TEST_F(MarshalStack, AnEncodersFailureEndsItWithoutAnEndBlock) {
  marshal_stack_desc failing = text_stack;
  failing.element.enc = fails_at_b;
  STACK *sent = stack_of({"a", "b", "c"});
  stream out = empty_stream();
  EXPECT_EQ(enc_stack(out.get(), &sent, 0x50, support::arg(&failing)), 77);
  EXPECT_EQ(octets_in(out), block(0x50) + block(0x52, "a"));
  OPENSSL_sk_pop_free(sent, free_text);
}

TEST_F(MarshalStack, ElementsComeBackInTheirOrder) {
  ASSERT_EQ(
      read_from(block(0x50) + block(0x52, "b") + block(0x52, "a") + block(0x52) + block(0x51)), 0);
  ASSERT_EQ(OPENSSL_sk_num(read), 3);
  EXPECT_STREQ(text(0), "b");
  EXPECT_STREQ(text(1), "a");
  EXPECT_STREQ(text(2), "");
  EXPECT_EQ(freed, 0);
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(MarshalStack, ThousandsOfElementsComeBack) {
  STACK *sent = OPENSSL_sk_new_null();
  for (int i = 0; i < 5000; i++)
    OPENSSL_sk_push(sent, strdup(std::to_string(i).c_str()));
  ASSERT_EQ(read_from(encoded(enc_stack, &sent, 0x50, &text_stack)), 0);
  ASSERT_EQ(OPENSSL_sk_num(read), 5000);
  for (int i = 0; i < 5000; i++)
    EXPECT_EQ(text(i), std::to_string(i));
  OPENSSL_sk_pop_free(sent, free_text);
}

TEST_F(MarshalStack, ForeignTagsBetweenElementsAreSkippedWithALineEach) {
  ASSERT_EQ(read_from(block(0x50) + block(0x52, "a") + block(0x60, "z") + block(0x61) +
                      block(0x52, "b") + block(0x51)),
            0);
  ASSERT_EQ(OPENSSL_sk_num(read), 2);
  EXPECT_STREQ(text(0), "a");
  EXPECT_STREQ(text(1), "b");
  std::vector<log_entry> expected = {{4, "read unexpected tag: 96"},
                                     {4, "read unexpected tag: 97"}};
  EXPECT_EQ(captured_log(), expected) << log_dump();
}

TEST_F(MarshalStack, EndOfTheDataBeforeTheEndTagIsSuccessWithALine) {
  stream in = support::stream_of(block(0x50) + block(0x52, "a") + support::end_of_data + block(9));
  EXPECT_EQ(decode(in.get(), dec_stack, &read, &text_stack), 0);
  ASSERT_EQ(OPENSSL_sk_num(read), 1);
  EXPECT_EQ(octets_in(in), block(9));
  std::vector<log_entry> expected = {{4, "unexpected EOD - no end-tag found"}};
  EXPECT_EQ(captured_log(), expected) << log_dump();
}

TEST_F(MarshalStack, StackThatIsThereIsFreedWithItsElements) {
  read = stack_of({"x", "y"});
  ASSERT_EQ(read_from(block(0x50) + block(0x52, "a") + block(0x51)), 0);
  EXPECT_EQ(freed, 2);
  ASSERT_EQ(OPENSSL_sk_num(read), 1);
  EXPECT_STREQ(text(0), "a");
}

TEST_F(MarshalStack, InputThatRunsOutIs42AndFreesWhatWasRead) {
  std::string octets = block(0x50) + block(0x52, "a") + block(0x52, "b") + block(0x51);
  for (size_t length = 2; length < octets.size(); length++) {
    freed = 0;
    EXPECT_EQ(read_from(octets.substr(0, length)), 42) << length;
    EXPECT_EQ(read, nullptr) << length;
    EXPECT_EQ(freed, length < 5 ? 0 : length < 8 ? 1 : 2) << length;
  }
}

TEST_F(MarshalStack, InputThatRunsOutFreesTheStackThatWasThereToo) {
  read = stack_of({"x", "y"});
  EXPECT_EQ(read_from(block(0x50) + block(0x52, "a")), 42);
  EXPECT_EQ(read, nullptr);
  EXPECT_EQ(freed, 3);
}

TEST_F(MarshalStack, StreamThatTakesNoMoreIs9WhereverThatIs) {
  STACK *sent = stack_of({"a", "b"});
  const std::string whole = encoded(enc_stack, &sent, 0x50, &text_stack);
  for (size_t room = 0; room < whole.size(); room++) {
    support::script of;
    of.writes_left = room;
    EXPECT_EQ(enc_stack(support::scripted(&of).get(), &sent, 0x50, support::arg(&text_stack)), 9);
    EXPECT_EQ(of.output, whole.substr(0, room));
  }
  OPENSSL_sk_pop_free(sent, free_text);
}

TEST_F(MarshalStack, StreamThatFailsIs10AndLeavesNull) {
  const std::string whole = block(0x50) + block(0x52, "a") + block(0x52, "b") + block(0x51);
  for (size_t given = 2; given < whole.size(); given++) {
    support::script of{.input = whole};
    of.reads_left = given;
    read = stack_of({"x"});
    EXPECT_EQ(decode(support::scripted(&of).get(), dec_stack, &read, &text_stack), 10) << given;
    EXPECT_EQ(read, nullptr);
  }
}

int dec_fails_at_b(BIO *bio, int tag, const unsigned char *data, int len, void *target, void *arg) {
  return len && *data == 'b' ? 77 : dec_str(bio, tag, data, len, target, arg);
}

TEST_F(MarshalStack, AFailingElementFreesTheStackAndKeepsItsCode) {
  marshal_stack_desc failing = text_stack;
  failing.element.dec = dec_fails_at_b;
  EXPECT_EQ(decode(block(0x50) + block(0x52, "a") + block(0x52, "b"), dec_stack, &read, &failing),
            77);
  EXPECT_EQ(read, nullptr);
  EXPECT_EQ(freed, 1);
}

bool slot_was_null = false;
int dec_leaves_null(BIO *, int, const unsigned char *, int, void *target, void *) {
  slot_was_null = !*static_cast<void **>(target);
  return 0;
}

TEST_F(MarshalStack, ElementDecoderIsGivenANullSlotAndMayLeaveItNull) {
  marshal_stack_desc empty_handed = text_stack;
  empty_handed.element.dec = dec_leaves_null;
  EXPECT_EQ(decode(block(0x50) + block(0x52, "a") + block(0x52) + block(0x51), dec_stack, &read,
                   &empty_handed),
            0);
  EXPECT_TRUE(slot_was_null);
  ASSERT_EQ(OPENSSL_sk_num(read), 2);
  EXPECT_EQ(text(0), nullptr);
  EXPECT_EQ(text(1), nullptr);
}

TEST_F(MarshalStack, OffsetOfTheElementRowIsNotRead) {
  marshal_stack_desc odd = text_stack;
  odd.element.offset = 12345;
  odd.own = 99;
  STACK *sent = stack_of({"a"});
  std::string octets = encoded(enc_stack, &sent, 0x50, &odd);
  EXPECT_EQ(octets, block(0x50) + block(0x52, "a") + block(0x51));
  EXPECT_EQ(decode(octets, dec_stack, &read, &odd), 0);
  EXPECT_STREQ(text(0), "a");
  OPENSSL_sk_pop_free(sent, free_text);
}

TEST_F(MarshalStack, StructuresAreElements) {
  STACK *sent = OPENSSL_sk_new_null();
  for (int i = 0; i < 3; i++) {
    support::note *made = static_cast<support::note *>(support::new_note());
    made->text = strdup("n");
    made->number = i;
    OPENSSL_sk_push(sent, made);
  }
  std::string octets = encoded(enc_stack, &sent, 0x50, &note_stack);
  EXPECT_EQ(octets, block(0x50) + note_octets("n", 0, 0x52) + note_octets("n", 1, 0x52) +
                        note_octets("n", 2, 0x52) + block(0x51));
  STACK *back = nullptr;
  ASSERT_EQ(decode(octets, dec_stack, &back, &note_stack), 0);
  ASSERT_EQ(OPENSSL_sk_num(back), 3);
  EXPECT_EQ(static_cast<support::note *>(OPENSSL_sk_value(back, 2))->number, 2);
  OPENSSL_sk_pop_free(sent, support::free_note);
  OPENSSL_sk_pop_free(back, support::free_note);
}

TEST_F(MarshalStack, InputThatRunsOutInAnElementFreesAll) {
  std::string octets = block(0x50) + note_octets("m", 0, 0x52) + note_octets("n", 1, 0x52);
  for (size_t length = 2; length <= octets.size(); length++) {
    STACK *back = nullptr;
    EXPECT_EQ(decode(octets.substr(0, length), dec_stack, &back, &note_stack), 42) << length;
    EXPECT_EQ(back, nullptr);
    EXPECT_EQ(support::notes_alive, 0);
  }
}

TEST_F(MarshalStack, CertificatesOfOtherWritersAreElements) {
  const marshal_stack_desc certs = {
      0, 0x51, [](void *cert) { X509_free(static_cast<X509 *>(cert)); },
      field(0, 0x52, enc_asn1_struct, dec_asn1_struct, support::d2i(d2i_X509))};
  support::cert cert = support::make_cert();
  STACK *back = nullptr;
  ASSERT_EQ(decode(block(0x50) + block(0x52, support::der(cert)) + block(0x52, support::der(cert)) +
                       block(0x51),
                   dec_stack, &back, &certs),
            0);
  ASSERT_EQ(OPENSSL_sk_num(back), 2);
  EXPECT_EQ(X509_cmp(static_cast<X509 *>(OPENSSL_sk_value(back, 1)), cert.get()), 0);
  // The placeholder writes no elements.
  EXPECT_EQ(encoded(enc_stack, &back, 0x50, &certs), block(0x50) + block(0x51));
  OPENSSL_sk_pop_free(back, certs.elem_free);
}

TEST_F(MarshalStack, NullArgumentsAreRefused) {
  stream io = empty_stream();
  EXPECT_EQ(enc_stack(nullptr, &read, 1, support::arg(&text_stack)), 63);
  EXPECT_EQ(enc_stack(io.get(), nullptr, 1, support::arg(&text_stack)), 63);
  EXPECT_EQ(enc_stack(io.get(), &read, 1, nullptr), 63);
  EXPECT_EQ(dec_stack(nullptr, 1, nullptr, 0, &read, support::arg(&text_stack)), 63);
  EXPECT_EQ(dec_stack(io.get(), 1, nullptr, 0, nullptr, support::arg(&text_stack)), 63);
  EXPECT_EQ(dec_stack(io.get(), 1, nullptr, 0, &read, nullptr), 63);
  EXPECT_EQ(octets_in(io), "");
}

TEST_F(MarshalStack, NullStreamLeavesTheStackThatIsThere) {
  read = stack_of({"x"});
  STACK *before = read;
  EXPECT_EQ(dec_stack(nullptr, 1, nullptr, 0, &read, support::arg(&text_stack)), 63);
  ASSERT_EQ(read, before);
  EXPECT_STREQ(text(0), "x");
}

}  // namespace
