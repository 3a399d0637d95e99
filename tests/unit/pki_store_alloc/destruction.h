// When an OpenSSL object is really destroyed: OpenSSL tells with the last reference.
#ifndef TESTS_UNIT_PKI_STORE_ALLOC_DESTRUCTION_H
#define TESTS_UNIT_PKI_STORE_ALLOC_DESTRUCTION_H

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <atomic>
#include <memory>

#include "support/certs.h"

namespace support {

using destruction_count = std::shared_ptr<std::atomic<int>>;

inline void count_destruction(void *, void *value, CRYPTO_EX_DATA *, int, long, void *) {
  if (!value)
    return;
  auto *count = static_cast<destruction_count *>(value);
  (**count)++;
  delete count;
}

// How often `cert` was destroyed from now on: 0, then 1.
inline destruction_count watch(const cert &watched) {
  static const int index = X509_get_ex_new_index(0, nullptr, nullptr, nullptr, count_destruction);
  auto count = std::make_shared<std::atomic<int>>(0);
  X509_set_ex_data(watched.get(), index, new destruction_count(count));
  return count;
}

// The same for a key.
inline destruction_count watch(const key &watched) {
  static const int index = CRYPTO_get_ex_new_index(CRYPTO_EX_INDEX_EVP_PKEY, 0, nullptr, nullptr,
                                                   nullptr, count_destruction);
  auto count = std::make_shared<std::atomic<int>>(0);
  EVP_PKEY_set_ex_data(watched.get(), index, new destruction_count(count));
  return count;
}

// One more reference, for a record or a list to own.
inline X509 *reference(const cert &object) {
  X509_up_ref(object.get());
  return object.get();
}

inline EVP_PKEY *reference(const key &object) {
  EVP_PKEY_up_ref(object.get());
  return object.get();
}

}  // namespace support

#endif
