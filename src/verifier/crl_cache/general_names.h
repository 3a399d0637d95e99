// Looking for names in GeneralNames (RFC 5280 4.2.1.6).
#ifndef PKI_VERIFIER_CRL_CACHE_GENERAL_NAMES_H
#define PKI_VERIFIER_CRL_CACHE_GENERAL_NAMES_H

#include <openssl/x509v3.h>

namespace pki {

// The first directory name, or null; it stays the list's.
[[nodiscard]] X509_NAME *cv_find_dn(const GENERAL_NAMES *names);

// The first name of `a` that equals any of `b`, or null.
[[nodiscard]] GENERAL_NAME *cv_find_gn_match(const GENERAL_NAMES *a, const GENERAL_NAMES *b);

}  // namespace pki

#endif
