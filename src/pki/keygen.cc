// The device's key pairs.
#include <libpki/error.h>
#include <libpki/store.h>
#include <libpki/util.h>
#include <openssl/rsa.h>

#include <cstring>

#include "common/locks.h"
#include "common/log.h"
#include "common/ossl_ptr.h"
#include "common/text.h"
#include "pki/internal.h"

namespace pki {

namespace {

constexpr int default_rsa_bits = 1024;

using rsa_ptr = std::unique_ptr<RSA, free_with<RSA_free>>;
using bignum_ptr = std::unique_ptr<BIGNUM, free_with<BN_free>>;

// An RSA object in an EVP_PKEY: OpenSSL 3.0 takes several times as long to put the public half of
// a key of its newer kind into a certificate or request.
EVP_PKEY *generate_rsa_key(int bits) {
  rsa_ptr rsa(RSA_new());
  bignum_ptr exponent(BN_new());
  evp_pkey_ptr key(EVP_PKEY_new());
  if (!rsa || !exponent || !key || BN_set_word(exponent.get(), RSA_F4) != 1 ||
      RSA_generate_key_ex(rsa.get(), bits, exponent.get(), nullptr) != 1 ||
      EVP_PKEY_set1_RSA(key.get(), rsa.get()) != 1)
    return nullptr;
  return key.release();
}

int share_key(key_info_ptr info) {
  mutex_lock lock(&list_mutex);
  if (OPENSSL_sk_push(pki_store->key_store, info.get()) <= 0)
    return PKI_OUT_OF_MEMORY;
  (void)info.release();
  return PKI_OK;
}

}  // namespace

}  // namespace pki

using namespace pki;

int pki_generate_key_pair(const char *label, const char *algorithm, int bits) {
  if (!label)
    return PKI_INVALID_ARGS;
  key_info_ptr info(alloc_key_info());
  if (!info)
    return openssl_failure(PKI_OUT_OF_MEMORY);
  info->label = pki_strdup(label);
  if (!info->label)
    return PKI_OUT_OF_MEMORY;
  if (algorithm && !equal_ignoring_case(algorithm, "RSA"))
    return PKI_UNKNOWN_KEY_ALG;
  info->key = generate_rsa_key(bits < 1 ? default_rsa_bits : bits);
  if (!info->key)
    return openssl_failure(PKI_OUT_OF_MEMORY);
  return log_reasons(share_key(std::move(info)));
}
