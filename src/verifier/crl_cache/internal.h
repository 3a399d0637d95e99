// The CRL cache's private parts.
#ifndef PKI_VERIFIER_CRL_CACHE_INTERNAL_H
#define PKI_VERIFIER_CRL_CACHE_INTERNAL_H

#include <libpki/verify.h>
#include <pthread.h>
#include <ctime>

#include "common/ossl_ptr.h"

namespace pki {

// Where a cached CRL's signer is accepted. By the host: everywhere. By an issuer's word: for what
// that issuer issued. Else it is judged each time, for each host's store has other paths.
enum class acceptance : unsigned char { everywhere, by_issuer, each_time };

struct crl_cache_entry {
  X509_CRL *crl;  // null: a free slot
  uint32_t reasons;
  X509 *signer;  // verified the CRL; may be null
  acceptance accepted;
  X509 *issuer;        // by_issuer: that one; else null
  uint32_t size;       // DER length when it was added
  time_t last_access;  // atomic: look-ups write it under the read lock
};

struct crl_cache {
  crl_cache_entry *entries;
  uint32_t capacity;    // slots
  uint32_t total_size;  // of the occupied slots
  pthread_rwlock_t lock;
};

extern crl_cache cv_crl_cache;
extern bool crl_is_init;

// What a slot held.
struct crl_references {
  x509_crl_ptr crl;
  x509_ptr signer;
  acceptance accepted = acceptance::everywhere;
  x509_ptr issuer;
};

// zv_cv_add_crl_to_cache for a CRL that the library came by. `issuer` goes with by_issuer.
[[nodiscard]] int cv_add_crl_to_cache(X509_CRL *crl, X509 *signer, acceptance accepted,
                                      X509 *issuer);

// zv_cv_find_crl_in_cache, for CRLs with a signer.
[[nodiscard]] crl_references cv_find_crl_in_cache(const X509_NAME *issuer, uint32_t reasons);

// Empties a slot. The caller holds the write lock, and frees what this gives when he has unlocked:
// a host can hang calls of its own on a certificate's end.
crl_references cv_free_crl_entry(crl_cache_entry *entry);

}  // namespace pki

#endif
