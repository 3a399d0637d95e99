#include "verifier/signer_candidates.h"

#include <algorithm>

#include "verifier/cert_verifier/internal.h"

namespace pki {

namespace {

// Those that the host or the chain stands for and that the store need not hold.
constexpr int most_listed = 3;

struct key_octets {
  const unsigned char *octets;
  int length;
  X509_ALGOR *algorithm;
};

bool read_key(const X509 *cert, key_octets *key) {
  return X509_PUBKEY_get0_param(nullptr, &key->octets, &key->length, &key->algorithm,
                                X509_get_X509_PUBKEY(cert)) == 1;
}

// -1: not there. Most differ, which OpenSSL's comparison alone is quick to tell.
int place_of(X509 *cert, const STACK_OF(X509) * certs) {
  openssl_error_mark another_one_is_no_error;
  for (int i = 0; i < sk_X509_num(certs); i++)
    if (X509_cmp(sk_X509_value(certs, i), cert) == 0 && is_same_cert(sk_X509_value(certs, i), cert))
      return i;
  return -1;
}

}  // namespace

int make_places(index_range collected, int most_sent, signer_candidates *candidates) {
  int found = sk_X509_num(candidates->certs.get());
  candidates->room = most_listed + most_sent;
  candidates->places.reset(static_cast<candidate_place *>(
      std::calloc(static_cast<size_t>(found) + static_cast<size_t>(candidates->room),
                  sizeof(candidate_place))));
  if (!candidates->places)
    return PKI_OUT_OF_MEMORY;
  for (int i = collected.begin; i < collected.end; i++)
    candidates->places.get()[i].from = origin::met;
  return PKI_OK;
}

int add_candidate(X509 *cert, origin from, signer_candidates *candidates) {
  STACK_OF(X509) *certs = candidates->certs.get();
  candidate_place *places = candidates->places.get();
  int place = place_of(cert, certs);
  if (place >= 0) {
    places[place].from = std::min(places[place].from, from);
    return PKI_OK;
  }
  if (candidates->room == 0)
    return PKI_OK;
  if (!take_reference(cert))
    return PKI_CRYPTO_LOCK_FAILED;
  int count = sk_X509_push(certs, cert);
  if (count <= 0) {
    X509_free(cert);
    return PKI_OUT_OF_MEMORY;
  }
  places[count - 1].from = from;
  candidates->room--;
  return PKI_OK;
}

bool has_same_key(const X509 *one, const X509 *other) {
  key_octets first, second;
  return read_key(one, &first) && read_key(other, &second) &&
         X509_ALGOR_cmp(first.algorithm, second.algorithm) == 0 &&
         std::equal(first.octets, first.octets + first.length, second.octets,
                    second.octets + second.length);
}

}  // namespace pki
