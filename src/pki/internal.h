// The store's private parts.
#ifndef PKI_PKI_INTERNAL_H
#define PKI_PKI_INTERNAL_H

#include <libpki/store.h>
#include <pthread.h>

#include "common/alloc.h"
#include "pki/found_certs.h"

namespace pki {

using ca_info_ptr = std::unique_ptr<ca_info, free_with<free_ca_info>>;
using key_info_ptr = std::unique_ptr<key_info, free_with<free_key_info>>;
using cert_info_ptr = std::unique_ptr<cert_info, free_with<free_cert_info>>;

// Taken for writing by the untrusted-certificate adds and the certificate searches, only there.
extern pthread_rwlock_t store_lock;

// Guards every list of the store and of a CA. Taken after store_lock, for a few lines at a time,
// and never held while anything outside the store and the records is called.
extern pthread_mutex_t list_mutex;

// pki_add_cert for a caller that holds list_mutex.
[[nodiscard]] int add_cert_locked(STACK *list, X509 *cert);

// Prepares a search's result list: *created says whether the search made it, *length_before how
// long it was. Returns 0 or PKI_OUT_OF_MEMORY.
[[nodiscard]] int pki_alloc_find_res(STACK **result, unsigned char *created, int *length_before);

// What a matcher says; match_failed when it ran out of memory.
enum match_result { match_failed = -1, no_match = 0, is_match = 1 };

// The search behind the pki_find_certs_by_* functions.
using cert_matcher = match_result(X509 *cert, const void *arg1, const void *arg2);
[[nodiscard]] int pki_find_certs_by_f(cert_matcher *matches, const void *arg1, const void *arg2,
                                      STACK **result, index_range *collected = nullptr);

// Matchers. pki_is_match: issuer X509_NAME and ASN1_INTEGER serial. pki_sn_match: subject
// X509_NAME. pki_kh_match: EVP_MD and the hash of the key's bits.
match_result pki_is_match(X509 *cert, const void *issuer, const void *serial);
match_result pki_sn_match(X509 *cert, const void *subject, const void *unused);
match_result pki_kh_match(X509 *cert, const void *digest, const void *hash);

// Every entry of `rule` occurs in `name`, in the same order.
[[nodiscard]] bool pki_name_rule_match(const X509_NAME *name, const X509_NAME *rule);

// Drops each certificate that has an equal issuer and serial number before it in the list.
void cleanout_duplicate_certs(STACK *list);

}  // namespace pki

#endif
