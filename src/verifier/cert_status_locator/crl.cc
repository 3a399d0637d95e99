// CRLs: those that the certificate's cRLDistributionPoints and freshestCRL name (RFC 5280 4.2.1.13
// and 4.2.1.15).
#include <libpki/error.h>
#include <libpki/util.h>

#include "common/log.h"
#include "verifier/cert_status.h"
#include "verifier/cert_status_locator/internal.h"

namespace pki {

namespace {

// A list over somebody else's points.
using borrowed_points_ptr =
    std::unique_ptr<STACK_OF(DIST_POINT),
                    free_with<[](STACK_OF(DIST_POINT) * list) { sk_DIST_POINT_free(list); }>>;

bool has_uri(const GENERAL_NAMES *names) {
  for (int i = 0; i < sk_GENERAL_NAME_num(names); i++) {
    const GENERAL_NAME *name = sk_GENERAL_NAME_value(names, i);
    if (name->type == GEN_URI && is_text(name->d.uniformResourceIdentifier))
      return true;
  }
  return false;
}

bool is_acceptable(const DIST_POINT *point) {
  const DIST_POINT_NAME *name = point->distpoint;
  if (!name) {
    syslog(log_debug, "ignoring crl-dp with no distpoint");
    return false;
  }
  if (name->type != 0 || sk_GENERAL_NAME_num(name->name.fullname) < 1) {
    syslog(log_debug, "ignoring crl-dp with no (full) name");
    return false;
  }
  if (!has_uri(name->name.fullname)) {
    syslog(log_debug, "ignoring crl-dp without uri in name");
    return false;
  }
  return true;
}

// Deep copies; null without memory.
dist_points_ptr copy_of(const STACK_OF(DIST_POINT) * points) {
  dist_points_ptr copies(sk_DIST_POINT_new_null());
  for (int i = 0; copies && i < sk_DIST_POINT_num(points); i++) {
    DIST_POINT *copy = cv_dup_dp(sk_DIST_POINT_value(points, i));
    if (!copy || sk_DIST_POINT_push(copies.get(), copy) <= 0) {
      DIST_POINT_free(copy);
      return nullptr;
    }
  }
  return copies;
}

borrowed_points_ptr acceptable_points(const STACK_OF(DIST_POINT) * points) {
  borrowed_points_ptr chosen(sk_DIST_POINT_new_null());
  for (int i = 0; chosen && i < sk_DIST_POINT_num(points); i++) {
    DIST_POINT *point = sk_DIST_POINT_value(points, i);
    if (is_acceptable(point) && sk_DIST_POINT_push(chosen.get(), point) <= 0)
      return nullptr;
  }
  return chosen;
}

// Null when the extension is absent or cannot be read; `*present` tells them apart.
dist_points_ptr read_points(X509 *cert, int nid, const char *name, bool *present) {
  int criticality = 0;
  dist_points_ptr points(
      static_cast<STACK_OF(DIST_POINT) *>(X509_get_ext_d2i(cert, nid, &criticality, nullptr)));
  *present = points || criticality != -1;
  if (*present && !points) {
    syslog(log_error, "the %s extension cannot be read", name);
    log_openssl_errors(log_error);
  }
  return points;
}

int make_crl_locator(const STACK_OF(DIST_POINT) * points, const STACK_OF(DIST_POINT) * delta_points,
                     cert_sts_locator_ptr *out) {
  cert_sts_locator_ptr locator(
      make_locator(zv_cv_crl_get_sts_info, false, sizeof(dist_points_locator)));
  if (!locator)
    return PKI_OUT_OF_MEMORY;
  auto *data = static_cast<dist_points_locator *>(locator->data);
  data->type = locator_dist_points;
  data->dps = copy_of(points).release();
  data->delta_dps = copy_of(delta_points).release();
  if (!data->dps || !data->delta_dps)
    return openssl_failure(PKI_OUT_OF_MEMORY);
  *out = std::move(locator);
  return PKI_OK;
}

}  // namespace

DIST_POINT *cv_dup_dp(const DIST_POINT *dp) {
  return static_cast<DIST_POINT *>(
      ASN1_item_dup(ASN1_ITEM_rptr(DIST_POINT), const_cast<DIST_POINT *>(dp)));
}

// Extensions that cannot be read make a locator without points: it gives no answer, which is
// not the same as there being no source.
int add_dist_point_locator(X509 *cert, cert_sts_locator_list *list) {
  bool present;
  dist_points_ptr points =
      read_points(cert, NID_crl_distribution_points, "crl-distribution-points", &present);
  if (!present)
    return PKI_OK;
  bool has_deltas;
  dist_points_ptr deltas = read_points(cert, NID_freshest_crl, "freshest-crl", &has_deltas);
  if (!points || (has_deltas && !deltas)) {
    // A base CRL alone could miss what a delta CRL revokes.
    list->incomplete = true;
    points.reset();
  }
  borrowed_points_ptr chosen = acceptable_points(points.get());
  if (!chosen)
    return openssl_failure(PKI_OUT_OF_MEMORY);
  syslog(log_debug, "found %d acceptable crl-dp entries (out of %d)",
         sk_DIST_POINT_num(chosen.get()), points ? sk_DIST_POINT_num(points.get()) : 0);
  cert_sts_locator_ptr locator;
  int error = make_crl_locator(chosen.get(), deltas.get(), &locator);
  if (!error)
    error = cv_csl_add(list, locator.get());
  if (error) {
    syslog(log_error, "failed to add CRL locator to list: %s",
           pki_strerror(static_cast<unsigned>(error)));
    return error;
  }
  (void)locator.release();
  syslog(log_debug, "created 1 crl locator");
  return PKI_OK;
}

}  // namespace pki
