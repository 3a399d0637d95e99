// What the parts of the certificate verifier share.
#ifndef PKI_VERIFIER_CERT_VERIFIER_INTERNAL_H
#define PKI_VERIFIER_CERT_VERIFIER_INTERNAL_H

#include <libpki/verify.h>
#include <pthread.h>

#include "common/log.h"
#include "common/ossl_ptr.h"

namespace pki {

using sts_info_ptr = std::unique_ptr<cert_sts_info, free_with<cv_free_cert_sts_info>>;

// A tail queue, oldest insertion first. `lock` is always taken for writing: look-ups count hits.
struct cert_sts_info_cache {
  cert_sts_info *first;
  cert_sts_info **last;  // the last record's link.next, or &first
  int32_t count;
  pthread_rwlock_t lock;
};

extern cert_sts_info_cache pki_csi_cache;
extern int csi_is_init;
extern int disable_crl_check;  // read and written atomically

// The status cache's add and find for what the library finds out itself: a status counts for the
// issuer whose word it was found with, in all his certificates of that name and key, as another of
// the same name may vouch for others. What the host adds counts for all. `issuer` may be null.
// Without memory to tell the issuer, *is_issuers is false and the record may be another's.
[[nodiscard]] int cv_add_status(cert_sts_info *info, X509 *issuer);
[[nodiscard]] cert_sts_info *cv_find_status(X509 *cert, X509 *issuer, bool *is_issuers);

// Has its time come? Unknown where it cannot be read, be it for want of memory.
enum class expiry : unsigned char { ahead, passed, unknown };
[[nodiscard]] expiry expiry_of(const cert_sts_info *info);

// OpenSSL's comparison finds a certificate that does not encode equal to others.
[[nodiscard]] bool is_comparable(X509 *cert);
[[nodiscard]] bool is_same_cert(X509 *one, X509 *other);
// For questions where "the same" is the answer that lets nobody in.
[[nodiscard]] bool may_be_same_cert(X509 *one, X509 *other);
// By its name, its extensions and its key. By name and key alone: by any certificate of that
// issuer, which the extensions need not mean.
[[nodiscard]] bool is_issued_by(X509 *cert, X509 *issuer);
[[nodiscard]] bool is_signed_by(X509 *cert, X509 *issuer);

// Is it now between notBefore and notAfter, or so many seconds off at the most? A time that cannot
// be read is no.
[[nodiscard]] bool is_within_validity(const X509 *cert, time_t tolerance_seconds);

// What log lines call a certificate: its subject on one line, as OpenSSL writes it.
class subject_text {
 public:
  explicit subject_text(const X509 *cert);
  [[nodiscard]] const char *get() const { return text_or_null(text_.get()); }

 private:
  struct openssl_free {
    void operator()(char *text) const { OPENSSL_free(text); }
  };
  std::unique_ptr<char, openssl_free> text_;
};

// Would a line of that level be sent? Most hosts mask debug lines, whose texts then need not be
// made.
[[nodiscard]] inline bool is_logged(log_level level) {
  // lint: allow setlogmask: 0 only asks
  return (setlogmask(0) & LOG_MASK(level)) != 0;
}

// The depth at which this thread's callbacks check statuses: a signer's path may be verified within
// a status check.
class status_depth {
 public:
  explicit status_depth(int depth);
  status_depth(const status_depth &) = delete;
  status_depth &operator=(const status_depth &) = delete;
  ~status_depth();
  [[nodiscard]] static int current();

 private:
  int outer_;
};

// RFC 5280 6.1.4, with our own rules for issuers. Each logs why it refuses.
[[nodiscard]] bool are_extensions_readable(X509 *cert, int depth);
[[nodiscard]] bool is_path_length_kept(X509 *cert, int depth);
[[nodiscard]] bool are_critical_extensions_known(X509 *cert, int depth);
[[nodiscard]] bool may_issue(X509 *cert, int depth);

}  // namespace pki

#endif
