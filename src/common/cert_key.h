// The public key of a certificate.
#ifndef PKI_COMMON_CERT_KEY_H
#define PKI_COMMON_CERT_KEY_H

#include <openssl/x509.h>

namespace pki {

// OpenSSL takes a certificate whose key it had no memory to decode for one of a kind that it does
// not know. Whether memory was the reason; queues no errors.
[[nodiscard]] bool lost_its_key(const X509 *cert);

}  // namespace pki

#endif
