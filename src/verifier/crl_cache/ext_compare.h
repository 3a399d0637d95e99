// Three-way comparisons of what OpenSSL does not compare itself. Null comes before everything else,
// unless noted; the sign of the result counts, its size does not.
#ifndef PKI_VERIFIER_CRL_CACHE_EXT_COMPARE_H
#define PKI_VERIFIER_CRL_CACHE_EXT_COMPARE_H

#include <openssl/x509v3.h>

namespace pki {

// NOLINTBEGIN(readability-identifier-naming): named as OpenSSL names its own
[[nodiscard]] int X509_PUBKEY_cmp(const X509_PUBKEY *a, const X509_PUBKEY *b);

// In order: the same names in another order are different.
[[nodiscard]] int GENERAL_NAMES_cmp(const GENERAL_NAMES *a, const GENERAL_NAMES *b);

// A missing relative name comes behind one that is there.
[[nodiscard]] int ISSUING_DIST_POINT_cmp(const ISSUING_DIST_POINT *a, const ISSUING_DIST_POINT *b);

[[nodiscard]] int AUTHORITY_KEYID_cmp(const AUTHORITY_KEYID *a, const AUTHORITY_KEYID *b);
// NOLINTEND(readability-identifier-naming)

}  // namespace pki

#endif
