// What enters the store: CAs and certificates.
#include <libpki/error.h>

#include "common/limits.h"
#include "common/locks.h"
#include "common/log.h"
#include "common/ossl_ptr.h"
#include "pki/collected_index.h"
#include "pki/internal.h"

namespace pki {

namespace {

bool holds_same_cert(STACK *list, X509 *cert) {
  if (list == pki_store->collected_certs)
    return is_collected_locked(cert);
  return X509_find_by_issuer_and_serial(as_x509_stack(list), X509_get_issuer_name(cert),
                                        X509_get0_serialNumber(cert)) != nullptr;
}

// A device runs for years: the list of what it met stays bounded.
X509 *take_oldest_if_over_full() {
  mutex_lock lock(&list_mutex);
  STACK *list = pki_store->collected_certs;
  return OPENSSL_sk_num(list) > max_collected_certs ? static_cast<X509 *>(OPENSSL_sk_shift(list))
                                                    : nullptr;
}

// Called without a lock: a host can hang calls of its own on a certificate's end.
void trim_collected_certs() {
  while (x509_ptr oldest{take_oldest_if_over_full()})
    continue;
}

int add_cert(STACK *list, X509 *cert) {
  mutex_lock lock(&list_mutex);
  return add_cert_locked(list, cert);
}

int share_ca(ca_info *info) {
  mutex_lock lock(&list_mutex);
  if (OPENSSL_sk_push(pki_store->ca_infos, info) <= 0)
    return PKI_OUT_OF_MEMORY;
  dup_ca_info(info);
  return PKI_OK;
}

int add_untrusted_cert(X509 *cert, bool keep) {
  return add_cert(keep ? pki_store->provisioned_certs : pki_store->collected_certs, cert);
}

int end_of_adding(int error) {
  trim_collected_certs();
  return log_reasons(error);
}

}  // namespace

int add_cert_locked(STACK *list, X509 *cert) {
  if (holds_same_cert(list, cert))
    return PKI_OK;
  if (!take_reference(cert))
    return PKI_CRYPTO_LOCK_FAILED;
  if (OPENSSL_sk_push(list, cert) <= 0) {
    X509_free(cert);
    return PKI_OUT_OF_MEMORY;
  }
  return PKI_OK;
}

}  // namespace pki

using namespace pki;

int pki_add_ca_info(ca_info *info) {
  if (!info)
    return PKI_INVALID_ARGS;
  return log_reasons(share_ca(info));
}

int pki_add_cert(STACK *list, X509 *cert) {
  if (!list || !cert)
    return PKI_INVALID_ARGS;
  return end_of_adding(add_cert(list, cert));
}

int pki_add_trusted_cert(X509 *cert, ca_info *info) {
  if (!cert || !info)
    return PKI_INVALID_ARGS;
  return pki_add_cert(info->trusted_roots, cert);
}

int pki_add_untrusted_cert(X509 *cert, unsigned char keep) {
  if (!cert)
    return PKI_INVALID_ARGS;
  write_lock lock(&store_lock);
  if (!lock.held())
    return PKI_LOCK_FAILED;
  int error = add_untrusted_cert(cert, keep != 0);
  lock.unlock();
  return end_of_adding(error);
}

int pki_add_untrusted_certs(const STACK *certs, unsigned char keep) {
  if (!certs)
    return PKI_INVALID_ARGS;
  write_lock lock(&store_lock);
  if (!lock.held())
    return PKI_LOCK_FAILED;
  int error = PKI_OK;
  for (int i = 0; !error && i < OPENSSL_sk_num(certs); i++) {
    auto *cert = static_cast<X509 *>(OPENSSL_sk_value(certs, i));
    error = cert ? add_untrusted_cert(cert, keep != 0) : PKI_INVALID_ARGS;
  }
  lock.unlock();
  return end_of_adding(error);
}
