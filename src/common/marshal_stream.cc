// The marshal stream: octets and blocks.
#include <libpki/error.h>
#include <openssl/err.h>
#include <syslog.h>

#include <climits>

#include "common/alloc.h"
#include "common/log.h"
#include "common/marshal.h"

namespace pki {

namespace {

constexpr unsigned length_group = 0x7f;
constexpr unsigned more_groups = 0x80;
constexpr int group_bits = 7;
// A text of this length still has room for its NUL in an int.
constexpr int marshal_max_length = INT_MAX - 1;
// The tag, and five groups of a length.
constexpr int max_header_bytes = 6;

// Zero groups are left out, inner ones too: such is the format.
int put_header(unsigned char *header, int tag, int len) {
  int size = 0;
  header[size++] = static_cast<unsigned char>(tag);
  auto length = static_cast<unsigned>(len);
  for (int shift = 4 * group_bits; shift > 0; shift -= group_bits)
    if (unsigned group = length >> shift & length_group)
      header[size++] = static_cast<unsigned char>(group | more_groups);
  header[size++] = static_cast<unsigned char>(length & length_group);
  return size;
}

bool has_ended(BIO *bio) {
  return BIO_eof(bio) > 0;
}

// Some streams end without BIO_eof knowing, such as TLS once the other side has closed it.
bool gives_nothing(BIO *bio, int result) {
  return result == 0 && !BIO_should_retry(bio) && !ERR_peek_error();
}

// A tag or a part of a length could not be read: `result` is what BIO_read returned.
int no_header(BIO *bio, int result) {
  if (!has_ended(bio) && !gives_nothing(bio, result))
    return openssl_failure(PKI_BIO_READ_ERROR);
  syslog(log_warning, "premature EOD on bio");
  return PKI_BIO_EOD;
}

// As read_fully; `*had` octets were read, whatever the result.
int read_octets(BIO *bio, unsigned char *to, int len, int *had) {
  for (*had = 0; *had < len;) {
    int more = BIO_read(bio, to + *had, len - *had);
    if (more <= 0)
      return has_ended(bio) ? PKI_BIO_EOD : openssl_failure(PKI_BIO_READ_ERROR);
    *had += more;
  }
  return PKI_OK;
}

// The tag and the first octet of the length, which every block has, in as few reads as may be.
int get_header(BIO *bio, int *tag, int *len) {
  unsigned char header[2];
  int had = BIO_read(bio, header, sizeof header);
  if (had < 1)
    return no_header(bio, had);
  *tag = header[0];
  if (had < 2)
    if (int more = BIO_read(bio, &header[1], 1); more < 1)
      return no_header(bio, more);
  unsigned char octet = header[1];
  uint64_t length = octet & length_group;
  while (octet & more_groups) {
    if (int more = BIO_read(bio, &octet, 1); more < 1)
      return no_header(bio, more);
    length = length << group_bits | (octet & length_group);
    if (length > uint64_t{marshal_max_length})
      return PKI_OUT_OF_MEMORY;
  }
  *len = static_cast<int>(length);
  return PKI_OK;
}

}  // namespace

}  // namespace pki

using namespace pki;

int write_fully(BIO *bio, const void *buf, int len) {
  if (!bio || len < 0 || (!buf && len > 0))
    return PKI_INVALID_ARGS;
  const auto *from = static_cast<const unsigned char *>(buf);
  while (len > 0) {
    int written = BIO_write(bio, from, len);
    if (written <= 0)
      return openssl_failure(PKI_BIO_WRITE_ERROR);
    from += written;
    len -= written;
  }
  return PKI_OK;
}

int read_fully(BIO *bio, void *buf, int len) {
  if (!bio || len < 0 || (!buf && len > 0))
    return PKI_INVALID_ARGS;
  int had;
  return read_octets(bio, static_cast<unsigned char *>(buf), len, &had);
}

int write_block(BIO *bio, int tag, const void *data, int len) {
  if (!bio || len < 0 || len > marshal_max_length || (!data && len > 0))
    return PKI_INVALID_ARGS;
  unsigned char header[max_header_bytes];
  if (int error = write_fully(bio, header, put_header(header, tag, len)))
    return error;
  return write_fully(bio, data, len);
}

int read_block(BIO *bio, int *tag, int *len, unsigned char **data) {
  if (tag)
    *tag = 0;
  if (len)
    *len = 0;
  if (data)
    *data = nullptr;
  if (!bio || !tag || !len || !data)
    return PKI_INVALID_ARGS;
  int length = 0;
  if (int error = get_header(bio, tag, &length))
    return error;
  if (length == 0)
    return PKI_OK;
  malloc_ptr<unsigned char> buffer(
      static_cast<unsigned char *>(allocate(static_cast<size_t>(length))));
  if (!buffer)
    return PKI_OUT_OF_MEMORY;
  int had;
  if (int error = read_octets(bio, buffer.get(), length, &had)) {
    OPENSSL_cleanse(buffer.get(), static_cast<size_t>(had));
    return error;
  }
  *len = length;
  *data = buffer.release();
  return PKI_OK;
}
