/*
 * util.h: small helpers for text, DER, lists and keys. Results are allocated with malloc; the
 * caller frees them with free. Any thread.
 */
#ifndef LIBPKI_UTIL_H
#define LIBPKI_UTIL_H

#include <libpki/types.h>
#include <openssl/evp.h>

PKI_BEGIN_DECLS

/*
 * Octets as hexadecimal text: two upper-case digits each, high nibble first, no separators.
 * Null when memory runs out or `length` is negative; an empty text for 0.
 */
PKI_API char *to_hex_string(const void *bytes, int length);

/*
 * DER-encodes `object` with OpenSSL's `i2d` for its type. `*length` receives what `i2d` said of
 * the size; a size below 1, memory running out, or a null `i2d` or `length` gives null. The caller
 * frees the result.
 */
PKI_API unsigned char *der_encode(const void *object, i2d_fn *i2d, int *length);

/* The same as hexadecimal text, or null. */
PKI_API char *hex_der_encode(const void *object, i2d_fn *i2d);

/* A copy of `text`; null for a null text or when memory runs out. */
PKI_API char *pki_strdup(const char *text);

/*
 * Duplicates a list: a new one with `dup` of each element of `list`, in order. With the dup_*
 * functions of records.h it shares the elements. Null when a dup gives null or memory runs out,
 * what was duplicated until then being given to `release`, and when a function is null.
 */
PKI_API STACK *stack_dup(const STACK *list, void *(*dup)(void *), void (*release)(void *));

/*
 * Random octets from OpenSSL, `*length` of them; a negative length is first replaced by 16. Null
 * when memory runs out, no random octets can be had or `length` is null. Length 0 gives a non-null
 * result.
 */
PKI_API unsigned char *gen_nonce(int *length);

/*
 * Do the two keys form a pair? Signs a test message with `private_key` (SHA-1) and verifies it
 * with `public_key`.
 * Returns 0 for a pair; 2 out of memory; 25 the private key cannot sign; 65 they do not match;
 * 63 a key is null.
 */
PKI_API int verify_keys(EVP_PKEY *private_key, EVP_PKEY *public_key);

PKI_END_DECLS

#endif
