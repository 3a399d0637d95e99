// References on the roots that are copied out of the store.
#include "roots_process.h"

using namespace roots_support;

namespace {

int ended = 0;

void count_end(void * /*parent*/, void *data, CRYPTO_EX_DATA * /*all*/, int /*index*/,
               long /*number*/, void * /*argument*/) {
  ended += data != nullptr;
}

// From now on its end is counted.
void watch(X509 *cert) {
  static int index = X509_get_ex_new_index(0, nullptr, nullptr, nullptr, count_end);
  X509_set_ex_data(cert, index, &ended);
}

FRESH_PROCESS_TEST(SetupReferencesDeathTest, ARootThatCannotBeHeldFailsTheCopying) {
  x509_store first = make_store();
  ASSERT_EQ(1, pki_ver_setup_trust_roots(first.get(), 0));
  first.reset();
  for (int i = 0; i < 5; i++)
    watch(root_of("root", i));
  for (int i = 0; i < 5; i++) {
    x509_store second = make_store();
    clear_log();
    fake_failures::fail_x509_up_ref(i);
    EXPECT_EQ(0, pki_ver_setup_trust_roots(second.get(), 0));
    fake_failures::reset();
    EXPECT_EQ("3: Failed to add a root cert to cert store:\n", log_dump()) << i;
    EXPECT_EQ(0, count_in(second)) << i;
  }
  x509_store third = make_store();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(third.get(), 0));
  EXPECT_EQ(5, count_in(third));
  EXPECT_EQ(0, pki_remove_ca("root"));
  EXPECT_EQ(0, ended);
  third.reset();
  EXPECT_EQ(5, ended);
}

FRESH_PROCESS_TEST(SetupReferencesDeathTest, WhatOpensslSaysFollowsTheLineAboutCopying) {
  ca_ref host = add_host_ca("other");
  OPENSSL_sk_push(host->trusted_roots, nullptr);
  x509_store store = make_store();
  EXPECT_EQ(0, pki_ver_setup_trust_roots(store.get(), 0));
  std::vector<log_entry> log = captured_log();
  ASSERT_EQ(3U, log.size()) << log_dump();
  EXPECT_EQ((log_entry{3, "Failed to add a root cert to cert store:"}), log[1]);
  EXPECT_EQ(0U, log[2].text.rfind("OpenSSL error: ", 0)) << log_dump();
  EXPECT_EQ(3, log[2].level);
  EXPECT_EQ(0UL, ERR_peek_error());
}

FRESH_PROCESS_TEST(SetupReferencesDeathTest, ARootThatCannotBeHeldIsNotAskedAbout) {
  support::cert host = device_root("host");
  support::cert copy(X509_dup(host.get()), X509_free);
  add_host_ca("engineering", {device_root("in front", 2), host});
  watch(host.get());
  for (int after : {0, 1}) {
    clear_log();
    fake_failures::fail_x509_up_ref(after);
    EXPECT_EQ(0, pki_ver_eng_root(copy.get()));
    fake_failures::reset();
    EXPECT_EQ("3: Failed to get eng root\n", log_dump()) << after;
  }
  EXPECT_EQ(1, pki_ver_eng_root(copy.get()));
  host.reset();
  EXPECT_EQ(0, ended);
  EXPECT_EQ(0, pki_remove_ca("engineering"));
  EXPECT_EQ(1, ended);
}

FRESH_PROCESS_TEST(SetupReferencesDeathTest, RootsThatMemoryIsMissingForAreNotAskedAbout) {
  if (!fake_allocator::available())
    return;
  support::warm_up_libraries();
  support::cert host = device_root("host");
  add_host_ca("engineering", {host});
  ASSERT_EQ(1, pki_ver_eng_root(host.get()));
  size_t failures = fake_allocator::sweep(
      [&] {
        clear_log();
        pki_ver_eng_root(host.get());
      },
      [&](size_t n) {
        EXPECT_EQ("3: Failed to get eng root\n", own_log()) << n;
        EXPECT_EQ(0UL, ERR_peek_error());
      });
  EXPECT_LT(0U, failures);
}

}  // namespace
