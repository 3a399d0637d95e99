#include "common/octets.h"

namespace pki {

namespace {

constexpr uint32_t first_capacity = 512;
constexpr uint32_t longest_short_form = 0x7f;

uint32_t length_octets(uint32_t value) {
  uint32_t count = 1;
  while (count < 4 && (value >> (8 * count)) != 0)
    count++;
  return count;
}

}  // namespace

unsigned char *octets::extend(uint32_t size) {
  if (size > UINT32_MAX / 4 || size_ > UINT32_MAX / 4)
    return nullptr;
  if (size > capacity_ - size_) {
    uint32_t capacity = capacity_ ? capacity_ : first_capacity;
    while (capacity - size_ < size)
      capacity *= 2;
    auto *grown = static_cast<unsigned char *>(std::realloc(data_, capacity));
    if (!grown)
      return nullptr;
    data_ = grown;
    capacity_ = capacity;
  }
  unsigned char *start = data_ + size_;
  size_ += size;
  return start;
}

bool octets::append(const void *data, uint32_t size) {
  if (size == 0)
    return true;
  unsigned char *start = extend(size);
  if (start)
    std::memcpy(start, data, size);
  return start != nullptr;
}

uint32_t der_header_size(uint32_t content_size) {
  return content_size <= longest_short_form ? 2 : 2 + length_octets(content_size);
}

bool octets::append_header(unsigned char tag, uint32_t content_size) {
  unsigned char header[6] = {tag, static_cast<unsigned char>(content_size)};
  uint32_t size = der_header_size(content_size);
  if (size > 2) {
    uint32_t count = size - 2;
    header[1] = static_cast<unsigned char>(0x80 | count);
    for (uint32_t i = 0; i < count; i++)
      header[2 + i] = static_cast<unsigned char>(content_size >> (8 * (count - 1 - i)));
  }
  return append(header, size);
}

}  // namespace pki
