#include "verifier/crl_cache/signer_trust.h"

#include <libpki/error.h>
#include <libpki/util.h>
#include <libpki/verify.h>
#include <openssl/x509v3.h>

#include <ctime>

#include "common/log.h"
#include "common/ossl_ptr.h"
#include "verifier/cert_verifier/internal.h"

namespace pki {

namespace {

constexpr time_t clock_tolerance_seconds = 300;

using store_ctx_ptr = std::unique_ptr<X509_STORE_CTX, free_with<X509_STORE_CTX_free>>;

// A keyUsage that cannot be read is not the same as none.
bool key_usage_allows_crls(X509 *signer) {
  openssl_error_mark the_line_says_it_all;
  if (X509_check_purpose(signer, -1, 0) == 1 &&
      ((X509_get_extension_flags(signer) & EXFLAG_KUSAGE) == 0 ||
       (X509_get_key_usage(signer) & KU_CRL_SIGN) != 0))
    return true;
  syslog(log_warning, "crl signer (%s) does not have crl-sign on in ku => crl rejected",
         subject_text(signer).get());
  return false;
}

bool is_configured_one(const crl_info *record, X509 *signer) {
  if (is_same_cert(signer, record->crl_signer)) {
    syslog(log_debug, "crl signer == locally configured signer cert => crl ok");
    return true;
  }
  syslog(log_debug,
         "the crl signer locally configured, but signer cert (%s) doesn't match it => crl rejected",
         subject_text(signer).get());
  return false;
}

// An old key must not speak for ever. (A verified path looks at this itself.)
bool is_signer_valid_now(const X509 *signer) {
  if (is_within_validity(signer, clock_tolerance_seconds))
    return true;
  syslog(log_warning, "crl signer's cert (%s) is outside its validity period => crl rejected",
         subject_text(signer).get());
  return false;
}

bool is_status_good(const crl_question &asked, X509 *signer) {
  int status = zv_cv_check_cert_status(signer, asked.issuer, asked.trust, 1, asked.depth + 1);
  subject_text subject(signer);
  if (status == PKI_CERT_OK) {
    syslog(log_debug, "crl signer's cert (%s) is ok", subject.get());
    return true;
  }
  syslog(log_warning, "crl signer's cert (%s) was %s => crl rejected", subject.get(),
         zv_cv_cert_sts_to_str(status));
  return false;
}

store_ctx_ptr make_path_check(const crl_question &asked, X509 *signer) {
  store_ctx_ptr path(X509_STORE_CTX_new());
  if (!path ||
      X509_STORE_CTX_init(path.get(), X509_STORE_CTX_get0_store(asked.trust), signer,
                          X509_STORE_CTX_get0_untrusted(asked.trust)) != 1 ||
      X509_STORE_CTX_set_purpose(path.get(), X509_PURPOSE_CRL_SIGN) != 1)
    return nullptr;
  X509_STORE_CTX_set_verify_cb(path.get(), zv_cv_cert_validator_internet);
  return path;
}

void log_rejection(X509_STORE_CTX *path, X509 *signer) {
  int error = path ? X509_STORE_CTX_get_error(path) : X509_V_ERR_UNSPECIFIED;
  subject_text subject(signer);
  if (error != X509_V_OK)
    syslog(log_warning, "crl signer's cert (%s) could not be verified: %s", subject.get(),
           X509_verify_cert_error_string(error));
  else
    syslog(log_warning, "crl signer's cert (%s) is revoked or is unknown", subject.get());
  log_openssl_errors(log_warning);
}

// The signer's own path, with the statuses of all that is on it.
bool is_path_good(const crl_question &asked, X509 *signer) {
  if (!asked.trust) {
    log_rejection(nullptr, signer);
    return false;
  }
  store_ctx_ptr path = make_path_check(asked, signer);
  if (!path) {
    syslog(log_error, "failed to duplicate trust-info - out-of-memory");
    log_openssl_errors(log_error);
    return false;
  }
  status_depth nested(asked.depth + 1);
  openssl_error_mark what_counts_is_in_the_context;
  if (X509_verify_cert(path.get()) == 1) {
    syslog(log_debug, "crl signer's cert (%s) is ok", subject_text(signer).get());
    return true;
  }
  log_rejection(path.get(), signer);
  return false;
}

}  // namespace

voucher who_vouches(const crl_question &asked, const crl_info *record, X509 *signer) {
  if (!key_usage_allows_crls(signer))
    return voucher::nobody;
  if (record->crl_signer)
    return is_configured_one(record, signer) ? voucher::configuration : voucher::nobody;
  if (asked.issuer_trusted && is_same_cert(signer, asked.issuer)) {
    syslog(log_debug, "crl signer == cert issuer => crl ok");
    return voucher::issuer;
  }
  if (may_be_same_cert(signer, asked.cert)) {
    syslog(log_warning, "crl signer's cert == cert we're trying to validate! => crl rejected");
    return voucher::nobody;
  }
  if (asked.issuer_trusted && asked.issuer && is_issued_by(signer, asked.issuer))
    return is_signer_valid_now(signer) && is_status_good(asked, signer) ? voucher::issuer
                                                                        : voucher::nobody;
  return is_path_good(asked, signer) ? voucher::path : voucher::nobody;
}

}  // namespace pki
