// The extensions of a CRL entry (RFC 5280 5.3).
#include <libpki/error.h>
#include <libpki/util.h>

#include "common/log.h"
#include "verifier/crl_cache/decoder.h"
#include "verifier/crl_cache/extensions.h"
#include "verifier/crl_cache/general_names.h"

namespace pki {

namespace {

// Not certificateIssuer: where it is critical, the CRL is refused, and other revocation sources
// have to answer.
bool is_known(const X509_EXTENSION *extension) {
  switch (OBJ_obj2nid(X509_EXTENSION_get_object(const_cast<X509_EXTENSION *>(extension)))) {
    case NID_crl_reason:
    case NID_invalidity_date:
    case NID_hold_instruction_code:
      return true;
    default:
      return false;
  }
}

bool is_certificate_issuer(const X509_EXTENSION *extension) {
  return OBJ_obj2nid(X509_EXTENSION_get_object(const_cast<X509_EXTENSION *>(extension))) ==
         NID_certificate_issuer;
}

int take_issuer(const X509_EXTENSION *extension, X509_NAME **current) {
  memory_watch memory;
  general_names_ptr names(
      static_cast<GENERAL_NAMES *>(X509V3_EXT_d2i(const_cast<X509_EXTENSION *>(extension))));
  if (!names)
    return memory.ran_out() ? PKI_OUT_OF_MEMORY : PKI_ASN1_DECODE_ERROR;
  const X509_NAME *found = cv_find_dn(names.get());
  if (!found) {
    syslog(log_warning, "No DN found in certificate-issuer crl-entry extension");
    return PKI_OK;
  }
  x509_name_ptr copy(X509_NAME_dup(found));
  if (!copy || memory.ran_out())
    return PKI_OUT_OF_MEMORY;
  X509_NAME_free(*current);
  *current = copy.release();
  return PKI_OK;
}

}  // namespace

int cv_proc_rev_ext(const STACK_OF(X509_EXTENSION) * extensions, X509_NAME **current,
                    bool *unknown_critical) {
  for (int i = 0; i < sk_X509_EXTENSION_num(extensions); i++) {
    const X509_EXTENSION *extension = sk_X509_EXTENSION_value(extensions, i);
    if (is_certificate_issuer(extension))
      if (int error = take_issuer(extension, current))
        return error;
    if (!X509_EXTENSION_get_critical(extension) || is_known(extension))
      continue;
    if (!unknown_critical) {
      syslog(log_warning, "Found unknown critical crl-entry extension: %s",
             oid_line(X509_EXTENSION_get_object(const_cast<X509_EXTENSION *>(extension))).get());
      return PKI_UNKNOWN_CRITICAL_EXTENSION;
    }
    *unknown_critical = true;
  }
  return PKI_OK;
}

}  // namespace pki
