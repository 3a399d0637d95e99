#ifndef PKI_VERIFIER_CRL_CACHE_PKCS7_WALK_H
#define PKI_VERIFIER_CRL_CACHE_PKCS7_WALK_H

#include "verifier/crl_cache/decoder.h"

namespace pki {

// Walks over a PKCS#7 SignedData (RFC 2315 9.1) to the first CRL in it, and decodes that. Who
// signed the message does not matter: a CRL has a signature of its own. `start` tells whether the
// outer header has been read.
// Returns 0; 15; and the codes of cv_crl_decode_crl.
[[nodiscard]] int find_crl_in_pkcs7(crl_request *request, crl_stream *stream,
                                    uint32_t content_length, const pkcs7_start &start);

}  // namespace pki

#endif
