/*
 * error.h: error codes, their texts, and OpenSSL's error queue.
 *
 * Every operation returns one of these codes; 0 is success. The numbers and the texts are fixed.
 * When an OpenSSL call fails, an operation returns PKI_OUT_OF_MEMORY if OpenSSL's error queue
 * shows an allocation failure and its own code for that step otherwise, and moves the queue into
 * the system log at level 3.
 */
#ifndef LIBPKI_ERROR_H
#define LIBPKI_ERROR_H

#include <libpki/types.h>

PKI_BEGIN_DECLS

/* PKI_OK (0) to PKI_OCSP_ERROR (87); error_list.inc has them all. */
enum pki_error {
#define PKI_ERROR(code, name, text) PKI_##name = (code),
#include <libpki/error_list.inc>
#undef PKI_ERROR
  PKI_ERROR_COUNT = 88
};

/*
 * The fixed text of a code, for example "NO SUCH CA" for 50. The library owns it.
 * A code of 88 or more gives "unknown status N\n", N printed as a signed number and the line feed
 * part of the text, in a buffer of the calling thread that its next unknown code overwrites.
 * Never fails; any thread.
 */
PKI_API const char *pki_strerror(unsigned int code);

/*
 * Moves the calling thread's OpenSSL error queue into the system log, one line
 * "OpenSSL error: ..." an entry, at the syslog priority `priority` (used as it is).
 * Returns 0, the last value fetched from the queue. Any thread.
 */
PKI_API unsigned long log_openssl_errors(int priority);

/*
 * Does OpenSSL's error queue report an allocation failure? 1 if any entry of the calling thread's
 * queue does, else 0. The queue is left as it is, so call this before log_openssl_errors. Any
 * thread.
 */
PKI_API int openssl_malloc_failure(void);

PKI_END_DECLS

#endif
