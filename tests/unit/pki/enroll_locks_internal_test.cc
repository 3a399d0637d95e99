// Enrollment and key generation take long, and so must hold no lock of the store meanwhile.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "pki/internal.h"
#include "unit/pki/enroll_fixture.h"

namespace {

using support::scep_ca;
using support::scep_reply;

class EnrollLocks : public support::enroll_test {
 protected:
  static int try_store_lock() {
    int error = pthread_rwlock_trywrlock(&pki::store_lock);
    if (error == 0)
      pthread_rwlock_unlock(&pki::store_lock);
    return error;
  }
  static int try_list_mutex() {
    int error = pthread_mutex_trylock(&pki::list_mutex);
    if (error == 0)
      pthread_mutex_unlock(&pki::list_mutex);
    return error;
  }
  static void expect_free_locks() {
    EXPECT_EQ(try_store_lock(), 0);
    EXPECT_EQ(try_list_mutex(), 0);
  }
  // The thread that has a read-write lock for writing is refused it again, at once.
  template <class Operation>
  static int without_store_lock(Operation operation) {
    EXPECT_EQ(pthread_rwlock_wrlock(&pki::store_lock), 0);
    int code = operation();
    pthread_rwlock_unlock(&pki::store_lock);
    return code;
  }
  // What trying both locks gave at each answer of the CA.
  std::vector<int> tried;
  scep_reply trying(scep_reply reply) {
    reply.change = [this](const std::string &message) {
      tried.push_back(try_store_lock());
      tried.push_back(try_list_mutex());
      return message;
    };
    return reply;
  }
};

TEST_F(EnrollLocks, NoLockIsHeldDuringTheExchange) {
  fake_clock::frozen clock(1700000000);
  scep_ca ca({trying(support::pending()), trying({})});
  add_ca(ca);
  EXPECT_EQ(pki_get_certificate("ca", "key", "cert", nullptr), PKI_OK);
  EXPECT_EQ(tried, std::vector<int>(4, 0));
  expect_free_locks();
}

TEST_F(EnrollLocks, NoLockIsHeldBetweenThePolls) {
  fake_clock::frozen clock(1700000000);
  scep_ca ca(support::pending_then(3));
  add_ca(ca);
  fake_clock::on_sleep([this](size_t) {
    tried.push_back(try_store_lock());
    tried.push_back(try_list_mutex());
  });
  EXPECT_EQ(pki_get_certificate("ca", "key", "cert", nullptr), PKI_OK);
  EXPECT_EQ(tried, std::vector<int>(6, 0));
}

TEST_F(EnrollLocks, StoreLockIsNotTakenForACertificate) {
  scep_ca ca;
  add_ca(ca);
  EXPECT_EQ(
      without_store_lock([] { return pki_get_certificate("ca", "key", "cert", "CN=device"); }),
      PKI_OK);
  EXPECT_EQ(filed(), 1);
}

TEST_F(EnrollLocks, StoreLockIsNotTakenForAKey) {
  EXPECT_EQ(without_store_lock([] { return pki_generate_key_pair("new", "RSA", 512); }), PKI_OK);
  expect_free_locks();
}

TEST_F(EnrollLocks, StoreLockIsNotTakenToRemoveWhatWasEnrolled) {
  ASSERT_EQ(enroll_with({}), PKI_OK);
  EXPECT_EQ(without_store_lock([] { return pki_remove_certificate("key", "cert"); }), PKI_OK);
  EXPECT_EQ(provisioned(), std::vector<std::string>());
  ASSERT_EQ(enroll_with({}), PKI_OK);
  EXPECT_EQ(without_store_lock([] { return pki_remove_key("key"); }), PKI_OK);
  EXPECT_EQ(provisioned(), std::vector<std::string>());
  expect_free_locks();
}

TEST_F(EnrollLocks, LocksAreFreeAfterAFailure) {
  EXPECT_EQ(enroll_with(support::refusal(2)), PKI_SCEP_REQ_REJ);
  expect_free_locks();
  EXPECT_EQ(enroll_with({}, nullptr), PKI_OUT_OF_MEMORY);
  expect_free_locks();
  EXPECT_EQ(pki_generate_key_pair("new", "DSA", 0), PKI_UNKNOWN_KEY_ALG);
  EXPECT_EQ(pki_remove_key("unknown"), PKI_NO_SUCH_CA);
  EXPECT_EQ(pki_remove_certificate("key", "unknown"), PKI_NO_SUCH_CERT);
  expect_free_locks();
}

}  // namespace
