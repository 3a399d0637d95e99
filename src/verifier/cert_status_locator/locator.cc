// The locator record, the list of them, and their order.
#include <libpki/error.h>
#include <libpki/util.h>

#include <cstring>
#include <ctime>

#include "common/log.h"
#include "verifier/cert_status_locator/internal.h"

namespace pki {

namespace {

constexpr time_t always_ok_seconds = 86400;

// False for data of a type that nobody made.
bool release_data(void *data) {
  if (!data)
    return true;
  switch (*static_cast<int *>(data)) {
    case locator_ocsp_url:
      X509_free(static_cast<ocsp_locator *>(data)->signer);
      return true;
    case locator_dist_points:
      free_dist_points(static_cast<dist_points_locator *>(data)->dps);
      free_dist_points(static_cast<dist_points_locator *>(data)->delta_dps);
      return true;
    case locator_crls:
      free_crl_infos(static_cast<crls_locator *>(data)->crls);
      return true;
    default:
      return false;
  }
}

}  // namespace

STACK *share_crl_infos(const STACK *list) {
  return stack_dup(
      list, [](void *info) -> void * { return dup_crl_info(static_cast<crl_info *>(info)); },
      [](void *info) { free_crl_info(static_cast<crl_info *>(info)); });
}

void free_crl_infos(STACK *list) {
  while (OPENSSL_sk_num(list) > 0)
    free_crl_info(static_cast<crl_info *>(OPENSSL_sk_pop(list)));
  OPENSSL_sk_free(list);
}

bool is_text(const ASN1_IA5STRING *uri) {
  return uri &&
         (uri->length == 0 || !std::memchr(uri->data, '\0', static_cast<size_t>(uri->length)));
}

cert_sts_locator *make_locator(get_sts_fn *get_sts, bool final, size_t data_bytes) {
  auto *made =
      static_cast<cert_sts_locator *>(std::calloc(1, sizeof(cert_sts_locator) + data_bytes));
  if (!made)
    return nullptr;
  made->get_sts = get_sts;
  made->final = final ? 1 : 0;
  made->data = data_bytes > 0 ? made + 1 : nullptr;
  made->ref_count = 1;
  return made;
}

int cv_csl_add(cert_sts_locator_list *list, cert_sts_locator *locator) {
  auto count = static_cast<size_t>(list->count);
  // NOLINTNEXTLINE(bugprone-sizeof-expression): an array of pointers
  size_t bytes = (count + 1) * sizeof(cert_sts_locator *);
  auto **grown = static_cast<cert_sts_locator **>(std::realloc(list->locators, bytes));
  if (!grown)
    return PKI_OUT_OF_MEMORY;
  grown[count] = locator;
  list->locators = grown;
  list->count++;
  return PKI_OK;
}

cert_sts_info *zv_cv_cs_always_ok(void *, X509 *cert, X509 *, X509_STORE_CTX *, unsigned char,
                                  int) {
  openssl_error_mark null_says_it_all;
  asn1_time_ptr tomorrow(ASN1_TIME_set(nullptr, time(nullptr) + always_ok_seconds));
  return tomorrow ? cv_alloc_cert_sts_info(PKI_CERT_OK, cert, tomorrow.get()) : nullptr;
}

void zv_cv_free_cert_status_locator(cert_sts_locator *locator) {
  if (!locator || --locator->ref_count >= 1)
    return;
  if (!release_data(locator->data)) {
    syslog(log_error, "unexpected type %d encountered in locator %p during free - not freeing it",
           *static_cast<int *>(locator->data), static_cast<void *>(locator));
    return;
  }
  std::free(locator);
}

void zv_cv_free_csl_list(cert_sts_locator_list *list) {
  if (!list)
    return;
  for (int i = 0; i < list->count; i++)
    zv_cv_free_cert_status_locator(list->locators[i]);
  std::free(list->locators);
  std::free(list);
}

cert_sts_locator_list *zv_find_cert_sts_locators(X509 *cert) {
  auto *list = make<cert_sts_locator_list>();
  if (!list)
    return nullptr;
  if (cv_csl_find_loc_in_config(cert, list, true) != PKI_OK)
    list->incomplete = true;
  if (list->closed)
    return list;
  // Where a responder could not be added, the distribution points are passed over.
  if (add_ocsp_locators(cert, list) != PKI_OK || add_dist_point_locator(cert, list) != PKI_OK)
    list->incomplete = true;
  if (cv_csl_find_loc_in_config(cert, list, false) != PKI_OK)
    list->incomplete = true;
  return list;
}

}  // namespace pki
