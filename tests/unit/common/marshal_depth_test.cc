// Composites within each other: as deep as one likes within a limit, and no deeper, whoever made
// the stream or the object.
#include <gtest/gtest.h>
#include <libpki/marshal.h>
#include <pthread.h>

#include "fakes/log_capture.h"
#include "support/marshal.h"

namespace {

using support::block;
using support::decode;
using support::empty_stream;
using support::field;
using support::last_field;
using support::octets_in;
using support::stream;

const char too_deep[] = "marshalled data is nested too deep";
constexpr int limit = 256;
constexpr int hopeless = 100000;

// A link of a chain. Structures, choices and stacks each have a chain of their own kind.
struct link {
  int kind;
  link *next;
};
int alive = 0;
void *new_link() {
  link *made = static_cast<link *>(calloc(1, sizeof(link)));
  made->kind = 1;
  alive++;
  return made;
}
// Without recursion: the library's own must be the only one here.
void free_links(void *object) {
  for (link *at = static_cast<link *>(object); at;) {
    link *next = at->next;
    free(at);
    alive--;
    at = next;
  }
}

extern const marshal_struct_desc struct_desc;
const marshal_field struct_fields[] = {
    field(offsetof(link, next), 1, enc_struct, dec_struct, &struct_desc), last_field()};
const marshal_struct_desc struct_desc = {0, 2, new_link, free_links, 0, struct_fields};

extern const marshal_choice_desc choice_desc;
const marshal_field choice_rows[] = {field(1, 1, enc_choice, dec_choice, &choice_desc),
                                     last_field()};
const marshal_choice_desc choice_desc = {
    0, 2, new_link, free_links, offsetof(link, kind), offsetof(link, next), 0, choice_rows};

// A choice and a structure by turns.
extern const marshal_struct_desc mixed_desc;
const marshal_field mixed_rows[] = {field(1, 1, enc_struct, dec_struct, &mixed_desc), last_field()};
const marshal_choice_desc mixed_choice = {
    0, 2, new_link, free_links, offsetof(link, kind), offsetof(link, next), 0, mixed_rows};
const marshal_field mixed_fields[] = {
    field(offsetof(link, next), 1, enc_choice, dec_choice, &mixed_choice), last_field()};
const marshal_struct_desc mixed_desc = {0, 2, new_link, free_links, 0, mixed_fields};

struct chain {
  const char *name;
  marshal_enc_fn *enc;
  marshal_dec_fn *dec;
  const void *desc;
};
const chain chains[] = {{"Structures", enc_struct, dec_struct, &struct_desc},
                        {"Choices", enc_choice, dec_choice, &choice_desc},
                        {"Mixed", enc_struct, dec_struct, &mixed_desc}};

link *make_links(int count) {
  link *first = nullptr;
  for (int i = 0; i < count; i++) {
    link *made = static_cast<link *>(new_link());
    made->next = first;
    first = made;
  }
  return first;
}

std::string nested(int depth, bool closed = true) {
  std::string octets;
  for (int i = 0; i < depth; i++)
    octets += block(1);
  for (int i = 0; closed && i < depth; i++)
    octets += block(2);
  return octets;
}

struct MarshalDepth : testing::TestWithParam<chain> {
  void SetUp() override { clear_log(); }
  void TearDown() override { EXPECT_EQ(alive, 0); }
  int read(const std::string &octets, link **out) {
    return decode(octets, GetParam().dec, out, GetParam().desc);
  }
  int write(link **object, std::string *out) {
    stream to = empty_stream();
    int code = GetParam().enc(to.get(), object, 1, support::arg(GetParam().desc));
    *out = octets_in(to);
    return code;
  }
  std::string written;
};

TEST_P(MarshalDepth, UpToTheLimitBothWaysWork) {
  for (int depth : {1, 2, 200, limit}) {
    link *sent = make_links(depth), *back = nullptr;
    EXPECT_EQ(write(&sent, &written), 0) << depth;
    EXPECT_EQ(written, nested(depth)) << depth;
    EXPECT_EQ(read(written, &back), 0) << depth;
    int count = 0;
    for (link *at = back; at; at = at->next)
      count++;
    EXPECT_EQ(count, depth);
    free_links(sent);
    free_links(back);
  }
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_P(MarshalDepth, DeeperStreamsAreRefusedAndLeaveNothing) {
  for (int depth : {limit + 1, 1000, hopeless})
    for (bool closed : {true, false}) {
      clear_log();
      link *back = nullptr;
      EXPECT_EQ(read(nested(depth, closed), &back), 2) << depth;
      EXPECT_EQ(back, nullptr);
      EXPECT_EQ(alive, 0);
      std::vector<log_entry> expected = {{4, too_deep}};
      EXPECT_EQ(captured_log(), expected) << log_dump();
    }
}

TEST_P(MarshalDepth, DeeperObjectsAreRefused) {
  for (int depth : {limit + 1, 1000, hopeless}) {
    clear_log();
    link *sent = make_links(depth);
    EXPECT_EQ(write(&sent, &written), 2) << depth;
    std::vector<log_entry> expected = {{4, too_deep}};
    EXPECT_EQ(captured_log(), expected) << log_dump();
    free_links(sent);
  }
}

TEST_P(MarshalDepth, ObjectThatHoldsItselfIsRefused) {
  link *sent = make_links(1);
  sent->next = sent;
  EXPECT_EQ(write(&sent, &written), 2);
  EXPECT_TRUE(was_logged(4, too_deep)) << log_dump();
  sent->next = nullptr;
  free_links(sent);
}

TEST_P(MarshalDepth, DepthIsCountedAnewAfterARefusal) {
  link *back = nullptr;
  for (int i = 0; i < 3; i++) {
    EXPECT_EQ(read(nested(limit + 1), &back), 2);
    EXPECT_EQ(read(nested(limit), &back), 0);
  }
  free_links(back);
}

TEST(MarshalDepthOfFields, CompositesBesideEachOtherAreNotDeep) {
  std::string octets = block(1);
  for (int i = 0; i < 100; i++)
    octets += nested(limit - 1);
  link *back = nullptr;
  EXPECT_EQ(decode(octets + block(2), dec_struct, &back, &struct_desc), 0);
  free_links(back);
}

INSTANTIATE_TEST_SUITE_P(Chain, MarshalDepth, testing::ValuesIn(chains),
                         [](const auto &of) { return of.param.name; });

// ---- stacks ----

void free_stacks(void *object) {
  // The elements of the only element, and so on: taken out one by one.
  STACK *at = static_cast<STACK *>(object);
  while (at) {
    STACK *next = static_cast<STACK *>(OPENSSL_sk_value(at, 0));
    OPENSSL_sk_free(at);
    at = next;
  }
}

extern const marshal_stack_desc stack_desc;
const marshal_stack_desc stack_desc = {0, 2, free_stacks,
                                       field(0, 1, enc_stack, dec_stack, &stack_desc)};

struct MarshalDepthOfStacks : testing::Test {
  void SetUp() override { clear_log(); }
};

STACK *make_stacks(int depth) {
  STACK *first = nullptr;
  for (int i = 0; i < depth; i++) {
    STACK *made = OPENSSL_sk_new_null();
    if (first)
      OPENSSL_sk_push(made, first);
    first = made;
  }
  return first;
}

TEST_F(MarshalDepthOfStacks, UpToTheLimitBothWaysWork) {
  for (int depth : {1, 200, limit}) {
    STACK *sent = make_stacks(depth), *back = nullptr;
    std::string octets = support::encoded(enc_stack, &sent, 1, &stack_desc);
    EXPECT_EQ(octets, nested(depth));
    EXPECT_EQ(decode(octets, dec_stack, &back, &stack_desc), 0) << depth;
    free_stacks(sent);
    free_stacks(back);
  }
}

TEST_F(MarshalDepthOfStacks, DeeperStreamsAreRefusedAndLeaveNothing) {
  for (int depth : {limit + 1, hopeless}) {
    STACK *back = nullptr;
    EXPECT_EQ(decode(nested(depth), dec_stack, &back, &stack_desc), 2) << depth;
    EXPECT_EQ(back, nullptr);
    EXPECT_TRUE(was_logged(4, too_deep)) << log_dump();
  }
}

TEST_F(MarshalDepthOfStacks, StackThatHoldsItselfIsRefused) {
  STACK *sent = OPENSSL_sk_new_null();
  OPENSSL_sk_push(sent, sent);
  stream out = empty_stream();
  EXPECT_EQ(enc_stack(out.get(), &sent, 1, support::arg(&stack_desc)), 2);
  EXPECT_TRUE(was_logged(4, too_deep)) << log_dump();
  OPENSSL_sk_free(sent);
}

// ---- envelopes ----

// An envelope around nothing cannot be read back.
int enc_wrapped(BIO *bio, void *field, int tag, void *arg) {
  return *static_cast<link **>(field) ? create_digest(bio, field, tag, arg) : 0;
}

extern const marshal_envelope_desc envelope;
extern const marshal_struct_desc wrapped_desc;
marshal_envelope_desc make_envelope() {
  return {0x31, 0x32, 0x33, &wrapped_desc, EVP_sha1(), nullptr, nullptr};
}
const marshal_field wrapped_fields[] = {
    field(offsetof(link, next), 0x31, enc_wrapped, verify_digest, &envelope), last_field()};
const marshal_struct_desc wrapped_desc = {0, 0x34, new_link, free_links, 0, wrapped_fields};
const marshal_envelope_desc envelope = make_envelope();

// Each counts for 16, and the structure within for one more.
constexpr int most_envelopes = 15;

int write_envelopes(int count, std::string *out) {
  link *sent = make_links(count);
  stream to = empty_stream();
  int code = create_digest(to.get(), &sent, 1, support::arg(&envelope));
  *out = octets_in(to);
  free_links(sent);
  return code;
}

// What is around the structures of `octets`, once more.
std::string wrap(const std::string &octets) {
  const std::string structure = block(0x33) + octets + block(0x34);
  unsigned char digest[20];
  EVP_Digest(structure.data(), structure.size(), digest, nullptr, EVP_sha1(), nullptr);
  return block(0x31) + structure + block(0x32, std::string(reinterpret_cast<char *>(digest), 20));
}

int links_in(const link *first) {
  int count = 0;
  for (; first; first = first->next)
    count++;
  return count;
}

TEST(MarshalDepthOfEnvelopes, FifteenWithinEachOtherWorkBothWays) {
  std::string octets;
  clear_log();
  ASSERT_EQ(write_envelopes(most_envelopes, &octets), 0);
  link *back = nullptr;
  ASSERT_EQ(decode(octets, verify_digest, &back, &envelope), 0);
  EXPECT_EQ(links_in(back), most_envelopes);
  EXPECT_TRUE(captured_log().empty()) << log_dump();
  free_links(back);
}

TEST(MarshalDepthOfEnvelopes, SixteenWithinEachOtherAreRefusedBothWays) {
  std::string octets;
  clear_log();
  EXPECT_EQ(write_envelopes(most_envelopes + 1, &octets), 2);
  EXPECT_TRUE(was_logged(4, too_deep)) << log_dump();
  ASSERT_EQ(write_envelopes(most_envelopes, &octets), 0);
  clear_log();
  link *back = nullptr;
  EXPECT_EQ(decode(wrap(octets), verify_digest, &back, &envelope), 2);
  EXPECT_EQ(back, nullptr);
  EXPECT_EQ(alive, 0);
  EXPECT_TRUE(was_logged(4, too_deep)) << log_dump();
}

TEST(MarshalDepthOfEnvelopes, AnEnvelopeWithinAnEnvelopeIsTooDeepLongBeforeTheStackEnds) {
  std::string octets;
  for (int i = 0; i < hopeless; i++)
    octets += block(0x31) + block(0x33);
  clear_log();
  link *back = nullptr;
  EXPECT_EQ(decode(octets, verify_digest, &back, &envelope), 2);
  EXPECT_EQ(back, nullptr);
  EXPECT_EQ(alive, 0);
  EXPECT_TRUE(was_logged(4, too_deep)) << log_dump();

  link *sent = make_links(hopeless);
  stream out = empty_stream();
  EXPECT_EQ(create_digest(out.get(), &sent, 1, support::arg(&envelope)), 2);
  free_links(sent);
}

// ---- a device's thread ----

// Frames are larger in a library that is not optimised, and on a machine where a frame begins with
// 160 octets for the registers of the next.
#if defined(NDEBUG) && !defined(__s390x__)
constexpr size_t small_stack = 64 * 1024;
#else
constexpr size_t small_stack = 160 * 1024;
#endif

struct errand {
  bool (*run)();
  bool done;
};

void *run_errand(void *argument) {
  errand *of = static_cast<errand *>(argument);
  of->done = of->run();
  return nullptr;
}

[[noreturn]] void run_on_a_small_stack(bool (*run)()) {
  errand job = {run, false};
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_t thread;
  if (pthread_attr_setstacksize(&attributes, small_stack) ||
      pthread_create(&thread, &attributes, run_errand, &job))
    exit(2);
  pthread_join(thread, nullptr);
  exit(job.done ? 0 : 1);
}

bool chains_run_deep() {
  bool right = true;
  for (const chain &of : chains) {
    link *sent = make_links(limit), *cycle = make_links(1), *back = nullptr;
    cycle->next = cycle;
    stream out = empty_stream();
    right &= of.enc(out.get(), &sent, 1, support::arg(of.desc)) == 0 &&
             decode(octets_in(out), of.dec, &back, of.desc) == 0 &&
             decode(nested(hopeless, false), of.dec, &back, of.desc) == 2 && !back &&
             of.enc(out.get(), &cycle, 1, support::arg(of.desc)) == 2;
    cycle->next = nullptr;
    free_links(cycle);
    free_links(sent);
  }
  return right;
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool sanitized = true;
#else
constexpr bool sanitized = false;
#endif

struct MarshalDepthOnASmallStack : testing::Test {
  void SetUp() override {
    if (sanitized)
      GTEST_SKIP() << "a sanitizer's frames are several times larger";
  }
  static void expect_success(bool (*run)()) {
    EXPECT_EXIT(run_on_a_small_stack(run), testing::ExitedWithCode(0), "");
  }
};

TEST_F(MarshalDepthOnASmallStack, ChainsOfTheDepthThatIsAllowed) {
  expect_success(chains_run_deep);
}

bool stacks_run_deep() {
  STACK *sent = make_stacks(limit), *back = nullptr;
  std::string octets = support::encoded(enc_stack, &sent, 1, &stack_desc);
  bool right = decode(octets, dec_stack, &back, &stack_desc) == 0 &&
               decode(nested(hopeless), dec_stack, &back, &stack_desc) == 2 && !back;
  free_stacks(sent);
  return right;
}

TEST_F(MarshalDepthOnASmallStack, StacksOfTheDepthThatIsAllowed) {
  expect_success(stacks_run_deep);
}

bool envelopes_run_deep() {
  std::string octets;
  for (int i = 0; i < hopeless; i++)
    octets += block(0x31) + block(0x33);
  link *back = nullptr;
  std::string written;
  bool right =
      decode(octets, verify_digest, &back, &envelope) == 2 && !back &&
      write_envelopes(hopeless, &written) == 2 && write_envelopes(most_envelopes, &written) == 0 &&
      decode(written, verify_digest, &back, &envelope) == 0 && links_in(back) == most_envelopes;
  free_links(back);
  return right;
}

TEST_F(MarshalDepthOnASmallStack, EnvelopesOfTheDepthThatIsAllowed) {
  expect_success(envelopes_run_deep);
}

}  // namespace
