// What the built-in roots put into the store and into an X509_STORE.
#include "roots_process.h"

using namespace roots_support;

namespace {

const texts public_subjects = {
    "/C=US/O=VeriSign, Inc./OU=Class 3 Public Primary Certification Authority",
    "/C=US/O=VeriSign, Inc./OU=Class 3 Public Primary Certification Authority - G2"
    "/OU=(c) 1998 VeriSign, Inc. - For authorized use only/OU=VeriSign Trust Network",
    "/C=US/O=VeriSign, Inc./OU=VeriSign Trust Network"
    "/OU=(c) 1999 VeriSign, Inc. - For authorized use only"
    "/CN=VeriSign Class 3 Public Primary Certification Authority - G3"};

FRESH_PROCESS_TEST(SetupTrustRootsDeathTest, TheRootCaHoldsFiveRootsInOrder) {
  x509_store store = make_store();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 0));
  EXPECT_EQ(texts{"root"}, ca_labels());
  texts subjects = root_subjects("root");
  ASSERT_EQ(5U, subjects.size());
  EXPECT_EQ(public_subjects, texts(subjects.begin(), subjects.begin() + 3));
  texts roots = support::ders(find_ca("root")->trusted_roots);
  EXPECT_EQ("a4b6b3996fc2f306b3fd8681bd63413d8c5009cc4fa329c2ccf0e2fa1b140305", sha256(roots[0]));
  EXPECT_EQ("83ce3c1229688a593d485f81973c0f9195431eda37cc5e36430e79c7a888638b", sha256(roots[1]));
  EXPECT_EQ("eb04cf5eb1f39afa762f2bb120f296cba520c1b97db1589565b81cb9a17b7244", sha256(roots[2]));
  EXPECT_EQ(file_octets(vendor_file("corporate_root.der")), roots[3]);
  EXPECT_EQ(file_octets(vendor_file("emergency_root.der")), roots[4]);
}

FRESH_PROCESS_TEST(SetupTrustRootsDeathTest, TheInstallationIsLogged) {
  x509_store store = make_store();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 0));
  EXPECT_EQ("6: inited ca label 'root'\n", log_dump());
}

FRESH_PROCESS_TEST(SetupTrustRootsDeathTest, TheIntermediateIsProvisionedAndNotTrusted) {
  x509_store store = make_store();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 1));
  texts provisioned = support::ders(pki_store->provisioned_certs);
  ASSERT_EQ(1U, provisioned.size());
  EXPECT_EQ(903U, provisioned[0].size());
  EXPECT_EQ("00bd2b0edd8340b1746cc395c0e355b2165853fdb93c52dadda8228b07002dce",
            sha256(provisioned[0]));
  EXPECT_EQ(0, OPENSSL_sk_num(pki_store->collected_certs));
  EXPECT_FALSE(holds(store, support::at<X509>(pki_store->provisioned_certs, 0)));
}

FRESH_PROCESS_TEST(SetupTrustRootsDeathTest, AllRootsAreCopiedIntoTheX509Store) {
  x509_store store = make_store();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 0));
  EXPECT_EQ(5, count_in(store));
  for (int i = 0; i < 5; i++)
    EXPECT_TRUE(holds(store, root_of("root", i))) << i;
}

FRESH_PROCESS_TEST(SetupTrustRootsDeathTest, AStoreThatHoldsTheRootsAlreadyIsFine) {
  x509_store store = make_store();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 1));
  EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 1));
  EXPECT_EQ(6, count_in(store));
}

FRESH_PROCESS_TEST(SetupTrustRootsDeathTest, ASecondCallBuildsNothingInAgain) {
  x509_store first = make_store(), second = make_store();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(first.get(), 1));
  clear_log();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(second.get(), 1));
  EXPECT_EQ("", log_dump());
  EXPECT_EQ((texts{"root", "engineering"}), ca_labels());
  EXPECT_EQ(5, OPENSSL_sk_num(find_ca("root")->trusted_roots));
  EXPECT_EQ(5, OPENSSL_sk_num(find_ca("root")->cert_status_methods));
  EXPECT_EQ(1, OPENSSL_sk_num(find_ca("engineering")->trusted_roots));
  EXPECT_EQ(1, OPENSSL_sk_num(find_ca("engineering")->cert_status_methods));
  EXPECT_EQ(1, OPENSSL_sk_num(pki_store->provisioned_certs));
  EXPECT_EQ(6, count_in(second));
}

FRESH_PROCESS_TEST(SetupTrustRootsDeathTest, ACaThatTheHostRemovedStaysAway) {
  x509_store first = make_store(), second = make_store();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(first.get(), 0));
  EXPECT_EQ(0, pki_remove_ca("root"));
  EXPECT_EQ(1, pki_ver_setup_trust_roots(second.get(), 0));
  EXPECT_EQ(texts{}, ca_labels());
  EXPECT_EQ(0, count_in(second));
}

FRESH_PROCESS_TEST(SetupTrustRootsDeathTest, TheEndAndAnotherStartOfTheLibraryChangeNothing) {
  x509_store first = make_store(), second = make_store();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(first.get(), 0));
  libpki_term();
  libpki_init();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(second.get(), 0));
  EXPECT_EQ(texts{"root"}, ca_labels());
  EXPECT_EQ(5, OPENSSL_sk_num(find_ca("root")->trusted_roots));
  EXPECT_EQ(5, count_in(second));
}

FRESH_PROCESS_TEST(SetupTrustRootsDeathTest, ANullStoreIsRefusedAndTheNextCallWorks) {
  EXPECT_EQ(0, pki_ver_setup_trust_roots(nullptr, 1));
  x509_store store = make_store();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 1));
  EXPECT_EQ((texts{"root", "engineering"}), ca_labels());
  EXPECT_EQ(5, OPENSSL_sk_num(find_ca("root")->cert_status_methods));
  EXPECT_EQ(6, count_in(store));
}

TEST(SetupTrustRootsDeathTest, BeforeTheStartOfTheLibraryItFails) {
  EXPECT_IN_FRESH_PROCESS([] {
    x509_store store = make_store();
    EXPECT_EQ(0, pki_ver_setup_trust_roots(store.get(), 1));
    EXPECT_EQ(0, count_in(store));
    EXPECT_EQ(0, pki_ver_eng_root(device_root("any").get()));
    support::init_library();
    temp_folder folder;
    redirect_device_folder(folder.path());
    EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 1));
    EXPECT_EQ(6, count_in(store));
    support::empty_store();
  });
}

// ---- a host's own CAs ----

FRESH_PROCESS_TEST(SetupTrustRootsDeathTest, AHostsCaOfThatLabelIsAddedTo) {
  support::cert own = device_root("host root");
  ca_ref host = add_host_ca("root", {own});
  x509_store store = make_store();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 0));
  EXPECT_EQ(texts{"root"}, ca_labels());
  EXPECT_EQ(host, find_ca("root"));
  texts subjects = root_subjects("root");
  ASSERT_EQ(6U, subjects.size());
  EXPECT_EQ("/C=US/O=Example/CN=host root", subjects[0]);
  EXPECT_EQ(public_subjects, texts(subjects.begin() + 1, subjects.begin() + 4));
  EXPECT_EQ(6, count_in(store));
  EXPECT_TRUE(holds(store, own.get()));
}

FRESH_PROCESS_TEST(SetupTrustRootsDeathTest, AHostsCaOfAnotherLabelIsLeftAlone) {
  support::cert own = device_root("host root");
  ca_ref host = add_host_ca("Root", {own});
  x509_store store = make_store();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 0));
  EXPECT_EQ((texts{"Root", "root"}), ca_labels());
  EXPECT_EQ(1, OPENSSL_sk_num(host->trusted_roots));
  EXPECT_FALSE(holds(store, own.get()));
}

FRESH_PROCESS_TEST(SetupTrustRootsDeathTest, AHostsOtherCaIsCopiedToo) {
  support::cert own = device_root("host root");
  add_host_ca("other", {own});
  x509_store store = make_store();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 0));
  EXPECT_EQ(6, count_in(store));
  EXPECT_TRUE(holds(store, own.get()));
}

FRESH_PROCESS_TEST(SetupTrustRootsDeathTest, ARootThatCannotBeCopiedFailsTheCall) {
  ca_ref host = add_host_ca("other");
  OPENSSL_sk_push(host->trusted_roots, nullptr);
  x509_store store = make_store();
  EXPECT_EQ(0, pki_ver_setup_trust_roots(store.get(), 0));
  EXPECT_EQ("6: inited ca label 'root'\n3: Failed to add a root cert to cert store:\n", own_log());

  OPENSSL_sk_pop(host->trusted_roots);
  clear_log();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 0));
  EXPECT_EQ("", log_dump());
  EXPECT_EQ(5, OPENSSL_sk_num(find_ca("root")->cert_status_methods));
}

}  // namespace
