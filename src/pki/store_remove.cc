// What leaves the store: CAs and certificates.
#include <libpki/error.h>

#include <cstring>

#include "common/locks.h"
#include "common/log.h"
#include "common/ossl_ptr.h"
#include "pki/internal.h"

namespace pki {

namespace {

// Takes the first CA of that label out of the store; null when there is none.
ca_info *unlink_ca(const char *label) {
  mutex_lock lock(&list_mutex);
  STACK *list = pki_store->ca_infos;
  for (int i = 0; i < OPENSSL_sk_num(list); i++) {
    auto *info = static_cast<ca_info *>(OPENSSL_sk_value(list, i));
    if (info->label && std::strcmp(info->label, label) == 0)
      return static_cast<ca_info *>(OPENSSL_sk_delete(list, i));
  }
  return nullptr;
}

// Takes the first equal certificate out of a list; the caller holds list_mutex.
X509 *unlink_cert_locked(STACK *list, const X509 *cert) {
  for (int i = 0; i < OPENSSL_sk_num(list); i++)
    if (X509_issuer_and_serial_cmp(static_cast<X509 *>(OPENSSL_sk_value(list, i)), cert) == 0)
      return static_cast<X509 *>(OPENSSL_sk_delete(list, i));
  return nullptr;
}

// Freeing comes after unlocking: a host can hang calls of its own on a certificate's end.
int delete_cert(STACK *list, const X509 *cert) {
  x509_ptr removed;
  mutex_lock lock(&list_mutex);
  removed.reset(unlink_cert_locked(list, cert));
  return removed ? PKI_OK : PKI_NO_SUCH_CERT;
}

// The CA at that place with a reference of the caller's own, or null behind the last.
ca_info *ca_at(int index) {
  mutex_lock lock(&list_mutex);
  return dup_ca_info(static_cast<ca_info *>(OPENSSL_sk_value(pki_store->ca_infos, index)));
}

// A reference of one's own: what a list holds may be its own certificate's last.
x509_ptr hold(const X509 *cert) {
  auto *held = const_cast<X509 *>(cert);
  return x509_ptr(take_reference(held) ? held : nullptr);
}

bool same_issuer_and_serial(const X509 *a, const X509 *b) {
  return X509_NAME_cmp(X509_get_issuer_name(a), X509_get_issuer_name(b)) == 0 &&
         ASN1_INTEGER_cmp(X509_get0_serialNumber(a), X509_get0_serialNumber(b)) == 0;
}

}  // namespace

namespace {

// Takes the last certificate behind `first` that equals the one there out of the list; null when
// there is none.
X509 *unlink_duplicate(STACK *list, int first) {
  mutex_lock lock(&list_mutex);
  const auto *kept = static_cast<X509 *>(OPENSSL_sk_value(list, first));
  for (int i = OPENSSL_sk_num(list) - 1; i > first; i--)
    if (same_issuer_and_serial(kept, static_cast<X509 *>(OPENSSL_sk_value(list, i))))
      return static_cast<X509 *>(OPENSSL_sk_delete(list, i));
  return nullptr;
}

int length_of(STACK *list) {
  mutex_lock lock(&list_mutex);
  return OPENSSL_sk_num(list);
}

}  // namespace

void cleanout_duplicate_certs(STACK *list) {
  for (int first = 0; first < length_of(list) - 1; first++)
    while (x509_ptr duplicate{unlink_duplicate(list, first)})
      continue;
}

}  // namespace pki

using namespace pki;

int pki_remove_ca(const char *label) {
  if (!label)
    return PKI_INVALID_ARGS;
  ca_info *removed = unlink_ca(label);
  if (!removed)
    return PKI_NO_SUCH_CA;
  free_ca_info(removed);
  return PKI_OK;
}

int pki_delete_cert(STACK *list, const X509 *cert) {
  if (!list || !cert)
    return PKI_INVALID_ARGS;
  return delete_cert(list, cert);
}

int pki_delete_untrusted_cert(const X509 *cert) {
  if (!cert)
    return PKI_INVALID_ARGS;
  x509_ptr held = hold(cert);
  if (!held)
    return log_reasons(PKI_CRYPTO_LOCK_FAILED);
  int collected = delete_cert(pki_store->collected_certs, cert);
  int provisioned = delete_cert(pki_store->provisioned_certs, cert);
  return collected ? collected : provisioned;
}

int pki_delete_trusted_cert(const X509 *cert, ca_info *info) {
  if (!cert)
    return PKI_INVALID_ARGS;
  if (info)
    return delete_cert(info->trusted_roots, cert);
  x509_ptr held = hold(cert);
  if (!held)
    return log_reasons(PKI_CRYPTO_LOCK_FAILED);
  for (int i = 0; ca_info_ptr ca{ca_at(i)}; i++)
    (void)delete_cert(ca->trusted_roots, cert);
  return PKI_OK;
}
