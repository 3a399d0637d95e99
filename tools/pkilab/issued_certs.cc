#include "tools/pkilab/issued_certs.h"

#include <unistd.h>

#include "tools/common/cert_text.h"
#include "tools/common/files.h"
#include "tools/common/keys.h"

namespace pkilab {

namespace {

constexpr int max_serial_bytes = 64;

bool is_called(const X509 *cert, const X509_NAME *issuer, const ASN1_INTEGER *serial) {
  return X509_NAME_cmp(X509_get_issuer_name(cert), issuer) == 0 &&
         ASN1_INTEGER_cmp(X509_get0_serialNumber(cert), serial) == 0;
}

}  // namespace

std::string issued_certs::path(const ASN1_INTEGER *serial) const {
  return folder_ + "/" + tools::serial_text(serial) + ".pem";
}

tools::cert_ptr issued_certs::issue(const cert_wishes &wishes, const ca::pair &issuer) const {
  tools::cert_ptr cert = make_device_cert(wishes, issuer.cert.get(), issuer.key.get());
  tools::make_folders(folder_);
  tools::write_file(path(X509_get0_serialNumber(cert.get())), tools::cert_pem(cert.get()), 0644);
  return cert;
}

void issued_certs::forget(const X509 *cert) const {
  unlink(path(X509_get0_serialNumber(cert)).c_str());
}

tools::cert_ptr issued_certs::find(const X509_NAME *issuer, const ASN1_INTEGER *serial) const {
  for (const ca::pair *own : keys_.pairs())
    if (is_called(own->cert.get(), issuer, serial))
      return tools::cert_ptr(X509_dup(own->cert.get()));
  if (ASN1_STRING_length(serial) > max_serial_bytes || !tools::file_exists(path(serial)))
    return nullptr;
  tools::cert_ptr cert = tools::load_certificate(path(serial));
  return is_called(cert.get(), issuer, serial) ? std::move(cert) : nullptr;
}

tools::cert_ptr issued_certs::find(const ASN1_INTEGER *serial) const {
  for (const ca::pair *issuer : keys_.pairs())
    if (tools::cert_ptr found = find(X509_get_subject_name(issuer->cert.get()), serial))
      return found;
  return nullptr;
}

}  // namespace pkilab
