// Provisioning waits for the network and so must hold no lock of the store.
#include <gtest/gtest.h>
#include <libpki/libpki.h>

#include <string>

#include "pki/internal.h"
#include "support/ca_info_doc.h"
#include "support/certs.h"
#include "support/store_fixture.h"
#include "support/test_server.h"

namespace {

class ProvisionLocks : public support::store_test {
 protected:
  support::key doc_key = support::test_key(0);
  support::answer document =
      support::ok(support::sign_document(support::sample().document, doc_key));
};

TEST_F(ProvisionLocks, NoLockIsHeldDuringTheDownload) {
  int rwlock = -1, mutex = -1;
  support::test_server server([&](const std::string &) {
    rwlock = pthread_rwlock_trywrlock(&pki::store_lock);
    if (rwlock == 0)
      pthread_rwlock_unlock(&pki::store_lock);
    mutex = pthread_mutex_trylock(&pki::list_mutex);
    if (mutex == 0)
      pthread_mutex_unlock(&pki::list_mutex);
    return document;
  });
  EXPECT_EQ(pki_add_ca("label", server.url().c_str(), doc_key.get()), PKI_OK);
  EXPECT_EQ(rwlock, 0);
  EXPECT_EQ(mutex, 0);
}

TEST_F(ProvisionLocks, StoreLockIsNotTaken) {
  support::test_server server({document});
  ASSERT_EQ(pthread_rwlock_wrlock(&pki::store_lock), 0);
  EXPECT_EQ(pki_add_ca("label", server.url().c_str(), doc_key.get()), PKI_OK);
  pthread_rwlock_unlock(&pki::store_lock);
}

TEST_F(ProvisionLocks, LocksAreFreeAfterAFailure) {
  support::test_server server({support::ok(support::sign_document("<x>", doc_key))});
  EXPECT_EQ(pki_add_ca("label", server.url().c_str(), doc_key.get()), PKI_XML_CA_PTR_PARSE_ERROR);
  EXPECT_EQ(pthread_mutex_trylock(&pki::list_mutex), 0);
  pthread_mutex_unlock(&pki::list_mutex);
  EXPECT_EQ(pthread_rwlock_trywrlock(&pki::store_lock), 0);
  pthread_rwlock_unlock(&pki::store_lock);
}

}  // namespace
