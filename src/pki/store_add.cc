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

// They wait on the stack for the lock's end.
constexpr int unlinked_at_once = 16;

// No fewer octets than the collected list holds. What others take out of it still counts, until the
// octets are counted anew. Guarded by list_mutex.
size_t collected_bytes = 0;

// 0: it cannot be encoded.
size_t der_length(X509 *cert) {
  int length = i2d_X509(cert, nullptr);
  return length > 0 ? static_cast<size_t>(length) : 0;
}

void count_collected_bytes_locked() {
  openssl_error_mark they_were_encoded_before;
  STACK *list = pki_store->collected_certs;
  collected_bytes = 0;
  for (int i = 0; i < OPENSSL_sk_num(list); i++)
    collected_bytes += der_length(static_cast<X509 *>(OPENSSL_sk_value(list, i)));
}

bool is_over_full_locked() {
  return OPENSSL_sk_num(pki_store->collected_certs) > max_collected_certs ||
         collected_bytes > max_collected_bytes;
}

X509 *unlink_oldest_locked() {
  openssl_error_mark it_was_encoded_before;
  auto *oldest = static_cast<X509 *>(OPENSSL_sk_shift(pki_store->collected_certs));
  size_t length = der_length(oldest);
  collected_bytes -= length < collected_bytes ? length : collected_bytes;
  return oldest;
}

// Takes the oldest out of an over-full list, and says how many.
int unlink_surplus(x509_ptr *unlinked) {
  mutex_lock lock(&list_mutex);
  if (collected_bytes > max_collected_bytes)
    count_collected_bytes_locked();
  int count = 0;
  while (count < unlinked_at_once && is_over_full_locked())
    unlinked[count++].reset(unlink_oldest_locked());
  return count;
}

// A device runs for years: the list of what it met stays bounded. Called without a lock: a host can
// hang calls of its own on a certificate's end.
void trim_collected_certs() {
  int count;
  do {
    x509_ptr unlinked[unlinked_at_once];
    count = unlink_surplus(unlinked);
  } while (count > 0);
}

int push_cert_locked(STACK *list, X509 *cert) {
  if (!take_reference(cert))
    return PKI_CRYPTO_LOCK_FAILED;
  if (OPENSSL_sk_push(list, cert) <= 0) {
    X509_free(cert);
    return PKI_OUT_OF_MEMORY;
  }
  return PKI_OK;
}

// What is too large to be collected is met again where it is needed.
int collect_locked(X509 *cert) {
  size_t length = der_length(cert);
  if (length == 0)
    return PKI_OUT_OF_MEMORY;
  if (length > max_collected_cert_bytes)
    return PKI_OK;
  int error = push_cert_locked(pki_store->collected_certs, cert);
  if (!error)
    collected_bytes += length;
  return error;
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
  return list == pki_store->collected_certs ? collect_locked(cert) : push_cert_locked(list, cert);
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
