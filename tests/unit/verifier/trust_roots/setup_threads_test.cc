// Several threads that set the roots up at once.
#include "../cache_support.h"
#include "roots_process.h"

using namespace roots_support;

namespace {

constexpr int threads = 8;

void expect_each_root_once() {
  EXPECT_EQ(5, OPENSSL_sk_num(find_ca("root")->trusted_roots));
  EXPECT_EQ(5, OPENSSL_sk_num(find_ca("root")->cert_status_methods));
  EXPECT_EQ(1, OPENSSL_sk_num(find_ca("engineering")->trusted_roots));
  EXPECT_EQ(1, OPENSSL_sk_num(find_ca("engineering")->cert_status_methods));
  EXPECT_EQ(1, OPENSSL_sk_num(pki_store->provisioned_certs));
  EXPECT_EQ(1U, count_logged(6, "inited ca label 'root'"));
  EXPECT_EQ(1U, count_logged(6, "inited ca label 'engineering'"));
}

FRESH_PROCESS_TEST(SetupThreadsDeathTest, EachGetsAllRootsAndTheyAreInstalledOnce) {
  device.write("device.pem", device_root("device"));
  std::vector<x509_store> stores(threads);
  for (x509_store &store : stores)
    store = make_store();
  cache_support::in_threads(threads, [&](int i) {
    EXPECT_EQ(1, pki_ver_setup_trust_roots(stores[static_cast<size_t>(i)].get(), 1));
  });
  expect_each_root_once();
  EXPECT_EQ(3U, ca_labels().size());
  EXPECT_EQ(1U, root_subjects("other").size());
  for (const x509_store &store : stores)
    EXPECT_EQ(7, count_in(store));
}

FRESH_PROCESS_TEST(SetupThreadsDeathTest, OneX509StoreCanBeShared) {
  x509_store store = make_store();
  cache_support::in_threads(threads,
                            [&](int) { EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 1)); });
  expect_each_root_once();
  EXPECT_EQ(6, count_in(store));
}

FRESH_PROCESS_TEST(SetupThreadsDeathTest, SomeAskForTheEngineeringRootAndOthersLookForIt) {
  support::cert root = file_cert(vendor_file("engineering_root.der"));
  ASSERT_TRUE(root);
  support::cert stranger = device_root("stranger");
  cache_support::in_threads(threads, [&](int i) {
    x509_store store = make_store();
    for (int round = 0; round < 20; round++) {
      if (i % 2 == 0) {
        EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), i % 4 == 0));
      }
      pki_ver_eng_root(root.get());
      EXPECT_EQ(0, pki_ver_eng_root(stranger.get()));
    }
  });
  expect_each_root_once();
}

}  // namespace
