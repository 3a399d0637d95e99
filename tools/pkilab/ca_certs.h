// Makes keys and certificates.
#ifndef TOOLS_PKILAB_CA_CERTS_H
#define TOOLS_PKILAB_CA_CERTS_H

#include <string>

#include "tools/common/ossl.h"

namespace pkilab {

tools::key_ptr make_rsa_key(int bits);

// A CA certificate for `key` with the subject "CN=common_name, O=pkilab", valid for ten years.
// Without a signer it is self-signed. Throws tools::failure.
tools::cert_ptr make_ca_cert(EVP_PKEY *key, const std::string &common_name, X509 *signer_cert,
                             EVP_PKEY *signer_key);

// A device's certificate, valid for a year, signed with SHA-256. Throws tools::failure.
tools::cert_ptr make_device_cert(EVP_PKEY *public_key, const X509_NAME *subject, X509 *signer_cert,
                                 EVP_PKEY *signer_key);

}  // namespace pkilab

#endif
