// Signing an encoding. OpenSSL 3.0's own X509_sign and X509_REQ_sign do not survive running out of
// memory: they free what was never allocated, or sign what was never written.
#ifndef PKI_COMMON_SIGNING_H
#define PKI_COMMON_SIGNING_H

#include <openssl/evp.h>
#include <openssl/x509.h>

namespace pki {

// The AlgorithmIdentifier of a signature by `key` over `md`; false when there is none, or no
// memory.
[[nodiscard]] bool set_signature_algorithm(X509_ALGOR *algorithm, EVP_PKEY *key, const EVP_MD *md);

// Signs `length` octets into `signature`.
[[nodiscard]] bool sign_octets(EVP_PKEY *key, const EVP_MD *md, const unsigned char *octets,
                               int length, ASN1_BIT_STRING *signature);

// A certificate whose fields are set.
[[nodiscard]] bool sign_cert(X509 *cert, EVP_PKEY *key, const EVP_MD *md);

}  // namespace pki

#endif
