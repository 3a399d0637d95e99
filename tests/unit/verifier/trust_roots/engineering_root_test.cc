// The engineering root: when it is in the store, and how it is told from others.
#include "roots_process.h"

using namespace roots_support;

namespace {

void set_up(unsigned char with_eng) {
  x509_store store = make_store();
  ASSERT_EQ(1, pki_ver_setup_trust_roots(store.get(), with_eng));
}

FRESH_PROCESS_TEST(EngineeringRootDeathTest, IsOneRootOfItsOwnCa) {
  x509_store store = make_store();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 1));
  EXPECT_EQ("6: inited ca label 'root'\n6: inited ca label 'engineering'\n", log_dump());
  EXPECT_EQ((texts{"root", "engineering"}), ca_labels());
  ca_ref ca = find_ca("engineering");
  ASSERT_EQ(1, OPENSSL_sk_num(ca->trusted_roots));
  EXPECT_EQ(texts{file_octets(vendor_file("engineering_root.der"))},
            support::ders(ca->trusted_roots));
  EXPECT_EQ(6, count_in(store));
  EXPECT_TRUE(holds(store, root_of("engineering", 0)));
}

FRESH_PROCESS_TEST(EngineeringRootDeathTest, AnyNonZeroFlagAsksForIt) {
  set_up(0x80);
  EXPECT_EQ(1U, root_subjects("engineering").size());
}

FRESH_PROCESS_TEST(EngineeringRootDeathTest, WhatItIssuedIsAlwaysGoodAfterItsOwnSources) {
  set_up(1);
  ca_ref ca = find_ca("engineering");
  EXPECT_EQ(texts{"always-ok / 3"}, describe(ca->cert_status_methods));
  const X509_NAME *subject = X509_get_subject_name(root_of("engineering", 0));
  EXPECT_EQ(texts{"always-ok / 3"}, describe(rules_for(ca.get(), issued_under(subject)).get()));
  EXPECT_EQ(
      texts{},
      describe(rules_for(ca.get(), issued_under(X509_get_subject_name(root_of("root", 3)))).get()));
}

FRESH_PROCESS_TEST(EngineeringRootDeathTest, ItsRuleNamesItsSubjectBehindAHostsOwnRoot) {
  add_host_ca("engineering", {device_root("host root")});
  set_up(1);
  ca_ref ca = find_ca("engineering");
  ASSERT_EQ(2, OPENSSL_sk_num(ca->trusted_roots));
  const X509_NAME *built_in = X509_get_subject_name(root_of("engineering", 1));
  const X509_NAME *host = X509_get_subject_name(root_of("engineering", 0));
  EXPECT_EQ(texts{"always-ok / 3"}, describe(rules_for(ca.get(), issued_under(built_in)).get()));
  EXPECT_EQ(texts{}, describe(rules_for(ca.get(), issued_under(host)).get()));
}

FRESH_PROCESS_TEST(EngineeringRootDeathTest, WithoutTheFlagItIsNowhere) {
  x509_store store = make_store();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 0));
  EXPECT_EQ(nullptr, find_ca("engineering"));
  support::cert root = file_cert(vendor_file("engineering_root.der"));
  ASSERT_TRUE(root);
  EXPECT_FALSE(holds(store, root.get()));
  EXPECT_EQ(0, pki_ver_eng_root(root.get()));
  EXPECT_EQ(0, pki_ver_eng_root(root_of("root", 0)));
  EXPECT_EQ(0, pki_ver_eng_root(nullptr));
  EXPECT_EQ("6: inited ca label 'root'\n", log_dump());
}

FRESH_PROCESS_TEST(EngineeringRootDeathTest, ALaterCallCanAskForIt) {
  set_up(0);
  clear_log();
  x509_store store = make_store();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 1));
  EXPECT_EQ("6: inited ca label 'engineering'\n", log_dump());
  EXPECT_EQ(6, count_in(store));
  EXPECT_EQ(1, pki_ver_eng_root(root_of("engineering", 0)));
}

FRESH_PROCESS_TEST(EngineeringRootDeathTest, OnceInstalledEveryLaterStoreGetsIt) {
  set_up(1);
  x509_store store = make_store();
  EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 0));
  EXPECT_EQ(6, count_in(store));
  EXPECT_TRUE(holds(store, root_of("engineering", 0)));
}

// ---- telling it from others ----

FRESH_PROCESS_TEST(EngineeringRootDeathTest, ACopyOfItCountsToo) {
  set_up(1);
  support::cert copy(X509_dup(root_of("engineering", 0)), X509_free);
  EXPECT_EQ(1, pki_ver_eng_root(copy.get()));
}

FRESH_PROCESS_TEST(EngineeringRootDeathTest, AnotherOfTheSameNameIsNone) {
  set_up(1);
  X509 *root = root_of("engineering", 0);
  support::cert_options options;
  options.subject = support::name(X509_NAME_dup(X509_get_subject_name(root)), X509_NAME_free);
  options.ca = true;
  support::cert twin = support::make_cert(options);
  X509_set_serialNumber(twin.get(), X509_get_serialNumber(root));
  X509_sign(twin.get(), support::test_key(0).get(), EVP_sha256());
  EXPECT_EQ(0, pki_ver_eng_root(twin.get()));
  EXPECT_EQ(0, pki_ver_eng_root(root_of("root", 0)));
  EXPECT_EQ(0, pki_ver_eng_root(nullptr));
}

FRESH_PROCESS_TEST(EngineeringRootDeathTest, EveryRootOfThatCaCounts) {
  support::cert host = device_root("host root"), stranger = device_root("stranger", 2);
  add_host_ca("engineering", {host});
  EXPECT_EQ(1, pki_ver_eng_root(host.get()));
  set_up(1);
  EXPECT_EQ(1, pki_ver_eng_root(host.get()));
  EXPECT_EQ(1, pki_ver_eng_root(root_of("engineering", 1)));
  EXPECT_EQ(0, pki_ver_eng_root(stranger.get()));
}

FRESH_PROCESS_TEST(EngineeringRootDeathTest, ANullEntryOfTheListEndsTheSearch) {
  support::cert in_front = device_root("in front"), stranger = device_root("stranger", 2);
  ca_ref ca = add_host_ca("engineering", {in_front});
  OPENSSL_sk_push(ca->trusted_roots, nullptr);
  EXPECT_EQ(1, pki_ver_eng_root(in_front.get()));
  EXPECT_EQ("", log_dump());
  support::raise_openssl_error(1);
  EXPECT_EQ(0, pki_ver_eng_root(stranger.get()));
  EXPECT_EQ("3: Failed to get eng root\n", own_log());
  EXPECT_EQ(1U, openssl_lines());
}

FRESH_PROCESS_TEST(EngineeringRootDeathTest, AskingTakesNoReference) {
  set_up(1);
  ca_ref ca = find_ca("engineering");
  int before = ca->ref_count;
  EXPECT_EQ(1, pki_ver_eng_root(root_of("engineering", 0)));
  EXPECT_EQ(0, pki_ver_eng_root(root_of("root", 0)));
  EXPECT_EQ(before, ca->ref_count);
}

}  // namespace
