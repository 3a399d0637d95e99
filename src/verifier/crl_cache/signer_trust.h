// Who made a CRL's signature is known; may they speak for the certificate's issuer?
#ifndef PKI_VERIFIER_CRL_CACHE_SIGNER_TRUST_H
#define PKI_VERIFIER_CRL_CACHE_SIGNER_TRUST_H

#include <libpki/records.h>
#include <openssl/x509_vfy.h>

#include "common/limits.h"
#include "verifier/crl_cache/internal.h"

namespace pki {

// What a CRL locator is asked.
struct crl_question {
  X509 *cert;
  X509 *issuer;
  X509_STORE_CTX *trust;  // may be null
  bool issuer_trusted;    // the issuer may sign CRLs
  int depth;
  // From where a cached CRL may be about the certificate, beside the record's own place.
  crl_source sources[crl_max_sources] = {};
  int source_count = 0;
};

// On whose word somebody may sign CRLs for the certificate's issuer.
enum class voucher : unsigned char { nobody, issuer, configuration, path };

// Logs why, or why not.
[[nodiscard]] voucher who_vouches(const crl_question &asked, const crl_info *record, X509 *signer);

}  // namespace pki

#endif
