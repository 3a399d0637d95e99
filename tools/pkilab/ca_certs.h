// Makes keys and certificates.
#ifndef TOOLS_PKILAB_CA_CERTS_H
#define TOOLS_PKILAB_CA_CERTS_H

#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "tools/common/ossl.h"

namespace pkilab {

tools::key_ptr make_rsa_key(int bits);

// A CA certificate for `key` with the subject "CN=common_name, O=pkilab", valid for ten years.
// Without a signer it is self-signed. Throws tools::failure.
tools::cert_ptr make_ca_cert(EVP_PKEY *key, const std::string &common_name, X509 *signer_cert,
                             EVP_PKEY *signer_key);

// What a certificate that is no CA's is to say.
struct cert_wishes {
  const X509_NAME *subject = nullptr;
  EVP_PKEY *public_key = nullptr;
  // Seconds since 1970; without them, yesterday and for a year from now.
  std::optional<time_t> not_before;
  std::optional<time_t> not_after;
  std::vector<std::string> ocsp_urls;          // in an authorityInfoAccess
  std::vector<std::string> crl_urls;           // in cRLDistributionPoints, a point each
  const X509_NAME *crl_issuer = nullptr;       // cRLIssuer of both, unless null
  std::vector<std::string> freshest_crl_urls;  // in freshestCRL, the same
  std::string key_usage = "digitalSignature,keyEncipherment";
  std::string alt_names;       // as in "DNS:localhost,IP:127.0.0.1"
  bool ocsp_signing = false;   // extendedKeyUsage id-kp-OCSPSigning
  bool ocsp_no_check = false;  // id-pkix-ocsp-nocheck
};

// Are these names for cert_wishes::alt_names? Throws tools::usage_failure.
void require_alt_names(const std::string &names);

// Signed with SHA-256. Throws tools::failure.
tools::cert_ptr make_device_cert(const cert_wishes &wishes, X509 *signer_cert,
                                 EVP_PKEY *signer_key);

}  // namespace pkilab

#endif
