/*
 * trace.h: listen to how certificates are judged, for tools that show it to a person.
 */
#ifndef LIBPKI_TRACE_H
#define LIBPKI_TRACE_H

#include <libpki/types.h>

PKI_BEGIN_DECLS

enum {
  PKI_TRACE_CERT = 1,       /* a verify callback begins; verdict: what OpenSSL says, 1 or 0 */
  PKI_TRACE_RULE = 2,       /* a rule was applied; verdict: 1 passed, 0 failed */
  PKI_TRACE_CERT_END = 3,   /* the callback ends; verdict: 1 accepted, 0 rejected */
  PKI_TRACE_STATUS = 4,     /* a status check begins */
  PKI_TRACE_CACHE = 5,      /* the status cache answered; verdict: PKI_CERT_* */
  PKI_TRACE_SOURCE = 6,     /* a source is asked */
  PKI_TRACE_ANSWER = 7,     /* it answered; verdict: PKI_CERT_*, or -1 for no answer */
  PKI_TRACE_STATUS_END = 8, /* the status check ends; verdict: PKI_CERT_* */
  PKI_TRACE_CRL = 9,        /* within a source: a CRL is asked for */
  PKI_TRACE_CRL_GOT = 10,   /* it is there or not; verdict: PKI_CRL_*; again for another try */
  PKI_TRACE_DELTA_GOT = 11, /* a delta CRL for it is; verdict: PKI_CRL_* */
  PKI_TRACE_CRL_END = 12    /* what it says of the certificate; verdict: PKI_CERT_OK also where it
                               speaks for some reasons only, or -1 for a CRL of no use */
};

/* Where a CRL came from. */
enum { PKI_CRL_MISSING = 0, PKI_CRL_FROM_NETWORK = 1, PKI_CRL_FROM_CACHE = 2 };

/* One step. Everything in it lives until the callback returns. */
typedef struct cv_trace_event {
  int kind;         /* PKI_TRACE_* */
  int depth;        /* CERT, RULE, CERT_END: error depth; GOT: 0; others: nested checks */
  int verdict;      /* see each kind; else 0 */
  int error;        /* CERT, CERT_END: the context's error, X509_V_ERR_*; GOT: why the
                       CRL is missing, PKI_*, by the last attempt (what is no
                       list is tried as PKCS#7; the log has both); else 0 */
  X509 *cert;       /* the certificate being judged; null when there is none */
  const char *text; /* RULE: its name; SOURCE: its URL or what it is; CRL, GOT: its URL;
                       else null */
  const ASN1_TIME *valid_until; /* CACHE, ANSWER, STATUS_END, GOT, CRL_END: how long that holds, or
                                   null */
} cv_trace_event;

typedef void cv_trace_fn(void *arg, const cv_trace_event *event);

/*
 * Calls `trace` for each step of the calling thread's verifications from now on, with no lock
 * held; null ends that. The callback must not verify certificates itself.
 */
PKI_API void zv_cv_set_trace(cv_trace_fn *trace, void *arg);

PKI_END_DECLS

#endif
