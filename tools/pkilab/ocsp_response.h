// Makes OCSP responses (RFC 6960, 4.2), good and bad ones.
#ifndef TOOLS_PKILAB_OCSP_RESPONSE_H
#define TOOLS_PKILAB_OCSP_RESPONSE_H

#include <openssl/ocsp.h>

#include <string>
#include <vector>

#include "tools/pkilab/ca.h"
#include "tools/pkilab/ocsp_options.h"
#include "tools/pkilab/revocations.h"

namespace pkilab {

using cert_id_ptr = std::unique_ptr<OCSP_CERTID, tools::free_with<OCSP_CERTID_free>>;

// What is said of one certificate.
struct ocsp_finding {
  cert_id_ptr id;  // as it stands in the answer
  int status = V_OCSP_CERTSTATUS_UNKNOWN;
  revocation how;  // with V_OCSP_CERTSTATUS_REVOKED
};

// A response without response bytes.
std::string make_ocsp_error(long response_status);

// A signed response, as odd as the options say. Throws tools::failure.
std::string make_ocsp_response(const std::vector<ocsp_finding> &findings, OCSP_REQUEST *request,
                               const ca::pair &signer, const ocsp_options &options);

}  // namespace pkilab

#endif
