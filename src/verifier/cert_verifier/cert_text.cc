// What log lines call a certificate, when two are the same, and who issued one.
#include <openssl/x509v3.h>

#include "verifier/cert_verifier/internal.h"

namespace pki {

subject_text::subject_text(const X509 *cert) {
  openssl_error_mark no_text_is_no_error;
  text_.reset(X509_NAME_oneline(X509_get_subject_name(cert), nullptr, 0));
}

bool is_comparable(X509 *cert) {
  openssl_error_mark discard_errors;
  return (X509_get_extension_flags(cert) & EXFLAG_NO_FINGERPRINT) == 0;
}

bool is_same_cert(X509 *one, X509 *other) {
  if (!one || !other)
    return false;
  return one == other || (is_comparable(one) && is_comparable(other) && X509_cmp(one, other) == 0);
}

bool may_be_same_cert(X509 *one, X509 *other) {
  return one == other || !is_comparable(one) || !is_comparable(other) || X509_cmp(one, other) == 0;
}

bool is_signed_by(X509 *cert, X509 *issuer) {
  openssl_error_mark another_issuer_is_no_error;
  EVP_PKEY *key = X509_get0_pubkey(issuer);
  return key && X509_NAME_cmp(X509_get_issuer_name(cert), X509_get_subject_name(issuer)) == 0 &&
         X509_verify(cert, key) == 1;
}

bool is_issued_by(X509 *cert, X509 *issuer) {
  openssl_error_mark another_issuer_is_no_error;
  return X509_check_issued(issuer, cert) == X509_V_OK && is_signed_by(cert, issuer);
}

}  // namespace pki
