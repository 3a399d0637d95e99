// Where a cipher can be used: OpenSSL 3.0 keeps DES-CBC in its legacy provider.
#ifndef PKI_COMMON_CIPHER_CONTEXT_H
#define PKI_COMMON_CIPHER_CONTEXT_H

#include <openssl/evp.h>

namespace pki {

// The library context in which `cipher` works: the host's default one (null)
// where it does, else a private one with the legacy provider, made once. The
// host's own context and configuration are never touched. Returns 0; 2;
// `unusable`, with a line at level 3, when the cipher cannot be used.
[[nodiscard]] int find_cipher_context(const EVP_CIPHER *cipher, int unusable,
                                      OSSL_LIB_CTX **context);

// RFC 2315 has no place for an authentication tag, and a key-wrapping mode takes no message.
[[nodiscard]] inline bool fits_envelopes(const EVP_CIPHER *cipher) {
  return (EVP_CIPHER_get_flags(cipher) & EVP_CIPH_FLAG_AEAD_CIPHER) == 0 &&
         EVP_CIPHER_get_mode(cipher) != EVP_CIPH_WRAP_MODE;
}

}  // namespace pki

#endif
