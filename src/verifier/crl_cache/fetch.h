// Getting the CRL that a crl_info record names: from the cache, else over HTTP.
#ifndef PKI_VERIFIER_CRL_CACHE_FETCH_H
#define PKI_VERIFIER_CRL_CACHE_FETCH_H

#include <libpki/records.h>

#include "verifier/crl_cache/decoder.h"
#include "verifier/crl_cache/internal.h"
#include "verifier/crl_cache/signer_trust.h"
#include "verifier/signer_candidates.h"

namespace pki {

// A CRL and the certificates that verify its signature; whether these may sign for the issuer is
// another question.
struct fetched_crl {
  x509_crl_ptr crl;
  certs_ptr signers;
  bool from_cache = false;
  acceptance accepted = acceptance::everywhere;  // from the cache: where its signer is
  x509_ptr accepting_issuer;
  crl_source source = {};
};

// Of the cached CRLs that fit, the one at a place, from 0; behind the last one is the network.
struct cache_use {
  int place = 0;
  bool only_deltas = false;
};
inline constexpr cache_use no_cache = {-1, false};

// Downloads and decodes. Returns 0 with request->crl; 2; 45 no http URL; 47 and 48; 15, 63, 84, 86
// of the decoder. All but 2 is logged.
[[nodiscard]] int cv_send_crl_request(crl_request *request, const char *url, int format);

// Returns 0; the codes of cv_send_crl_request; 15 an extension cannot be read; 85 thisUpdate is in
// the future; 86 an unknown critical extension; 67, 29 nobody known made the signature; 49 and 80
// as elsewhere. A configured signer, the issuer, which may be null, and what the peer sent along
// are tried behind the store's certificates. `base_record`: for a delta, where its base came from;
// may be null.
[[nodiscard]] int cv_get_crl(const crl_info *crli, const crl_question &asked, cache_use use,
                             fetched_crl *found, const crl_info *base_record = nullptr);

// Does the cache hold CRLs of that name and these reasons, but none at this place?
[[nodiscard]] bool cv_is_cached_for_others(const crl_info *crli, const crl_question &asked,
                                           cache_use use);

// Is the CRL's signature, over what `tbs_digest` has seen, of the certificate's key? Leaves
// OpenSSL's queue.
[[nodiscard]] authorship check_crl_signature(const X509_CRL *crl, EVP_MD_CTX *tbs_digest,
                                             const X509 *cert);

// Is the record about a signer that the configuration names, and nothing else?
[[nodiscard]] bool has_configured_signer(const crl_info *crli);

// Does the CRL carry a deltaCRLIndicator?
[[nodiscard]] bool is_delta_crl(const X509_CRL *crl);

// nextUpdate, or without one the age of thisUpdate. Returns 0; 2; 85.
[[nodiscard]] int cv_crl_check_update_dates(const X509_CRL *crl);

// thisUpdate is not in the future. Returns 0; 2; 63; 85.
[[nodiscard]] int check_this_update(const X509_CRL *crl);

}  // namespace pki

#endif
