// Marshal streams for tests: octets put together by hand, streams over them, and a record that uses
// every kind of description.
#ifndef TESTS_SUPPORT_MARSHAL_H
#define TESTS_SUPPORT_MARSHAL_H

#include <gtest/gtest.h>
#include <libpki/marshal.h>
#include <openssl/x509.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "support/certs.h"

namespace support {

// ---- octets ----

inline std::string hex(const std::string &octets) {
  std::string text;
  for (unsigned char octet : octets) {
    text += "0123456789abcdef"[octet >> 4];
    text += "0123456789abcdef"[octet & 15];
  }
  return text;
}

inline std::string from_hex(const std::string &digits) {
  std::string octets;
  for (size_t i = 0; i + 1 < digits.size();) {
    if (digits[i] == ' ') {
      i++;
      continue;
    }
    octets += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    i += 2;
  }
  return octets;
}

// A block with a full length, base 128, also where a writer would leave out groups.
inline std::string block(int tag, const std::string &data = "") {
  std::string length(1, static_cast<char>(data.size() & 0x7f));
  for (size_t rest = data.size() >> 7; rest; rest >>= 7)
    length.insert(length.begin(), static_cast<char>((rest & 0x7f) | 0x80));
  return std::string(1, static_cast<char>(tag)) + length + data;
}

// A number as it lies in memory.
template <class T>
std::string image(T value) {
  return std::string(reinterpret_cast<const char *>(&value), sizeof value);
}
inline std::string int_block(int tag, int value) {
  return block(tag, image<int>(value));
}
inline const std::string end_of_data("\0\0", 2);

// ---- streams ----

struct bio_closer {
  void operator()(BIO *bio) const { BIO_free_all(bio); }
};
using stream = std::unique_ptr<BIO, bio_closer>;

inline stream empty_stream() {
  return stream(BIO_new(BIO_s_mem()));
}
// A copy of `octets`, and then the end of the input.
inline stream stream_of(const std::string &octets) {
  stream made = empty_stream();
  BIO_write(made.get(), octets.data(), static_cast<int>(octets.size()));
  BIO_set_mem_eof_return(made.get(), 0);
  return made;
}
// What is in a stream in memory, unread.
inline std::string octets_in(const stream &from) {
  char *data = nullptr;
  long length = BIO_get_mem_data(from.get(), &data);
  return length > 0 ? std::string(data, static_cast<size_t>(length)) : std::string();
}

// A description as encoders and decoders are given it: they only read it.
inline void *arg(const void *description) {
  return const_cast<void *>(description);
}

template <class Function>
const void *d2i(Function *decoder) {
  return MARSHAL_D2I(decoder);
}

// What `enc` writes of the field; it has to succeed.
inline std::string encoded(marshal_enc_fn *enc, const void *field, int tag,
                           const void *description = nullptr) {
  stream out = empty_stream();
  EXPECT_EQ(enc(out.get(), const_cast<void *>(field), tag, arg(description)), 0);
  return octets_in(out);
}

// Reads a block and has `dec` read the rest, as the decoder of a structure does for a field.
inline int decode(BIO *bio, marshal_dec_fn *dec, void *target, const void *description = nullptr) {
  int tag = -1, length = -1;
  unsigned char *data = nullptr;
  int code = read_block(bio, &tag, &length, &data);
  if (code)
    return code;
  code = dec(bio, tag, data, length, target, arg(description));
  free(data);
  return code;
}
inline int decode(const std::string &octets, marshal_dec_fn *dec, void *target,
                  const void *description = nullptr) {
  return decode(stream_of(octets).get(), dec, target, description);
}

// ---- tables ----

inline marshal_field field(size_t offset_or_selector, int tag, marshal_enc_fn *enc,
                           marshal_dec_fn *dec, const void *description = nullptr) {
  marshal_field row = {};
  row.offset = static_cast<int>(offset_or_selector);
  row.tag = tag;
  row.enc = enc;
  row.enc_arg = description;
  row.dec = dec;
  row.dec_arg = description;
  return row;
}
inline marshal_field last_field() {
  return {};
}

// ---- a text or a number ----

struct inner_choice {
  int kind;
  union {
    char *text;
    int number;
  } value;
};

// ---- a small structure ----

struct note {
  char *text = nullptr;
  int number = 0;
};
inline std::atomic<int> notes_alive = 0;
inline void *new_note() {
  // malloc, so that tests can make it fail.
  void *room = malloc(sizeof(note));
  if (!room)
    return nullptr;
  notes_alive++;
  return new (room) note;
}
inline void free_note(void *object) {
  if (!object)
    return;
  free(static_cast<note *>(object)->text);
  free(object);
  notes_alive--;
}
enum note_tags { note_start = 0x10, note_end = 0x11, note_text = 0x12, note_number = 0x13 };
inline const marshal_field note_fields[] = {
    field(offsetof(note, text), note_text, enc_str, dec_str),
    field(offsetof(note, number), note_number, enc_int, dec_int),
    last_field(),
};
inline const marshal_struct_desc note_desc = {0, note_end, new_note, free_note, 0, note_fields};
inline const marshal_struct_desc inline_note_desc = {0, note_end, nullptr, nullptr, 1, note_fields};
inline const marshal_item note_item = {note_start, enc_struct, &note_desc, dec_struct, &note_desc};

struct note_owner {
  note *object = nullptr;
  note_owner() = default;
  note_owner(const char *text, int number) : object(static_cast<note *>(new_note())) {
    object->text = strdup(text);
    object->number = number;
  }
  ~note_owner() { free_note(object); }
  note_owner(const note_owner &) = delete;
  note_owner &operator=(const note_owner &) = delete;
  note *operator->() const { return object; }
};

inline std::string note_octets(const std::string &text, int number, int start = note_start) {
  return block(start) + block(note_text, text) + int_block(note_number, number) + block(note_end);
}

// ---- functions of a host's that fail ----

inline int enc_fails_with_77(BIO *, void *, int, void *) {
  return 77;
}
inline int dec_fails_with_77(BIO *, int, const unsigned char *, int, void *, void *) {
  return 77;
}
inline void *no_object() {
  return nullptr;
}

// ---- a BIO that does what a test says ----

constexpr char premature[] = "premature EOD on bio";

// Reads from `input` and writes to `output`, `chunk` octets a call; fails when `reads_left` or
// `writes_left` octets have passed.
struct script {
  std::string input = {};
  size_t chunk = 1;
  size_t reads_left = static_cast<size_t>(-1);
  size_t writes_left = static_cast<size_t>(-1);
  int failure = -1;       // what a failing call returns
  int queued_reason = 0;  // what it queues in OpenSSL's error queue
  bool wants_retry = false;
  std::string output = {};
  std::vector<size_t> asked = {};  // octets that each write was asked to take
  size_t position = 0;
};

inline int script_failure(BIO *bio, const script *of) {
  if (of->queued_reason)
    raise_openssl_error(of->queued_reason);
  if (of->wants_retry)
    BIO_set_retry_read(bio);
  return of->failure;
}
inline int script_write(BIO *bio, const char *data, int length) {
  script *of = static_cast<script *>(BIO_get_data(bio));
  of->asked.push_back(static_cast<size_t>(length));
  size_t count = std::min({of->chunk, of->writes_left, static_cast<size_t>(length)});
  if (!count)
    return script_failure(bio, of);
  of->output.append(data, count);
  of->writes_left -= count;
  return static_cast<int>(count);
}
inline int script_read(BIO *bio, char *data, int length) {
  script *of = static_cast<script *>(BIO_get_data(bio));
  size_t rest = of->input.size() - of->position;
  if (of->reads_left == 0)
    return script_failure(bio, of);
  size_t count = std::min({of->chunk, of->reads_left, rest, static_cast<size_t>(length)});
  memcpy(data, of->input.data() + of->position, count);
  of->position += count;
  of->reads_left -= count;
  return static_cast<int>(count);
}
inline long script_ctrl(BIO *bio, int command, long, void *) {
  script *of = static_cast<script *>(BIO_get_data(bio));
  if (command == BIO_CTRL_EOF)
    return of->reads_left > 0 && of->position == of->input.size();
  return command == BIO_CTRL_FLUSH;
}
// A stream of `of`, which must outlive it.
inline stream scripted(script *of) {
  static BIO_METHOD *method = [] {
    BIO_METHOD *made = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "script");
    BIO_meth_set_write(made, script_write);
    BIO_meth_set_read(made, script_read);
    BIO_meth_set_ctrl(made, script_ctrl);
    return made;
  }();
  stream made(BIO_new(method));
  BIO_set_data(made.get(), of);
  BIO_set_init(made.get(), 1);
  return made;
}

}  // namespace support

#endif
