#include "pki_store_alloc/internal.h"

using namespace pki;

STACK *alloc_key_store(void) {
  return make_list();
}

void free_key_store(STACK *list) {
  free_list(list, free_key_info);
}

key_info *alloc_key_info(void) {
  key_info *info = make_record<key_info>();
  if (!info)
    return nullptr;
  info->certs = make_list();
  if (!info->certs) {
    free_key_info(info);
    return nullptr;
  }
  return info;
}

void free_key_info(key_info *info) {
  if (!info || !drop_reference(info))
    return;
  std::free(info->label);
  EVP_PKEY_free(info->key);
  free_list(info->certs, free_cert_info);
  std::free(info);
}

key_info *dup_key_info(key_info *info) {
  return dup_record(info);
}

cert_info *alloc_cert_info(void) {
  return make_record<cert_info>();
}

void free_cert_info(cert_info *info) {
  if (!info || !drop_reference(info))
    return;
  std::free(info->label);
  X509_free(info->cert);
  X509_NAME_free(info->issuer);
  X509_NAME_free(info->subject);
  ASN1_INTEGER_free(info->serial);
  std::free(info);
}

cert_info *dup_cert_info(cert_info *info) {
  return dup_record(info);
}
