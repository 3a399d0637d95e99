// The cryptography that one enrollment contains and no more, by OpenSSL directly: a key, two
// signatures, two envelopes, and their opposites.
#ifndef BENCH_BARE_CRYPTO_H
#define BENCH_BARE_CRYPTO_H

#include <openssl/evp.h>

#include <memory>
#include <vector>

#include "support/certs.h"

namespace bench {

class bare_crypto {
 public:
  bare_crypto();

  // Null, false: when OpenSSL refuses.
  static support::key make_key();
  bool one_enrollment(EVP_PKEY *device);

 private:
  using octets = std::vector<unsigned char>;

  bool sign_and_verify(EVP_PKEY *key, const octets &message);
  bool envelope_and_open(EVP_PKEY *recipient, const octets &plaintext);
  bool wrap_and_unwrap(EVP_PKEY *recipient, octets *content_key);

  std::unique_ptr<OSSL_LIB_CTX, decltype(&OSSL_LIB_CTX_free)> context_;
  std::unique_ptr<EVP_CIPHER, decltype(&EVP_CIPHER_free)> des_;
  support::key ca_key_;
};

}  // namespace bench

#endif
