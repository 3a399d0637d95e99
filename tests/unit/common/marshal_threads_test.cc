// Tables and keys are only read: all threads may share them.
#include <gtest/gtest.h>
#include <libpki/marshal.h>

#include <thread>

#include "fakes/log_capture.h"
#include "support/marshal.h"

namespace {

using support::empty_stream;
using support::note;
using support::octets_in;
using support::stream;
using support::stream_of;

constexpr int threads = 8;
constexpr int rounds = 60;

// notes_alive is no counter for several threads.
void *new_plain_note() {
  return calloc(1, sizeof(note));
}
void free_plain_note(void *object) {
  if (object)
    free(static_cast<note *>(object)->text);
  free(object);
}
const marshal_struct_desc plain_desc = {0, support::note_end,   new_plain_note, free_plain_note,
                                        0, support::note_fields};

struct texts {
  note *first;
  STACK *rest;
};
void *new_texts() {
  return calloc(1, sizeof(texts));
}
void free_texts(void *object) {
  texts *of = static_cast<texts *>(object);
  if (!of)
    return;
  free_plain_note(of->first);
  OPENSSL_sk_pop_free(of->rest, free);
  free(of);
}
const marshal_stack_desc rest_desc = {0, 0x61, free, support::field(0, 0x62, enc_str, dec_str)};
const marshal_field texts_fields[] = {
    support::field(offsetof(texts, first), 0x63, enc_struct, dec_struct, &plain_desc),
    support::field(offsetof(texts, rest), 0x60, enc_stack, dec_stack, &rest_desc),
    support::last_field()};
const marshal_struct_desc texts_desc = {0, 0x64, new_texts, free_texts, 0, texts_fields};

// Each thread writes its own text, reads it back, and finds a change.
bool round_trip(const marshal_item &item, int thread) {
  const std::string mine(static_cast<size_t>(50 + thread), static_cast<char>('a' + thread));
  texts *sent = static_cast<texts *>(new_texts());
  sent->first = static_cast<note *>(new_plain_note());
  sent->first->text = strdup(mine.c_str());
  sent->first->number = thread;
  sent->rest = OPENSSL_sk_new_null();
  for (int i = 0; i < 5; i++)
    OPENSSL_sk_push(sent->rest, strdup(mine.c_str()));
  stream out = empty_stream();
  bool right = marshall(out.get(), sent, &item, "MAGIC", 5) == 0;
  free_texts(sent);
  std::string octets = octets_in(out);
  texts *back = nullptr;
  right &= unmarshall(stream_of(octets).get(), &back, &item, "MAGIC", 5) == 0;
  right &= back && mine == back->first->text && back->first->number == thread &&
           OPENSSL_sk_num(back->rest) == 5 &&
           mine == static_cast<char *>(OPENSSL_sk_value(back->rest, 4));
  free_texts(back);
  octets[20] ^= 1;
  back = nullptr;
  right &= unmarshall(stream_of(octets).get(), &back, &item, "MAGIC", 5) != 0 && !back;
  return right;
}

void run_all(const marshal_item &item) {
  std::vector<std::thread> running;
  std::vector<int> wrong(threads, 0);
  for (int i = 0; i < threads; i++)
    running.emplace_back([&, i] {
      for (int n = 0; n < rounds; n++)
        wrong[static_cast<size_t>(i)] += !round_trip(item, i);
    });
  for (std::thread &each : running)
    each.join();
  EXPECT_EQ(wrong, std::vector<int>(threads, 0));
  clear_log();
}

TEST(MarshalThreads, ShareTablesUnderADigest) {
  const marshal_envelope_desc desc = {0x70, 0x71, 0x72, &texts_desc, EVP_sha1(), nullptr, nullptr};
  run_all({0x70, create_digest, &desc, verify_digest, &desc});
}

TEST(MarshalThreads, ShareTablesAndKeysUnderASignature) {
  support::key pair = support::test_key(0);
  const marshal_envelope_desc desc = {0x70,         0x71,       0x72,      &texts_desc,
                                      EVP_sha256(), pair.get(), pair.get()};
  run_all({0x70, create_sig, &desc, verify_sig, &desc});
}

}  // namespace
