// Start-up. Running out of memory is not reported: each step is tried again until it succeeds.
// The one assertion here holds in every build.
#undef NDEBUG
#include <assert.h>
#include <libpki/error.h>
#include <libpki/oids.h>
#include <libpki/verify.h>
#include <openssl/ssl.h>
#include <unistd.h>

#include "common/limits.h"
#include "common/log.h"
#include "pki/internal.h"

namespace pki {

pthread_rwlock_t store_lock;
pthread_mutex_t list_mutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

pki_store_object the_store;

uint32_t initialised = 0;

void wait_for_memory() {
  syslog(log_info, "failed - retrying after %d seconds\n", static_cast<int>(init_retry_seconds));
  sleep(init_retry_seconds);
}

void register_oids() {
  while (!pki_register_oids())
    wait_for_memory();
}

// Without its lock the store is no use, and this can only fail where the system is broken.
void init_store_lock() {
  pthread_rwlockattr_t attributes;
  pthread_rwlockattr_init(&attributes);
  int rc = pthread_rwlock_init(&store_lock, &attributes);
  if (rc != 0)
    __assert_fail("rc == 0", "pki", __LINE__, "libpki_init");
  pthread_rwlockattr_destroy(&attributes);
}

STACK *make_empty_list() {
  return alloc_ca_infos();
}

void make_list(STACK **list, STACK *(*make)()) {
  while (!(*list = make()))
    wait_for_memory();
}

}  // namespace

}  // namespace pki

using namespace pki;

pki_store_object *const pki_store = &the_store;

int libpki_init(void) {
  if (__atomic_load_n(&initialised, __ATOMIC_ACQUIRE))
    return PKI_NO_INFO_FILE;
  SSL_library_init();
  register_oids();
  log_openssl_errors(log_error);
  zv_cv_init();
  zv_crl_init();
  init_store_lock();
  make_list(&pki_store->key_store, alloc_key_store);
  make_list(&pki_store->ca_infos, alloc_ca_infos);
  make_list(&pki_store->provisioned_certs, make_empty_list);
  make_list(&pki_store->collected_certs, make_empty_list);
  make_list(&pki_store->global_status_rules, make_empty_list);
  __atomic_store_n(&initialised, 1, __ATOMIC_RELEASE);
  syslog(log_info, "pki initialized");
  return PKI_OK;
}

void libpki_term(void) {}
