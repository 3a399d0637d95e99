// A whole item of the marshal stream, and streams in memory.
#include <libpki/error.h>
#include <openssl/buffer.h>

#include <algorithm>
#include <cstring>

#include "common/alloc.h"
#include "common/limits.h"
#include "common/log.h"
#include "common/marshal.h"
#include "common/ossl_ptr.h"

namespace pki {

namespace {

using buf_mem_ptr = std::unique_ptr<BUF_MEM, free_with<BUF_MEM_free>>;

// A magic is text to people only as far as it is text. When memory runs out, its start is.
class printable {
 public:
  printable(const void *octets, int len) {
    if (len > shown_without_memory) {
      long_text_.reset(static_cast<char *>(allocate(static_cast<size_t>(len) + 1)));
      if (!long_text_)
        len = shown_without_memory;
    }
    char *to = long_text_ ? long_text_.get() : text_;
    std::transform(static_cast<const char *>(octets), static_cast<const char *>(octets) + len, to,
                   [](char octet) { return octet >= ' ' && octet <= '~' ? octet : '.'; });
    to[len] = '\0';
  }

  [[nodiscard]] const char *text() const { return long_text_ ? long_text_.get() : text_; }

 private:
  static constexpr int shown_without_memory = 256;
  char text_[shown_without_memory + 1] = "";
  malloc_ptr<char> long_text_;
};

void log_wrong_magic(const void *got, const void *expected, int len) {
  const printable got_text(got, len), expected_text(expected, len);
  syslog(log_critical, "magic is wrong: got '%s', expected '%s'", got_text.text(),
         expected_text.text());
}

int check_magic(BIO *bio, const void *expected, int len) {
  malloc_ptr<unsigned char> magic(static_cast<unsigned char *>(allocate(static_cast<size_t>(len))));
  if (!magic)
    return PKI_OUT_OF_MEMORY;
  if (int error = read_fully(bio, magic.get(), len))
    return error;
  if (std::memcmp(magic.get(), expected, static_cast<size_t>(len)) == 0)
    return PKI_OK;
  log_wrong_magic(magic.get(), expected, len);
  return PKI_WRONG_MAGIC;
}

}  // namespace

}  // namespace pki

using namespace pki;

int marshall(BIO *bio, void *object, const marshal_item *item, const void *magic, int magic_len) {
  if (!bio || !item || !item->enc || (magic && magic_len < 0))
    return PKI_INVALID_ARGS;
  if (magic)
    if (int error = write_fully(bio, magic, magic_len))
      return error;
  if (int error = item->enc(bio, &object, item->tag, const_cast<void *>(item->enc_arg)))
    return error;
  return write_block(bio, 0, nullptr, 0);
}

int unmarshall(BIO *bio, void *target, const marshal_item *item, const void *expected_magic,
               int magic_len) {
  if (!bio || !target || !item || !item->dec || (expected_magic && magic_len < 0))
    return PKI_INVALID_ARGS;
  if (expected_magic)
    if (int error = check_magic(bio, expected_magic, magic_len))
      return error;
  marshal_block first;
  if (int error = first.read(bio))
    return error;
  return first.decode(bio, item->dec, target, item->dec_arg);
}

int new_write_buffer(BIO **out, int initial_size) {
  if (!out)
    return PKI_INVALID_ARGS;
  *out = nullptr;
  bio_ptr bio(BIO_new(BIO_s_mem()));
  if (!bio)
    return openssl_failure(PKI_BIO_CREAT_FAILED);
  buf_mem_ptr buffer(BUF_MEM_new());
  if (!buffer)
    return openssl_failure(PKI_OUT_OF_MEMORY);
  auto size = static_cast<size_t>(initial_size > 0 ? initial_size : write_buffer_bytes);
  if (BUF_MEM_grow(buffer.get(), size) == 0)
    return openssl_failure(PKI_OUT_OF_MEMORY);
  buffer->length = 0;
  if (BIO_set_mem_buf(bio.get(), buffer.get(), BIO_CLOSE) <= 0)
    return openssl_failure(PKI_BIO_BUF_SET_FAILED);
  buffer.release();
  *out = bio.release();
  return PKI_OK;
}
