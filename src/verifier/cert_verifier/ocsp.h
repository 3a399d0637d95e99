// One question to one OCSP responder (RFC 6960), and what its answer is worth.
#ifndef PKI_VERIFIER_CERT_VERIFIER_OCSP_H
#define PKI_VERIFIER_CERT_VERIFIER_OCSP_H

#include <openssl/ocsp.h>

#include <ctime>

#include "common/ossl_ptr.h"
#include "verifier/cert_status_locator.h"

namespace pki {

constexpr time_t ocsp_clock_tolerance_seconds = 300;

using ocsp_request_ptr = std::unique_ptr<OCSP_REQUEST, free_with<OCSP_REQUEST_free>>;
using ocsp_basicresp_ptr = std::unique_ptr<OCSP_BASICRESP, free_with<OCSP_BASICRESP_free>>;

struct ocsp_query {
  const ocsp_locator *responder;
  X509 *cert;
  X509 *issuer;
  X509_STORE_CTX *ctx;
  unsigned char issuer_may_sign;  // himself, or through a delegate
  int depth;
  ocsp_request_ptr request;
  OCSP_CERTID *cert_id;  // the request's
};

struct ocsp_reply {
  malloc_ptr<unsigned char> body;
  int length = 0;
};

// The status for the certificate that was asked for; lives with the basic response.
struct ocsp_status {
  int status;  // V_OCSP_CERTSTATUS_*
  ASN1_GENERALIZEDTIME *next_update;
};

// Each returns 0 or a code, after a line that says why; 2 out of memory, 49 and 80 as elsewhere.

[[nodiscard]] int want_of_memory();

// A request with a fresh nonce.
[[nodiscard]] int make_request(ocsp_query *query);
// 45 no http URL; 47, 48; 87 another status or content type, or too long an answer.
[[nodiscard]] int exchange(const ocsp_query &query, ocsp_reply *reply);
// 15 no OCSP response; 87 the responder answers with an error, or not with a basic response.
[[nodiscard]] int open_basic_response(const ocsp_reply &reply, ocsp_basicresp_ptr *basic);
// 85 a time is out of bounds; 87 another nonce, an unknown critical extension, or no status for
// that certificate.
[[nodiscard]] int find_status(const ocsp_query &query, OCSP_BASICRESP *basic, ocsp_status *found);
// 67 nobody known made the signature, or nobody who made it is trusted; 75 the issuer has no key.
[[nodiscard]] int check_signer(const ocsp_query &query, const OCSP_BASICRESP *basic);

}  // namespace pki

#endif
