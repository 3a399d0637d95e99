// The verify callbacks: OpenSSL hands over one certificate after the other, from the top of the
// chain down, with its own verdict.
#include <libpki/store.h>
#include <openssl/x509_vfy.h>

#include "common/ossl_ptr.h"
#include "verifier/cert_verifier/internal.h"
#include "verifier/cert_verifier/trace.h"

namespace pki {

namespace {

// The initial-exec model needs no allocation at the first use in a thread, which could fail.
__attribute__((tls_model("initial-exec"))) thread_local int depth_of_this_thread = 0;

enum class flavour : unsigned char { local = 0, internet = 1 };

// Untrusted certificates that have to be left below a self-signed top.
constexpr int least_untrusted_below_top = 2;

// The self-signed top is nobody's word, but the store may have an issuer of its own for the
// certificate below the next one: it takes the place of both.
bool replace_self_signed_top(X509_STORE_CTX *ctx) {
  STACK_OF(X509) *chain = X509_STORE_CTX_get0_chain(ctx);
  int untrusted = X509_STORE_CTX_get_num_untrusted(ctx);
  if (untrusted - 1 < least_untrusted_below_top || sk_X509_num(chain) != untrusted)
    return false;
  openssl_error_mark no_issuer_is_no_error;
  X509 *issuer = nullptr;
  X509_STORE_CTX_get_issuer_fn get_issuer = X509_STORE_CTX_get_get_issuer(ctx);
  if (!get_issuer || get_issuer(&issuer, ctx, sk_X509_value(chain, untrusted - 3)) <= 0 || !issuer)
    return false;
  X509_free(sk_X509_pop(chain));
  int top = sk_X509_num(chain) - 1;
  X509_free(sk_X509_value(chain, top));
  (void)sk_X509_set(chain, top, issuer);
  // OpenSSL still points at the certificate that has just gone.
  X509_STORE_CTX_set_current_cert(ctx, issuer);
  X509_STORE_CTX_set_error_depth(ctx, top);
  return true;
}

bool is_asked(X509_STORE_CTX *ctx, unsigned long flag) {
  return (X509_VERIFY_PARAM_get_flags(X509_STORE_CTX_get0_param(ctx)) & flag) != 0;
}

// Nobody looks at its dates again, unless the host has said that nobody shall.
bool is_end_of_chain_in_date(X509_STORE_CTX *ctx) {
  X509 *cert = X509_STORE_CTX_get_current_cert(ctx);
  if (!cert)
    return false;
  if (is_asked(ctx, X509_V_FLAG_NO_CHECK_TIME) || is_within_validity(cert, 0))
    return true;
  syslog(log_warning,
         "Certificate '%s' ends the chain without its issuer and is outside its validity period - "
         "rejecting it",
         subject_text(cert).get());
  return false;
}

bool is_forgiven(X509_STORE_CTX *ctx, flavour use) {
  switch (X509_STORE_CTX_get_error(ctx)) {
    case X509_V_ERR_CERT_NOT_YET_VALID:
    case X509_V_ERR_CERT_HAS_EXPIRED:
      return use == flavour::local;
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
      return use == flavour::local || is_end_of_chain_in_date(ctx);
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
      return true;
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
      return replace_self_signed_top(ctx);
    default:
      return false;
  }
}

// A status is known for now only.
bool is_judged_now(X509_STORE_CTX *ctx, X509 *cert, int depth) {
  bool now = !is_asked(ctx, X509_V_FLAG_USE_CHECK_TIME);
  if (!now)
    syslog(log_warning,
           "Can't check cert-status for a time other than now - rejecting status for cert '%s'",
           subject_text(cert).get());
  return trace_rule(cert, depth, "time of the check", now);
}

// They help to build other chains, and to verify what responders sign.
void collect_above_end_entity(const STACK_OF(X509) * certs) {
  for (int i = 1; i < sk_X509_num(certs); i++)
    (void)pki_add_untrusted_cert(sk_X509_value(certs, i), 0);
}

bool is_status_good(X509_STORE_CTX *ctx, X509 *cert, int depth) {
  X509 *issuer = sk_X509_value(X509_STORE_CTX_get0_chain(ctx), depth + 1);
  if (!issuer) {
    syslog(log_error, "Cert issuer is null");
    return false;
  }
  switch (zv_cv_check_cert_status(cert, issuer, ctx, 1, status_depth::current())) {
    case PKI_CERT_OK:
      return true;
    case PKI_CERT_UNKNOWN:
      X509_STORE_CTX_set_error(ctx, X509_V_ERR_UNABLE_TO_GET_CRL);
      return false;
    case PKI_CERT_REVOKED:
      X509_STORE_CTX_set_error(ctx, X509_V_ERR_CERT_REVOKED);
      return false;
    default:
      return false;
  }
}

bool is_accepted(X509_STORE_CTX *ctx, X509 *cert, int depth, flavour use) {
  if (!is_judged_now(ctx, cert, depth) || !are_extensions_readable(cert, depth) ||
      !is_path_length_kept(cert, depth))
    return false;
  STACK_OF(X509) *chain = X509_STORE_CTX_get0_chain(ctx);
  if (!chain) {
    syslog(log_error, "Cert issuer is null");
    return false;
  }
  if (depth >= sk_X509_num(chain) - 1) {
    collect_above_end_entity(chain);
    collect_above_end_entity(X509_STORE_CTX_get0_untrusted(ctx));
    return true;
  }
  if (!are_critical_extensions_known(cert, depth))
    return false;
  if (depth > 0 && !may_issue(cert, depth))
    return false;
  if (use == flavour::local)
    return true;
  return trace_rule(cert, depth, "status", is_status_good(ctx, cert, depth));
}

bool judge(int ok, X509_STORE_CTX *ctx, X509 *cert, flavour use) {
  if (!ok)
    return is_forgiven(ctx, use);
  if (!cert) {
    syslog(log_error, "Cert to check is null");
    return false;
  }
  return is_accepted(ctx, cert, X509_STORE_CTX_get_error_depth(ctx), use);
}

// NOLINTNEXTLINE(readability-identifier-naming): what the four entry points have always called
int _cv_cert_validator(int ok, X509_STORE_CTX *ctx, flavour use) {
  // A top that is replaced goes, but a listener still wants to hear of it.
  X509 *cert = X509_STORE_CTX_get_current_cert(ctx);
  x509_ptr kept(is_traced() && cert && take_reference(cert) ? cert : nullptr);
  int depth = X509_STORE_CTX_get_error_depth(ctx);
  trace({PKI_TRACE_CERT, depth, ok ? 1 : 0, X509_STORE_CTX_get_error(ctx), cert, nullptr, nullptr});
  int accepted = judge(ok, ctx, cert, use) ? 1 : 0;
  trace({PKI_TRACE_CERT_END, depth, accepted, X509_STORE_CTX_get_error(ctx), kept.get(), nullptr,
         nullptr});
  return accepted;
}

}  // namespace

status_depth::status_depth(int depth) : outer_(depth_of_this_thread) {
  depth_of_this_thread = depth;
}

status_depth::~status_depth() {
  depth_of_this_thread = outer_;
}

int status_depth::current() {
  return depth_of_this_thread;
}

}  // namespace pki

using namespace pki;

int zv_cv_cert_validator_internet(int ok, X509_STORE_CTX *ctx) {
  return _cv_cert_validator(ok, ctx, flavour::internet);
}

int zv_cv_cert_validator_internet_ex(int ok, X509_STORE_CTX *ctx) {
  return _cv_cert_validator(ok, ctx, flavour::internet);
}

int zv_cv_cert_validator_local(int ok, X509_STORE_CTX *ctx) {
  return _cv_cert_validator(ok, ctx, flavour::local);
}

int zv_cv_cert_validator_local_ex(int ok, X509_STORE_CTX *ctx) {
  return _cv_cert_validator(ok, ctx, flavour::local);
}
