#include <gtest/gtest.h>
#include <libpki/libpki.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/provider.h>
#include <signal.h>

#include <cerrno>
#include <clocale>
#include <string>
#include <thread>
#include <vector>

#include "fakes/allocator.h"
#include "fakes/clock.h"
#include "fakes/failures.h"
#include "fakes/log_capture.h"
#include "support/ca_info_doc.h"
#include "support/certs.h"
#include "support/descriptors.h"
#include "support/test_server.h"
#include "unit/pki/lifecycle_process.h"

namespace {

using lines = std::vector<log_entry>;

std::vector<STACK *> store_lists() {
  return {pki_store->key_store, pki_store->ca_infos, pki_store->provisioned_certs,
          pki_store->collected_certs, pki_store->global_status_rules};
}

void store_is_empty_before_init() {
  ASSERT_NE(pki_store, nullptr);
  EXPECT_EQ(store_lists(), std::vector<STACK *>(5, nullptr));
}

TEST(LibpkiInitDeathTest, StoreHasNoListsBefore) {
  EXPECT_IN_FRESH_PROCESS(store_is_empty_before_init);
}

// A document with an additional certificate, and one without.
void no_ca_is_added_before_init() {
  support::key doc_key = support::test_key(0);
  for (const std::string &document : {support::sample().document, support::ca_info_doc("")}) {
    support::test_server server({support::ok(support::sign_document(document, doc_key))});
    fake_failures::fill_serialnumber('s');  // no board is set up here
    EXPECT_EQ(pki_add_ca("label", server.url().c_str(), doc_key.get()), PKI_OUT_OF_MEMORY);
    EXPECT_EQ(server.requests().size(), 1u);
  }
  EXPECT_EQ(store_lists(), std::vector<STACK *>(5, nullptr));
}

TEST(LibpkiInitDeathTest, NoCaIsAddedBefore) {
  EXPECT_IN_FRESH_PROCESS(no_ca_is_added_before_init);
}

void no_key_is_made_before_init() {
  EXPECT_EQ(pki_generate_key_pair("key", "RSA", 1024), PKI_OUT_OF_MEMORY);
  EXPECT_EQ(pki_generate_key_pair("key", "DSA", 1024), PKI_UNKNOWN_KEY_ALG);
  EXPECT_EQ(pki_generate_key_pair(nullptr, "RSA", 1024), PKI_INVALID_ARGS);
  EXPECT_EQ(store_lists(), std::vector<STACK *>(5, nullptr));
}

TEST(LibpkiInitDeathTest, NoKeyIsMadeBefore) {
  EXPECT_IN_FRESH_PROCESS(no_key_is_made_before_init);
}

void nothing_is_enrolled_or_removed_before_init() {
  EXPECT_EQ(pki_get_certificate("ca", "key", "cert", nullptr), PKI_NO_SUCH_CA);
  EXPECT_EQ(pki_remove_ca("ca"), PKI_NO_SUCH_CA);
  EXPECT_EQ(pki_remove_key("key"), PKI_NO_SUCH_CA);
  EXPECT_EQ(pki_remove_certificate("key", "cert"), PKI_NO_SUCH_KEY);
}

TEST(LibpkiInitDeathTest, NothingIsEnrolledOrRemovedBefore) {
  EXPECT_IN_FRESH_PROCESS(nothing_is_enrolled_or_removed_before_init);
}

void first_call_makes_five_empty_lists() {
  EXPECT_EQ(libpki_init(), 0);
  for (STACK *list : store_lists()) {
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(OPENSSL_sk_num(list), 0);
  }
}

TEST(LibpkiInitDeathTest, MakesFiveEmptyLists) {
  EXPECT_IN_FRESH_PROCESS(first_call_makes_five_empty_lists);
}

void says_only_that_it_is_initialized() {
  EXPECT_EQ(libpki_init(), 0);
  EXPECT_EQ(captured_log(), (lines{{6, "pki initialized"}})) << log_dump();
  EXPECT_TRUE(fake_clock::sleeps().empty());
}

TEST(LibpkiInitDeathTest, SaysThatItIsInitialized) {
  EXPECT_IN_FRESH_PROCESS(says_only_that_it_is_initialized);
}

void registers_the_objects() {
  EXPECT_EQ(libpki_init(), 0);
  ASSERT_NE(pki_nid_list, nullptr);
  EXPECT_EQ(OBJ_txt2nid("qrn-serial-number"), pki_nid_list[PKI_OID_SERIAL_NUMBER]);
  EXPECT_EQ(OBJ_txt2nid("verisign-dualstatus"), pki_nid_list[PKI_OID_SCEP_DUAL_STATUS]);
}

TEST(LibpkiInitDeathTest, RegistersTheObjects) {
  EXPECT_IN_FRESH_PROCESS(registers_the_objects);
}

void sets_the_caches_up() {
  EXPECT_EQ(libpki_init(), 0);
  support::cert cert = support::make_ca("ca");
  cert_sts_info *status =
      cv_alloc_cert_sts_info(PKI_CERT_OK, cert.get(), support::make_time(2000000000).get());
  EXPECT_EQ(zv_cv_add_cert_sts_info_cache(status), 0);
  EXPECT_EQ(zv_cv_clear_cert_sts_info_cache(), 0);
  cv_free_cert_sts_info(status);
  EXPECT_EQ(zv_cv_add_crl_to_cache(support::make_crl().get(), nullptr), 0);
  EXPECT_EQ(zv_cv_clear_crl_cache(), 0);
}

TEST(LibpkiInitDeathTest, SetsTheCachesUp) {
  EXPECT_IN_FRESH_PROCESS(sets_the_caches_up);
}

void moves_queued_errors_into_the_log() {
  support::raise_openssl_error(5);
  EXPECT_EQ(libpki_init(), 0);
  EXPECT_EQ(ERR_peek_error(), 0u);
  lines log = captured_log();
  ASSERT_EQ(log.size(), 2u) << log_dump();
  EXPECT_EQ(log[0].level, 3);
  EXPECT_EQ(log[0].text.find("OpenSSL error: "), 0u) << log[0].text;
  EXPECT_EQ(log[1], (log_entry{6, "pki initialized"}));
}

TEST(LibpkiInitDeathTest, MovesQueuedOpenSslErrorsIntoTheLog) {
  EXPECT_IN_FRESH_PROCESS(moves_queued_errors_into_the_log);
}

void second_call_does_nothing() {
  EXPECT_EQ(libpki_init(), 0);
  std::vector<STACK *> lists = store_lists();
  int32_t *objects = pki_nid_list;
  int nid = OBJ_new_nid(0);
  clear_log();
  fake_failures::reset();
  fake_allocator::stop_failing();
  EXPECT_EQ(libpki_init(), 16);
  EXPECT_EQ(fake_allocator::allocations(), 0u);
  EXPECT_EQ(store_lists(), lists);
  EXPECT_EQ(pki_nid_list, objects);
  EXPECT_EQ(OBJ_new_nid(0), nid);
  EXPECT_EQ(log_dump(), "");
  EXPECT_EQ(fake_failures::wrlock_calls(), 0);
}

TEST(LibpkiInitDeathTest, SecondCallReturns16AndDoesNothing) {
  EXPECT_IN_FRESH_PROCESS(second_call_does_nothing);
}

void other_threads_call_is_a_second_call() {
  EXPECT_EQ(libpki_init(), 0);
  int code = -1;
  std::thread([&] { code = libpki_init(); }).join();
  EXPECT_EQ(code, 16);
}

TEST(LibpkiInitDeathTest, SecondCallMayComeFromAnotherThread) {
  EXPECT_IN_FRESH_PROCESS(other_threads_call_is_a_second_call);
}

void term_leaves_everything() {
  libpki_term();
  EXPECT_EQ(libpki_init(), 0);
  support::cert held = support::make_ca("ca");
  EXPECT_EQ(pki_add_untrusted_cert(held.get(), 1), 0);
  std::vector<STACK *> lists = store_lists();
  clear_log();
  libpki_term();
  EXPECT_EQ(store_lists(), lists);
  EXPECT_EQ(OPENSSL_sk_num(pki_store->provisioned_certs), 1);
  EXPECT_EQ(log_dump(), "");
  EXPECT_EQ(libpki_init(), 16);
  EXPECT_EQ(store_lists(), lists);
}

TEST(LibpkiInitDeathTest, TermLeavesTheStoreAndTheNextCallReturns16) {
  EXPECT_IN_FRESH_PROCESS(term_leaves_everything);
}

void host_keeps_its_settings() {
  std::string locale = setlocale(LC_ALL, nullptr);
  struct sigaction before, after;
  sigaction(SIGPIPE, nullptr, &before);
  long descriptors = support::open_descriptors();
  fake_failures::reset();
  EXPECT_EQ(libpki_init(), 0);
  sigaction(SIGPIPE, nullptr, &after);
  EXPECT_EQ(fake_failures::host_setting_calls(), 0);
  EXPECT_EQ(log_setup_calls(), 0);
  EXPECT_EQ(before.sa_handler, after.sa_handler);
  EXPECT_EQ(setlocale(LC_ALL, nullptr), locale);
  EXPECT_EQ(support::open_descriptors(), descriptors);
}

TEST(LibpkiInitDeathTest, LeavesTheHostItsSettings) {
  EXPECT_IN_FRESH_PROCESS(host_keeps_its_settings);
}

void default_context_is_openssls_own() {
  EXPECT_EQ(libpki_init(), 0);
  EXPECT_EQ(OSSL_PROVIDER_available(nullptr, "legacy"), 0);
  EXPECT_NE(support::make_key(), nullptr);
  EXPECT_EQ(OSSL_PROVIDER_available(nullptr, "default"), 1);
}

TEST(LibpkiInitDeathTest, LeavesOpenSslsDefaultContextAlone) {
  EXPECT_IN_FRESH_PROCESS(default_context_is_openssls_own);
}

// The caches' locks are made first, so that the next one is the store's.
void store_lock_cannot_be_made() {
  support::warm_up_libraries();
  pki_register_oids();
  zv_cv_init();
  zv_crl_init();
  fake_failures::fail_rwlock_init(ENOMEM);
  libpki_init();
}

TEST(LibpkiInitDeathTest, StopsTheProcessWhenTheStoreLockCannotBeMade) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(store_lock_cannot_be_made(), testing::KilledBySignal(SIGABRT),
              "pki.*libpki_init.*rc == 0");
}

}  // namespace
