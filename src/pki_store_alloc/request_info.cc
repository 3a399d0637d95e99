// Enrollment and look-up methods.
#include "pki_store_alloc/internal.h"

using namespace pki;

cert_req_info *alloc_cert_req_info(void) {
  return make_record<cert_req_info>();
}

cert_req_info *alloc_cert_req_info_m(int mechanism) {
  if (mechanism != PKI_CERT_REQ_SCEP) {
    log_unsupported_mechanism(mechanism);
    return nullptr;
  }
  cert_req_info *info = alloc_cert_req_info();
  if (!info)
    return nullptr;
  info->mechanism = mechanism;
  info->data = alloc_scep_req_info();
  if (!info->data) {
    free_cert_req_info(info);
    return nullptr;
  }
  return info;
}

void free_cert_req_info(cert_req_info *info) {
  if (!info || !drop_reference(info))
    return;
  if (info->mechanism == PKI_CERT_REQ_SCEP)
    free_scep_req_info(static_cast<scep_req_info *>(info->data));
  else
    log_unsupported_mechanism(info->mechanism);
  std::free(info);
}

cert_req_info *dup_cert_req_info(cert_req_info *info) {
  return dup_record(info);
}

scep_req_info *alloc_scep_req_info(void) {
  return make<scep_req_info>();
}

void free_scep_req_info(scep_req_info *info) {
  if (!info)
    return;
  std::free(info->url);
  X509_free(info->ca_cert);
  std::free(info->digest);
  std::free(info->cipher);
  std::free(info);
}

cert_query_info *alloc_cert_query_info(void) {
  return make_record<cert_query_info>();
}

cert_query_info *alloc_cert_query_info_m(int mechanism) {
  if (mechanism != PKI_CERT_QUERY_SCEP && mechanism != PKI_CERT_QUERY_LDAP) {
    log_unsupported_mechanism(mechanism);
    return nullptr;
  }
  cert_query_info *info = alloc_cert_query_info();
  if (!info)
    return nullptr;
  info->mechanism = mechanism;
  if (mechanism == PKI_CERT_QUERY_SCEP)
    info->data = alloc_scep_query_info();
  else
    info->data = alloc_ldap_query_info();
  if (!info->data) {
    free_cert_query_info(info);
    return nullptr;
  }
  return info;
}

void free_cert_query_info(cert_query_info *info) {
  if (!info || !drop_reference(info))
    return;
  switch (info->mechanism) {
    case PKI_CERT_QUERY_SCEP:
      free_scep_query_info(static_cast<scep_query_info *>(info->data));
      break;
    case PKI_CERT_QUERY_LDAP:
      free_ldap_query_info(static_cast<ldap_query_info *>(info->data));
      break;
    default:
      log_unsupported_mechanism(info->mechanism);
  }
  std::free(info);
}

cert_query_info *dup_cert_query_info(cert_query_info *info) {
  return dup_record(info);
}

scep_query_info *alloc_scep_query_info(void) {
  return make<scep_query_info>();
}

void free_scep_query_info(scep_query_info *info) {
  if (!info)
    return;
  std::free(info->url);
  X509_free(info->ca_cert);
  std::free(info);
}

ldap_query_info *alloc_ldap_query_info(void) {
  return make<ldap_query_info>();
}

void free_ldap_query_info(ldap_query_info *info) {
  if (!info)
    return;
  std::free(info->url);
  std::free(info);
}
