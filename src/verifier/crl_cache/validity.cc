// The times of a CRL (RFC 5280 5.1.2.4 and 5.1.2.5).
#include <libpki/error.h>

#include <ctime>

#include "common/log.h"
#include "verifier/crl_cache/extensions.h"
#include "verifier/crl_cache/fetch.h"

namespace pki {

namespace {

constexpr time_t clock_tolerance_seconds = 300;
// 530 days: a list without nextUpdate may be old, but not for ever.
constexpr time_t oldest_this_update_seconds = 45792000 + clock_tolerance_seconds;
constexpr int time_characters = 39;

struct time_bound {
  time_t reference;
  bool must_be_after;
};

// What a violation is called: "WHAT (name) HAS (time)END".
struct violation {
  const char *what;
  const char *has;
  const char *end;
};

void log_violation(const violation &text, const char *crl_name, const ASN1_TIME *time) {
  openssl_error_mark no_text_is_no_error;
  bio_ptr memory(BIO_new(BIO_s_mem()));
  char *printed = nullptr;
  long length = 0;
  if (memory && ASN1_TIME_print(memory.get(), time) == 1)
    length = BIO_get_mem_data(memory.get(), &printed);
  if (length > 0 && printed)
    syslog(log_error, "%s (%s) %s (%.*s)%s", text.what, crl_name, text.has,
           static_cast<int>(length < time_characters ? length : time_characters), printed,
           text.end);
  else
    syslog(log_error, "%s (%s) %s (<no-mem>)%s", text.what, crl_name, text.has, text.end);
}

int cv_check_time(const ASN1_TIME *time, time_bound bound, const char *field, const violation &text,
                  const char *crl_name) {
  if (!time)
    return PKI_INVALID_ARGS;
  openssl_error_mark the_line_says_it_all;
  memory_watch memory;
  int order = X509_cmp_time(time, &bound.reference);
  if (order == 0 && memory.ran_out())
    return PKI_OUT_OF_MEMORY;
  if (order == 0) {
    syslog(log_error, "Error parsing the %s time in CRL (%s): %.100s", field, crl_name,
           ASN1_STRING_get0_data(time));
    return PKI_TIME_MISMATCH;
  }
  if ((order > 0) == bound.must_be_after)
    return PKI_OK;
  log_violation(text, crl_name, time);
  return PKI_TIME_MISMATCH;
}

}  // namespace

int check_this_update(const X509_CRL *crl) {
  name_line issuer(X509_CRL_get_issuer(crl));
  return cv_check_time(X509_CRL_get0_lastUpdate(crl),
                       {time(nullptr) + clock_tolerance_seconds, false}, "lastUpdate",
                       {"The crl", "was updated in the future", "!"}, issuer.get());
}

int cv_crl_check_update_dates(const X509_CRL *crl) {
  name_line issuer(X509_CRL_get_issuer(crl));
  const time_t now = time(nullptr);
  int error = cv_check_time(X509_CRL_get0_nextUpdate(crl), {now - clock_tolerance_seconds, true},
                            "nextUpdate", {"The next-update in the crl", "is in the past", ""},
                            issuer.get());
  if (error != PKI_INVALID_ARGS)
    return error;
  return cv_check_time(X509_CRL_get0_lastUpdate(crl), {now - oldest_this_update_seconds, true},
                       "lastUpdate", {"The crl", "was updated too long ago", ""}, issuer.get());
}

}  // namespace pki
