// Building a CRL from the encodings of its parts. OpenSSL's setters leave stale encodings behind,
// and cannot fill every field.
#ifndef PKI_VERIFIER_CRL_CACHE_CRL_PARTS_H
#define PKI_VERIFIER_CRL_CACHE_CRL_PARTS_H

#include <libpki/error.h>

#include "common/octets.h"
#include "common/ossl_ptr.h"

namespace pki {

struct crl_parts {
  octets head;     // version, signature algorithm, issuer, thisUpdate, nextUpdate
  octets entries;  // of revokedCertificates
  bool has_entries = false;
  octets extensions;  // with their [0], or empty
  octets tail;        // signature algorithm, signature
};

// Null without memory, or when the parts make no CRL.
[[nodiscard]] X509_CRL *build_crl(const crl_parts &parts);

// By serial number; entries of one number keep their order. Returns 0; 2; 72.
[[nodiscard]] int sort_entries(X509_CRL *crl);

// An entry that names its issuer itself, instead of inheriting it from one that may be gone.
// Returns 0; 2, with OpenSSL's queue left to log.
[[nodiscard]] int name_entry_issuer(X509_REVOKED *entry, const X509_NAME *issuer);
// Does it? Returns 0; 2.
[[nodiscard]] int names_entry_issuer(const X509_REVOKED *entry, bool *named);

// Appends OpenSSL's encoding of a value. Returns 0; 2.
template <class T>
int append_encoding(octets *out, const T *value, int (*encode)(const T *, unsigned char **)) {
  int size = encode(value, nullptr);
  unsigned char *end = size > 0 ? out->extend(static_cast<uint32_t>(size)) : nullptr;
  return end && encode(value, &end) == size ? PKI_OK : PKI_OUT_OF_MEMORY;
}

}  // namespace pki

#endif
