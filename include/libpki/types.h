/*
 * types.h: what every public header shares.
 *
 * Certificates, names, keys, CRLs and lists are OpenSSL's own objects. A list is an OpenSSL stack
 * without an element type; cast it where a typed stack is wanted:
 *
 *     STACK_OF(X509) *certs = (STACK_OF(X509) *)list;
 *
 * All functions are usable from C99. Unless a function says otherwise: a pointer argument is
 * borrowed for the call, text is NUL-terminated, lengths are in octets, and a failed call leaves
 * its outputs null or zero.
 */
#ifndef LIBPKI_TYPES_H
#define LIBPKI_TYPES_H

#include <openssl/safestack.h>
#include <openssl/x509.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define PKI_BEGIN_DECLS extern "C" {
#define PKI_END_DECLS }
#else
#define PKI_BEGIN_DECLS
#define PKI_END_DECLS
#endif

#if defined(__GNUC__)
#define PKI_API __attribute__((visibility("default")))
#else
#define PKI_API
#endif

/* A list of pointers; what the pointers are is said where the list is. */
typedef struct stack_st STACK;

/* The shapes of OpenSSL's DER encoders and decoders with their object type taken away. */
typedef int i2d_fn(const void *object, unsigned char **out);
typedef void *d2i_fn(void **object, const unsigned char **in, long len);

#endif
