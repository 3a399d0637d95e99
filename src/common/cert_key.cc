#include "common/cert_key.h"

#include <libpki/util.h>

#include "common/ossl_ptr.h"

namespace pki {

// A second decoding tells.
bool lost_its_key(const X509 *cert) {
  openssl_error_mark discard_errors;
  if (X509_get0_pubkey(cert))
    return false;
  int length;
  malloc_ptr<unsigned char> der(
      der_encode(X509_get_X509_PUBKEY(cert), reinterpret_cast<i2d_fn *>(i2d_X509_PUBKEY), &length));
  const unsigned char *in = der.get();
  x509_pubkey_ptr again(der ? d2i_X509_PUBKEY(nullptr, &in, length) : nullptr);
  return !again || X509_PUBKEY_get0(again.get());
}

}  // namespace pki
