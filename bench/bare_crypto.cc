#include "bare_crypto.h"

#include <openssl/provider.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>

namespace bench {

namespace {

// What the layers of a PKCSReq and of its answer measure, about.
constexpr size_t request_octets = 500;
constexpr size_t reply_octets = 1300;
constexpr size_t signed_octets = 300;
constexpr int key_bits = 1024;

using md_ctx = std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)>;
using pkey_ctx = std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)>;
using cipher_ctx = std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)>;

}  // namespace

bare_crypto::bare_crypto()
    : context_(OSSL_LIB_CTX_new(), OSSL_LIB_CTX_free),
      des_(nullptr, EVP_CIPHER_free),
      ca_key_(support::test_key(8)) {
  OSSL_PROVIDER_load(context_.get(), "default");
  OSSL_PROVIDER_load(context_.get(), "legacy");
  des_.reset(EVP_CIPHER_fetch(context_.get(), "DES-CBC", nullptr));
}

bool bare_crypto::sign_and_verify(EVP_PKEY *key, const octets &message) {
  md_ctx signing(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  md_ctx verifying(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  octets signature(static_cast<size_t>(EVP_PKEY_size(key)));
  size_t length = signature.size();
  return EVP_DigestSignInit(signing.get(), nullptr, EVP_md5(), nullptr, key) == 1 &&
         EVP_DigestSign(signing.get(), signature.data(), &length, message.data(), message.size()) ==
             1 &&
         EVP_DigestVerifyInit(verifying.get(), nullptr, EVP_md5(), nullptr, key) == 1 &&
         EVP_DigestVerify(verifying.get(), signature.data(), length, message.data(),
                          message.size()) == 1;
}

bool bare_crypto::wrap_and_unwrap(EVP_PKEY *recipient, octets *content_key) {
  pkey_ctx wrapping(EVP_PKEY_CTX_new(recipient, nullptr), EVP_PKEY_CTX_free);
  pkey_ctx unwrapping(EVP_PKEY_CTX_new(recipient, nullptr), EVP_PKEY_CTX_free);
  octets wrapped(static_cast<size_t>(EVP_PKEY_size(recipient)));
  size_t length = wrapped.size();
  if (EVP_PKEY_encrypt_init(wrapping.get()) != 1 ||
      EVP_PKEY_encrypt(wrapping.get(), wrapped.data(), &length, content_key->data(),
                       content_key->size()) != 1)
    return false;
  octets unwrapped(wrapped.size());
  size_t size = unwrapped.size();
  if (EVP_PKEY_decrypt_init(unwrapping.get()) != 1 ||
      EVP_PKEY_decrypt(unwrapping.get(), unwrapped.data(), &size, wrapped.data(), length) != 1)
    return false;
  unwrapped.resize(size);
  return unwrapped == *content_key;
}

bool bare_crypto::envelope_and_open(EVP_PKEY *recipient, const octets &plaintext) {
  octets content_key(8), iv(8);
  if (!des_ || RAND_bytes(content_key.data(), 8) != 1 || RAND_bytes(iv.data(), 8) != 1)
    return false;
  cipher_ctx encrypting(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
  cipher_ctx decrypting(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
  octets ciphertext(plaintext.size() + 8), opened(plaintext.size() + 16);
  int head = 0, tail = 0;
  if (EVP_EncryptInit_ex(encrypting.get(), des_.get(), nullptr, content_key.data(), iv.data()) !=
          1 ||
      EVP_EncryptUpdate(encrypting.get(), ciphertext.data(), &head, plaintext.data(),
                        static_cast<int>(plaintext.size())) != 1 ||
      EVP_EncryptFinal_ex(encrypting.get(), ciphertext.data() + head, &tail) != 1)
    return false;
  int length = head + tail;
  if (!wrap_and_unwrap(recipient, &content_key) ||
      EVP_DecryptInit_ex(decrypting.get(), des_.get(), nullptr, content_key.data(), iv.data()) !=
          1 ||
      EVP_DecryptUpdate(decrypting.get(), opened.data(), &head, ciphertext.data(), length) != 1 ||
      EVP_DecryptFinal_ex(decrypting.get(), opened.data() + head, &tail) != 1)
    return false;
  return static_cast<size_t>(head + tail) == plaintext.size();
}

support::key bare_crypto::make_key() {
  return support::key(EVP_RSA_gen(key_bits), EVP_PKEY_free);
}

bool bare_crypto::one_enrollment(EVP_PKEY *device) {
  return sign_and_verify(device, octets(signed_octets)) &&
         envelope_and_open(ca_key_.get(), octets(request_octets)) &&
         sign_and_verify(ca_key_.get(), octets(signed_octets)) &&
         envelope_and_open(device, octets(reply_octets));
}

}  // namespace bench
