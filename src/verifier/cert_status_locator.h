// Where the status of a certificate can be asked: an ordered list of sources.
#ifndef PKI_VERIFIER_CERT_STATUS_LOCATOR_H
#define PKI_VERIFIER_CERT_STATUS_LOCATOR_H

#include <libpki/records.h>
#include <libpki/verify.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

namespace pki {

// Asks one source. A new record, or null when it has no answer.
using get_sts_fn = cert_sts_info *(void *data, X509 *cert, X509 *issuer, X509_STORE_CTX *ctx,
                                   unsigned char flag, int depth);

enum locator_type { locator_ocsp_url = 1, locator_dist_points = 2, locator_crls = 3 };

struct ocsp_locator {
  int type;
  char *url;      // in the locator's own block
  X509 *signer;   // the responder that the configuration trusts, or null
  int ocsp_flag;  // believe that signer without asking further
};

struct dist_points_locator {
  int type;
  STACK_OF(DIST_POINT) * dps;
  STACK_OF(DIST_POINT) * delta_dps;
};

struct crls_locator {
  int type;
  STACK *crls;  // of crl_info
};

struct cert_sts_locator {
  get_sts_fn *get_sts;
  int final;   // the search ends here, with or without an answer
  void *data;  // one of the above, in the same block; null: always good
  int ref_count;
};

struct cert_sts_locator_list {
  cert_sts_locator **locators;
  int count;
  bool incomplete;  // something failed on the way: empty does not mean "no source"
  bool closed;      // a final source is missing: nothing may stand behind it
};

// The sources of `cert`: configured ones for before, its own OCSP responders, its own distribution
// points, configured ones for after. Null when there is no memory for the list.
[[nodiscard]] cert_sts_locator_list *zv_find_cert_sts_locators(X509 *cert);
void zv_cv_free_csl_list(cert_sts_locator_list *list);
void zv_cv_free_cert_status_locator(cert_sts_locator *locator);

// A list over the same crl_info records, one more reference each; null without memory. And its end.
[[nodiscard]] STACK *share_crl_infos(const STACK *list);
void free_crl_infos(STACK *list);

}  // namespace pki

#endif
