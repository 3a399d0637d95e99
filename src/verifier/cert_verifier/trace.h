// Telling a listening tool what happens.
#ifndef PKI_VERIFIER_CERT_VERIFIER_TRACE_H
#define PKI_VERIFIER_CERT_VERIFIER_TRACE_H

#include <libpki/trace.h>

namespace pki {

constexpr int trace_no_answer = -1;

// Does this thread listen? Asked first where a step's text costs something.
[[nodiscard]] bool is_traced();
void trace(const cv_trace_event &event);

// What asking for a CRL gave.
void trace_crl(int kind, X509 *cert, const char *url, int error, const X509_CRL *crl,
               bool from_cache);

// A rule's outcome, passed through.
bool trace_rule(X509 *cert, int depth, const char *rule, bool passed);

}  // namespace pki

#endif
