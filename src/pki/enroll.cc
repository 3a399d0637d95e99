// Enrollment: certificates for the device's keys, from a provisioned CA.
#include <libpki/error.h>
#include <libpki/names.h>
#include <libpki/scep_client.h>
#include <libpki/store.h>
#include <libpki/util.h>

#include <cstring>

#include "common/cert_key.h"
#include "common/locks.h"
#include "common/log.h"
#include "common/ossl_ptr.h"
#include "pki/internal.h"

namespace pki {

namespace {

int request_by_method(const cert_req_info &method, EVP_PKEY *key, const X509_NAME *subject,
                      x509_ptr *cert) {
  X509 *issued = nullptr;
  int error = scep_cert_req(key, subject, static_cast<const scep_req_info *>(method.data), &issued);
  cert->reset(issued);
  return error;
}

// The first method that can be used decides: its error is the result, its certificate ends it.
int request_cert(const ca_info &ca, EVP_PKEY *key, const X509_NAME *subject, x509_ptr *cert) {
  for (int i = 0; i < OPENSSL_sk_num(ca.cert_req_methods); i++) {
    const auto *method = static_cast<cert_req_info *>(OPENSSL_sk_value(ca.cert_req_methods, i));
    if (method->mechanism == PKI_CERT_REQ_SCEP)
      return request_by_method(*method, key, subject, cert);
    syslog(log_warning, "unsupported cert-request mechanism %d", method->mechanism);
  }
  return PKI_NO_SUPP_CERT_REQ_METH;
}

int check_public_key(EVP_PKEY *key, X509 *cert) {
  if (lost_its_key(cert))
    return PKI_OUT_OF_MEMORY;
  EVP_PKEY *public_key = X509_get0_pubkey(cert);
  if (!public_key)
    return openssl_failure(PKI_INVALID_PUBLIC_KEY);
  int error = verify_keys(key, public_key);
  if (error == PKI_KEY_MISMATCH) {
    malloc_ptr<char> text(hex_der_encode(cert, reinterpret_cast<i2d_fn *>(i2d_X509)));
    syslog(log_critical, "wrong public key in new certificate: %s", text_or_null(text.get()));
  }
  return error;
}

cert_info_ptr make_cert_info(const char *label, X509 *cert) {
  cert_info_ptr info(alloc_cert_info());
  if (!info)
    return nullptr;
  info->label = pki_strdup(label);
  info->issuer = X509_NAME_dup(X509_get_issuer_name(cert));
  info->subject = X509_NAME_dup(X509_get_subject_name(cert));
  info->serial = ASN1_INTEGER_dup(X509_get0_serialNumber(cert));
  if (!info->label || !info->issuer || !info->subject || !info->serial || !take_reference(cert))
    return nullptr;
  info->cert = cert;
  return info;
}

// Takes `info` over, also when it fails.
bool push_cert_info(key_info *key, cert_info_ptr info) {
  mutex_lock lock(&list_mutex);
  if (OPENSSL_sk_push(key->certs, info.get()) <= 0)
    return false;
  (void)info.release();
  return true;
}

// Null when somebody else has taken it meanwhile.
cert_info *take_back_cert_info(key_info *key, cert_info *info) {
  mutex_lock lock(&list_mutex);
  return static_cast<cert_info *>(OPENSSL_sk_delete_ptr(key->certs, info));
}

int file_cert(const char *label, X509 *cert, key_info *key) {
  cert_info_ptr info = make_cert_info(label, cert);
  cert_info *filed = info.get();
  if (!info || !push_cert_info(key, std::move(info)))
    return openssl_failure(PKI_OUT_OF_MEMORY);
  int error = pki_add_cert(pki_store->provisioned_certs, cert);
  if (error)
    free_cert_info(take_back_cert_info(key, filed));
  return error;
}

key_info *unlink_key(const char *label) {
  mutex_lock lock(&list_mutex);
  STACK *keys = pki_store->key_store;
  for (int i = 0; i < OPENSSL_sk_num(keys); i++) {
    auto *info = static_cast<key_info *>(OPENSSL_sk_value(keys, i));
    if (info->label && std::strcmp(info->label, label) == 0)
      return static_cast<key_info *>(OPENSSL_sk_delete(keys, i));
  }
  return nullptr;
}

cert_info *unlink_cert_info(const char *label, key_info *key) {
  mutex_lock lock(&list_mutex);
  for (int i = 0; i < OPENSSL_sk_num(key->certs); i++) {
    auto *info = static_cast<cert_info *>(OPENSSL_sk_value(key->certs, i));
    if (info->label && std::strcmp(info->label, label) == 0)
      return static_cast<cert_info *>(OPENSSL_sk_delete(key->certs, i));
  }
  return nullptr;
}

// A certificate whose key is gone is no use anywhere in the store.
void forget_cert(const cert_info *info) {
  if (!info->cert)
    return;
  (void)pki_delete_untrusted_cert(info->cert);
  (void)pki_delete_trusted_cert(info->cert, nullptr);
}

}  // namespace

}  // namespace pki

using namespace pki;

int pki_get_certificate(const char *ca_label, const char *key_label, const char *cert_label,
                        const char *subject) {
  ca_info_ptr ca(pki_find_ca_info_by_label(ca_label));
  if (!ca)
    return PKI_NO_SUCH_CA;
  key_info_ptr key(pki_find_key_info_by_label(key_label));
  if (!key)
    return PKI_NO_SUCH_KEY;
  X509_NAME *parsed = nullptr;
  if (int error = subject ? parse_rfc1779_str(subject, &parsed) : PKI_OK)
    return error;
  x509_name_ptr name(parsed);
  x509_ptr cert;
  if (int error = request_cert(*ca, key->key, name.get(), &cert))
    return error;
  if (int error = check_public_key(key->key, cert.get()))
    return error;
  return file_cert(cert_label, cert.get(), key.get());
}

int pki_remove_key(const char *label) {
  key_info_ptr key(label ? unlink_key(label) : nullptr);
  if (!key)
    return PKI_NO_SUCH_CA;  // callers compare with this one
  for (int i = 0; i < OPENSSL_sk_num(key->certs); i++)
    forget_cert(static_cast<cert_info *>(OPENSSL_sk_value(key->certs, i)));
  return PKI_OK;
}

int pki_remove_certificate(const char *key_label, const char *cert_label) {
  key_info_ptr key(pki_find_key_info_by_label(key_label));
  if (!key)
    return PKI_NO_SUCH_KEY;
  cert_info_ptr info(cert_label ? unlink_cert_info(cert_label, key.get()) : nullptr);
  if (!info)
    return PKI_NO_SUCH_CERT;
  forget_cert(info.get());
  return PKI_OK;
}
