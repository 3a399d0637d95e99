// A SCEP message as JSON, layer by layer, and that JSON as text for a person.
#ifndef TOOLS_PKICTL_SCEP_REPORT_H
#define TOOLS_PKICTL_SCEP_REPORT_H

#include <string>

#include "tools/common/ossl.h"
#include "tools/pkictl/output.h"

namespace pkictl {

// What the authenticated attributes say; null for what is absent.
json scep_outside_json(PKCS7 *message);

// Who signed, and whether the signature is good by the certificate that the message carries.
// `*code` receives what pkcs7_verify says.
json scep_signature_json(PKCS7 *message, int *code);

// The cipher and the recipients; null when there is no envelope.
json scep_envelope_json(PKCS7 *envelope);

// What is inside, opened with the recipient's key; `cert` may be null, then the first recipient
// is taken to be the key's owner. Secrets are left out. `*code` receives what opening it says.
json scep_payload_json(PKCS7 *message, PKCS7 *envelope, EVP_PKEY *key, X509 *cert, int *code);

std::string scep_text(const json &layers);

}  // namespace pkictl

#endif
