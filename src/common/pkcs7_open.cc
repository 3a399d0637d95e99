// Opening an EnvelopedData, as PKCS7_decrypt does but for two things. The content key is unwrapped
// in the host's library context even where the cipher needs another one: OpenSSL 3.0 would copy the
// private key there first, and forget parts of it when memory runs out. And no buffer keeps the
// plaintext when it is freed.
#include <libpki/error.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>

#include <climits>

#include "common/cipher_context.h"
#include "common/log.h"
#include "common/pkcs7.h"
#include "common/secret_octets.h"

namespace pki {

namespace {

using pkey_ctx_ptr = std::unique_ptr<EVP_PKEY_CTX, free_with<EVP_PKEY_CTX_free>>;
using cipher_ptr = std::unique_ptr<EVP_CIPHER, free_with<EVP_CIPHER_free>>;
using cipher_ctx_ptr = std::unique_ptr<EVP_CIPHER_CTX, free_with<EVP_CIPHER_CTX_free>>;

// With the reason that OpenSSL would give.
int refuse(int reason) {
  ERR_raise(ERR_LIB_PKCS7, reason);
  return openssl_failure(PKI_P7_DECRYPT_FAILED);
}

const PKCS7_RECIP_INFO *recipient_of(const PKCS7 *p7, const X509 *cert) {
  const STACK_OF(PKCS7_RECIP_INFO) *all = p7->d.enveloped->recipientinfo;
  for (int i = 0; i < sk_PKCS7_RECIP_INFO_num(all); i++) {
    const PKCS7_RECIP_INFO *one = sk_PKCS7_RECIP_INFO_value(all, i);
    const PKCS7_ISSUER_AND_SERIAL *named = one->issuer_and_serial;
    if (named && one->enc_key && X509_NAME_cmp(named->issuer, X509_get_issuer_name(cert)) == 0 &&
        ASN1_INTEGER_cmp(named->serial, X509_get0_serialNumber(cert)) == 0)
      return one;
  }
  return nullptr;
}

secret_octets *allocate_secret(secret_octets *secret, int length) {
  secret->reset(static_cast<unsigned char *>(allocate(static_cast<size_t>(length))), length);
  return *secret ? secret : nullptr;
}

// The unwrapped key's length, or 0 when it does not unwrap; negative without memory.
int unwrap_key(const PKCS7_RECIP_INFO *recipient, EVP_PKEY *key, secret_octets *content_key) {
  int size = EVP_PKEY_get_size(key);
  pkey_ctx_ptr context(EVP_PKEY_CTX_new(key, nullptr));
  if (size < 1 || !context || !allocate_secret(content_key, size) ||
      EVP_PKEY_decrypt_init(context.get()) != 1)
    return -1;
  int queue_end = openssl_queue_end();
  ERR_set_mark();
  auto length = static_cast<size_t>(size);
  bool unwrapped = EVP_PKEY_decrypt(context.get(), content_key->get(), &length,
                                    ASN1_STRING_get0_data(recipient->enc_key),
                                    static_cast<size_t>(recipient->enc_key->length)) == 1;
  if (!unwrapped && openssl_malloc_failure_behind(queue_end)) {
    ERR_clear_last_mark();
    return -1;
  }
  ERR_pop_to_mark();
  return unwrapped ? static_cast<int>(length) : 0;
}

bool takes_key_length(EVP_CIPHER_CTX *cipher, int length) {
  openssl_error_mark discard_errors;
  return EVP_CIPHER_CTX_set_key_length(cipher, length) == 1;
}

// A key that does not unwrap is replaced by a random one, so that nobody learns from our answer
// whether it was the padding of the key or of the content that was wrong (RFC 3218).
bool set_content_key(EVP_CIPHER_CTX *cipher, const PKCS7_RECIP_INFO *recipient, EVP_PKEY *key) {
  secret_octets random_key, unwrapped;
  int length = EVP_CIPHER_CTX_get_key_length(cipher);
  if (length < 1 || !allocate_secret(&random_key, length) ||
      EVP_CIPHER_CTX_rand_key(cipher, random_key.get()) != 1)
    return false;
  int got = unwrap_key(recipient, key, &unwrapped);
  if (got < 0)
    return false;
  bool fits = got == length || (got > 0 && takes_key_length(cipher, got));
  return EVP_DecryptInit_ex(cipher, nullptr, nullptr, fits ? unwrapped.get() : random_key.get(),
                            nullptr) == 1;
}

bool decrypt_content(EVP_CIPHER_CTX *cipher, const ASN1_OCTET_STRING *ciphertext,
                     secret_octets *plaintext, int *length) {
  int head = 0;
  int tail = 0;
  if (ciphertext->length > INT_MAX - EVP_MAX_BLOCK_LENGTH ||
      !allocate_secret(plaintext, ciphertext->length + EVP_MAX_BLOCK_LENGTH) ||
      EVP_DecryptUpdate(cipher, plaintext->get(), &head, ASN1_STRING_get0_data(ciphertext),
                        ciphertext->length) != 1 ||
      EVP_DecryptFinal_ex(cipher, plaintext->get() + head, &tail) != 1)
    return false;
  *length = head + tail;
  return true;
}

bool start_cipher(EVP_CIPHER_CTX *started, const EVP_CIPHER *cipher, const X509_ALGOR *algorithm) {
  return EVP_DecryptInit_ex(started, cipher, nullptr, nullptr, nullptr) == 1 &&
         EVP_CIPHER_asn1_to_param(started, algorithm->parameter) > 0;
}

}  // namespace

int open_envelope(PKCS7 *p7, EVP_PKEY *key, X509 *cert, secret_octets *plaintext, int *length) {
  if (!PKCS7_type_is_enveloped(p7))
    return refuse(PKCS7_R_WRONG_CONTENT_TYPE);
  const PKCS7_ENC_CONTENT *encrypted = p7->d.enveloped->enc_data;
  const EVP_CIPHER *known = EVP_get_cipherbyobj(encrypted->algorithm->algorithm);
  if (!known || !fits_envelopes(known))
    return refuse(PKCS7_R_UNSUPPORTED_CIPHER_TYPE);
  const PKCS7_RECIP_INFO *recipient = recipient_of(p7, cert);
  if (!recipient)
    return refuse(PKCS7_R_NO_RECIPIENT_MATCHES_CERTIFICATE);
  if (X509_check_private_key(cert, key) != 1)
    return openssl_failure(PKI_P7_DECRYPT_FAILED);
  OSSL_LIB_CTX *context;
  if (int error = find_cipher_context(known, PKI_P7_DECRYPT_FAILED, &context))
    return error;
  cipher_ptr cipher(EVP_CIPHER_fetch(context, OBJ_nid2sn(EVP_CIPHER_get_nid(known)), nullptr));
  cipher_ctx_ptr started(EVP_CIPHER_CTX_new());
  if (!cipher || !started || !start_cipher(started.get(), cipher.get(), encrypted->algorithm) ||
      !set_content_key(started.get(), recipient, key) ||
      !decrypt_content(started.get(), encrypted->enc_data, plaintext, length))
    return openssl_failure(PKI_P7_DECRYPT_FAILED);
  return PKI_OK;
}

}  // namespace pki
