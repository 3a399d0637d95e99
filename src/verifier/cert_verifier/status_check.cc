// The status of a certificate: from the cache, else from the first source that knows it.
#include <libpki/verify.h>

#include <ctime>

#include "common/limits.h"
#include "verifier/cert_status_locator.h"
#include "verifier/cert_verifier/internal.h"
#include "verifier/cert_verifier/trace.h"

namespace pki {

namespace {

// How long "no source knows" is remembered, so that a dead source is not asked at once again.
constexpr time_t unknown_seconds = 30;

using locators_ptr = std::unique_ptr<cert_sts_locator_list, free_with<zv_cv_free_csl_list>>;

// The checks that are open in a thread, and how many the outermost one has led to.
struct open_checks {
  int open;
  int nested;
};
// The initial-exec model needs no allocation at the first use in a thread, which could fail.
__attribute__((tls_model("initial-exec"))) thread_local open_checks of_this_thread = {0, 0};

class check_scope {
 public:
  check_scope() {
    if (of_this_thread.open++ > 0)
      of_this_thread.nested++;
    else
      of_this_thread.nested = 0;
  }
  check_scope(const check_scope &) = delete;
  check_scope &operator=(const check_scope &) = delete;
  ~check_scope() { of_this_thread.open--; }
  [[nodiscard]] static bool is_too_many() { return of_this_thread.nested > max_nested_checks; }
};

struct question {
  X509 *cert;
  X509 *issuer;
  X509_STORE_CTX *ctx;
  unsigned char internet;
  int depth;
};

void trace_status(int kind, const question &asked, const cert_sts_info *info, int verdict) {
  trace({kind, asked.depth, verdict, 0, asked.cert, nullptr, info ? info->valid_until : nullptr});
}

// Null unless the cache holds a status. An expired one is taken out.
sts_info_ptr find_cached(const question &asked, int *status) {
  bool is_issuers = false;
  sts_info_ptr found(cv_find_status(asked.cert, asked.issuer, &is_issuers));
  if (!found)
    return nullptr;
  expiry ends = expiry_of(found.get());
  // What is in the cache could be read once: want of memory must not turn "revoked" into "not
  // cached".
  *status = ends == expiry::ahead ? found->status : PKI_CERT_UNKNOWN;
  if (!is_issuers && *status == PKI_CERT_OK)
    *status = PKI_CERT_UNKNOWN;
  if (ends != expiry::passed)
    return found;
  if (zv_cv_remove_cert_sts_info_cache(found.get()) == 0)
    cv_free_cert_sts_info(found.get());
  return nullptr;
}

const char *source_name(const cert_sts_locator *locator) {
  if (!locator->data)
    return "always ok";
  switch (*static_cast<const int *>(locator->data)) {
    case locator_ocsp_url:
      return static_cast<const ocsp_locator *>(locator->data)->url;
    case locator_dist_points:
      return "CRL distribution points";
    default:
      return "configured CRLs";
  }
}

sts_info_ptr ask(const cert_sts_locator *locator, const question &asked) {
  trace({PKI_TRACE_SOURCE, asked.depth, 0, 0, asked.cert, source_name(locator), nullptr});
  sts_info_ptr answer(locator->get_sts(locator->data, asked.cert, asked.issuer, asked.ctx,
                                       asked.internet, asked.depth));
  trace_status(PKI_TRACE_ANSWER, asked, answer.get(), answer ? answer->status : trace_no_answer);
  return answer;
}

// The first answer that says more than "unknown".
sts_info_ptr ask_in_order(const cert_sts_locator_list *list, const question &asked) {
  for (int i = 0; i < list->count; i++) {
    sts_info_ptr answer = ask(list->locators[i], asked);
    if (answer && answer->status != PKI_CERT_UNKNOWN)
      return answer;
    if (list->locators[i]->final)
      return nullptr;
  }
  return nullptr;
}

void log_no_information(const X509 *cert) {
  syslog(log_warning, "No cert-status information found for cert '%s'", subject_text(cert).get());
}

int remember(const question &asked, cert_sts_info *info) {
  (void)cv_add_status(info, asked.issuer);
  trace_status(PKI_TRACE_STATUS_END, asked, info, info->status);
  return info->status;
}

int remember_unknown(const question &asked) {
  log_no_information(asked.cert);
  openssl_error_mark unknown_says_it_all;
  asn1_time_ptr until(ASN1_TIME_set(nullptr, time(nullptr) + unknown_seconds));
  sts_info_ptr info(until ? cv_alloc_cert_sts_info(PKI_CERT_UNKNOWN, asked.cert, until.get())
                          : nullptr);
  if (info)
    return remember(asked, info.get());
  trace_status(PKI_TRACE_STATUS_END, asked, nullptr, PKI_CERT_UNKNOWN);
  return PKI_CERT_UNKNOWN;
}

// Without a source there is nothing that could speak against the certificate, unless the sources
// are missing because something failed.
int status_without_source(const question &asked, const cert_sts_locator_list *list) {
  int status = list && !list->incomplete ? PKI_CERT_OK : PKI_CERT_UNKNOWN;
  if (status == PKI_CERT_UNKNOWN)
    log_no_information(asked.cert);
  trace_status(PKI_TRACE_STATUS_END, asked, nullptr, status);
  return status;
}

int status_from_sources(const question &asked) {
  locators_ptr list(zv_find_cert_sts_locators(asked.cert));
  if (!list || list->count == 0)
    return status_without_source(asked, list.get());
  sts_info_ptr answer = ask_in_order(list.get(), asked);
  list.reset();
  if (!answer)
    return remember_unknown(asked);
  int status = remember(asked, answer.get());
  if (is_logged(log_debug))
    syslog(log_debug, "Cert-status for cert '%s' is: %s", subject_text(asked.cert).get(),
           zv_cv_cert_sts_to_str(status));
  return status;
}

int status_of(const question &asked) {
  int status = PKI_CERT_UNKNOWN;
  if (sts_info_ptr cached = find_cached(asked, &status)) {
    trace_status(PKI_TRACE_CACHE, asked, cached.get(), status);
    trace_status(PKI_TRACE_STATUS_END, asked, cached.get(), status);
    cached.reset();
    if (is_logged(log_debug))
      syslog(log_debug, "Found cert-status for cert '%s' in cache - status is: %s",
             subject_text(asked.cert).get(), zv_cv_cert_sts_to_str(status));
    return status;
  }
  if (!zv_cv_is_disabled_crl_check())
    return status_from_sources(asked);
  trace_status(PKI_TRACE_STATUS_END, asked, nullptr, PKI_CERT_OK);
  return PKI_CERT_OK;
}

}  // namespace

}  // namespace pki

using namespace pki;

int zv_cv_check_cert_status(X509 *cert, X509 *issuer, X509_STORE_CTX *ctx, unsigned char internet,
                            int depth) {
  if (!cert)
    return PKI_CERT_UNKNOWN;
  question asked = {cert, issuer, ctx, internet, depth};
  check_scope scope;
  if (is_logged(log_debug))
    syslog(log_debug, "Checking status for cert '%s'", subject_text(cert).get());
  trace_status(PKI_TRACE_STATUS, asked, nullptr, 0);
  if (depth < max_status_depth && !check_scope::is_too_many())
    return status_of(asked);
  // Two blanks: hosts look for the line as it is.
  syslog(log_error, "Maximum recursion depth reached - aborting  verification of cert (%s)",
         subject_text(cert).get());
  trace_status(PKI_TRACE_STATUS_END, asked, nullptr, PKI_CERT_UNKNOWN);
  return PKI_CERT_UNKNOWN;
}
