// What a certificate must be to stand where it stands in a chain.
#include <openssl/objects.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <iterator>

#include "verifier/cert_verifier/internal.h"
#include "verifier/cert_verifier/trace.h"

namespace pki {

namespace {

constexpr int supported_critical_extensions[] = {
    NID_subject_key_identifier,  NID_key_usage,         NID_subject_alt_name,
    NID_issuer_alt_name,         NID_basic_constraints, NID_authority_key_identifier,
    NID_crl_distribution_points, NID_ext_key_usage,     NID_info_access};

bool is_supported(const X509_EXTENSION *extension) {
  int nid = OBJ_obj2nid(X509_EXTENSION_get_object(const_cast<X509_EXTENSION *>(extension)));
  return std::find(std::begin(supported_critical_extensions),
                   std::end(supported_critical_extensions),
                   nid) != std::end(supported_critical_extensions);
}

const X509_EXTENSION *first_unknown_critical_extension(const X509 *cert) {
  for (int i = 0; i < X509_get_ext_count(cert); i++) {
    const X509_EXTENSION *extension = X509_get_ext(cert, i);
    if (X509_EXTENSION_get_critical(extension) && !is_supported(extension))
      return extension;
  }
  return nullptr;
}

// A limit that cannot be read is not the same as none.
bool has_readable_extensions(X509 *cert) {
  openssl_error_mark the_line_says_it_all;
  if (X509_check_purpose(cert, -1, 0) == 1 &&
      (X509_get_extension_flags(cert) & EXFLAG_INVALID) == 0)
    return true;
  syslog(log_warning, "The extensions of cert '%s' cannot be read - rejecting it",
         subject_text(cert).get());
  return false;
}

bool may_sign_crls(X509 *cert) {
  if ((X509_get_extension_flags(cert) & EXFLAG_KUSAGE) == 0 ||
      (X509_get_key_usage(cert) & KU_CRL_SIGN) != 0)
    return true;
  syslog(
      log_warning,
      "Certificate '%s' is an issuer but the crl-signing key-usage bit is not set - rejecting it",
      subject_text(cert).get());
  return false;
}

// A version 1 certificate could not carry them.
bool has_basic_constraints(X509 *cert) {
  if ((X509_get_extension_flags(cert) & (EXFLAG_BCONS | EXFLAG_V1)) != 0)
    return true;
  syslog(log_warning,
         "Certificate '%s' is an issuer but doesn't have any basic-constraints - rejecting it",
         subject_text(cert).get());
  return false;
}

bool is_ca(X509 *cert) {
  uint32_t flags = X509_get_extension_flags(cert);
  if ((flags & EXFLAG_BCONS) == 0 || (flags & EXFLAG_CA) != 0)
    return true;
  syslog(log_warning,
         "Certificate '%s' is an issuer but the basic-constraints' ca-flag is not asserted - "
         "rejecting it",
         subject_text(cert).get());
  return false;
}

}  // namespace

bool are_extensions_readable(X509 *cert, int depth) {
  return trace_rule(cert, depth, "readable extensions", has_readable_extensions(cert));
}

bool is_path_length_kept(X509 *cert, int depth) {
  long limit = X509_get_pathlen(cert);
  bool kept = limit < 0 || depth - 1 <= limit;
  if (!kept)
    syslog(log_warning, "Path-length constraint was exceeded (%d > %ld) for cert '%s'", depth,
           limit + 1, subject_text(cert).get());
  return trace_rule(cert, depth, "path length", kept);
}

bool are_critical_extensions_known(X509 *cert, int depth) {
  const X509_EXTENSION *unknown = first_unknown_critical_extension(cert);
  if (unknown) {
    oid_line oid(X509_EXTENSION_get_object(const_cast<X509_EXTENSION *>(unknown)));
    syslog(log_warning, "Found unknown/unsupported critical extension '%s' in cert '%s'", oid.get(),
           subject_text(cert).get());
  }
  return trace_rule(cert, depth, "critical extensions", !unknown);
}

bool may_issue(X509 *cert, int depth) {
  return trace_rule(cert, depth, "key usage of an issuer", may_sign_crls(cert)) &&
         trace_rule(cert, depth, "basic constraints of an issuer",
                    has_basic_constraints(cert) && is_ca(cert));
}

}  // namespace pki
