// Who takes which lock: store_lock belongs to the untrusted-certificate adds and the certificate
// searches, the lists' mutex to everything that touches a list, always behind store_lock.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "fakes/allocator.h"
#include "fakes/failures.h"
#include "pki/internal.h"
#include "unit/pki/store_helpers.h"

namespace {

using support::cert;
using support::cert_list;
using support::simple_cert;

// What the operations work on. The CA and the certificate are in the store.
struct world {
  support::ca ca = support::make_ca_info("ca", "issuer");
  cert held = simple_cert("issuer", "subject", 1), fresh = simple_cert("issuer", "fresh", 2);
  support::rule_list rules{support::name_rule(PKI_MATCH_ISSUER, support::common_name("issuer"))};
  cert_list one{fresh};
  unsigned char hash[EVP_MAX_MD_SIZE];

  // A key with a certificate, the one that is in the store.
  void add_key() const {
    key_info *key = alloc_key_info();
    key->label = pki_strdup("key");
    cert_info *info = alloc_cert_info();
    info->label = pki_strdup("cert");
    info->cert = X509_dup(held.get());
    OPENSSL_sk_push(key->certs, info);
    OPENSSL_sk_push(pki_store->key_store, key);
  }
  world() {
    add_key();
    pki_add_ca_info(ca.get());
    pki_add_untrusted_cert(held.get(), 0);
    unsigned length = 0;
    X509_pubkey_digest(held.get(), EVP_sha1(), hash, &length);
  }
};

struct operation {
  const char *name;
  bool uses_store_lock;
  std::function<int(world &)> run;
};

int free_result(int code, STACK *result) {
  OPENSSL_sk_pop_free(result, [](void *each) { X509_free(static_cast<X509 *>(each)); });
  return code;
}

int find_by_subject(world &w) {
  STACK *result = nullptr;
  int code = pki_find_certs_by_subject(X509_get_subject_name(w.held.get()), &result);
  return free_result(code, result);
}

int find_by_issuer_serial(world &w) {
  STACK *result = nullptr;
  int code = pki_find_certs_by_issuer_serial(X509_get_issuer_name(w.held.get()),
                                             X509_get0_serialNumber(w.held.get()), &result);
  return free_result(code, result);
}

int find_by_key_hash(world &w) {
  STACK *result = nullptr;
  int code = pki_find_certs_by_key_hash(EVP_sha1(), w.hash, 20, &result);
  return free_result(code, result);
}

int find_rules(world &w) {
  support::status_list found;
  return pki_find_sts_query_info(w.ca.get(), w.held.get(), found) != 81;
}

int find_global_rules(world &w) {
  support::status_list found;
  return pki_find_sts_query_info(nullptr, w.held.get(), found) != 81;
}

int find_ca(ca_info *found) {
  free_ca_info(found);
  return !found;
}

int all_cas(world &) {
  STACK *all = pki_get_all_ca_infos();
  free_ca_infos(all);
  return !all;
}

int add_crl_rule(world &w) {
  STACK *sources = OPENSSL_sk_new_null();
  int code = pki_add_crl_info(w.ca.get(), w.rules, sources, 0, 0);
  OPENSSL_sk_free(sources);
  return code;
}

const std::vector<operation> &operations() {
  static const std::vector<operation> all = {
      {"AddUntrustedCert", true, [](world &w) { return pki_add_untrusted_cert(w.fresh.get(), 0); }},
      {"AddUntrustedCerts", true, [](world &w) { return pki_add_untrusted_certs(w.one, 1); }},
      {"FindCertsBySubject", true, find_by_subject},
      {"FindCertsByIssuerSerial", true, find_by_issuer_serial},
      {"FindCertsByKeyHash", true, find_by_key_hash},
      {"AddCaInfo", false, [](world &w) { return pki_add_ca_info(w.ca.get()); }},
      {"FindCaByLabel", false, [](world &) { return find_ca(pki_find_ca_info_by_label("ca")); }},
      {"FindCaByIssuer", false,
       [](world &w) { return find_ca(pki_find_ca_info_by_issuer(w.ca->issuer_name)); }},
      {"GetAllCas", false, all_cas},
      {"RemoveCa", false, [](world &) { return pki_remove_ca("ca"); }},
      {"AddCert", false,
       [](world &w) { return pki_add_cert(pki_store->provisioned_certs, w.fresh.get()); }},
      {"AddTrustedCert", false,
       [](world &w) { return pki_add_trusted_cert(w.fresh.get(), w.ca.get()); }},
      {"DeleteCert", false,
       [](world &w) { return pki_delete_cert(pki_store->collected_certs, w.held.get()); }},
      {"DeleteUntrustedCert", false,
       [](world &w) { return pki_delete_untrusted_cert(w.held.get()) != 52; }},
      {"DeleteTrustedCert", false,
       [](world &w) { return pki_delete_trusted_cert(w.held.get(), w.ca.get()) != 52; }},
      {"DeleteTrustedCertEverywhere", false,
       [](world &w) { return pki_delete_trusted_cert(w.held.get(), nullptr); }},
      {"AddAokRule", false, [](world &w) { return pki_add_aok_info(w.ca.get(), w.rules, 0); }},
      {"AddGlobalRule", false, [](world &w) { return pki_add_aok_info(nullptr, w.rules, 0); }},
      {"AddCrlRule", false, add_crl_rule},
      {"AddOcspRule", false,
       [](world &w) {
         return pki_add_ocsp_info(w.ca.get(), w.rules, "http://ocsp.example/", nullptr, 0, 0, 0);
       }},
      {"FindRules", false, find_rules},
      {"FindGlobalRules", false, find_global_rules},
      {"RemoveKey", false, [](world &) { return pki_remove_key("key"); }},
      {"RemoveCertificate", false, [](world &) { return pki_remove_certificate("key", "cert"); }},
  };
  return all;
}

class StoreLocks : public support::store_test, public testing::WithParamInterface<operation> {
 protected:
  void SetUp() override {
    support::store_test::SetUp();
    world_ = std::make_unique<world>();
  }
  void TearDown() override {
    world_.reset();
    support::store_test::TearDown();
  }

  std::unique_ptr<world> world_;
};

// The thread that has a read-write lock for writing is refused it again, at once.
TEST_P(StoreLocks, StoreLockIsTakenByTheFourOnly) {
  ASSERT_EQ(pthread_rwlock_wrlock(&pki::store_lock), 0);
  int code = GetParam().run(*world_);
  pthread_rwlock_unlock(&pki::store_lock);
  EXPECT_EQ(code, GetParam().uses_store_lock ? 80 : 0);
}

TEST_P(StoreLocks, BothLocksAreFreeAfterwards) {
  EXPECT_EQ(GetParam().run(*world_), 0);
  ASSERT_EQ(pthread_rwlock_trywrlock(&pki::store_lock), 0);
  pthread_rwlock_unlock(&pki::store_lock);
  ASSERT_EQ(pthread_mutex_trylock(&pki::list_mutex), 0);
  pthread_mutex_unlock(&pki::list_mutex);
}

TEST_P(StoreLocks, BothLocksAreFreeWhereverMemoryRanOut) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "the allocator cannot be made to fail in this build";
  fake_allocator::sweep(
      [&] {
        {
          fake_allocator::pause no_failures;
          world_.reset();
          support::fresh_store();
          world_ = std::make_unique<world>();
        }
        (void)GetParam().run(*world_);
      },
      [&](size_t n) {
        ASSERT_EQ(pthread_rwlock_trywrlock(&pki::store_lock), 0) << "allocation " << n;
        pthread_rwlock_unlock(&pki::store_lock);
        ASSERT_EQ(pthread_mutex_trylock(&pki::list_mutex), 0) << "allocation " << n;
        pthread_mutex_unlock(&pki::list_mutex);
      });
}

#if defined(__GLIBC__)

// The C library marks a mutex that somebody waits for.
bool somebody_waits_for(const pthread_mutex_t &mutex) {
  return __atomic_load_n(&mutex.__data.__lock, __ATOMIC_RELAXED) == 2;
}

TEST_P(StoreLocks, ListMutexIsTakenByAllAndBehindTheStoreLock) {
  std::atomic<bool> done{false};
  int code = -1;
  pthread_mutex_lock(&pki::list_mutex);
  std::thread running([&] {
    code = GetParam().run(*world_);
    done = true;
  });
  while (!done && !somebody_waits_for(pki::list_mutex))
    sched_yield();
  bool waited = !done;
  int store_lock_state = pthread_rwlock_trywrlock(&pki::store_lock);
  if (store_lock_state == 0)
    pthread_rwlock_unlock(&pki::store_lock);
  pthread_mutex_unlock(&pki::list_mutex);
  running.join();
  EXPECT_TRUE(waited);
  EXPECT_EQ(store_lock_state, GetParam().uses_store_lock ? EBUSY : 0);
  EXPECT_EQ(code, 0);
}

#endif

INSTANTIATE_TEST_SUITE_P(Operations, StoreLocks, testing::ValuesIn(operations()),
                         [](const auto &each) { return each.param.name; });

}  // namespace
