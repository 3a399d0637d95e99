// Byte strings signed with a bare key, and opened with it.
#include <libpki/error.h>
#include <libpki/util.h>
#include <openssl/objects.h>

#include <cstring>

#include "common/log.h"
#include "common/pkcs7.h"

namespace pki {

PKCS7_SIGNED *signed_data_of(PKCS7 *p7) {
  return p7 && p7->type && PKCS7_type_is_signed(p7) ? p7->d.sign : nullptr;
}

BIO *bio_over(const void *data, int length) {
  return BIO_new_mem_buf(length > 0 ? data : "", length);
}

STACK_OF(X509) * list_of(X509 *cert) {
  x509_borrowed_list list(sk_X509_new_null());
  return list && sk_X509_push(list.get(), cert) > 0 ? list.release() : nullptr;
}

unsigned char *copy_octets(const void *octets, int length) {
  auto *copy = static_cast<unsigned char *>(allocate(static_cast<size_t>(length)));
  if (copy && length > 0)
    std::memcpy(copy, octets, static_cast<size_t>(length));
  return copy;
}

bool has_public_key(const X509 *cert, const EVP_PKEY *key) {
  const EVP_PKEY *own = X509_get0_pubkey(cert);
  return own && EVP_PKEY_eq(own, key) == 1;
}

namespace {

constexpr int sign_flags = PKCS7_NOCERTS | PKCS7_BINARY | PKCS7_NOSMIMECAP;

const ASN1_OCTET_STRING *embedded_data(const PKCS7_SIGNED *signed_data) {
  const PKCS7 *inner = signed_data->contents;
  return inner && inner->type && OBJ_obj2nid(inner->type) == NID_pkcs7_data ? inner->d.data
                                                                            : nullptr;
}

// OpenSSL's signing does not notice when it runs out of memory in some places, and signs what it
// has, or hands out what it has not signed. Only looking again tells.
bool opens_as_signed(const unsigned char *der, int der_length, EVP_PKEY *key, const void *data,
                     int length) {
  unsigned char *content = nullptr;
  int content_length = 0;
  bool opens = verify_bytes(der, der_length, key, &content, &content_length) == PKI_OK;
  malloc_ptr<unsigned char> owner(content);
  return opens && content_length == length &&
         (length == 0 || std::memcmp(content, data, static_cast<size_t>(length)) == 0);
}

// A certificate in the message can be anybody's: each signer must have the given key itself.
bool all_signers_have_key(PKCS7 *p7, STACK_OF(X509) * candidates, const EVP_PKEY *key) {
  x509_borrowed_list signers(PKCS7_get0_signers(p7, candidates, 0));
  int count = signers ? sk_X509_num(signers.get()) : 0;
  for (int i = 0; i < count; i++)
    if (!has_public_key(sk_X509_value(signers.get(), i), key))
      return false;
  return count > 0;
}

int verify_with_key(PKCS7 *p7, EVP_PKEY *key) {
  X509 *made = nullptr;
  if (int error = create_dummy_cert(key, &made))
    return error;
  x509_ptr dummy(made);
  x509_borrowed_list candidates(list_of(dummy.get()));
  if (!candidates)
    return openssl_failure(PKI_OUT_OF_MEMORY);
  if (!has_bearable_signers(p7->d.sign) || !says_what_an_honest_sender_writes(p7->d.sign, key) ||
      !all_signers_have_key(p7, candidates.get(), key) ||
      PKCS7_verify(p7, candidates.get(), nullptr, nullptr, nullptr, verify_flags) != 1)
    return openssl_failure(PKI_SIG_VERIFY_FAILED);
  return PKI_OK;
}

}  // namespace

}  // namespace pki

using namespace pki;

int create_dummy_cert(EVP_PKEY *key, X509 **cert) {
  if (!cert)
    return PKI_INVALID_ARGS;
  *cert = nullptr;
  if (!key)
    return PKI_INVALID_ARGS;
  x509_ptr dummy(X509_new());
  if (!dummy)
    return openssl_failure(PKI_OUT_OF_MEMORY);
  if (X509_set_pubkey(dummy.get(), key) != 1 ||
      ASN1_INTEGER_set(X509_get_serialNumber(dummy.get()), 1) != 1)
    return openssl_failure(PKI_CERT_CREATE_FAILED);
  *cert = dummy.release();
  return PKI_OK;
}

int sign_bytes(const void *data, int length, EVP_PKEY *key, unsigned char **der, int *der_length) {
  if (der)
    *der = nullptr;
  if (der_length)
    *der_length = 0;
  if ((!data && length != 0) || length < 0 || !key || !der || !der_length)
    return PKI_INVALID_ARGS;
  X509 *made = nullptr;
  if (int error = create_dummy_cert(key, &made))
    return error;
  x509_ptr dummy(made);
  bio_ptr in(bio_over(data, length));
  if (!in)
    return openssl_failure(PKI_BIO_CREAT_FAILED);
  pkcs7_ptr p7(PKCS7_sign(dummy.get(), key, nullptr, in.get(), sign_flags));
  if (!p7)
    return openssl_failure(PKI_P7_SIGN_FAILED);
  int encoded_length;
  malloc_ptr<unsigned char> encoded(
      der_encode(p7.get(), reinterpret_cast<i2d_fn *>(i2d_PKCS7), &encoded_length));
  if (!encoded || !opens_as_signed(encoded.get(), encoded_length, key, data, length))
    return openssl_failure(PKI_OUT_OF_MEMORY);
  *der = encoded.release();
  *der_length = encoded_length;
  return PKI_OK;
}

int verify_bytes(const unsigned char *der, int der_length, EVP_PKEY *key, unsigned char **content,
                 int *content_length) {
  if (content)
    *content = nullptr;
  if (content_length)
    *content_length = 0;
  if ((!der && der_length != 0) || der_length < 0 || !key || !content || !content_length)
    return PKI_INVALID_ARGS;
  const unsigned char *in = der;
  pkcs7_ptr p7(der ? d2i_PKCS7(nullptr, &in, der_length) : nullptr);
  if (!p7)
    return openssl_failure(PKI_P7_DECODE_ERROR);
  const PKCS7_SIGNED *signed_data = signed_data_of(p7.get());
  if (!signed_data || !signed_data->contents || !signed_data->contents->type)
    return PKI_SIG_VERIFY_FAILED;
  if (OBJ_obj2nid(signed_data->contents->type) != NID_pkcs7_data)
    return PKI_UNKNOWN_P7_CONTENT_TYPE;
  const ASN1_OCTET_STRING *data = embedded_data(signed_data);
  if (!data)
    return PKI_SIG_VERIFY_FAILED;
  if (!has_honest_tags(der, static_cast<int>(in - der)))
    return openssl_failure(PKI_SIG_VERIFY_FAILED);
  if (int error = verify_with_key(p7.get(), key))
    return error;
  *content = copy_octets(data->data, data->length);
  if (!*content)
    return PKI_OUT_OF_MEMORY;
  *content_length = data->length;
  return PKI_OK;
}
