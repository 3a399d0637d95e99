#include "common/cipher_context.h"

#include <libpki/error.h>
#include <openssl/objects.h>
#include <openssl/provider.h>
#include <pthread.h>

#include "common/locks.h"
#include "common/log.h"
#include "common/ossl_ptr.h"

namespace pki {

namespace {

using cipher_ptr = std::unique_ptr<EVP_CIPHER, free_with<EVP_CIPHER_free>>;
using lib_ctx_ptr = std::unique_ptr<OSSL_LIB_CTX, free_with<OSSL_LIB_CTX_free>>;

pthread_mutex_t private_context_mutex = PTHREAD_MUTEX_INITIALIZER;
OSSL_LIB_CTX *private_context = nullptr;
bool has_legacy = false;

const char *name_of(const EVP_CIPHER *cipher) {
  const char *name = OBJ_nid2sn(EVP_CIPHER_nid(cipher));
  return name ? name : "";
}

bool is_usable(OSSL_LIB_CTX *context, const EVP_CIPHER *cipher) {
  cipher_ptr fetched(EVP_CIPHER_fetch(context, name_of(cipher), nullptr));
  return fetched != nullptr;
}

// The cipher that the default context was last seen to lack: OpenSSL searches all providers anew
// each time that it does not find one. Should the host load the provider later, ours does as well.
int lacking_by_default = NID_undef;

// `*lacking` says that this was no want of memory.
bool is_usable_by_default(const EVP_CIPHER *cipher, bool *lacking) {
  int nid = EVP_CIPHER_get_nid(cipher);
  *lacking = __atomic_load_n(&lacking_by_default, __ATOMIC_RELAXED) == nid;
  if (*lacking)
    return false;
  int queue_end = openssl_queue_end();
  openssl_error_mark discard_errors;
  bool usable = is_usable(nullptr, cipher);
  *lacking = !usable && !openssl_malloc_failure_behind(queue_end);
  return usable;
}

void remember_lacking_by_default(const EVP_CIPHER *cipher) {
  __atomic_store_n(&lacking_by_default, EVP_CIPHER_get_nid(cipher), __ATOMIC_RELAXED);
}

// The providers' keys need the default provider's random numbers, so both are loaded. They live
// as long as the context, which lives as long as the process: OpenSSL loses memory with each
// context that could not load a provider.
bool complete_private_context() {
  if (!private_context) {
    lib_ctx_ptr made(OSSL_LIB_CTX_new());
    if (!made || !OSSL_PROVIDER_load(made.get(), "default"))
      return false;
    private_context = made.release();
  }
  if (!has_legacy)
    has_legacy = OSSL_PROVIDER_load(private_context, "legacy") != nullptr;
  return has_legacy;
}

// Null when it cannot be completed; the next call tries again.
OSSL_LIB_CTX *get_private_context() {
  mutex_lock lock(&private_context_mutex);
  return complete_private_context() ? private_context : nullptr;
}

}  // namespace

int find_cipher_context(const EVP_CIPHER *cipher, int unusable, OSSL_LIB_CTX **context) {
  *context = nullptr;
  bool lacking;
  if (is_usable_by_default(cipher, &lacking))
    return PKI_OK;
  int queue_end = openssl_queue_end();
  OSSL_LIB_CTX *made = get_private_context();
  if (made && is_usable(made, cipher)) {
    *context = made;
    if (lacking)
      remember_lacking_by_default(cipher);
    return PKI_OK;
  }
  int error = openssl_malloc_failure_behind(queue_end) ? PKI_OUT_OF_MEMORY : unusable;
  log_openssl_errors(log_error);
  if (error != PKI_OUT_OF_MEMORY)
    syslog(log_error, "cipher %s cannot be used: OpenSSL's legacy provider %s", name_of(cipher),
           made ? "does not have it" : "could not be loaded");
  return error;
}

}  // namespace pki
