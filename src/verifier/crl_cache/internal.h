// The CRL cache's private parts.
#ifndef PKI_VERIFIER_CRL_CACHE_INTERNAL_H
#define PKI_VERIFIER_CRL_CACHE_INTERNAL_H

#include <libpki/verify.h>
#include <pthread.h>
#include <ctime>

#include "common/ossl_ptr.h"

namespace pki {

struct crl_cache_entry {
  X509_CRL *crl;  // null: a free slot
  uint32_t reasons;
  X509 *signer;        // verified the CRL; may be null
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
};

// Empties a slot. The caller holds the write lock, and frees what this gives when he has unlocked:
// a host can hang calls of its own on a certificate's end.
crl_references cv_free_crl_entry(crl_cache_entry *entry);

}  // namespace pki

#endif
