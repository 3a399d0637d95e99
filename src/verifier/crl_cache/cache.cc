// The CRL cache: verified CRLs and who verified them, bounded by their size.
#include <libpki/error.h>
#include <libpki/records.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "common/limits.h"
#include "common/locks.h"
#include "common/log.h"
#include "common/ossl_ptr.h"
#include "verifier/cert_verifier/internal.h"
#include "verifier/crl_cache/decoder.h"
#include "verifier/crl_cache/internal.h"

namespace pki {

crl_cache cv_crl_cache;
bool crl_is_init = false;

namespace {

// X509_CRL_get_ext_d2i's word for an extension that is not there.
constexpr int extension_absent = -1;

using issuing_dist_point_ptr =
    std::unique_ptr<ISSUING_DIST_POINT, free_with<ISSUING_DIST_POINT_free>>;

time_t load_access(const crl_cache_entry *entry) {
  return __atomic_load_n(&entry->last_access, __ATOMIC_RELAXED);
}

// Hits write this under the read lock; which of two at once wins does not matter.
void touch(crl_cache_entry *entry) {
  __atomic_store_n(&entry->last_access, time(nullptr), __ATOMIC_RELAXED);
}

bool fits(const crl_cache_entry *entry, const X509_NAME *issuer, uint32_t reasons,
          bool wants_signer) {
  return entry->crl && (entry->signer || !wants_signer) && (entry->reasons & reasons) == reasons &&
         X509_NAME_cmp(X509_CRL_get_issuer(entry->crl), issuer) == 0;
}

// Takes all references of `entry`, or none; the signer's and the issuer's where they are wanted.
bool take_references(const crl_cache_entry &entry, bool wants_signer, crl_references *taken) {
  crl_references made;
  if (!take_reference(entry.crl))
    return false;
  made.crl.reset(entry.crl);
  if (wants_signer && entry.signer) {
    if (!take_reference(entry.signer))
      return false;
    made.signer.reset(entry.signer);
  }
  if (wants_signer && entry.issuer) {
    if (!take_reference(entry.issuer))
      return false;
    made.issuer.reset(entry.issuer);
  }
  made.accepted = entry.accepted;
  made.source = entry.source;
  *taken = std::move(made);
  return true;
}

// Free slots first, then the most recently used: making room drops these first and keeps the
// oldest.
int compare_access(const void *a, const void *b) {
  const auto *first = static_cast<const crl_cache_entry *>(a);
  const auto *second = static_cast<const crl_cache_entry *>(b);
  if (!first->crl || !second->crl)
    return (first->crl ? 1 : 0) - (second->crl ? 1 : 0);
  time_t access1 = load_access(first);
  time_t access2 = load_access(second);
  return access2 > access1 ? 1 : access2 < access1 ? -1 : 0;
}

// The slot's own references.
crl_references held_by(const crl_cache_entry &entry) {
  return {x509_crl_ptr(entry.crl), x509_ptr(entry.signer), entry.accepted, x509_ptr(entry.issuer),
          entry.source};
}

bool has_room(uint32_t size) {
  return size <= crl_cache_bytes - cv_crl_cache.total_size;
}

// What one turn with the lock evicts; freed behind it.
struct evicted_crls {
  static constexpr uint32_t capacity = 16;
  crl_references references[capacity];
  uint32_t count = 0;
};

bool same_source(const crl_source &one, const crl_source &other) {
  return one.is_set && other.is_set &&
         std::memcmp(one.digest, other.digest, sizeof one.digest) == 0;
}

bool is_past(const ASN1_TIME *next_update) {
  return next_update && X509_cmp_time(next_update, nullptr) < 0;
}

bool is_superseded(const crl_cache_entry &entry, const crl_cache_entry &by) {
  if (!entry.crl || !same_source(entry.source, by.source))
    return false;
  bool on_same_word = entry.accepted == by.accepted &&
                      (entry.issuer == by.issuer || is_same_cert(entry.issuer, by.issuer));
  return (on_same_word && is_same_cert(entry.signer, by.signer)) ||
         is_past(X509_CRL_get0_nextUpdate(entry.crl));
}

void drop_superseded(const crl_cache_entry &by, evicted_crls *evicted) {
  for (uint32_t i = 0; i < cv_crl_cache.capacity; i++)
    if (evicted->count < evicted_crls::capacity && is_superseded(cv_crl_cache.entries[i], by))
      evicted->references[evicted->count++] = cv_free_crl_entry(&cv_crl_cache.entries[i]);
}

bool make_room(uint32_t size, evicted_crls *evicted) {
  if (has_room(size))
    return true;
  std::qsort(cv_crl_cache.entries, cv_crl_cache.capacity, sizeof(crl_cache_entry), compare_access);
  for (uint32_t i = 0; i < cv_crl_cache.capacity && !has_room(size); i++) {
    if (evicted->count == evicted_crls::capacity)
      break;
    if (cv_crl_cache.entries[i].crl)
      evicted->references[evicted->count++] = cv_free_crl_entry(&cv_crl_cache.entries[i]);
  }
  return has_room(size);
}

crl_cache_entry *grow() {
  uint32_t capacity = cv_crl_cache.capacity + crl_cache_growth;
  auto *entries = static_cast<crl_cache_entry *>(
      std::realloc(cv_crl_cache.entries, capacity * sizeof(crl_cache_entry)));
  if (!entries)
    return nullptr;
  crl_cache_entry *added = entries + cv_crl_cache.capacity;
  std::memset(added, 0, crl_cache_growth * sizeof(crl_cache_entry));
  cv_crl_cache.entries = entries;
  cv_crl_cache.capacity = capacity;
  return added;
}

crl_cache_entry *free_slot() {
  for (uint32_t i = 0; i < cv_crl_cache.capacity; i++)
    if (!cv_crl_cache.entries[i].crl)
      return &cv_crl_cache.entries[i];
  return grow();
}

// RFC 5280 5.2.5: a CRL without onlySomeReasons covers them all. A scope that cannot be read is
// not the same as none.
int covered_reasons(const X509_CRL *crl, uint32_t *reasons) {
  int criticality;
  issuing_dist_point_ptr scope(static_cast<ISSUING_DIST_POINT *>(
      X509_CRL_get_ext_d2i(crl, NID_issuing_distribution_point, &criticality, nullptr)));
  if (!scope && criticality != extension_absent)
    return openssl_failure(PKI_ASN1_DECODE_ERROR);
  *reasons = scope && scope->onlysomereasons ? zv_cv_get_crl_reasons(scope->onlysomereasons)
                                             : PKI_ALL_REASONS;
  return PKI_OK;
}

int add_locked(const crl_cache_entry &added) {
  crl_cache_entry *slot = free_slot();
  if (!slot)
    return PKI_OUT_OF_MEMORY;
  crl_references taken;
  if (!take_references(added, true, &taken))
    return PKI_CRYPTO_LOCK_FAILED;
  *slot = added;
  (void)taken.crl.release();
  (void)taken.signer.release();
  (void)taken.issuer.release();
  cv_crl_cache.total_size += added.size;
  touch(slot);
  return PKI_OK;
}

// One turn with the lock. *again: there is no room yet, but more can be evicted.
int add_in_turn(const crl_cache_entry &added, bool *again) {
  *again = false;
  evicted_crls evicted;
  write_lock lock(&cv_crl_cache.lock);
  if (!lock.held())
    return PKI_LOCK_FAILED;
  drop_superseded(added, &evicted);
  if (make_room(added.size, &evicted))
    return add_locked(added);
  *again = evicted.count == evicted_crls::capacity;
  return PKI_OUT_OF_MEMORY;
}

// The object itself, else the first CRL of the same issuer.
crl_cache_entry *entry_of(const X509_CRL *crl) {
  crl_cache_entry *same_issuer = nullptr;
  for (uint32_t i = 0; i < cv_crl_cache.capacity; i++) {
    crl_cache_entry *entry = &cv_crl_cache.entries[i];
    if (entry->crl == crl)
      return entry;
    if (!same_issuer && entry->crl && X509_CRL_cmp(entry->crl, crl) == 0)
      same_issuer = entry;
  }
  return same_issuer;
}

// What counts is who is known to be accepted, then where a CRL came from.
enum class match : unsigned char {
  none,
  from_another,
  from_source,
  accepted,
  accepted_from_source
};

bool is_from_another(const crl_cache_entry &entry, const crl_wish &wish) {
  return std::any_of(wish.others, wish.others + wish.other_count,
                     [&](const crl_source &other) { return same_source(entry.source, other); });
}

match match_of(const crl_cache_entry &entry, const crl_wish &wish) {
  bool from_source = same_source(entry.source, wish.source);
  bool accepted = entry.accepted == acceptance::everywhere ||
                  (wish.configured_signer ? is_same_cert(entry.signer, wish.configured_signer)
                                          : entry.accepted == acceptance::by_issuer &&
                                                is_same_cert(entry.issuer, wish.accepting_issuer));
  if (accepted)
    return from_source ? match::accepted_from_source : match::accepted;
  if (from_source)
    return match::from_source;
  return is_from_another(entry, wish) ? match::from_another : match::none;
}

struct crl_search {
  const X509_NAME *issuer;
  uint32_t reasons;
  bool wants_signer;
  const crl_wish *wish;   // null: whatever fits
  int place;              // how many are to be passed over
  bool reference_failed;  // an entry was passed over for that
};

// In array order. Null: there are not so many.
crl_references find_locked(crl_search *search, match wanted) {
  crl_references found;
  for (uint32_t i = 0; i < cv_crl_cache.capacity; i++) {
    crl_cache_entry *entry = &cv_crl_cache.entries[i];
    if (!fits(entry, search->issuer, search->reasons, search->wants_signer) ||
        (search->wish && match_of(*entry, *search->wish) != wanted))
      continue;
    if (search->place > 0) {
      search->place--;
      continue;
    }
    if (!take_references(*entry, search->wants_signer, &found)) {
      search->reference_failed = true;
      continue;
    }
    touch(entry);
    break;
  }
  return found;
}

crl_references find_best_locked(crl_search *search) {
  crl_references found;
  for (match wanted :
       {match::accepted_from_source, match::accepted, match::from_source, match::from_another}) {
    found = find_locked(search, wanted);
    if (found.crl)
      break;
  }
  return found;
}

crl_references find(crl_search search) {
  crl_references found;
  if (!search.issuer || prepare_to_compare(search.issuer))
    return found;
  {
    read_lock lock(&cv_crl_cache.lock);
    if (!lock.held())
      return found;
    found = search.wish ? find_best_locked(&search) : find_locked(&search, match::none);
  }
  if (search.reference_failed)
    log_openssl_errors(log_error);
  return found;
}

}  // namespace

crl_references cv_free_crl_entry(crl_cache_entry *entry) {
  crl_references held = held_by(*entry);
  entry->crl = nullptr;
  entry->signer = nullptr;
  entry->issuer = nullptr;
  cv_crl_cache.total_size -= entry->size;
  return held;
}

crl_source cv_crl_source_of(const char *url) {
  crl_source source = {};
  openssl_error_mark unset_is_no_error;
  source.is_set =
      url && EVP_Digest(url, std::strlen(url), source.digest, nullptr, EVP_sha256(), nullptr) == 1;
  return source;
}

crl_references cv_find_crl_in_cache(const crl_wish &wish, int place) {
  return find({wish.issuer, wish.reasons, true, &wish, place, false});
}

int cv_add_crl_to_cache(X509_CRL *crl, X509 *signer, acceptance accepted, X509 *issuer,
                        const crl_source &source) {
  if (!crl || is_marked_truncated(crl))
    return PKI_INVALID_ARGS;
  int size = i2d_X509_CRL(crl, nullptr);
  if (size < 1)
    return openssl_failure(PKI_ASN1_ENCODE_ERROR);
  if (static_cast<uint32_t>(size) > crl_cache_bytes)
    return PKI_ENTRY_TOO_LARGE;
  crl_cache_entry added = {crl, 0, signer, accepted, issuer, source, static_cast<uint32_t>(size),
                           0};
  if (int error = covered_reasons(crl, &added.reasons))
    return error;
  int error;
  bool again;
  do
    error = add_in_turn(added, &again);
  while (again);
  if (error == PKI_CRYPTO_LOCK_FAILED)
    log_openssl_errors(log_error);
  return error;
}

}  // namespace pki

using namespace pki;

void zv_crl_init(void) {
  if (crl_is_init)
    return;
  crl_is_init = true;
  cv_crl_cache = crl_cache();
  pthread_rwlockattr_t attributes;
  pthread_rwlockattr_init(&attributes);
  pthread_rwlock_init(&cv_crl_cache.lock, &attributes);
  pthread_rwlockattr_destroy(&attributes);
}

X509_CRL *zv_cv_find_crl_in_cache(const X509_NAME *issuer, uint32_t reasons, X509 **signer) {
  crl_references found = find({issuer, reasons, signer != nullptr, nullptr, 0, false});
  if (signer)
    *signer = found.signer.release();
  return found.crl.release();
}

int zv_cv_add_crl_to_cache(X509_CRL *crl, X509 *signer) {
  return cv_add_crl_to_cache(crl, signer, acceptance::everywhere, nullptr, crl_source());
}

int zv_cv_rem_crl_from_cache(const X509_CRL *crl) {
  if (!crl)
    return PKI_INVALID_ARGS;
  crl_references removed;
  write_lock lock(&cv_crl_cache.lock);
  if (!lock.held())
    return PKI_LOCK_FAILED;
  crl_cache_entry *entry = entry_of(crl);
  if (!entry)
    return PKI_NO_ENTRY;
  removed = cv_free_crl_entry(entry);
  return PKI_OK;
}

int zv_cv_clear_crl_cache(void) {
  write_lock lock(&cv_crl_cache.lock);
  if (!lock.held())
    return lock.error();
  malloc_ptr<crl_cache_entry> entries(cv_crl_cache.entries);
  uint32_t capacity = cv_crl_cache.capacity;
  cv_crl_cache.entries = nullptr;
  cv_crl_cache.capacity = 0;
  cv_crl_cache.total_size = 0;
  int result = lock.unlock();
  for (uint32_t i = 0; i < capacity; i++)
    (void)held_by(entries.get()[i]);
  return result;
}
