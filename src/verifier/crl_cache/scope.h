// May a CRL speak about a certificate, and where are the CRLs that may?
#ifndef PKI_VERIFIER_CRL_CACHE_SCOPE_H
#define PKI_VERIFIER_CRL_CACHE_SCOPE_H

#include <libpki/records.h>

namespace pki {

// crl_info.flags, the creator's byte: where to find delta CRLs.
constexpr uint32_t crl_flag_delta = 1;

// RFC 5280 6.3.3 (b). `idp` is the CRL's issuingDistributionPoint, or null.
// Returns 0; 2; 83 after a line at level 4.
[[nodiscard]] int cv_verify_issuer_scope(const crl_info *crli, X509 *cert, const X509_CRL *crl,
                                         const ISSUING_DIST_POINT *idp);

// A crl_info record for each URI of each point, at the end of `list` or, each in turn, at its
// front. The records borrow from the points and must not outlive them.
// issuer    the CRLs' issuer, or null: what the point says, or the certificate's own
// reasons   0: what the point says, or all
// flag      the creator's byte of the records' flags
// Returns 0; 2.
[[nodiscard]] int cv_copy_dp_to_crli(const STACK_OF(DIST_POINT) * points, X509_NAME *issuer,
                                     uint32_t reasons, STACK *list, bool append,
                                     unsigned char flag);

}  // namespace pki

#endif
