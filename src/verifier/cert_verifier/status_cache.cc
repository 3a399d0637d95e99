// The status cache: a short list that saves repeated fetches, not a large working set.
#include <libpki/error.h>
#include <openssl/evp.h>
#include <openssl/sha.h>

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

// Which issuer a record counts for: certificates of one name and key are the same authority's. Not
// part of the record, which is the host's to make.
struct issuer_mark {
  const cert_sts_info *record;              // null: free
  unsigned char cert[SHA_DIGEST_LENGTH];    // OpenSSL's own digest; zeros: there is none
  bool has_authority;                       // the two below
  unsigned long name;                       // OpenSSL's hash, whatever types its texts have
  unsigned char key[SHA256_DIGEST_LENGTH];  // of the SubjectPublicKeyInfo
};

// Guarded by the cache's lock; each is of a record in the cache.
issuer_mark marks[status_cache_records];

// OpenSSL has the digest of a certificate that it has looked at. False: out of memory.
bool make_mark(X509 *issuer, issuer_mark *mark) {
  *mark = {};
  mark->has_authority = !issuer;
  if (!issuer)
    return true;
  openssl_error_mark the_caller_knows_what_to_do;
  return is_comparable(issuer) && X509_digest(issuer, EVP_sha1(), mark->cert, nullptr) == 1;
}

// What the bits of a key mean depends on the parameters beside them.
bool digest_key(const X509 *issuer, unsigned char *digest) {
  unsigned char *der = nullptr;
  int length = i2d_X509_PUBKEY(X509_get_X509_PUBKEY(issuer), &der);
  bool made = length > 0 && EVP_Digest(der, static_cast<size_t>(length), digest, nullptr,
                                       EVP_sha256(), nullptr) == 1;
  OPENSSL_free(der);
  return made;
}

// Takes long beside a look-up. False: out of memory.
bool add_authority(const X509 *issuer, issuer_mark *mark) {
  if (mark->has_authority)
    return true;
  openssl_error_mark the_caller_knows_what_to_do;
  int hashed = 0;
  mark->name = X509_NAME_hash_ex(X509_get_subject_name(issuer), nullptr, nullptr, &hashed);
  mark->has_authority = hashed == 1 && digest_key(issuer, mark->key);
  return mark->has_authority;
}

issuer_mark *mark_of(const cert_sts_info *record) {
  for (issuer_mark &mark : marks)
    if (mark.record == record)
      return &mark;
  return nullptr;
}

enum class relation : unsigned char { same, other, undecided };

relation relation_of(const cert_sts_info *record, const issuer_mark *wanted) {
  const issuer_mark *mark = wanted ? mark_of(record) : nullptr;
  if (!mark || std::memcmp(mark->cert, wanted->cert, sizeof mark->cert) == 0)
    return relation::same;
  if (!wanted->has_authority)
    return relation::undecided;
  bool is_same =
      mark->name == wanted->name && std::memcmp(mark->key, wanted->key, sizeof mark->key) == 0;
  return is_same ? relation::same : relation::other;
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

// `mark`, which may be null, says which issuer it has to count for; *is_undecided: it lacks its
// authority for that.
cert_sts_info *first_record_of(const X509 *cert, const issuer_mark *mark, bool *is_undecided) {
  for (cert_sts_info *info = pki_csi_cache.first; info; info = info->link.next) {
    uint32_t holders = __atomic_load_n(&info->ref_count, __ATOMIC_RELAXED);
    if (holders == 0)
      syslog(log_error, "bad ref count idx %p - %d", static_cast<void *>(info),
             static_cast<int>(holders));
    if (!info->cert || X509_cmp(info->cert, cert) != 0)
      continue;
    relation found = relation_of(info, mark);
    *is_undecided = found == relation::undecided;
    if (found != relation::other)
      return *is_undecided ? nullptr : info;
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

cert_sts_info *find(const X509 *cert, const issuer_mark *mark, bool *is_undecided) {
  *is_undecided = false;
  if (!cert || !is_comparable(const_cast<X509 *>(cert)))
    return nullptr;
  write_lock lock(&pki_csi_cache.lock);
  if (!lock.held())
    return nullptr;
  cert_sts_info *found = first_record_of(cert, mark, is_undecided);
  if (!found)
    return nullptr;
  if (found->hits < UINT32_MAX)
    found->hits++;
  return cv_dup_cert_sts_info(found);
}

}  // namespace

int cv_add_status(cert_sts_info *info, X509 *issuer) {
  issuer_mark mark;
  bool is_made = make_mark(issuer, &mark) && add_authority(issuer, &mark);
  return is_made ? add(info, &mark) : PKI_OUT_OF_MEMORY;
}

cert_sts_info *cv_find_status(X509 *cert, X509 *issuer, bool *is_issuers) {
  issuer_mark mark;
  bool is_undecided = false;
  *is_issuers = make_mark(issuer, &mark);
  cert_sts_info *found = find(cert, *is_issuers ? &mark : nullptr, &is_undecided);
  if (!is_undecided)
    return found;
  *is_issuers = add_authority(issuer, &mark);
  return find(cert, *is_issuers ? &mark : nullptr, &is_undecided);
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
  bool is_undecided = false;
  return find(cert, nullptr, &is_undecided);
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
