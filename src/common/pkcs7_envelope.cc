// EnvelopedData for one recipient.
#include <libpki/error.h>
#include <libpki/util.h>
#include <openssl/evp.h>
#include <openssl/objects.h>

#include "common/cipher_context.h"
#include "common/log.h"
#include "common/pkcs7.h"

namespace pki {

namespace {

// OpenSSL does not notice when it runs out of memory in some places: a block cipher's ciphertext is
// the padded length of the data, and the envelope encodes, or something is missing.
bool is_whole_envelope(const PKCS7 *p7, int length, const EVP_CIPHER *cipher) {
  const ASN1_OCTET_STRING *ciphertext = p7->d.enveloped->enc_data->enc_data;
  int block = EVP_CIPHER_block_size(cipher);
  long long expected = block > 1 ? (static_cast<long long>(length) / block + 1) * block : length;
  return ciphertext && ciphertext->length == expected && i2d_PKCS7(p7, nullptr) > 0;
}

// As PKCS7_encrypt ends without PKCS7_STREAM, whose buffer keeps the plaintext when it is freed.
bool fill_envelope(PKCS7 *p7, const void *data, int length) {
  bio_chain_ptr chain(PKCS7_dataInit(p7, nullptr));
  return chain && (length == 0 || BIO_write(chain.get(), data, length) == length) &&
         BIO_flush(chain.get()) == 1 && PKCS7_dataFinal(p7, chain.get()) == 1;
}

// An EnvelopedData that lacks a part which OpenSSL's decryption follows without
// asking.
bool is_hollow_envelope(PKCS7 *p7) {
  if (!PKCS7_type_is_enveloped(p7))
    return false;
  const PKCS7_ENC_CONTENT *encrypted = p7->d.enveloped ? p7->d.enveloped->enc_data : nullptr;
  return !encrypted || !encrypted->algorithm || !encrypted->enc_data;
}

}  // namespace

}  // namespace pki

using namespace pki;

int pkcs7_encrypt(X509 *recipient, const void *data, int length, const EVP_CIPHER *cipher,
                  PKCS7 **out) {
  if (!out)
    return PKI_INVALID_ARGS;
  *out = nullptr;
  if (!recipient || (!data && length != 0) || length < 0 || !cipher)
    return PKI_INVALID_ARGS;
  if (!fits_envelopes(cipher))
    return PKI_P7_ENCRYPT_FAILED;
  OSSL_LIB_CTX *context;
  if (int error = find_cipher_context(cipher, PKI_P7_ENCRYPT_FAILED, &context))
    return error;
  x509_borrowed_list recipients(list_of(recipient));
  if (!recipients)
    return openssl_failure(PKI_OUT_OF_MEMORY);
  bio_ptr in(bio_over(data, length));
  if (!in)
    return openssl_failure(PKI_BIO_CREAT_FAILED);
  pkcs7_ptr p7(PKCS7_encrypt_ex(recipients.get(), in.get(), cipher, PKCS7_BINARY | PKCS7_STREAM,
                                context, nullptr));
  if (!p7 || !fill_envelope(p7.get(), data, length))
    return openssl_failure(PKI_P7_ENCRYPT_FAILED);
  if (!is_whole_envelope(p7.get(), length, cipher))
    return openssl_failure(PKI_OUT_OF_MEMORY);
  *out = p7.release();
  return PKI_OK;
}

int pkcs7_decrypt(PKCS7 *p7, EVP_PKEY *key, X509 *cert, unsigned char **data, int *length) {
  if (data)
    *data = nullptr;
  if (length)
    *length = 0;
  if (!p7 || !key || !cert || !data || !length)
    return PKI_INVALID_ARGS;
  if (is_hollow_envelope(p7))
    return PKI_INVALID_DER;
  secret_octets plaintext;
  int plaintext_length = 0;
  if (int error = open_envelope(p7, key, cert, &plaintext, &plaintext_length))
    return error;
  *data = copy_octets(plaintext.get(), plaintext_length);
  if (!*data)
    return PKI_OUT_OF_MEMORY;
  *length = plaintext_length;
  return PKI_OK;
}
