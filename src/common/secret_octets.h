// Octets that nobody may find in freed memory.
#ifndef PKI_COMMON_SECRET_OCTETS_H
#define PKI_COMMON_SECRET_OCTETS_H

#include <openssl/crypto.h>

#include <cstdlib>

namespace pki {

// Owns `length` octets (malloc) and overwrites them before it frees them.
class secret_octets {
 public:
  secret_octets() = default;
  secret_octets(unsigned char *octets, int length) : octets_(octets), length_(length) {}
  secret_octets(const secret_octets &) = delete;
  secret_octets &operator=(const secret_octets &) = delete;
  ~secret_octets() { reset(nullptr, 0); }
  // Takes `octets` over.
  void reset(unsigned char *octets, int length) {
    if (octets_)
      OPENSSL_cleanse(octets_, static_cast<size_t>(length_));
    std::free(octets_);
    octets_ = octets;
    length_ = length;
  }
  [[nodiscard]] unsigned char *get() const { return octets_; }
  [[nodiscard]] int length() const { return length_; }
  explicit operator bool() const { return octets_ != nullptr; }

 private:
  unsigned char *octets_ = nullptr;
  int length_ = 0;
};

}  // namespace pki

#endif
