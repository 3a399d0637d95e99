#include <libpki/verify.h>

namespace {

constexpr int mask_octets = 4;

// ReasonFlags counts its bits from the most significant one of each octet.
uint32_t reversed(unsigned char octet) {
  uint32_t bits = 0;
  for (int bit = 0; bit < 8; bit++)
    if (octet & (0x80 >> bit))
      bits |= UINT32_C(1) << bit;
  return bits;
}

}  // namespace

uint32_t zv_cv_get_crl_reasons(const ASN1_BIT_STRING *reasons) {
  uint32_t mask = 0;
  if (!reasons)
    return mask;
  for (int i = 0; i < reasons->length && i < mask_octets; i++)
    mask |= reversed(reasons->data[i]) << (8 * i);
  return mask;
}
