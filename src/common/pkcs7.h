// Rules that the PKCS#7 operations share.
#ifndef PKI_COMMON_PKCS7_H
#define PKI_COMMON_PKCS7_H

#include <libpki/pkcs7.h>

#include "common/ossl_ptr.h"
#include "common/secret_octets.h"

namespace pki {

// The signer's certificate is never checked against a chain here: callers decide whom to trust.
constexpr int verify_flags = PKCS7_BINARY | PKCS7_NOVERIFY;

// The signed-data of a ContentInfo that is one and has it, else null.
[[nodiscard]] PKCS7_SIGNED *signed_data_of(PKCS7 *p7);

// A memory BIO to read `length` octets from; null on failure.
[[nodiscard]] BIO *bio_over(const void *data, int length);

// A list of one certificate, which stays its owner's; null when memory runs out.
[[nodiscard]] STACK_OF(X509) * list_of(X509 *cert);
using x509_borrowed_list =
    std::unique_ptr<STACK_OF(X509), free_with<[](STACK_OF(X509) * list) { sk_X509_free(list); }>>;

// A copy of `length` octets in memory of the caller's own; null when memory runs out.
[[nodiscard]] unsigned char *copy_octets(const void *octets, int length);

// Few enough digests and signers for OpenSSL's verification, in a form that it can bear, and
// digests that it has. To be asked before it runs: its cost and its stack grow with what a stranger
// writes.
[[nodiscard]] bool has_bearable_signers(const PKCS7_SIGNED *signed_data);

// What no signature covers says what an honest sender writes: versions, algorithms of `key`
// without parameters, and each digest in the list of digests. A signature over attributes is not
// handed in as one over content. The content is embedded data.
[[nodiscard]] bool says_what_an_honest_sender_writes(const PKCS7_SIGNED *signed_data,
                                                     const EVP_PKEY *key);

// OpenSSL's decoder takes primitive tags where only constructed ones make sense; an honest sender
// writes none.
[[nodiscard]] bool has_honest_tags(const unsigned char *der, int length);

// Opens an EnvelopedData, which has all its parts: `*length` octets at the front of `*plaintext`.
// Returns 0; 22 (or 2).
[[nodiscard]] int open_envelope(PKCS7 *p7, EVP_PKEY *key, X509 *cert, secret_octets *plaintext,
                                int *length);

[[nodiscard]] bool has_public_key(const X509 *cert, const EVP_PKEY *key);

}  // namespace pki

#endif
