// What the library says in the system log: always through syslog, with a bare level.
#ifndef PKI_COMMON_LOG_H
#define PKI_COMMON_LOG_H

#include <openssl/x509.h>
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

// An object identifier as text, at most 50 characters of it.
class oid_line {
 public:
  explicit oid_line(const ASN1_OBJECT *object) { OBJ_obj2txt(text_, sizeof text_, object, 0); }
  [[nodiscard]] const char *get() const { return text_; }

 private:
  char text_[51] = "";
};

// The code of a failed OpenSSL call: out of memory if OpenSSL's queue says so, else `own_code`.
// Moves the queue into the log at level 3.
[[nodiscard]] int openssl_failure(int own_code);

// Where the calling thread's OpenSSL queue ends, to ask later about what came behind.
[[nodiscard]] int openssl_queue_end();
[[nodiscard]] bool openssl_malloc_failure_behind(int queue_end);

// Makes sure that a name has its encoding, which comparing needs and allocates: without it
// OpenSSL's comparison would say "different" when memory ran out. That a name cannot be encoded is
// no failure. Returns 0 or 2.
[[nodiscard]] int prepare_to_compare(const X509_NAME *name);

// Passes on an operation's result; a failure moves OpenSSL's queue into the log at level 3. For
// codes that were decided under a lock, which nothing is logged under.
[[nodiscard]] int log_reasons(int error);

}  // namespace pki

#endif
