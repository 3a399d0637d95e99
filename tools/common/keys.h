// Keys and certificates from files, PEM or DER. Nothing here ever asks for a passphrase.
#ifndef TOOLS_COMMON_KEYS_H
#define TOOLS_COMMON_KEYS_H

#include <string>
#include <vector>

#include "tools/common/ossl.h"

namespace tools {

// All throw failure with a line that says what to do.

key_ptr load_private_key(const std::string &path);

// A public key, or the public key of a certificate.
key_ptr load_public_key(const std::string &path);

// Every certificate of a PEM file, at least one, or the one of a DER file.
std::vector<cert_ptr> load_certificates(const std::string &path);

// The only certificate of a file.
cert_ptr load_certificate(const std::string &path, const std::string &advice = "");

std::string private_pem(EVP_PKEY *key);
std::string public_pem(EVP_PKEY *key);
std::string cert_pem(X509 *cert);
std::string cert_der(X509 *cert);

// The first line of OpenSSL's error queue, which is emptied.
std::string openssl_reason();

}  // namespace tools

#endif
