#include "verifier/crl_cache/scope.h"

#include <libpki/error.h>

#include <cstring>

#include "common/log.h"
#include "verifier/crl_cache/extensions.h"
#include "verifier/crl_cache/fetch.h"
#include "verifier/crl_cache/general_names.h"

namespace pki {

namespace {

constexpr int full_name = 0;

const X509_NAME *scope_name(const crl_info *crli) {
  return has_configured_signer(crli) ? X509_get_subject_name(crli->crl_signer) : crli->crl_issuer;
}

bool is_indirect(const ISSUING_DIST_POINT *idp) {
  return idp && idp->indirectCRL > 0;
}

bool is_same_name(const X509_NAME *one, const X509_NAME *other) {
  return X509_NAME_cmp(one, other) == 0;
}

bool is_issuer_named(const crl_info *crli, const X509_CRL *crl, const ISSUING_DIST_POINT *idp,
                     const X509_NAME *scope) {
  const X509_NAME *issuer = X509_CRL_get_issuer(crl);
  if (!is_same_name(scope, issuer)) {
    syslog(log_warning, "issuer in CRL-DP (%s) != crl-issuer (%s)", name_line(scope).get(),
           name_line(issuer).get());
    return false;
  }
  if (!has_configured_signer(crli) && !is_indirect(idp)) {
    syslog(log_warning, "indirectCRL flag not set in IDP in CRL");
    return false;
  }
  return true;
}

bool is_issuer_the_certs(const X509 *cert, const X509_CRL *crl) {
  const X509_NAME *cert_issuer = X509_get_issuer_name(cert);
  const X509_NAME *crl_issuer = X509_CRL_get_issuer(crl);
  if (is_same_name(cert_issuer, crl_issuer))
    return true;
  syslog(log_warning, "cert-issuer (%s) != crl-issuer (%s)", name_line(cert_issuer).get(),
         name_line(crl_issuer).get());
  return false;
}

// Null for a relative name, which matches nothing.
const GENERAL_NAMES *full_names(const DIST_POINT_NAME *name) {
  return name && name->type == full_name ? name->name.fullname : nullptr;
}

bool is_one_of(const DIST_POINT *point, const GENERAL_NAMES *covered) {
  const GENERAL_NAMES *wanted = point->distpoint ? full_names(point->distpoint) : point->CRLissuer;
  return cv_find_gn_match(wanted, covered) != nullptr;
}

bool is_url(const GENERAL_NAME *name, const char *url) {
  if (name->type != GEN_URI || !url)
    return false;
  const ASN1_IA5STRING *uri = name->d.uniformResourceIdentifier;
  return std::strlen(url) == static_cast<size_t>(uri->length) &&
         std::memcmp(uri->data, url, static_cast<size_t>(uri->length)) == 0;
}

bool is_issuer(const GENERAL_NAME *name, const X509 *cert) {
  return name->type == GEN_DIRNAME &&
         is_same_name(name->d.directoryName, X509_get_issuer_name(cert));
}

// A CRL source that was configured has no distribution point to compare. So that no other partition
// of the issuer's list can take its place, the source's URL, one of the certificate's own points,
// or the issuer has to be named (RFC 5280 6.3.3: the implied distribution point).
bool is_source_covered(const crl_info *crli, const X509 *cert, const GENERAL_NAMES *covered) {
  for (int i = 0; i < sk_GENERAL_NAME_num(covered); i++) {
    const GENERAL_NAME *name = sk_GENERAL_NAME_value(covered, i);
    if (is_url(name, crli->url) || is_issuer(name, cert))
      return true;
  }
  dist_points_ptr points(static_cast<STACK_OF(DIST_POINT) *>(
      X509_get_ext_d2i(cert, NID_crl_distribution_points, nullptr, nullptr)));
  for (int i = 0; i < sk_DIST_POINT_num(points.get()); i++)
    if (is_one_of(sk_DIST_POINT_value(points.get(), i), covered))
      return true;
  return false;
}

// RFC 5280 6.3.3 (b)(2)(i).
bool is_point_covered(const crl_info *crli, const X509 *cert, const ISSUING_DIST_POINT *idp) {
  if (!idp->distpoint)
    return true;
  const GENERAL_NAMES *covered = full_names(idp->distpoint);
  if (crli->dist_point ? is_one_of(crli->dist_point, covered)
                       : is_source_covered(crli, cert, covered))
    return true;
  syslog(log_warning, "none of the names in the IDP matched a name in the CRL-DP");
  return false;
}

// RFC 5280 6.3.3 (b)(2)(ii) to (iv).
bool is_kind_covered(X509 *cert, const ISSUING_DIST_POINT *idp) {
  if (X509_check_purpose(cert, -1, 0) != 1) {
    syslog(log_warning, "the cert's extensions cannot be read");
    return false;
  }
  bool is_ca = (X509_get_extension_flags(cert) & EXFLAG_CA) != 0;
  if (idp->onlyuser > 0 && is_ca) {
    syslog(log_warning, "CRL is for user-certs only, but cert is CA-cert");
    return false;
  }
  if (idp->onlyCA > 0 && !is_ca) {
    syslog(log_warning, "CRL is for ca-certs only, but cert is user-cert");
    return false;
  }
  if (idp->onlyattr > 0) {
    syslog(log_warning, "CRL is for attribute-certs only");
    return false;
  }
  return true;
}

}  // namespace

int cv_verify_issuer_scope(const crl_info *crli, X509 *cert, const X509_CRL *crl,
                           const ISSUING_DIST_POINT *idp) {
  const X509_NAME *scope = scope_name(crli);
  if (prepare_to_compare(X509_CRL_get_issuer(crl)) ||
      prepare_to_compare(X509_get_issuer_name(cert)) || (scope && prepare_to_compare(scope)))
    return PKI_OUT_OF_MEMORY;
  if (scope ? !is_issuer_named(crli, crl, idp, scope) : !is_issuer_the_certs(cert, crl))
    return PKI_BAD_CRL_SCOPE;
  if (!idp)
    return PKI_OK;
  openssl_error_mark the_line_says_it_all;
  memory_watch memory;
  bool covered = is_point_covered(crli, cert, idp) && is_kind_covered(cert, idp);
  if (memory.ran_out())
    return PKI_OUT_OF_MEMORY;
  return covered ? PKI_OK : PKI_BAD_CRL_SCOPE;
}

}  // namespace pki
