#include "verifier/cert_verifier/trace.h"

namespace pki {

namespace {

struct listener {
  cv_trace_fn *trace;
  void *arg;
};

// The initial-exec model needs no allocation at the first use in a thread, which could fail.
__attribute__((tls_model("initial-exec"))) thread_local listener of_this_thread = {nullptr,
                                                                                   nullptr};

}  // namespace

bool is_traced() {
  return of_this_thread.trace != nullptr;
}

void trace(const cv_trace_event &event) {
  if (of_this_thread.trace)
    of_this_thread.trace(of_this_thread.arg, &event);
}

void trace_crl(int kind, X509 *cert, const char *url, int error, const X509_CRL *crl,
               bool from_cache) {
  if (!is_traced())
    return;
  int origin = PKI_CRL_MISSING;
  if (crl)
    origin = from_cache ? PKI_CRL_FROM_CACHE : PKI_CRL_FROM_NETWORK;
  trace({kind, 0, origin, error, cert, url, crl ? X509_CRL_get0_nextUpdate(crl) : nullptr});
}

bool trace_rule(X509 *cert, int depth, const char *rule, bool passed) {
  trace({PKI_TRACE_RULE, depth, passed ? 1 : 0, 0, cert, rule, nullptr});
  return passed;
}

}  // namespace pki

using namespace pki;

void zv_cv_set_trace(cv_trace_fn *trace, void *arg) {
  of_this_thread = {trace, arg};
}
