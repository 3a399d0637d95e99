// Searches for whoever may have signed something.
#ifndef PKI_PKI_FOUND_CERTS_H
#define PKI_PKI_FOUND_CERTS_H

#include <libpki/store.h>

namespace pki {

struct index_range {
  int begin = 0;
  int end = 0;
};

// pki_find_certs_by_subject and pki_find_certs_by_key_hash. `*collected` is where in the result the
// collected certificates stand: anybody may have sent those.
[[nodiscard]] int find_certs_by_subject(const X509_NAME *subject, STACK **result,
                                        index_range *collected);
[[nodiscard]] int find_certs_by_key_hash(const EVP_MD *digest, const unsigned char *hash,
                                         int hash_length, STACK **result, index_range *collected);

}  // namespace pki

#endif
