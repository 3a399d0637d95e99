// What the makers of locators share.
#ifndef PKI_VERIFIER_CERT_STATUS_LOCATOR_INTERNAL_H
#define PKI_VERIFIER_CERT_STATUS_LOCATOR_INTERNAL_H

#include "common/ossl_ptr.h"
#include "verifier/cert_status_locator.h"

namespace pki {

using cert_sts_locator_ptr =
    std::unique_ptr<cert_sts_locator, free_with<zv_cv_free_cert_status_locator>>;

// A record with one reference and zeroed data of `data_bytes` behind it; null without memory.
[[nodiscard]] cert_sts_locator *make_locator(get_sts_fn *get_sts, bool final, size_t data_bytes);

// Takes the locator over. Returns 0; 2 (the list is unchanged, the locator still the caller's).
[[nodiscard]] int cv_csl_add(cert_sts_locator_list *list, cert_sts_locator *locator);

// Returns 0; 2; 49; 63 for a null URL.
[[nodiscard]] int cv_csl_add_ocsp_url(cert_sts_locator_list *list, const char *url, X509 *signer,
                                      int ocsp_flag, int final);

[[nodiscard]] DIST_POINT *cv_dup_dp(const DIST_POINT *dp);

// Is it there, without a NUL? That would end a URI early for us and not for others.
[[nodiscard]] bool is_text(const ASN1_IA5STRING *uri);

// "ok" for a day.
cert_sts_info *zv_cv_cs_always_ok(void *data, X509 *cert, X509 *issuer, X509_STORE_CTX *ctx,
                                  unsigned char flag, int depth);

// The configured sources: those for before the certificate's own, or those for after.
// Returns 0 or the code that ended the pass.
int cv_csl_find_loc_in_config(X509 *cert, cert_sts_locator_list *list, bool before);

// The certificate's own sources. Each returns 0 or a code, which is logged. What cannot be read is
// not missing: it leaves the list incomplete, or a locator without points.
int add_ocsp_locators(X509 *cert, cert_sts_locator_list *list);
int add_dist_point_locator(X509 *cert, cert_sts_locator_list *list);

}  // namespace pki

#endif
