// Octets with private keys among them, which leave nothing behind in memory.
#ifndef TOOLS_PKICTL_SECRET_OCTETS_H
#define TOOLS_PKICTL_SECRET_OCTETS_H

#include <openssl/crypto.h>

#include <memory>
#include <vector>

namespace pkictl {

template <class T>
struct cleansing_allocator {
  using value_type = T;

  cleansing_allocator() = default;
  template <class U>
  // NOLINTNEXTLINE(google-explicit-constructor): containers convert it
  cleansing_allocator(const cleansing_allocator<U> &) {}

  T *allocate(size_t count) { return std::allocator<T>().allocate(count); }
  void deallocate(T *from, size_t count) {
    OPENSSL_cleanse(from, count * sizeof(T));
    std::allocator<T>().deallocate(from, count);
  }
  bool operator==(const cleansing_allocator &) const { return true; }
};

using secret_octets = std::vector<unsigned char, cleansing_allocator<unsigned char>>;

}  // namespace pkictl

#endif
