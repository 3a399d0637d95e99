#include "verifier/crl_cache/common_entry.h"

#include <cstring>

namespace pki {

namespace {

constexpr unsigned char tag_sequence = 0x30;
constexpr unsigned char tag_integer = 0x02;
constexpr unsigned char tag_utc_time = 0x17;
constexpr unsigned char tag_generalized_time = 0x18;
constexpr uint32_t longest_short_form = 0x7f;

// Each with its header.
constexpr uint32_t utc_time_bytes = 2 + 13;
constexpr uint32_t generalized_time_bytes = 2 + 15;
// Serial number of one octet and the shorter time, in a SEQUENCE.
constexpr uint32_t shortest_entry_bytes = 2 + 3 + utc_time_bytes;

// Extensions of one reasonCode that is not critical, up to the reason itself.
constexpr unsigned char reason_code[] = {0x30, 0x0c, 0x30, 0x0a, 0x06, 0x03, 0x55,
                                         0x1d, 0x15, 0x04, 0x03, 0x0a, 0x01};
constexpr uint32_t reason_code_bytes = sizeof reason_code + 1;

// X.690 8.3.2: the first nine bits are not all equal. OpenSSL refuses the rest.
bool is_minimal(const unsigned char *integer, uint32_t size) {
  return size == 1 || !((integer[0] == 0x00 && (integer[1] & 0x80) == 0) ||
                        (integer[0] == 0xff && (integer[1] & 0x80) != 0));
}

// 0 for another shape.
uint32_t time_size(const unsigned char *in) {
  if (in[0] == tag_utc_time && in[1] == utc_time_bytes - 2)
    return utc_time_bytes;
  if (in[0] == tag_generalized_time && in[1] == generalized_time_bytes - 2)
    return generalized_time_bytes;
  return 0;
}

bool is_common_end(const unsigned char *in, uint32_t size) {
  return size == 0 ||
         (size == reason_code_bytes && std::memcmp(in, reason_code, sizeof reason_code) == 0);
}

}  // namespace

uint32_t common_foreign_entry(const unsigned char *in, uint32_t size, const wanted_serial &wanted) {
  if (size < shortest_entry_bytes || in[0] != tag_sequence || in[1] > longest_short_form)
    return 0;
  const uint32_t total = 2u + in[1];
  const uint32_t serial_size = in[3];
  if (total > size || in[2] != tag_integer || serial_size == 0)
    return 0;
  const uint32_t before_time = 4 + serial_size;
  if (before_time + utc_time_bytes > total || !is_minimal(in + 4, serial_size))
    return 0;
  const uint32_t behind_time = before_time + time_size(in + before_time);
  if (behind_time == before_time || behind_time > total ||
      !is_common_end(in + behind_time, total - behind_time))
    return 0;
  if (serial_size == wanted.size && std::memcmp(in + 4, wanted.octets, serial_size) == 0)
    return 0;
  return total;
}

}  // namespace pki
