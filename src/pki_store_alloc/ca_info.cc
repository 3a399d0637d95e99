#include "pki_store_alloc/internal.h"

using namespace pki;

namespace {

bool make_lists(ca_info *info) {
  info->trusted_roots = OPENSSL_sk_new_null();
  info->cert_req_methods = OPENSSL_sk_new_null();
  info->cert_lookup_methods = OPENSSL_sk_new_null();
  info->cert_status_methods = OPENSSL_sk_new_null();
  return info->trusted_roots && info->cert_req_methods && info->cert_lookup_methods &&
         info->cert_status_methods;
}

}  // namespace

ca_info *alloc_ca_info(void) {
  openssl_error_mark null_says_it_all;
  ca_info *info = make_record<ca_info>();
  if (info && !make_lists(info)) {
    free_ca_info(info);
    return nullptr;
  }
  return info;
}

void free_ca_info(ca_info *info) {
  if (!info || !drop_reference(info))
    return;
  std::free(info->label);
  std::free(info->ca_pointer_url);
  EVP_PKEY_free(info->doc_key);
  X509_NAME_free(info->issuer_name);
  free_list(info->trusted_roots, X509_free);
  free_list(info->cert_req_methods, free_cert_req_info);
  free_list(info->cert_lookup_methods, free_cert_query_info);
  free_list(info->cert_status_methods, free_cert_status_info);
  std::free(info);
}

ca_info *dup_ca_info(ca_info *info) {
  return dup_record(info);
}

STACK *alloc_ca_infos(void) {
  return make_list();
}

void free_ca_infos(STACK *list) {
  free_list(list, free_ca_info);
}
