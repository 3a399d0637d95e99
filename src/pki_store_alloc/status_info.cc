// Status rules and their sources: OCSP, CRL, always good.
#include <libpki/util.h>

#include "pki_store_alloc/internal.h"

using namespace pki;

cert_status_info *alloc_cert_status_info(void) {
  cert_status_info *info = make_record<cert_status_info>();
  if (!info)
    return nullptr;
  info->rules = make_list();
  if (!info->rules) {
    std::free(info);
    return nullptr;
  }
  return info;
}

cert_status_info *alloc_cert_status_info_m(int mechanism) {
  if (mechanism != PKI_STATUS_OCSP && mechanism != PKI_STATUS_CRL && mechanism != PKI_STATUS_AOK) {
    log_unsupported_mechanism(mechanism);
    return nullptr;
  }
  cert_status_info *info = alloc_cert_status_info();
  if (!info)
    return nullptr;
  info->mechanism = mechanism;
  if (mechanism == PKI_STATUS_OCSP)
    info->data = alloc_ocsp_info();
  else if (mechanism == PKI_STATUS_CRL)
    info->data = make_list();
  if (!info->data && mechanism != PKI_STATUS_AOK) {
    free_cert_status_info(info);
    return nullptr;
  }
  return info;
}

void free_cert_status_info(cert_status_info *info) {
  if (!info || !drop_reference(info))
    return;
  switch (info->mechanism) {
    case PKI_STATUS_OCSP:
      free_ocsp_info(static_cast<ocsp_info *>(info->data));
      break;
    case PKI_STATUS_CRL:
      free_list(static_cast<STACK *>(info->data), free_crl_info);
      break;
    case PKI_STATUS_AOK:
      break;
    default:
      log_unsupported_mechanism(info->mechanism);
  }
  free_list(info->rules, free_cert_match_rule);
  std::free(info);
}

cert_status_info *dup_cert_status_info(cert_status_info *info) {
  return dup_record(info);
}

ocsp_info *alloc_ocsp_info(void) {
  return make_record<ocsp_info>();
}

void free_ocsp_info(ocsp_info *info) {
  if (!info || !drop_reference(info))
    return;
  std::free(info->url);
  X509_free(info->responder_cert);
  std::free(info);
}

ocsp_info *dup_ocsp_info(ocsp_info *info) {
  return dup_record(info);
}

crl_info *alloc_crl_info(void) {
  return make_record<crl_info>();
}

void free_crl_info(crl_info *info) {
  if (!info || !drop_reference(info))
    return;
  if (!(info->flags & PKI_CRL_URL_BORROWED))
    std::free(info->url);
  if (!(info->flags & PKI_CRL_ISSUER_BORROWED))
    X509_NAME_free(info->crl_issuer);
  X509_free(info->crl_signer);
  std::free(info);
}

crl_info *dup_crl_info(crl_info *info) {
  return dup_record(info);
}

crl_info *create_crl_info(const char *url, int format, uint32_t reasons, unsigned char flags,
                          const X509_NAME *issuer, X509 *signer) {
  openssl_error_mark null_says_it_all;
  std::unique_ptr<crl_info, free_with<free_crl_info>> info(alloc_crl_info());
  if (!info)
    return nullptr;
  info->url = pki_strdup(url);
  if (url && !info->url)
    return nullptr;
  info->format = format;
  info->reasons = reasons;
  info->flags = flags;
  if (issuer) {
    info->crl_issuer = X509_NAME_dup(issuer);
    return info->crl_issuer ? info.release() : nullptr;
  }
  if (signer && !take_reference(signer))
    return nullptr;
  info->crl_signer = signer;
  return info.release();
}
