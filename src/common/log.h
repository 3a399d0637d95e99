// What the library says in the system log: always through syslog, with a bare level.
#ifndef PKI_COMMON_LOG_H
#define PKI_COMMON_LOG_H

#include <syslog.h>

namespace pki {

enum log_level {
  log_emergency = 0,
  log_critical = 2,
  log_error = 3,
  log_warning = 4,
  log_info = 6,
  log_debug = 7
};

// For "%s": C libraries differ in what they print for a null text, so it is written out.
inline const char *text_or_null(const char *text) {
  return text ? text : "(null)";
}

// The code of a failed OpenSSL call: out of memory if OpenSSL's queue says so, else `own_code`.
// Moves the queue into the log at level 3.
[[nodiscard]] int openssl_failure(int own_code);

// Passes on an operation's result; a failure moves OpenSSL's queue into the log at level 3. For
// codes that were decided under a lock, which nothing is logged under.
[[nodiscard]] int log_reasons(int error);

}  // namespace pki

#endif
