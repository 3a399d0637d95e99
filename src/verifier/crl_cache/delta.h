// Bringing a CRL up to date with a delta CRL (RFC 5280 5.2.4).
#ifndef PKI_VERIFIER_CRL_CACHE_DELTA_H
#define PKI_VERIFIER_CRL_CACHE_DELTA_H

#include "verifier/crl_cache/extensions.h"
#include "verifier/crl_cache/fetch.h"

namespace pki {

// A CRL with what has been found out about it.
struct judged_crl {
  fetched_crl got;
  issuing_dist_point_ptr idp;
  certs_ptr delta_signers;  // of the delta CRL that was merged into it, or null
  bool is_for_one = false;  // its entries are about one issuer's certificates, who is not its own
};

// The first delta CRL that fits `base`: from the places that the base's freshestCRL names, then
// from the delta records of `list` (of crl_info), 16 in all. The list is as before afterwards.
// `base_record`, which may be null, is where the base came from: its configured signer counts for
// the delta too. Returns 0; 81 none; 2.
[[nodiscard]] int cv_find_dcrl(STACK *list, const crl_question &asked, const judged_crl &base,
                               fetched_crl *delta, const crl_info *base_record = nullptr);

// Keys under which a signature verifies are no proof of who made it: others can be made to fit. So
// what counts for a CRL that a delta was merged into is a signer whose key fits both.
[[nodiscard]] bool made_delta_too(const judged_crl &crl, const X509 *signer);

// A CRL with the base's entries behind the delta's, and the delta's number and times. Entries stay
// as they are, removeFromCRL included. `first_issuer` is whose certificates entries are about that
// name no issuer; null: the CRL's.
// Returns 0; 2; 72 a CRL has no number, or the parts make no CRL.
[[nodiscard]] int cv_merge_crl_dcrl(const X509_CRL *base, const X509_CRL *delta,
                                    x509_crl_ptr *merged, const X509_NAME *first_issuer = nullptr);

}  // namespace pki

#endif
