// The certificates that the lab has issued, kept in the folder "issued" beside its keys.
#ifndef TOOLS_PKILAB_ISSUED_CERTS_H
#define TOOLS_PKILAB_ISSUED_CERTS_H

#include <string>

#include "tools/pkilab/ca.h"
#include "tools/pkilab/ca_certs.h"

namespace pkilab {

class issued_certs {
 public:
  // `keys` must outlive it.
  explicit issued_certs(const ca &keys) : keys_(keys), folder_(keys.folder() + "/issued") {}

  // Issues a certificate and keeps it as issued/SERIAL.pem. Throws tools::failure.
  tools::cert_ptr issue(const cert_wishes &wishes, const ca::pair &issuer) const;

  // Drops what was just issued, and got to nobody.
  void forget(const X509 *cert) const;

  // An issued certificate, or one of the lab's own; null when there is none.
  tools::cert_ptr find(const X509_NAME *issuer, const ASN1_INTEGER *serial) const;
  // The one with this serial number, whichever of the lab's CAs issued it; null when there is none.
  tools::cert_ptr find(const ASN1_INTEGER *serial) const;

 private:
  std::string path(const ASN1_INTEGER *serial) const;

  const ca &keys_;
  std::string folder_;
};

}  // namespace pkilab

#endif
