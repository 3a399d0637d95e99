// From distribution points to the records that are walked one by one.
#include <libpki/error.h>
#include <libpki/util.h>
#include <libpki/verify.h>

#include <cstring>

#include "common/log.h"
#include "common/ossl_ptr.h"
#include "verifier/crl_cache/general_names.h"
#include "verifier/crl_cache/scope.h"

namespace pki {

namespace {

constexpr int full_name = 0;

using crl_info_ptr = std::unique_ptr<crl_info, free_with<free_crl_info>>;

struct conversion {
  X509_NAME *issuer;
  uint32_t reasons;
  STACK *list;
  bool append;
  unsigned char flag;
};

const GENERAL_NAMES *full_names(const DIST_POINT *point) {
  const DIST_POINT_NAME *name = point->distpoint;
  return name && name->type == full_name ? name->name.fullname : nullptr;
}

uint32_t reasons_of(const conversion &to, const DIST_POINT *point) {
  if (to.reasons)
    return to.reasons;
  return point->reasons ? zv_cv_get_crl_reasons(point->reasons) : PKI_ALL_REASONS;
}

int add_record(const conversion &to, DIST_POINT *point, char *url, X509_NAME *issuer) {
  crl_info_ptr made(alloc_crl_info());
  int position = to.append ? OPENSSL_sk_num(to.list) : 0;
  if (!made || OPENSSL_sk_insert(to.list, made.get(), position) <= 0) {
    log_openssl_errors(log_error);
    return PKI_OUT_OF_MEMORY;
  }
  made->url = url;
  made->format = 0;
  made->reasons = reasons_of(to, point);
  made->flags = to.flag | PKI_CRL_URL_BORROWED | PKI_CRL_ISSUER_BORROWED;
  made->crl_issuer = issuer;
  made->dist_point = point;
  (void)made.release();
  return PKI_OK;
}

// A NUL inside an URI would end it early for us and not for others: as good as none.
bool is_text(const ASN1_IA5STRING *uri) {
  return std::memchr(uri->data, '\0', static_cast<size_t>(uri->length)) == nullptr;
}

int add_uris(const conversion &to, DIST_POINT *point, X509_NAME *issuer) {
  const GENERAL_NAMES *names = full_names(point);
  bool found = false;
  for (int i = 0; i < sk_GENERAL_NAME_num(names); i++) {
    const GENERAL_NAME *name = sk_GENERAL_NAME_value(names, i);
    if (name->type != GEN_URI)
      continue;
    ASN1_IA5STRING *uri = name->d.uniformResourceIdentifier;
    if (!uri || !uri->data || uri->length == 0)
      break;
    if (!is_text(uri))
      continue;
    found = true;
    if (int error = add_record(to, point, reinterpret_cast<char *>(uri->data), issuer))
      return error;
  }
  if (!found)
    syslog(log_info, "no url found in DP - skipping");
  return PKI_OK;
}

int convert(const conversion &to, DIST_POINT *point) {
  if (!full_names(point)) {
    syslog(log_debug, "ignoring crl-dp with no (full) name");
    return PKI_OK;
  }
  if (to.issuer || !point->CRLissuer)
    return add_uris(to, point, to.issuer);
  X509_NAME *issuer = cv_find_dn(point->CRLissuer);
  if (issuer)
    return add_uris(to, point, issuer);
  syslog(log_warning, "CRL-Issuer name does not contain a DN - ignoring DP");
  return PKI_OK;
}

}  // namespace

int cv_copy_dp_to_crli(const STACK_OF(DIST_POINT) * points, X509_NAME *issuer, uint32_t reasons,
                       STACK *list, bool append, unsigned char flag) {
  conversion to = {issuer, reasons, list, append, flag};
  for (int i = 0; i < sk_DIST_POINT_num(points); i++)
    if (int error = convert(to, sk_DIST_POINT_value(points, i)))
      return error;
  return PKI_OK;
}

}  // namespace pki
