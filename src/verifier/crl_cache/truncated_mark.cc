// The vendor's mark on a CRL that lacks entries.
#include <libpki/error.h>
#include <libpki/util.h>

#include "common/log.h"
#include "common/oids.h"
#include "verifier/crl_cache/decoder.h"

namespace pki {

namespace {

using x509_extension_ptr = std::unique_ptr<X509_EXTENSION, free_with<X509_EXTENSION_free>>;
using octet_string_ptr = std::unique_ptr<ASN1_OCTET_STRING, free_with<ASN1_OCTET_STRING_free>>;

}  // namespace

int cv_crl_mark_truncated(X509_CRL *crl) {
  octet_string_ptr empty(ASN1_OCTET_STRING_new());
  x509_extension_ptr mark(empty
                              ? X509_EXTENSION_create_by_NID(
                                    nullptr, registered_nid(PKI_OID_TRUNCATED_CRL), 0, empty.get())
                              : nullptr);
  // OpenSSL keeps the old encoding unless it is told.
  if (mark && X509_CRL_add_ext(crl, mark.get(), -1) == 1 && i2d_re_X509_CRL_tbs(crl, nullptr) > 0)
    return PKI_OK;
  log_openssl_errors(log_error);
  return PKI_OUT_OF_MEMORY;
}

bool is_marked_truncated(const X509_CRL *crl) {
  return X509_CRL_get_ext_by_NID(crl, registered_nid(PKI_OID_TRUNCATED_CRL), -1) >= 0;
}

}  // namespace pki
