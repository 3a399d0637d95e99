#include <libpki/error.h>
#include <libpki/util.h>
#include <openssl/err.h>
#include <openssl/rand.h>

#include <climits>
#include <cstring>

#include "common/log.h"
#include "common/ossl_ptr.h"
#include "common/text.h"

namespace pki {

int decimal_prefix(const char *text) {
  long number = std::strtol(text, nullptr, 10);
  if (number > INT_MAX)
    return INT_MAX;
  return number < INT_MIN ? INT_MIN : static_cast<int>(number);
}

namespace {

constexpr int default_nonce_bytes = 16;

const char pair_test_message[] = "Two halves of one key must agree on this sentence.";
static_assert(sizeof pair_test_message == 51);

bool sign_test_message(EVP_MD_CTX *context, EVP_PKEY *key, unsigned char *signature,
                       unsigned int *length) {
  return EVP_DigestInit(context, EVP_sha1()) == 1 &&
         EVP_DigestUpdate(context, pair_test_message, sizeof pair_test_message) == 1 &&
         EVP_SignFinal(context, signature, length, key) == 1;
}

bool verify_test_message(EVP_MD_CTX *context, EVP_PKEY *key, const unsigned char *signature,
                         unsigned int length) {
  return EVP_DigestInit(context, EVP_sha1()) == 1 &&
         EVP_DigestUpdate(context, pair_test_message, sizeof pair_test_message) == 1 &&
         EVP_VerifyFinal(context, signature, length, key) > 0;
}

// OpenSSL does not always say that it was memory that it lacked, and a mismatch is a grave word:
// it is believed when it is seen twice.
bool is_seen_to_match(EVP_MD_CTX *context, EVP_PKEY *key, const unsigned char *signature,
                      unsigned int length) {
  ERR_set_mark();
  bool matches = false;
  for (int attempt = 0; attempt < 2 && !matches; attempt++)
    matches = verify_test_message(context, key, signature, length);
  if (matches)
    ERR_pop_to_mark();
  else
    ERR_clear_last_mark();
  return matches;
}

}  // namespace

}  // namespace pki

char *to_hex_string(const void *bytes, int length) {
  static const char digits[] = "0123456789ABCDEF";
  if (length < 0 || (!bytes && length > 0))
    return nullptr;
  size_t octets = static_cast<size_t>(length);
  char *text = static_cast<char *>(pki::allocate(2 * octets + 1));
  if (!text)
    return nullptr;
  const auto *in = static_cast<const unsigned char *>(bytes);
  char *out = text;
  for (size_t i = 0; i < octets; i++) {
    *out++ = digits[in[i] >> 4];
    *out++ = digits[in[i] & 15];
  }
  *out = '\0';
  return text;
}

unsigned char *der_encode(const void *object, i2d_fn *i2d, int *length) {
  if (!i2d || !length)
    return nullptr;
  *length = i2d(object, nullptr);
  if (*length < 1)
    return nullptr;
  pki::malloc_ptr<unsigned char> der(
      static_cast<unsigned char *>(std::calloc(1, static_cast<size_t>(*length))));
  if (!der)
    return nullptr;
  unsigned char *end = der.get();
  // OpenSSL's sorting of a SET can run out of memory and leave it out without a word.
  if (i2d(object, &end) != *length || end != der.get() + *length) {
    log_openssl_errors(pki::log_error);
    OPENSSL_cleanse(der.get(), static_cast<size_t>(*length));  // it may be a secret's
    return nullptr;
  }
  return der.release();
}

char *hex_der_encode(const void *object, i2d_fn *i2d) {
  int length;
  pki::malloc_ptr<unsigned char> der(der_encode(object, i2d, &length));
  return der ? to_hex_string(der.get(), length) : nullptr;
}

char *pki_strdup(const char *text) {
  if (!text)
    return nullptr;
  size_t size = std::strlen(text) + 1;
  void *copy = pki::allocate(size);
  return copy ? static_cast<char *>(std::memcpy(copy, text, size)) : nullptr;
}

STACK *stack_dup(const STACK *list, void *(*dup)(void *), void (*release)(void *)) {
  if (!dup || !release)
    return nullptr;
  pki::openssl_error_mark null_says_it_all;
  STACK *copy = OPENSSL_sk_new_null();
  if (!copy)
    return nullptr;
  for (int i = 0; i < OPENSSL_sk_num(list); i++) {
    void *element = dup(OPENSSL_sk_value(list, i));
    if (!element || OPENSSL_sk_push(copy, element) <= 0) {
      OPENSSL_sk_pop_free(copy, release);
      release(element);
      return nullptr;
    }
  }
  return copy;
}

unsigned char *gen_nonce(int *length) {
  if (!length)
    return nullptr;
  if (*length < 0)
    *length = pki::default_nonce_bytes;
  pki::malloc_ptr<unsigned char> nonce(
      static_cast<unsigned char *>(pki::allocate(static_cast<size_t>(*length))));
  if (!nonce || RAND_bytes(nonce.get(), *length) <= 0)
    return nullptr;
  return nonce.release();
}

int verify_keys(EVP_PKEY *private_key, EVP_PKEY *public_key) {
  if (!private_key || !public_key)
    return PKI_INVALID_ARGS;
  int size = EVP_PKEY_size(private_key);
  pki::malloc_ptr<unsigned char> signature(
      static_cast<unsigned char *>(pki::allocate(size > 0 ? static_cast<size_t>(size) : 0)));
  pki::evp_md_ctx_ptr context(EVP_MD_CTX_new());
  if (!signature || !context)
    return pki::log_reasons(PKI_OUT_OF_MEMORY);
  unsigned int length = 0;
  if (!pki::sign_test_message(context.get(), private_key, signature.get(), &length))
    return pki::openssl_failure(PKI_P7_SIGN_FAILED);
  if (!pki::is_seen_to_match(context.get(), public_key, signature.get(), length))
    return pki::openssl_failure(PKI_KEY_MISMATCH);
  return PKI_OK;
}
