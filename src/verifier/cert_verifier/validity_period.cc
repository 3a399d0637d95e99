// Whether a certificate's own dates hold.
#include <ctime>

#include "verifier/cert_verifier/internal.h"

namespace pki {

// X509_cmp_time counts the same second as earlier.
bool is_within_validity(const X509 *cert, time_t tolerance_seconds) {
  openssl_error_mark unreadable_is_outside;
  const time_t now = time(nullptr);
  time_t latest_start = now + tolerance_seconds;
  time_t earliest_end = now - tolerance_seconds - 1;
  return X509_cmp_time(X509_get0_notBefore(cert), &latest_start) < 0 &&
         X509_cmp_time(X509_get0_notAfter(cert), &earliest_end) > 0;
}

}  // namespace pki
