// A growing run of octets, for DER that is put together. It ends with its owner.
#ifndef PKI_COMMON_OCTETS_H
#define PKI_COMMON_OCTETS_H

#include <cstdint>
#include <cstring>

#include "common/alloc.h"

namespace pki {

class octets {
 public:
  octets() = default;
  octets(const octets &) = delete;
  octets &operator=(const octets &) = delete;
  ~octets() { std::free(data_); }

  // False without memory; what was there stays.
  [[nodiscard]] bool append(const void *data, uint32_t size);
  // A tag and a length of at most four octets (X.690 8.1.3).
  [[nodiscard]] bool append_header(unsigned char tag, uint32_t content_size);
  // Room for `size` octets at the end, to be written by the caller; null without memory.
  [[nodiscard]] unsigned char *extend(uint32_t size);

  [[nodiscard]] const unsigned char *data() const { return data_; }
  [[nodiscard]] uint32_t size() const { return size_; }

 private:
  unsigned char *data_ = nullptr;
  uint32_t size_ = 0;
  uint32_t capacity_ = 0;
};

// The octets that append_header adds.
[[nodiscard]] uint32_t der_header_size(uint32_t content_size);

}  // namespace pki

#endif
