// What a registration that fails says and leaves behind. Each case runs in a process of its own,
// because OpenSSL keeps registered objects until the process ends.
#include <gtest/gtest.h>
#include <libpki/oids.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "fakes/allocator.h"
#include "fakes/log_capture.h"
#include "support/certs.h"
#include "unit/common/oids_process.h"

namespace {

const char no_list[] = "couldn't allocate nid-list - out of memory";
const char no_element[] = "couldn't allocate nid-list element - probably out of memory";
// An arc of this test's own.
const char other_oid[] = "1.3.6.1.4.1.32473.99.1";

// What OpenSSL sets up once a process is none of the registration's allocations, and OpenSSL does
// not try again when that fails.
void warm_up_openssl() {
  OPENSSL_init_crypto(0, nullptr);
  ASN1_OBJECT_free(OBJ_txt2obj("1.3.6.1.4.1.32473.99.2", 1));
  OBJ_txt2nid("no-such-object");
  OBJ_create("1.3.6.1.4.1.32473.99.3", "warm-up", nullptr);
  support::raise_openssl_error(101);
  support::clear_openssl_errors();
  clear_log();
}

bool known_by_identifier(int nid) {
  char oid[100];
  OBJ_obj2txt(oid, sizeof oid, OBJ_nid2obj(nid), 1);
  ASN1_OBJECT *object = OBJ_txt2obj(oid, 1);
  bool known = object && OBJ_obj2nid(object) == nid;
  ASN1_OBJECT_free(object);
  return known;
}

// Every object is found by its number, short name and identifier.
bool registered_all() {
  const char *names[] = {"zelvo",
                         "zelvo-pki",
                         "cert-req-attrs",
                         "qrn-serial-number",
                         "qrn-secret",
                         "truncated-crl",
                         "verisign",
                         "verisign-pki",
                         "verisign-attributes",
                         "verisign-message-type",
                         "verisign-pki-status",
                         "verisign-failure-info",
                         "verisign-sender-nonce",
                         "verisign-recip-nonce",
                         "verisign-trans-id",
                         "verisign-extension-req",
                         "verisign-version",
                         "verisign-dualstatus"};
  for (int i = 0; i < PKI_OID_COUNT; i++) {
    const char *name = OBJ_nid2sn(pki_nid_list[i]);
    if (!name || std::string(name) != names[i] || OBJ_sn2nid(name) != pki_nid_list[i] ||
        !known_by_identifier(pki_nid_list[i]))
      return false;
  }
  return true;
}

class OidsFailures : public testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
  void TearDown() override { GTEST_FLAG_SET(death_test_style, "fast"); }
};

void no_memory_for_the_list() {
  warm_up_openssl();
  fake_allocator::fail_at(1);
  int result = pki_register_oids();
  fake_allocator::stop_failing();
  EXPECT_EQ(result, 0);
  std::vector<log_entry> expected = {{0, no_list}};
  EXPECT_EQ(captured_log(), expected) << log_dump();

  EXPECT_EQ(pki_register_oids(), 1);
  EXPECT_TRUE(registered_all());
}
TEST_F(OidsFailures, NoMemoryForTheListIsLoggedAndALaterCallSucceeds) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be told to fail";
  IN_A_FRESH_PROCESS(no_memory_for_the_list);
}

// A host that uses one of the short names for something else makes OBJ_create fail.
void short_name_is_taken() {
  OBJ_create(other_oid, "qrn-secret", nullptr);
  support::clear_openssl_errors();
  clear_log();
  EXPECT_EQ(pki_register_oids(), 0);
  std::vector<log_entry> log = captured_log();
  ASSERT_GE(log.size(), 2u) << log_dump();
  EXPECT_EQ(log[0], (log_entry{0, no_element}));
  for (size_t i = 1; i < log.size(); i++) {
    EXPECT_EQ(log[i].level, 0);
    EXPECT_EQ(log[i].text.rfind("OpenSSL error: error:", 0), 0u) << log[i].text;
  }
  EXPECT_EQ(ERR_peek_error(), 0ul);
}
TEST_F(OidsFailures, AnObjectThatCannotBeCreatedIsLoggedAtLevel0WithOpensslsErrors) {
  IN_A_FRESH_PROCESS(short_name_is_taken);
}

void failure_leaves_it_unregistered() {
  OBJ_create(other_oid, "qrn-secret", nullptr);
  EXPECT_EQ(pki_register_oids(), 0);
  clear_log();
  EXPECT_EQ(pki_register_oids(), 0);
  EXPECT_TRUE(was_logged(0, no_element)) << log_dump();
  pki_cleanup_oids();  // nothing is registered: must not free the list a second time
}
TEST_F(OidsFailures, AFailedRegistrationLeavesNothingRegistered) {
  IN_A_FRESH_PROCESS(failure_leaves_it_unregistered);
}

void list_keeps_its_address() {
  OBJ_create(other_oid, "qrn-secret", nullptr);
  EXPECT_EQ(pki_nid_list, nullptr);
  EXPECT_EQ(pki_register_oids(), 0);
  EXPECT_NE(pki_nid_list, nullptr);
}
TEST_F(OidsFailures, TheFreedListsAddressStays) {
  IN_A_FRESH_PROCESS(list_keeps_its_address);
}

// Exit codes of one run of the sweep below.
enum outcome { failed_cleanly = 10, nothing_failed, wrong_success, wrong_log, no_recovery };

// One registration with the n-th allocation failing.
outcome register_with_failure(size_t n, bool stay_failed) {
  fake_allocator::fail_at(n, stay_failed);
  int result = pki_register_oids();
  bool failed = fake_allocator::has_failed();
  fake_allocator::stop_failing();
  if (result == 1 && !registered_all())
    return wrong_success;
  if (result == 0 && !was_logged(0, n == 1 ? no_list : no_element))
    return wrong_log;
  if (pki_register_oids() != 1 || !registered_all())
    return no_recovery;
  return failed ? failed_cleanly : nothing_failed;
}

void fail_every_allocation(bool stay_failed) {
  warm_up_openssl();
  for (size_t n = 1;; n++) {
    ASSERT_LT(n, 2000u);
    pid_t child = fork();
    if (child == 0)
      _exit(register_with_failure(n, stay_failed));
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status)) << "allocation " << n << ", status " << status;
    if (WEXITSTATUS(status) == nothing_failed) {
      EXPECT_GT(n, 18u);
      return;
    }
    EXPECT_EQ(WEXITSTATUS(status), failed_cleanly) << "allocation " << n;
  }
}

void fail_one_allocation() {
  fail_every_allocation(false);
}
void fail_all_from_one_on() {
  fail_every_allocation(true);
}

TEST_F(OidsFailures, AnyFailedAllocationIsLoggedAndALaterCallSucceeds) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be told to fail";
  IN_A_FRESH_PROCESS(fail_one_allocation);
}

TEST_F(OidsFailures, MemoryThatStaysOutIsLoggedAndALaterCallSucceeds) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be told to fail";
  IN_A_FRESH_PROCESS(fail_all_from_one_on);
}

}  // namespace
