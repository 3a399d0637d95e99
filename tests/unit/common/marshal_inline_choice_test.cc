// An inline choice that stands twice in its parent, with alternatives of different types: what the
// first one left there is freed as what it is, and the second one stands in its place.
#include <gtest/gtest.h>
#include <libpki/marshal.h>
#include <openssl/err.h>

#include "fakes/log_capture.h"
#include "support/certs.h"
#include "support/marshal.h"

namespace inline_choice {

namespace {

using support::block;
using support::decode;
using support::field;
using support::inner_choice;
using support::int_block;
using support::last_field;
using support::note;
using support::note_octets;

enum kind {
  nothing,
  text,
  public_key,
  private_key,
  stack,
  aside,   // a structure that is not inline
  within,  // an inline structure with two texts
  nested,  // an inline choice within
  chosen,  // a choice that is not inline
  number,
  seconds,
  broken_down,
  certificate,  // by dec_asn1_struct: not freed by the library
  kinds
};

struct two_texts {
  char *first;
  char *second;
};
struct slot {
  int kind;
  union {
    char *text;
    EVP_PKEY *key;
    STACK *stack;
    note *aside;
    two_texts within;
    inner_choice nested;
    inner_choice *chosen;
    int number;
    time_t seconds;
    tm broken_down;
    X509 *certificate;
  } value;
};

// ---- tables ----

const marshal_stack_desc stack_desc = {0, 0x61, free, field(0, 0x62, enc_str, dec_str)};

const marshal_field within_fields[] = {field(offsetof(two_texts, first), 0x63, enc_str, dec_str),
                                       field(offsetof(two_texts, second), 0x64, enc_str, dec_str),
                                       last_field()};
const marshal_struct_desc within_desc = {0, 0x65, nullptr, nullptr, 1, within_fields};

const marshal_field inner_rows[] = {field(1, 0x66, enc_str, dec_str),
                                    field(2, 0x67, enc_int, dec_int), last_field()};
const marshal_choice_desc nested_desc = {
    0, 0x68,      nullptr, nullptr, offsetof(inner_choice, kind), offsetof(inner_choice, value),
    1, inner_rows};

int inner_alive = 0;
void *new_inner() {
  inner_alive++;
  return calloc(1, sizeof(inner_choice));
}
void free_inner(void *object) {
  inner_choice *of = static_cast<inner_choice *>(object);
  if (!of)
    return;
  inner_alive--;
  if (of->kind == 1)
    free(of->value.text);
  free(of);
}
const marshal_choice_desc chosen_desc = {0,
                                         0x68,
                                         new_inner,
                                         free_inner,
                                         offsetof(inner_choice, kind),
                                         offsetof(inner_choice, value),
                                         0,
                                         inner_rows};

// Every certificate that was decoded and not freed by the slot's owner.
std::vector<X509 *> certificates;
void *d2i_counted(void **object, const unsigned char **in, long length) {
  EXPECT_EQ(*object == nullptr || *object == certificates.back(), true)
      << "something else taken for a certificate";
  bool again = *object != nullptr;
  X509 *made = d2i_X509(reinterpret_cast<X509 **>(object), in, length);
  if (made && !again)
    certificates.push_back(made);
  return made;
}

const marshal_field rows[] = {
    field(text, 0x71, enc_str, dec_str),
    field(public_key, 0x72, enc_pub_key, dec_pub_key),
    field(private_key, 0x73, enc_prv_key, dec_prv_key),
    field(stack, 0x74, enc_stack, dec_stack, &stack_desc),
    field(aside, 0x75, enc_struct, dec_struct, &support::note_desc),
    field(within, 0x76, enc_struct, dec_struct, &within_desc),
    field(nested, 0x77, enc_choice, dec_choice, &nested_desc),
    field(chosen, 0x78, enc_choice, dec_choice, &chosen_desc),
    field(number, 0x79, enc_int, dec_int),
    field(seconds, 0x7a, enc_time, dec_time),
    field(broken_down, 0x7b, enc_struct_tm, dec_struct_tm),
    field(certificate, 0x7c, enc_asn1_struct, dec_asn1_struct, support::d2i(d2i_counted)),
    last_field()};
const marshal_choice_desc slot_desc = {
    0, 0x7f, nullptr, nullptr, offsetof(slot, kind), offsetof(slot, value), 1, rows};

// What the owner of a slot frees: what its selector says.
void clear(slot *of) {
  switch (of->kind) {
    case text:
      free(of->value.text);
      break;
    case public_key:
    case private_key:
      EVP_PKEY_free(of->value.key);
      break;
    case stack:
      OPENSSL_sk_pop_free(of->value.stack, free);
      break;
    case aside:
      support::free_note(of->value.aside);
      break;
    case within:
      free(of->value.within.first);
      free(of->value.within.second);
      break;
    case nested:
      if (of->value.nested.kind == 1)
        free(of->value.nested.value.text);
      break;
    case chosen:
      free_inner(of->value.chosen);
      break;
    default:
      break;
  }
  memset(of, 0, sizeof *of);
}

struct holder {
  int before;
  slot choice;
  int behind;
};
void *new_holder() {
  return calloc(1, sizeof(holder));
}
void free_holder(void *object) {
  if (object)
    clear(&static_cast<holder *>(object)->choice);
  free(object);
}
const marshal_field holder_fields[] = {
    field(offsetof(holder, before), 0x02, enc_int, dec_int),
    field(offsetof(holder, choice), 0x03, enc_choice, dec_choice, &slot_desc),
    field(offsetof(holder, behind), 0x04, enc_int, dec_int), last_field()};
const marshal_struct_desc holder_desc = {0, 0x05, new_holder, free_holder, 0, holder_fields};

// ---- streams ----

std::string der_of(int (*encoder)(const EVP_PKEY *, unsigned char **)) {
  unsigned char *out = nullptr;
  int length = encoder(support::test_key(0).get(), &out);
  std::string der(reinterpret_cast<char *>(out), static_cast<size_t>(length));
  OPENSSL_free(out);
  return der;
}
std::string private_der() {
  PKCS8_PRIV_KEY_INFO *info = EVP_PKEY2PKCS8(support::test_key(0).get());
  unsigned char *out = nullptr;
  int length = i2d_PKCS8_PRIV_KEY_INFO(info, &out);
  std::string der(reinterpret_cast<char *>(out), static_cast<size_t>(length));
  OPENSSL_free(out);
  PKCS8_PRIV_KEY_INFO_free(info);
  return der;
}

// The choice with an alternative that is right, or one that fails when something of it was read.
std::string choice_of(int kind, bool broken = false) {
  static const std::string spki = der_of(i2d_PUBKEY);
  static const std::string pkcs8 = private_der();
  static const std::string x509 = support::der(support::make_cert());
  std::string tm_octets;
  for (int i = 0; i < 11; i++)
    tm_octets += support::image(0x41414141 + i);
  std::string value;
  switch (kind) {
    case text:
      value = block(0x71, "a text");
      break;
    case public_key:
      value = block(0x72, broken ? "junk" : spki);
      break;
    case private_key:
      value = block(0x73, broken ? "junk" : pkcs8);
      break;
    case stack:
      value = block(0x74) + block(0x62, "one") + block(0x62, "two") + (broken ? "" : block(0x61));
      break;
    case aside:
      value = block(0x75) + block(0x12, "note") + (broken ? block(0x13) : int_block(0x13, 7)) +
              block(0x11);
      break;
    case within:
      value =
          block(0x76) + block(0x63, "first") + block(0x64, "second") + (broken ? "" : block(0x65));
      break;
    case nested:
    case chosen:
      value =
          block(kind == nested ? 0x77 : 0x78) + block(0x66, "deep") + (broken ? "" : block(0x68));
      break;
    case number:
      value = broken ? block(0x79, "abc") : int_block(0x79, 0x42424242);
      break;
    case seconds:
      value = broken ? block(0x7a, "abc") : int_block(0x7a, 0x43434343);
      break;
    case broken_down:
      value = block(0x7b, broken ? "abc" : tm_octets);
      break;
    case certificate:
      value = block(0x7c, broken ? "junk" : x509);
      break;
    default:
      break;
  }
  return block(0x03) + value + (broken ? "" : block(0x7f));
}

void expect_value(const slot &of, int kind) {
  ASSERT_EQ(of.kind, kind);
  const support::key key = support::test_key(0);
  switch (kind) {
    case text:
      EXPECT_STREQ(of.value.text, "a text");
      break;
    case public_key:
    case private_key:
      EXPECT_EQ(EVP_PKEY_eq(of.value.key, key.get()), 1);
      break;
    case stack:
      ASSERT_EQ(OPENSSL_sk_num(of.value.stack), 2);
      EXPECT_STREQ(static_cast<char *>(OPENSSL_sk_value(of.value.stack, 1)), "two");
      break;
    case aside:
      EXPECT_STREQ(of.value.aside->text, "note");
      EXPECT_EQ(of.value.aside->number, 7);
      break;
    case within:
      EXPECT_STREQ(of.value.within.first, "first");
      EXPECT_STREQ(of.value.within.second, "second");
      break;
    case nested:
      EXPECT_EQ(of.value.nested.kind, 1);
      EXPECT_STREQ(of.value.nested.value.text, "deep");
      break;
    case chosen:
      EXPECT_EQ(of.value.chosen->kind, 1);
      EXPECT_STREQ(of.value.chosen->value.text, "deep");
      break;
    case number:
      EXPECT_EQ(of.value.number, 0x42424242);
      break;
    case seconds:
      EXPECT_EQ(of.value.seconds, 0x43434343);
      break;
    case broken_down:
      EXPECT_EQ(of.value.broken_down.tm_sec, 0x41414141);
      EXPECT_EQ(of.value.broken_down.tm_gmtoff, 0x41414141 + 9);
      EXPECT_EQ(of.value.broken_down.tm_zone, nullptr);
      break;
    case certificate:
      EXPECT_EQ(of.value.certificate, certificates.back());
      break;
    default:
      break;
  }
}

// ---- tests ----

const char *const names[] = {"Nothing", "Text",       "PublicKey",  "PrivateKey", "Stack",
                             "Aside",   "Within",     "Nested",     "Chosen",     "Number",
                             "Seconds", "BrokenDown", "Certificate"};

// The alternatives that follow each other.
struct MarshalInlineChoice : testing::TestWithParam<std::tuple<int, int>> {
  void SetUp() override {
    clear_log();
    support::clear_openssl_errors();
  }
  void TearDown() override {
    free_holder(read);
    // What the library forgot, and what the slot held: a leak is found by the sanitizer, and a
    // value that was freed twice or as another type as well.
    for (X509 *made : certificates)
      X509_free(made);
    certificates.clear();
    EXPECT_EQ(support::notes_alive, 0);
    EXPECT_EQ(inner_alive, 0);
  }
  int read_from(const std::string &choices) {
    return decode(block(1) + int_block(2, 1111) + choices + int_block(4, 2222) + block(5),
                  dec_struct, &read, &holder_desc);
  }
  int first = std::get<0>(GetParam());
  int second = std::get<1>(GetParam());
  holder *read = nullptr;
};

TEST_P(MarshalInlineChoice, LastValueStandsInTheFirstsPlace) {
  ASSERT_EQ(read_from(choice_of(first) + choice_of(second)), 0);
  expect_value(read->choice, second);
  EXPECT_EQ(read->before, 1111);
  EXPECT_EQ(read->behind, 2222);
}

TEST_P(MarshalInlineChoice, ThirdOneFindsThePlaceAsTheFirstDid) {
  ASSERT_EQ(read_from(choice_of(first) + choice_of(second) + choice_of(first)), 0);
  expect_value(read->choice, first);
}

TEST_P(MarshalInlineChoice, ValueOfTheHostIsReplacedToo) {
  slot here = {};
  ASSERT_EQ(decode(choice_of(first), dec_choice, &here, &slot_desc), 0);
  ASSERT_EQ(decode(choice_of(second), dec_choice, &here, &slot_desc), 0);
  expect_value(here, second);
  clear(&here);
}

TEST_P(MarshalInlineChoice, EmptyAndUnknownOnesInBetweenChangeNothing) {
  const std::string empty = block(0x03) + block(0x7f);
  const std::string unknown = block(0x03) + block(0x99, "abc") + block(0x7f);
  ASSERT_EQ(read_from(choice_of(first) + empty + unknown), 0);
  expect_value(read->choice, first);
  ASSERT_EQ(read_from(choice_of(first) + empty + unknown + choice_of(second) + empty), 0);
  expect_value(read->choice, second);
}

// The second of a pair fails to be read. No stream makes a text fail.
struct MarshalInlineChoiceFailing : MarshalInlineChoice {};

TEST_P(MarshalInlineChoiceFailing, ASecondOneLeavesNothingThatItsOwnerFreesWrongly) {
  EXPECT_NE(read_from(choice_of(first) + choice_of(second, true)), 0);
  EXPECT_EQ(read, nullptr);
  slot here = {};
  ASSERT_EQ(decode(choice_of(first), dec_choice, &here, &slot_desc), 0);
  EXPECT_NE(decode(choice_of(second, true), dec_choice, &here, &slot_desc), 0);
  EXPECT_EQ(here.kind, second);
  clear(&here);
}

TEST_P(MarshalInlineChoiceFailing, AFirstOneIsFollowedByAnyOther) {
  slot here = {};
  EXPECT_NE(decode(choice_of(second, true), dec_choice, &here, &slot_desc), 0);
  ASSERT_EQ(decode(choice_of(first), dec_choice, &here, &slot_desc), 0);
  expect_value(here, first);
  clear(&here);
}

std::string pair_name(const testing::TestParamInfo<std::tuple<int, int>> &of) {
  return std::string(names[std::get<0>(of.param)]) + "Then" + names[std::get<1>(of.param)];
}

INSTANTIATE_TEST_SUITE_P(AllPairs, MarshalInlineChoice,
                         testing::Combine(testing::Range<int>(text, kinds),
                                          testing::Range<int>(text, kinds)),
                         pair_name);
INSTANTIATE_TEST_SUITE_P(AllPairs, MarshalInlineChoiceFailing,
                         testing::Combine(testing::Range<int>(text, kinds),
                                          testing::Range<int>(public_key, kinds)),
                         pair_name);

}  // namespace

}  // namespace inline_choice
