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

// The URL that a CRL came from, by its digest; unset for a host's own.
struct crl_source {
  unsigned char digest[32];
  bool is_set;
};

struct crl_cache_entry {
  X509_CRL *crl;  // null: a free slot
  uint32_t reasons;
  X509 *signer;  // verified the CRL; may be null
  acceptance accepted;
  X509 *issuer;  // by_issuer: that one; else null
  crl_source source;
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
  crl_source source = {};
};

// Unset where there is no URL, or no memory.
[[nodiscard]] crl_source cv_crl_source_of(const char *url);

// zv_cv_add_crl_to_cache for a CRL that the library came by: it takes the place of what came from
// there before with the same signer on the same word, or is out of date. `issuer` goes with
// by_issuer.
[[nodiscard]] int cv_add_crl_to_cache(X509_CRL *crl, X509 *signer, acceptance accepted,
                                      X509 *issuer, const crl_source &source);

struct crl_wish {
  const X509_NAME *issuer;  // the CRL's
  uint32_t reasons;
  crl_source source;
  const crl_source *others;  // places that do as well
  int other_count;
  X509 *accepting_issuer;   // whose word counts; may be null
  X509 *configured_signer;  // the only one who may have signed; may be null
};

// zv_cv_find_crl_in_cache, for CRLs with a signer, by who is accepted: first those of whom that is
// known, from the source before others, then those from the source and from the other ones, whose
// signers are to be judged.
// Nothing else: on another's word, a CRL says nothing about certificates that name other places.
// `place` counts the fitting ones, from 0.
[[nodiscard]] crl_references cv_find_crl_in_cache(const crl_wish &wish, int place);

// Empties a slot. The caller holds the write lock, and frees what this gives when he has unlocked:
// a host can hang calls of its own on a certificate's end.
crl_references cv_free_crl_entry(crl_cache_entry *entry);

}  // namespace pki

#endif
