// OCSP responders: those that the certificate's authorityInfoAccess names (RFC 5280 4.2.2.1).
#include <libpki/error.h>
#include <openssl/objects.h>

#include <cstring>

#include "common/limits.h"
#include "common/log.h"
#include "verifier/cert_status.h"
#include "verifier/cert_status_locator/internal.h"

namespace pki {

namespace {

constexpr int extension_absent = -1;

using aia_ptr = std::unique_ptr<AUTHORITY_INFO_ACCESS, free_with<AUTHORITY_INFO_ACCESS_free>>;

bool is_ocsp(const ACCESS_DESCRIPTION *description) {
  return OBJ_obj2nid(description->method) == NID_ad_OCSP;
}

bool is_uri(const ACCESS_DESCRIPTION *description) {
  int type = description->location->type;
  if (type != GEN_URI)
    syslog(log_debug, "ignoring ocsp AIA with a non-uri location name (type=%d)", type);
  return type == GEN_URI;
}

// Whoever it would have named is missing, but not the will to name one.
bool is_readable(const ACCESS_DESCRIPTION *description, cert_sts_locator_list *list) {
  if (is_text(description->location->d.uniformResourceIdentifier))
    return true;
  list->incomplete = true;
  syslog(log_warning, "ignoring ocsp AIA with a NUL in its uri");
  return false;
}

int add_description(cert_sts_locator_list *list, const ACCESS_DESCRIPTION *description) {
  const auto *url = reinterpret_cast<const char *>(
      ASN1_STRING_get0_data(description->location->d.uniformResourceIdentifier));
  int error = cv_csl_add_ocsp_url(list, url ? url : "", nullptr, 0, 0);
  if (error)
    syslog(log_error, "failed to add ocsp locator to list: %s",
           pki_strerror(static_cast<unsigned>(error)));
  return error;
}

}  // namespace

int cv_csl_add_ocsp_url(cert_sts_locator_list *list, const char *url, X509 *signer, int ocsp_flag,
                        int final) {
  if (!url)
    return PKI_INVALID_ARGS;
  size_t url_bytes = std::strlen(url) + 1;
  cert_sts_locator_ptr locator(
      make_locator(zv_cv_ocsp_get_sts_info, final != 0, sizeof(ocsp_locator) + url_bytes));
  if (!locator)
    return PKI_OUT_OF_MEMORY;
  auto *data = static_cast<ocsp_locator *>(locator->data);
  data->type = locator_ocsp_url;
  data->url = static_cast<char *>(std::memcpy(data + 1, url, url_bytes));
  data->ocsp_flag = ocsp_flag;
  if (signer && !take_reference(signer))
    return PKI_CRYPTO_LOCK_FAILED;
  data->signer = signer;
  int error = cv_csl_add(list, locator.get());
  if (!error)
    (void)locator.release();
  return error;
}

int add_ocsp_locators(X509 *cert, cert_sts_locator_list *list) {
  int criticality = 0;
  aia_ptr access(static_cast<AUTHORITY_INFO_ACCESS *>(
      X509_get_ext_d2i(cert, NID_info_access, &criticality, nullptr)));
  if (!access && criticality == extension_absent)
    return PKI_OK;
  if (!access) {
    // Whatever it would have named is missing, but the certificate may name CRLs too.
    list->incomplete = true;
    syslog(log_error, "the authority-info-access extension cannot be read");
    return openssl_failure(PKI_OK);
  }
  int total = sk_ACCESS_DESCRIPTION_num(access.get());
  int added = 0;
  for (int i = 0; i < total; i++) {
    const ACCESS_DESCRIPTION *description = sk_ACCESS_DESCRIPTION_value(access.get(), i);
    if (!is_ocsp(description) || !is_uri(description) || !is_readable(description, list))
      continue;
    if (added == max_responders) {
      syslog(log_warning, "ignoring ocsp AIA entries behind the first %d", max_responders);
      break;
    }
    if (int error = add_description(list, description))
      return error;
    added++;
  }
  syslog(log_debug, "found %d acceptable ocsp AIA entries (out of %d)", added, total);
  syslog(log_debug, "created %d ocsp locators", added);
  return PKI_OK;
}

}  // namespace pki
