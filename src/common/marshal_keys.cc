// Fields of the marshal stream that are DER: never written, read for other writers' sake.
#include <libpki/error.h>

#include "common/log.h"
#include "common/marshal.h"
#include "common/ossl_ptr.h"

namespace pki {

namespace {

using p8_ptr = std::unique_ptr<PKCS8_PRIV_KEY_INFO, free_with<PKCS8_PRIV_KEY_INFO_free>>;

// OpenSSL's decoders want a place to look at, even for no data.
constexpr unsigned char nothing = 0;

const unsigned char *data_or_nothing(const unsigned char *data, int *len) {
  if (data && *len > 0)
    return data;
  *len = 0;
  return &nothing;
}

int store_key(EVP_PKEY *key, void *target) {
  if (!key)
    return openssl_failure(PKI_KEY_CONV_ERROR);
  auto *field = static_cast<EVP_PKEY **>(target);
  EVP_PKEY_free(*field);
  *field = key;
  return PKI_OK;
}

}  // namespace

}  // namespace pki

using namespace pki;

int enc_asn1_struct(BIO * /*bio*/, void * /*field*/, int /*tag*/, void * /*arg*/) {
  return PKI_OK;
}

int enc_pub_key(BIO *bio, void *field, int tag, void *arg) {
  if (!field)
    return PKI_INVALID_ARGS;
  auto *key = *static_cast<EVP_PKEY **>(field);
  if (!key)
    return PKI_OK;
  X509_PUBKEY *made = nullptr;
  int done = X509_PUBKEY_set(&made, key);
  x509_pubkey_ptr pubkey(made);
  if (!done)
    return openssl_failure(PKI_KEY_CONV_ERROR);
  return enc_asn1_struct(bio, &made, tag, arg);
}

int enc_prv_key(BIO *bio, void *field, int tag, void *arg) {
  if (!field)
    return PKI_INVALID_ARGS;
  auto *key = *static_cast<EVP_PKEY **>(field);
  if (!key)
    return PKI_OK;
  p8_ptr p8(EVP_PKEY2PKCS8(key));
  if (!p8)
    return openssl_failure(PKI_KEY_CONV_ERROR);
  PKCS8_PRIV_KEY_INFO *made = p8.get();
  return enc_asn1_struct(bio, &made, tag, arg);
}

int dec_pub_key(BIO * /*bio*/, int /*tag*/, const unsigned char *data, int len, void *target,
                void * /*arg*/) {
  if (!target)
    return PKI_INVALID_ARGS;
  const unsigned char *in = data_or_nothing(data, &len);
  x509_pubkey_ptr pubkey(d2i_X509_PUBKEY(nullptr, &in, len));
  if (!pubkey)
    return openssl_failure(PKI_SPKI_DECODE_ERROR);
  return store_key(X509_PUBKEY_get(pubkey.get()), target);
}

int dec_prv_key(BIO * /*bio*/, int /*tag*/, const unsigned char *data, int len, void *target,
                void * /*arg*/) {
  if (!target)
    return PKI_INVALID_ARGS;
  const unsigned char *in = data_or_nothing(data, &len);
  p8_ptr p8(d2i_PKCS8_PRIV_KEY_INFO(nullptr, &in, len));
  if (!p8)
    return openssl_failure(PKI_P8_DECODE_ERROR);
  return store_key(EVP_PKCS82PKEY(p8.get()), target);
}

// A decoder that fails leaves the target null when it freed the object that was there; what it
// did not free stays its owner's.
int dec_asn1_struct(BIO * /*bio*/, int /*tag*/, const unsigned char *data, int len, void *target,
                    void *arg) {
  if (!target || !arg)
    return PKI_INVALID_ARGS;
  auto *d2i = reinterpret_cast<d2i_fn *>(arg);
  const unsigned char *in = data_or_nothing(data, &len);
  auto *field = static_cast<void **>(target);
  void *object = d2i(field, &in, len);
  if (!object)
    return openssl_failure(PKI_ASN1_DECODE_ERROR);
  *field = object;
  return PKI_OK;
}
