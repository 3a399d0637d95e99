#include "verifier/crl_cache/stream.h"

#include <libpki/error.h>
#include <libpki/http.h>

#include <algorithm>
#include <cstring>

#include "common/limits.h"

namespace pki {

namespace {

constexpr unsigned char high_tag_number = 0x1f;
constexpr unsigned char more_tag_octets = 0x80;
constexpr unsigned char long_form = 0x80;
constexpr uint32_t unknown_length = UINT32_MAX;  // indefinite: fits nowhere

void feed_digest(crl_stream *stream) {
  if (stream->mark && stream->cur > stream->mark)
    EVP_DigestUpdate(stream->md, stream->mark, static_cast<size_t>(stream->cur - stream->mark));
  if (stream->mark)
    stream->mark = stream->cur;
}

ssize_t read_some(crl_stream *stream, unsigned char *dst, uint32_t size) {
  if (stream->read)
    return stream->read(stream->read_context, dst, size);
  return timed_read(stream->fd, dst, size, http_timeout_ms, nullptr);
}

// One read into the empty buffer.
int refill(crl_stream *stream) {
  feed_digest(stream);
  stream->cur = stream->buf;
  if (stream->mark)
    stream->mark = stream->buf;
  ssize_t got = read_some(stream, stream->buf, stream->buf_size);
  if (got < 1)
    return PKI_HTTP_READ_RESP_ERROR;
  stream->avail = static_cast<uint32_t>(got);
  return PKI_OK;
}

// One read past the empty buffer.
int read_directly(crl_stream *stream, unsigned char *dst, uint32_t size, uint32_t *read) {
  feed_digest(stream);
  ssize_t got = read_some(stream, dst, size);
  if (got < 1)
    return PKI_HTTP_READ_RESP_ERROR;
  *read = static_cast<uint32_t>(got);
  if (stream->mark)
    EVP_DigestUpdate(stream->md, dst, *read);
  return PKI_OK;
}

// Octets of a header, counted.
struct header_reader {
  crl_stream *stream;
  unsigned char *dst;
  uint32_t left;

  [[nodiscard]] int next(unsigned char *octet) {
    if (left == 0)
      return PKI_ASN1_DECODE_ERROR;
    if (int error = cv_slurp_bytes(stream, dst, 1))
      return error;
    left--;
    *octet = *dst++;
    return PKI_OK;
  }
};

int read_tag(header_reader *header) {
  unsigned char octet;
  if (int error = header->next(&octet))
    return error;
  if ((octet & high_tag_number) != high_tag_number)
    return PKI_OK;
  do {
    if (int error = header->next(&octet))
      return error;
  } while ((octet & more_tag_octets) != 0);
  return PKI_OK;
}

int read_length(header_reader *header, uint32_t *length) {
  unsigned char octet;
  if (int error = header->next(&octet))
    return error;
  *length = octet;
  if ((octet & long_form) == 0)
    return PKI_OK;
  uint32_t count = octet & ~static_cast<uint32_t>(long_form);
  *length = count == 0 ? unknown_length : 0;
  if (count > header->left)
    return PKI_ASN1_DECODE_ERROR;
  for (; count > 0; count--) {
    if (int error = header->next(&octet))
      return error;
    *length = (*length << 8) | octet;
  }
  return PKI_OK;
}

}  // namespace

int cv_slurp_bytes(crl_stream *stream, unsigned char *dst, uint32_t size) {
  while (size > 0) {
    uint32_t taken = std::min(stream->avail, size);
    if (taken > 0) {
      std::memcpy(dst, stream->cur, taken);
      stream->cur += taken;
      stream->avail -= taken;
    } else if (size <= crl_max_buffered_bytes) {
      if (int error = refill(stream))
        return error;
    } else if (int error = read_directly(stream, dst, size, &taken)) {
      return error;
    }
    dst += taken;
    size -= taken;
  }
  return PKI_OK;
}

int cv_slurp_der_hdr(crl_stream *stream, unsigned char **dst, uint32_t limit, uint32_t *remaining,
                     uint32_t *length) {
  header_reader header = {stream, *dst, std::min(limit, der_max_header_bytes)};
  if (int error = read_tag(&header))
    return error;
  if (int error = read_length(&header, length))
    return error;
  auto size = static_cast<uint32_t>(header.dst - *dst);
  if (size > *remaining)
    return PKI_ASN1_DECODE_ERROR;
  *remaining -= size;
  if (*length > *remaining)
    return PKI_ASN1_DECODE_ERROR;
  *dst = header.dst;
  return PKI_OK;
}

int cv_slurp_content(crl_stream *stream, unsigned char **dst, uint32_t limit, uint32_t *remaining,
                     uint32_t length) {
  if (length > limit)
    return PKI_ASN1_DECODE_ERROR;
  *remaining -= length;
  if (int error = cv_slurp_bytes(stream, *dst, length))
    return error;
  *dst += length;
  return PKI_OK;
}

int cv_slurp_der_obj(crl_stream *stream, unsigned char **dst, uint32_t limit, uint32_t *remaining) {
  uint32_t length;
  if (int error = cv_slurp_der_hdr(stream, dst, limit, remaining, &length))
    return error;
  return cv_slurp_content(stream, dst, limit, remaining, length);
}

int cv_skip_content(crl_stream *stream, unsigned char *scratch, uint32_t *remaining,
                    uint32_t length) {
  *remaining -= length;
  while (length > 0) {
    uint32_t part = std::min(length, crl_max_buffered_bytes);
    if (stream->avail > 0) {
      part = std::min(length, stream->avail);
      stream->cur += part;
      stream->avail -= part;
    } else if (int error = cv_slurp_bytes(stream, scratch, part)) {
      return error;
    }
    length -= part;
  }
  return PKI_OK;
}

int cv_skip_der_obj(crl_stream *stream, unsigned char *scratch, uint32_t *remaining) {
  unsigned char *end = scratch;
  uint32_t length;
  if (int error = cv_slurp_der_hdr(stream, &end, crl_max_buffered_bytes, remaining, &length))
    return error;
  return cv_skip_content(stream, scratch, remaining, length);
}

int cv_peek_tag(crl_stream *stream, unsigned char *tag) {
  if (stream->avail == 0)
    if (int error = refill(stream))
      return error;
  *tag = *stream->cur;
  return PKI_OK;
}

void start_digest_at_cursor(crl_stream *stream) {
  stream->mark = stream->cur;
}

void end_digest_at_cursor(crl_stream *stream) {
  feed_digest(stream);
  stream->mark = nullptr;
}

}  // namespace pki
