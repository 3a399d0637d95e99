// The order of start-up, as far as it shows outside: what the library calls of OpenSSL and the C
// library, who in it calls, and what is there already by then.
#include <dlfcn.h>
#include <openssl/err.h>

#include <cstring>
#include <string>
#include <vector>

#include "unit/pki/lifecycle_process.h"

namespace {

bool watching = false;

std::vector<std::string> &steps() {
  static std::vector<std::string> instance;
  return instance;
}

// The exported function of the library that holds `address`; "" for anybody else's.
std::string library_function(const void *address) {
  Dl_info caller;
  if (!watching || !dladdr(address, &caller) || !strstr(caller.dli_fname, "libpki.so"))
    return "";
  return caller.dli_sname ? caller.dli_sname : "(local)";
}

void note(const std::string &step) {
  if (steps().empty() || steps().back() != step)
    steps().push_back(step);
}

template <class Function>
Function *real_call(const char *name) {
  return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

const char *queue() {
  return ERR_peek_error() ? "errors queued" : "queue empty";
}

const char *lists() {
  return pki_store->key_store ? "lists made" : "no lists";
}

}  // namespace

extern "C" {

int OPENSSL_init_ssl(uint64_t options, const OPENSSL_INIT_SETTINGS *settings) {
  if (!library_function(__builtin_return_address(0)).empty())
    note(std::string("OpenSSL starts, ") + queue());
  static auto *const real = real_call<decltype(OPENSSL_init_ssl)>("OPENSSL_init_ssl");
  return real(options, settings);
}

int OBJ_create(const char *oid, const char *short_name, const char *long_name) {
  if (!library_function(__builtin_return_address(0)).empty())
    note(std::string("objects, ") + queue());
  static auto *const real = real_call<decltype(OBJ_create)>("OBJ_create");
  return real(oid, short_name, long_name);
}

int pthread_rwlockattr_init(pthread_rwlockattr_t *attributes) noexcept {
  std::string caller = library_function(__builtin_return_address(0));
  if (!caller.empty()) {
    bool is_cache = caller == "zv_cv_init" || caller == "zv_crl_init";
    note((is_cache ? caller : "store's") + " lock, " + queue() + ", " + lists());
  }
  static auto *const real = real_call<decltype(pthread_rwlockattr_init)>("pthread_rwlockattr_init");
  return real(attributes);
}

int pthread_rwlockattr_destroy(pthread_rwlockattr_t *attributes) noexcept {
  if (!library_function(__builtin_return_address(0)).empty())
    note(std::string("attributes dropped, ") + lists());
  static auto *const real =
      real_call<decltype(pthread_rwlockattr_destroy)>("pthread_rwlockattr_destroy");
  return real(attributes);
}
}

namespace {

void caches_follow_the_objects_and_come_before_the_lists() {
  support::raise_openssl_error(5);
  watching = true;
  EXPECT_EQ(libpki_init(), 0);
  watching = false;
  EXPECT_EQ(steps(), (std::vector<std::string>{
                         "OpenSSL starts, errors queued",
                         "objects, errors queued",
                         "zv_cv_init lock, queue empty, no lists",
                         "attributes dropped, no lists",
                         "zv_crl_init lock, queue empty, no lists",
                         "attributes dropped, no lists",
                         "store's lock, queue empty, no lists",
                         "attributes dropped, no lists",
                     }));
  EXPECT_STREQ(lists(), "lists made");
}

TEST(LibpkiInitOrderDeathTest, OpenSslObjectsStatusCacheCrlCacheStoreLockLists) {
  EXPECT_IN_FRESH_PROCESS(caches_follow_the_objects_and_come_before_the_lists);
}

void second_call_starts_nothing() {
  EXPECT_EQ(libpki_init(), 0);
  watching = true;
  EXPECT_EQ(libpki_init(), 16);
  watching = false;
  EXPECT_EQ(steps(), std::vector<std::string>());
}

TEST(LibpkiInitOrderDeathTest, SecondCallStartsNothing) {
  EXPECT_IN_FRESH_PROCESS(second_call_starts_nothing);
}

}  // namespace
