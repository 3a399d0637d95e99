// The sources of a certificate's status that ask the network.
#ifndef PKI_VERIFIER_CERT_STATUS_H
#define PKI_VERIFIER_CERT_STATUS_H

#include "verifier/cert_status_locator.h"

namespace pki {

// An OCSP responder, data: ocsp_locator.
get_sts_fn zv_cv_ocsp_get_sts_info;

// CRLs, data: dist_points_locator or crls_locator.
get_sts_fn zv_cv_crl_get_sts_info;

}  // namespace pki

#endif
