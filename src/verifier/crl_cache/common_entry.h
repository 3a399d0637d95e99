// Entries of the shapes that nearly every CRL consists of, recognised where they lie. A list of a
// million entries is passed over at the speed of its digest; what is unusual goes to OpenSSL.
#ifndef PKI_VERIFIER_CRL_CACHE_COMMON_ENTRY_H
#define PKI_VERIFIER_CRL_CACHE_COMMON_ENTRY_H

#include <cstdint>

namespace pki {

// The content octets of the serial number that is looked for.
struct wanted_serial {
  const unsigned char *octets;
  uint32_t size;
};

// The size of the entry at `in`, when it lies within `size` octets, is of a common shape (serial
// number, UTCTime or GeneralizedTime of the usual length, and no extension or a reasonCode that is
// not critical) and has another serial number than `wanted`. Otherwise 0.
[[nodiscard]] uint32_t common_foreign_entry(const unsigned char *in, uint32_t size,
                                            const wanted_serial &wanted);

}  // namespace pki

#endif
