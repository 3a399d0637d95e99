// An installation that fails leaves everything as it was.
#include <atomic>
#include <thread>

#include "roots_process.h"

using namespace roots_support;

namespace {

// The library's references on a first call for the CA "root": on each root, then on each signer.
constexpr int first_signer = 5;

int set_up_without_reference(int after, unsigned char with_eng) {
  x509_store store = make_store();
  fake_failures::fail_x509_up_ref(after);
  int result = pki_ver_setup_trust_roots(store.get(), with_eng);
  fake_failures::reset();
  EXPECT_EQ(0, count_in(store));
  return result;
}

int set_up(unsigned char with_eng) {
  x509_store store = make_store();
  return pki_ver_setup_trust_roots(store.get(), with_eng);
}

void add_rule(const ca_ref &ca, const char *url) {
  rule_list none(OPENSSL_sk_new_null(), OPENSSL_sk_free);
  ASSERT_EQ(0, pki_add_ocsp_info(ca.get(), none.get(), url, nullptr, 0, 0, 0));
}

// ---- lines ----

FRESH_PROCESS_TEST(SetupUndoneDeathTest, ARootThatCannotBeHeldIsLogged) {
  EXPECT_EQ(0, set_up_without_reference(0, 0));
  EXPECT_EQ("3: failed to set up ca 'root': CRYPTO LOCK FAILED\n", log_dump());
  EXPECT_EQ(texts{}, ca_labels());
}

FRESH_PROCESS_TEST(SetupUndoneDeathTest, ARuleThatCannotBeMadeIsLoggedWithItsCa) {
  EXPECT_EQ(0, set_up_without_reference(first_signer, 0));
  EXPECT_EQ(
      "3: failed to add crl info to root 'root': OUT OF MEMORY\n"
      "3: failed to set up ca 'root': OUT OF MEMORY\n",
      own_log());
  EXPECT_EQ(texts{}, ca_labels());
}

FRESH_PROCESS_TEST(SetupUndoneDeathTest, TheEngineeringCaMayFailAfterTheOtherIsIn) {
  x509_store store = make_store();
  ASSERT_EQ(1, pki_ver_setup_trust_roots(store.get(), 0));
  clear_log();
  EXPECT_EQ(0, set_up_without_reference(0, 1));
  EXPECT_EQ("3: failed to set up ca 'engineering': CRYPTO LOCK FAILED\n", log_dump());
  EXPECT_EQ(texts{"root"}, ca_labels());

  clear_log();
  EXPECT_EQ(1, set_up(1));
  EXPECT_EQ("6: inited ca label 'engineering'\n", log_dump());
  EXPECT_EQ((texts{"root", "engineering"}), ca_labels());
  EXPECT_EQ(5, OPENSSL_sk_num(find_ca("root")->trusted_roots));
  EXPECT_EQ(5, OPENSSL_sk_num(find_ca("root")->cert_status_methods));
}

FRESH_PROCESS_TEST(SetupUndoneDeathTest, WithinOneCallTheOtherCaStaysToo) {
  // Five roots, four signers, the intermediate; then the engineering root.
  EXPECT_EQ(0, set_up_without_reference(10, 1));
  EXPECT_EQ("6: inited ca label 'root'\n3: failed to set up ca 'engineering': CRYPTO LOCK FAILED\n",
            log_dump());
  EXPECT_EQ(texts{"root"}, ca_labels());
  EXPECT_EQ(5U, root_subjects("root").size());
  EXPECT_EQ(1, set_up(1));
  EXPECT_EQ(5U, root_subjects("root").size());
  EXPECT_EQ(1U, root_subjects("engineering").size());
}

// ---- a host's CA ----

FRESH_PROCESS_TEST(SetupUndoneDeathTest, AHostsCaIsAsItWas) {
  support::cert own = device_root("host root");
  ca_ref host = add_host_ca("root", {own});
  add_rule(host, "http://host/");
  EXPECT_EQ(0, set_up_without_reference(first_signer, 0));
  EXPECT_EQ(texts{support::der(own)}, support::ders(host->trusted_roots));
  EXPECT_EQ(texts{"ocsp http://host/ / 0"}, describe(host->cert_status_methods));
}

FRESH_PROCESS_TEST(SetupUndoneDeathTest, ARootThatTheHostHeldAlreadyStays) {
  support::cert g2 = file_cert(SOURCE_DIR "/roots/public/pca3_g2.der");
  ca_ref host = add_host_ca("root", {g2});
  EXPECT_EQ(0, set_up_without_reference(first_signer, 0));
  ASSERT_EQ(1, OPENSSL_sk_num(host->trusted_roots));
  EXPECT_EQ(g2.get(), support::at<X509>(host->trusted_roots, 0));
  EXPECT_EQ(1, set_up(0));
  ASSERT_EQ(5, OPENSSL_sk_num(host->trusted_roots));
  EXPECT_EQ(g2.get(), support::at<X509>(host->trusted_roots, 0));
}

FRESH_PROCESS_TEST(SetupUndoneDeathTest, ARootOfAHostsIssuerAndSerialNumberIsNotTaken) {
  support::cert g2 = file_cert(SOURCE_DIR "/roots/public/pca3_g2.der");
  support::cert_options options;
  options.subject = support::name(X509_NAME_dup(X509_get_subject_name(g2.get())), X509_NAME_free);
  support::cert twin = support::make_cert(options);
  X509_set_serialNumber(twin.get(), X509_get_serialNumber(g2.get()));
  ASSERT_LT(0, X509_sign(twin.get(), support::test_key(0).get(), EVP_sha256()));
  ca_ref host = add_host_ca("root", {twin});
  x509_store store = make_store();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 0));
  EXPECT_EQ("6: inited ca label 'root'\n", log_dump());
  EXPECT_EQ(5, OPENSSL_sk_num(host->trusted_roots));
  EXPECT_TRUE(holds(store, twin.get()));
  EXPECT_FALSE(holds(store, g2.get()));
}

FRESH_PROCESS_TEST(SetupUndoneDeathTest, AnEngineeringRootThatFailedIsNotCopiedLater) {
  ca_ref host = add_host_ca("engineering");
  ASSERT_EQ(1, set_up(0));
  if (!fake_allocator::available())
    return;
  support::warm_up_libraries();
  int failed = 0;
  for (size_t n = 1; n < 2000; n += fake_allocator::sweep_step(7)) {
    int result = result_in_copy([n, &host] {
      x509_store store = make_store(), later = make_store();
      fake_allocator::fail_at(n);
      int first = pki_ver_setup_trust_roots(store.get(), 1);
      fake_allocator::stop_failing();
      support::clear_openssl_errors();
      if (!fake_allocator::has_failed())
        return 3;
      if (OPENSSL_sk_num(host->cert_status_methods) != 0)
        return 5;
      EXPECT_EQ(0, first);
      EXPECT_EQ(0, OPENSSL_sk_num(host->trusted_roots));
      EXPECT_EQ(1, pki_ver_setup_trust_roots(later.get(), 0));
      EXPECT_EQ(5, count_in(later));
      return 4;
    });
    ASSERT_TRUE(result >= 3 && result <= 5) << n << ": " << result;
    if (result == 3)
      break;
    failed += result == 4;
  }
  EXPECT_LT(20, failed);
}

// ---- what the host does meanwhile ----

FRESH_PROCESS_TEST(SetupUndoneDeathTest, ARuleBetweenTwoCallsStays) {
  ca_ref host = add_host_ca("engineering");
  ASSERT_EQ(1, set_up(0));
  add_rule(host, "http://before/");
  EXPECT_EQ(0, set_up_without_reference(0, 1));
  add_rule(host, "http://between/");
  EXPECT_EQ(1, set_up(1));
  EXPECT_EQ((texts{"ocsp http://before/ / 0", "ocsp http://between/ / 0", "always-ok / 3"}),
            describe(host->cert_status_methods));
}

FRESH_PROCESS_TEST(SetupUndoneDeathTest, ACaThatTheHostRemovedAfterAFailureIsMadeAnew) {
  add_host_ca("root", {device_root("host root")});
  EXPECT_EQ(0, set_up_without_reference(first_signer, 0));
  EXPECT_EQ(0, pki_remove_ca("root"));
  EXPECT_EQ(1, set_up(0));
  EXPECT_EQ(texts{"root"}, ca_labels());
  EXPECT_EQ(5U, root_subjects("root").size());
  EXPECT_EQ(5, OPENSSL_sk_num(find_ca("root")->cert_status_methods));
}

FRESH_PROCESS_TEST(SetupUndoneDeathTest, RulesThatTheHostAddsWhileItFailsStay) {
  ca_ref host = add_host_ca("root");
  std::atomic<bool> done = false;
  std::atomic<int> added = 0;
  std::thread adder([&] {
    while (!done) {
      add_rule(host, "http://host/");
      added++;
      std::this_thread::yield();
    }
  });
  for (int round = 0; round < 200 || added < 100; round++)
    EXPECT_EQ(0, set_up_without_reference(first_signer + 3, 0));
  done = true;
  adder.join();
  EXPECT_EQ(added, OPENSSL_sk_num(host->cert_status_methods));
  EXPECT_EQ(0, OPENSSL_sk_num(host->trusted_roots));
}

int ended = 0;

void call_the_store_at_the_end(void * /*parent*/, void * /*data*/, CRYPTO_EX_DATA * /*all*/,
                               int /*index*/, long /*number*/, void * /*argument*/) {
  ended++;
  find_ca("root");
}

FRESH_PROCESS_TEST(SetupUndoneDeathTest, WhatIsGivenUpIsFreedOutsideOfTheStoresLock) {
  X509_get_ex_new_index(0, nullptr, nullptr, nullptr, call_the_store_at_the_end);
  add_host_ca("root");
  EXPECT_EQ(0, set_up_without_reference(first_signer + 3, 0));
  // OpenSSL calls it before it decodes a certificate, too.
  EXPECT_EQ(5 + 5, ended);
}

}  // namespace
