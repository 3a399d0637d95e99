/*
 * trace.h: listen to how certificates are judged, for tools that show it to a person.
 */
#ifndef LIBPKI_TRACE_H
#define LIBPKI_TRACE_H

#include <libpki/types.h>

PKI_BEGIN_DECLS

enum {
  PKI_TRACE_CERT = 1,      /* a verify callback begins; verdict: what OpenSSL says, 1 or 0 */
  PKI_TRACE_RULE = 2,      /* a rule was applied; verdict: 1 passed, 0 failed */
  PKI_TRACE_CERT_END = 3,  /* the callback ends; verdict: 1 accepted, 0 rejected */
  PKI_TRACE_STATUS = 4,    /* a status check begins */
  PKI_TRACE_CACHE = 5,     /* the status cache answered; verdict: PKI_CERT_* */
  PKI_TRACE_SOURCE = 6,    /* a source is asked */
  PKI_TRACE_ANSWER = 7,    /* it answered; verdict: PKI_CERT_*, or -1 for no answer */
  PKI_TRACE_STATUS_END = 8 /* the status check ends; verdict: PKI_CERT_* */
};

/* One step. Everything in it lives until the callback returns. */
typedef struct cv_trace_event {
  int kind;                     /* PKI_TRACE_* */
  int depth;                    /* CERT, RULE, CERT_END: error depth; others: nested checks */
  int verdict;                  /* see each kind; else 0 */
  int error;                    /* CERT, CERT_END: the context's error, X509_V_ERR_*; else 0 */
  X509 *cert;                   /* the certificate being judged; null when there is none */
  const char *text;             /* RULE: its name; SOURCE: its URL or what it is; else null */
  const ASN1_TIME *valid_until; /* CACHE, ANSWER, STATUS_END: how long that holds, or null */
} cv_trace_event;

typedef void cv_trace_fn(void *arg, const cv_trace_event *event);

/*
 * Calls `trace` for each step of the calling thread's verifications from now on, with no lock
 * held; null ends that. The callback must not verify certificates itself.
 */
PKI_API void zv_cv_set_trace(cv_trace_fn *trace, void *arg);

PKI_END_DECLS

#endif
