// Reading DER straight off a connection: a small buffer, and a digest that follows along.
#ifndef PKI_VERIFIER_CRL_CACHE_STREAM_H
#define PKI_VERIFIER_CRL_CACHE_STREAM_H

#include <libpki/crl.h>
#include <openssl/evp.h>

#include <cstdint>

namespace pki {

struct crl_stream {
  int fd;              // -1: none
  unsigned char *buf;  // what was read last
  uint32_t buf_size;
  unsigned char *cur;   // the next unread octet, in buf
  uint32_t avail;       // unread octets from there
  unsigned char *mark;  // the first octet that the digest has not seen; null: the digest is off
  EVP_MD_CTX *md;
  // Where octets come from instead of `fd`, if given.
  pki_crl_read_fn *read = nullptr;
  void *read_context = nullptr;
};

// The functions return 0; 15 for what is no DER or does not fit; 48 when the peer stops sending.
// `limit` is the room at `*dst` for content; a header may take 140 octets in front of it.
// `remaining` is what is left of the enclosing element.

// Exactly `size` octets.
[[nodiscard]] int cv_slurp_bytes(crl_stream *stream, unsigned char *dst, uint32_t size);

// A tag and a length. `*dst` moves behind them, `*remaining` sinks by their size; the content,
// `*length` octets, fits into what remains.
[[nodiscard]] int cv_slurp_der_hdr(crl_stream *stream, unsigned char **dst, uint32_t limit,
                                   uint32_t *remaining, uint32_t *length);

// The content behind a header.
[[nodiscard]] int cv_slurp_content(crl_stream *stream, unsigned char **dst, uint32_t limit,
                                   uint32_t *remaining, uint32_t length);

// An element with its header. `*dst` moves behind it.
[[nodiscard]] int cv_slurp_der_obj(crl_stream *stream, unsigned char **dst, uint32_t limit,
                                   uint32_t *remaining);

// Passes over the content behind a header, or over an element. `scratch` has room for
// der_scratch_bytes. The digest is off.
[[nodiscard]] int cv_skip_content(crl_stream *stream, unsigned char *scratch, uint32_t *remaining,
                                  uint32_t length);
[[nodiscard]] int cv_skip_der_obj(crl_stream *stream, unsigned char *scratch, uint32_t *remaining);

// The tag of the next element, which stays unread.
[[nodiscard]] int cv_peek_tag(crl_stream *stream, unsigned char *tag);

void start_digest_at_cursor(crl_stream *stream);
// Feeds the digest up to the cursor and switches it off.
void end_digest_at_cursor(crl_stream *stream);

}  // namespace pki

#endif
