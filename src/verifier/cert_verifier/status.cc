#include <libpki/verify.h>

#include "common/ossl_ptr.h"
#include "common/ref_count.h"

using namespace pki;

cert_sts_info *cv_alloc_cert_sts_info(int status, X509 *cert, const ASN1_TIME *valid_until) {
  if (!cert || !valid_until)
    return nullptr;
  openssl_error_mark null_says_it_all;
  malloc_ptr<cert_sts_info> info(make<cert_sts_info>());
  if (!info)
    return nullptr;
  info->status = status;
  info->ref_count = 1;
  info->valid_until = ASN1_STRING_dup(valid_until);
  if (!info->valid_until)
    return nullptr;
  if (!take_reference(cert)) {
    ASN1_TIME_free(info->valid_until);
    return nullptr;
  }
  info->cert = cert;
  return info.release();
}

cert_sts_info *cv_dup_cert_sts_info(cert_sts_info *info) {
  return dup_record(info);
}

void cv_free_cert_sts_info(cert_sts_info *info) {
  if (!info || !drop_reference(info))
    return;
  ASN1_TIME_free(info->valid_until);
  X509_free(info->cert);
  std::free(info);
}

const char *zv_cv_cert_sts_to_str(int status) {
  switch (status) {
    case PKI_CERT_UNKNOWN:
      return "unknown";
    case PKI_CERT_OK:
      return "ok";
    case PKI_CERT_REVOKED:
      return "revoked";
    default:
      return "<invalid cert status>";
  }
}
