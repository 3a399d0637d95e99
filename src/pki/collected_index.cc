#include "pki/collected_index.h"

#include <libpki/store.h>
#include <openssl/x509.h>

#include <cstdint>

namespace pki {

namespace {

constexpr uint32_t place_count = 256;

// Where a serial number was found last. Only a place to look at first: certificates move.
int places[place_count];

// FNV-1a.
uint32_t digest_of_serial(const X509 *cert) {
  const ASN1_INTEGER *serial = X509_get0_serialNumber(cert);
  const unsigned char *octet = ASN1_STRING_get0_data(serial);
  uint32_t digest = 2166136261u;
  for (int i = 0; i < ASN1_STRING_length(serial); i++)
    digest = (digest ^ octet[i]) * 16777619u;
  return digest;
}

bool is_at(int index, const X509 *cert) {
  const auto *held = static_cast<X509 *>(OPENSSL_sk_value(pki_store->collected_certs, index));
  return held && X509_issuer_and_serial_cmp(held, cert) == 0;
}

}  // namespace

bool is_collected_locked(const X509 *cert) {
  int *place = &places[digest_of_serial(cert) % place_count];
  if (is_at(*place, cert))
    return true;
  for (int i = 0; i < OPENSSL_sk_num(pki_store->collected_certs); i++)
    if (is_at(i, cert)) {
      *place = i;
      return true;
    }
  return false;
}

}  // namespace pki
