// The status cache: a short list that saves repeated fetches, not a large working set.
#include <libpki/error.h>
#include <openssl/evp.h>

#include <climits>
#include <cstring>
#include <ctime>

#include "common/limits.h"
#include "common/locks.h"
#include "common/log.h"
#include "common/ossl_ptr.h"
#include "verifier/cert_verifier/internal.h"

namespace pki {

cert_sts_info_cache pki_csi_cache = {nullptr, &pki_csi_cache.first, 0, PTHREAD_RWLOCK_INITIALIZER};
int csi_is_init = 0;
int disable_crl_check = 0;

expiry expiry_of(const cert_sts_info *info) {
  openssl_error_mark unknown_says_it_all;
  time_t now = time(nullptr);
  int order = info->valid_until ? X509_cmp_time(info->valid_until, &now) : 0;
  if (order == 0)
    return expiry::unknown;
  return order > 0 ? expiry::ahead : expiry::passed;
}

namespace {

// A time that cannot be read is over.
bool has_expired(const cert_sts_info *info) {
  return expiry_of(info) != expiry::ahead;
}

// Which issuer a record counts for. Not part of the record, which is the host's to make.
struct issuer_mark {
  const cert_sts_info *record;  // null: free
  unsigned char digest[20];     // OpenSSL's own of the issuer's certificate; zeros: there is none
};

// Guarded by the cache's lock; each is of a record in the cache.
issuer_mark marks[status_cache_records];

// OpenSSL has the digest of a certificate that it has looked at. False: out of memory.
bool make_mark(X509 *issuer, issuer_mark *mark) {
  *mark = {};
  if (!issuer)
    return true;
  openssl_error_mark the_caller_knows_what_to_do;
  return is_comparable(issuer) && X509_digest(issuer, EVP_sha1(), mark->digest, nullptr) == 1;
}

issuer_mark *mark_of(const cert_sts_info *record) {
  for (issuer_mark &mark : marks)
    if (mark.record == record)
      return &mark;
  return nullptr;
}

bool counts_for(const cert_sts_info *record, const issuer_mark *wanted) {
  const issuer_mark *mark = wanted ? mark_of(record) : nullptr;
  return !mark || std::memcmp(mark->digest, wanted->digest, sizeof mark->digest) == 0;
}

bool is_linked(const cert_sts_info *info) {
  return info->link.previous != nullptr;
}

void append(cert_sts_info *info) {
  info->link.next = nullptr;
  info->link.previous = pki_csi_cache.last;
  *pki_csi_cache.last = info;
  pki_csi_cache.last = &info->link.next;
  pki_csi_cache.count++;
}

void unlink(cert_sts_info *info) {
  if (issuer_mark *mark = mark_of(info))
    mark->record = nullptr;
  if (info->link.next)
    info->link.next->link.previous = info->link.previous;
  else
    pki_csi_cache.last = info->link.previous;
  *info->link.previous = info->link.next;
  info->link.next = nullptr;
  info->link.previous = nullptr;
  pki_csi_cache.count--;
}

// The first expired record, else the oldest of those with the fewest hits.
cert_sts_info *eviction_victim() {
  cert_sts_info *victim = pki_csi_cache.first;
  for (cert_sts_info *info = victim; info; info = info->link.next) {
    if (has_expired(info))
      return info;
    if (info->hits < victim->hits)
      victim = info;
  }
  return victim;
}

// Freeing what this gives comes after unlocking: a host can hang calls of its own on a
// certificate's end.
sts_info_ptr take_out(cert_sts_info *info) {
  unlink(info);
  return sts_info_ptr(info);
}

// `mark`, which may be null, says which issuer it has to count for.
cert_sts_info *first_record_of(const X509 *cert, const issuer_mark *mark) {
  for (cert_sts_info *info = pki_csi_cache.first; info; info = info->link.next) {
    uint32_t holders = __atomic_load_n(&info->ref_count, __ATOMIC_RELAXED);
    if (holders == 0)
      syslog(log_error, "bad ref count idx %p - %d", static_cast<void *>(info),
             static_cast<int>(holders));
    if (info->cert && X509_cmp(info->cert, cert) == 0 && counts_for(info, mark))
      return info;
  }
  return nullptr;
}

int add(cert_sts_info *info, const issuer_mark *mark) {
  if (has_expired(info) || (info->cert && !is_comparable(info->cert)))
    return PKI_OK;
  sts_info_ptr victim;
  write_lock lock(&pki_csi_cache.lock);
  if (!lock.held())
    return PKI_LOCK_FAILED;
  if (is_linked(info))
    return PKI_OK;
  if (pki_csi_cache.count >= status_cache_records)
    victim = take_out(eviction_victim());
  append(cv_dup_cert_sts_info(info));
  issuer_mark *free_mark = mark ? mark_of(nullptr) : nullptr;
  if (free_mark) {
    *free_mark = *mark;
    free_mark->record = info;
  }
  return PKI_OK;
}

cert_sts_info *find(const X509 *cert, const issuer_mark *mark) {
  if (!cert || !is_comparable(const_cast<X509 *>(cert)))
    return nullptr;
  write_lock lock(&pki_csi_cache.lock);
  if (!lock.held())
    return nullptr;
  cert_sts_info *found = first_record_of(cert, mark);
  if (!found)
    return nullptr;
  if (found->hits < UINT32_MAX)
    found->hits++;
  return cv_dup_cert_sts_info(found);
}

}  // namespace

int cv_add_status(cert_sts_info *info, X509 *issuer) {
  issuer_mark mark;
  return make_mark(issuer, &mark) ? add(info, &mark) : PKI_OUT_OF_MEMORY;
}

cert_sts_info *cv_find_status(X509 *cert, X509 *issuer, bool *is_issuers) {
  issuer_mark mark;
  *is_issuers = make_mark(issuer, &mark);
  return find(cert, *is_issuers ? &mark : nullptr);
}

}  // namespace pki

using namespace pki;

void zv_cv_init(void) {
  if (csi_is_init)
    return;
  pthread_rwlockattr_t attributes;
  pthread_rwlockattr_init(&attributes);
  pthread_rwlock_init(&pki_csi_cache.lock, &attributes);
  pthread_rwlockattr_destroy(&attributes);
  csi_is_init = 1;
}

int zv_cv_add_cert_sts_info_cache(cert_sts_info *info) {
  return info ? add(info, nullptr) : PKI_INVALID_ARGS;
}

cert_sts_info *zv_cv_find_cert_sts_info_cache(const X509 *cert) {
  return find(cert, nullptr);
}

int zv_cv_remove_cert_sts_info_cache(cert_sts_info *info) {
  if (!info)
    return PKI_INVALID_ARGS;
  write_lock lock(&pki_csi_cache.lock);
  if (!lock.held())
    return PKI_LOCK_FAILED;
  if (!is_linked(info))
    return PKI_NO_ENTRY;
  unlink(info);
  return PKI_OK;
}

int zv_cv_clear_cert_sts_info_cache(void) {
  sts_info_ptr records[status_cache_records];
  write_lock lock(&pki_csi_cache.lock);
  if (!lock.held())
    return lock.error();
  for (int i = 0; pki_csi_cache.first && i < status_cache_records; i++)
    records[i] = take_out(pki_csi_cache.first);
  return lock.unlock();
}

int zv_cv_disable_crl_check(int flag) {
  return __atomic_exchange_n(&disable_crl_check, flag, __ATOMIC_RELAXED);
}

int zv_cv_is_disabled_crl_check(void) {
  return __atomic_load_n(&disable_crl_check, __ATOMIC_RELAXED);
}
