// Owners of OpenSSL objects, one alias a type, and the one way to take another reference.
#ifndef PKI_COMMON_OSSL_PTR_H
#define PKI_COMMON_OSSL_PTR_H

#include <libpki/types.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pkcs7.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include "common/alloc.h"

namespace pki {

using x509_ptr = std::unique_ptr<X509, free_with<X509_free>>;
using x509_crl_ptr = std::unique_ptr<X509_CRL, free_with<X509_CRL_free>>;
using x509_pubkey_ptr = std::unique_ptr<X509_PUBKEY, free_with<X509_PUBKEY_free>>;
using x509_name_ptr = std::unique_ptr<X509_NAME, free_with<X509_NAME_free>>;
using x509_name_entry_ptr = std::unique_ptr<X509_NAME_ENTRY, free_with<X509_NAME_ENTRY_free>>;
using asn1_object_ptr = std::unique_ptr<ASN1_OBJECT, free_with<ASN1_OBJECT_free>>;
using asn1_time_ptr = std::unique_ptr<ASN1_TIME, free_with<ASN1_TIME_free>>;
using evp_pkey_ptr = std::unique_ptr<EVP_PKEY, free_with<EVP_PKEY_free>>;
using evp_md_ctx_ptr = std::unique_ptr<EVP_MD_CTX, free_with<EVP_MD_CTX_free>>;
using evp_md_ptr = std::unique_ptr<EVP_MD, free_with<EVP_MD_free>>;
using pkcs7_ptr = std::unique_ptr<PKCS7, free_with<PKCS7_free>>;
using bio_ptr = std::unique_ptr<BIO, free_with<BIO_free>>;
using bio_chain_ptr = std::unique_ptr<BIO, free_with<BIO_free_all>>;

// Frees the list, not its elements.
using stack_ptr = std::unique_ptr<STACK, free_with<OPENSSL_sk_free>>;

inline STACK_OF(X509) * as_x509_stack(STACK *list) {
  return reinterpret_cast<STACK_OF(X509) *>(list);
}

// Lists with what they hold.
inline void free_certs(STACK_OF(X509) * certs) {
  sk_X509_pop_free(certs, X509_free);
}
using certs_ptr = std::unique_ptr<STACK_OF(X509), free_with<free_certs>>;
inline void free_dist_points(STACK_OF(DIST_POINT) * points) {
  sk_DIST_POINT_pop_free(points, DIST_POINT_free);
}
using dist_points_ptr = std::unique_ptr<STACK_OF(DIST_POINT), free_with<free_dist_points>>;

// One more reference; false when it cannot be taken (PKI_CRYPTO_LOCK_FAILED).
[[nodiscard]] inline bool take_reference(X509 *cert) {
  return X509_up_ref(cert) == 1;
}
[[nodiscard]] inline bool take_reference(X509_CRL *crl) {
  return X509_CRL_up_ref(crl) == 1;
}
[[nodiscard]] inline bool take_reference(EVP_PKEY *key) {
  return EVP_PKEY_up_ref(key) == 1;
}

// Drops what OpenSSL queues as errors within a scope.
class openssl_error_mark {
 public:
  openssl_error_mark() { ERR_set_mark(); }
  openssl_error_mark(const openssl_error_mark &) = delete;
  openssl_error_mark &operator=(const openssl_error_mark &) = delete;
  ~openssl_error_mark() { ERR_pop_to_mark(); }
};

}  // namespace pki

#endif
