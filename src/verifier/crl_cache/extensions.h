// A CRL's extensions, with "cannot be read" kept apart from "is not there".
#ifndef PKI_VERIFIER_CRL_CACHE_EXTENSIONS_H
#define PKI_VERIFIER_CRL_CACHE_EXTENSIONS_H

#include <openssl/x509v3.h>

#include "common/log.h"
#include "common/ossl_ptr.h"

namespace pki {

using issuing_dist_point_ptr =
    std::unique_ptr<ISSUING_DIST_POINT, free_with<ISSUING_DIST_POINT_free>>;
using authority_keyid_ptr = std::unique_ptr<AUTHORITY_KEYID, free_with<AUTHORITY_KEYID_free>>;
using asn1_integer_ptr = std::unique_ptr<ASN1_INTEGER, free_with<ASN1_INTEGER_free>>;
using asn1_enumerated_ptr = std::unique_ptr<ASN1_ENUMERATED, free_with<ASN1_ENUMERATED_free>>;
using general_names_ptr = std::unique_ptr<GENERAL_NAMES, free_with<GENERAL_NAMES_free>>;

// Did memory run out since this was made? OpenSSL hands out names all the same, spoiled so that
// they compare unequal to themselves.
class memory_watch {
 public:
  [[nodiscard]] bool ran_out() const { return openssl_malloc_failure_behind(queue_end_); }

 private:
  int queue_end_ = openssl_queue_end();
};

enum class presence : unsigned char { absent, present, unreadable, no_memory };

// An extension that stands twice cannot be read either.
template <class Ptr>
presence read_crl_extension(const X509_CRL *crl, int nid, Ptr *value) {
  memory_watch memory;
  int criticality = 0;
  value->reset(
      static_cast<typename Ptr::pointer>(X509_CRL_get_ext_d2i(crl, nid, &criticality, nullptr)));
  if (memory.ran_out())
    return presence::no_memory;
  if (*value)
    return presence::present;
  return criticality == -1 ? presence::absent : presence::unreadable;
}

// A name on one line, at most 100 characters of it.
class name_line {
 public:
  explicit name_line(const X509_NAME *name) {
    openssl_error_mark no_text_is_no_error;
    if (name)
      X509_NAME_oneline(name, text_, sizeof text_);
  }
  [[nodiscard]] const char *get() const { return text_; }

 private:
  char text_[101] = "";
};

}  // namespace pki

#endif
