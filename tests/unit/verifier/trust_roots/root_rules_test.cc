// The status rules of the CA "root".
#include "roots_process.h"

using namespace roots_support;

namespace {

const X509_NAME *rule_issuer(const ca_ref &ca, int index) {
  const auto *rule = support::at<cert_status_info>(ca->cert_status_methods, index);
  EXPECT_EQ(1, OPENSSL_sk_num(rule->rules));
  const auto *match = support::at<cert_match_rule>(rule->rules, 0);
  EXPECT_EQ(PKI_MATCH_ISSUER, match->type);
  EXPECT_EQ(nullptr, match->high);
  return static_cast<const X509_NAME *>(match->name_or_low);
}

const X509_NAME *subject_of_root(int index) {
  return X509_get_subject_name(root_of("root", index));
}
const X509_NAME *subject_of_intermediate() {
  return X509_get_subject_name(support::at<X509>(pki_store->provisioned_certs, 0));
}

std::string crl_at(const std::string &url, bool with_signer = true) {
  return "crl " + url + " format 0 reasons 511 flags 0" + (with_signer ? " signer" : "") + " / 1";
}
const std::string crl_of_first = crl_at("http://crl.verisign.com/pca3.crl");
const std::string second_crl_of_first = crl_at("http://crl.verisign.com/pca3.1.1.crl");
const std::string crl_of_g2 = crl_at("http://crl.verisign.com/pca3-g2.crl");
const std::string crl_of_g3 = crl_at("http://s.symcb.com/pca3-g3.crl");
const std::string crl_of_intermediate =
    crl_at("http://crl.verisign.com/Class3InternationalServer.crl", false);

texts found_under(const X509_NAME *issuer) {
  return describe(rules_for(find_ca("root").get(), issued_under(issuer)).get());
}

void set_up() {
  x509_store store = make_store();
  ASSERT_EQ(1, pki_ver_setup_trust_roots(store.get(), 0));
}

FRESH_PROCESS_TEST(RootRulesDeathTest, ThereAreFiveInOrder) {
  set_up();
  EXPECT_EQ((texts{crl_of_first, second_crl_of_first, crl_of_g2, crl_of_g3, crl_of_intermediate}),
            describe(find_ca("root")->cert_status_methods));
  EXPECT_EQ(0, OPENSSL_sk_num(pki_store->global_status_rules));
}

FRESH_PROCESS_TEST(RootRulesDeathTest, TheirIssuersAreTheSubjectsOfTheCertificates) {
  set_up();
  ca_ref root = find_ca("root");
  ASSERT_EQ(5, OPENSSL_sk_num(root->cert_status_methods));
  EXPECT_EQ(0, X509_NAME_cmp(subject_of_root(0), rule_issuer(root, 0)));
  EXPECT_EQ(0, X509_NAME_cmp(subject_of_root(0), rule_issuer(root, 1)));
  EXPECT_EQ(0, X509_NAME_cmp(subject_of_root(1), rule_issuer(root, 2)));
  EXPECT_EQ(0, X509_NAME_cmp(subject_of_root(2), rule_issuer(root, 3)));
  EXPECT_EQ(0, X509_NAME_cmp(subject_of_intermediate(), rule_issuer(root, 4)));
}

FRESH_PROCESS_TEST(RootRulesDeathTest, WhatEachIssuedFindsItsOwnOnly) {
  set_up();
  EXPECT_EQ((texts{crl_of_first, second_crl_of_first}), found_under(subject_of_root(0)));
  EXPECT_EQ(texts{crl_of_g2}, found_under(subject_of_root(1)));
  EXPECT_EQ(texts{crl_of_g3}, found_under(subject_of_root(2)));
  EXPECT_EQ(texts{crl_of_intermediate}, found_under(subject_of_intermediate()));
}

FRESH_PROCESS_TEST(RootRulesDeathTest, TheIntermediateItselfFindsTheCrlsOfItsIssuer) {
  set_up();
  support::cert intermediate(support::at<X509>(pki_store->provisioned_certs, 0), [](X509 *) {});
  EXPECT_EQ((texts{crl_of_first, second_crl_of_first}),
            describe(rules_for(find_ca("root").get(), intermediate).get()));
}

FRESH_PROCESS_TEST(RootRulesDeathTest, WhatTheVendorsRootsIssuedFindsNone) {
  set_up();
  EXPECT_EQ(texts{}, found_under(subject_of_root(3)));
  EXPECT_EQ(texts{}, found_under(subject_of_root(4)));
  EXPECT_EQ(texts{}, found_under(support::common_name("someone").get()));
}

FRESH_PROCESS_TEST(RootRulesDeathTest, TheRootsSignTheirCrlsAndNobodyIsNamedForTheIntermediate) {
  set_up();
  const STACK *rules = find_ca("root")->cert_status_methods;
  ASSERT_EQ(5, OPENSSL_sk_num(rules));
  EXPECT_EQ(root_of("root", 0), crl_signer(rules, 0));
  EXPECT_EQ(root_of("root", 0), crl_signer(rules, 1));
  EXPECT_EQ(root_of("root", 1), crl_signer(rules, 2));
  EXPECT_EQ(root_of("root", 2), crl_signer(rules, 3));
  EXPECT_EQ(nullptr, crl_signer(rules, 4));
}

FRESH_PROCESS_TEST(RootRulesDeathTest, TheSignersAreTheBuiltInRootsBehindAHostsOwn) {
  add_host_ca("root", {device_root("one", 1), device_root("two", 2), device_root("three", 3),
                       device_root("four", 4)});
  set_up();
  const STACK *rules = find_ca("root")->cert_status_methods;
  ASSERT_EQ(5, OPENSSL_sk_num(rules));
  EXPECT_EQ(0, X509_cmp(root_of("root", 4), crl_signer(rules, 0)));
  EXPECT_EQ(0, X509_cmp(root_of("root", 4), crl_signer(rules, 1)));
  EXPECT_EQ(0, X509_cmp(root_of("root", 5), crl_signer(rules, 2)));
  EXPECT_EQ(0, X509_cmp(root_of("root", 6), crl_signer(rules, 3)));
  EXPECT_EQ(nullptr, crl_signer(rules, 4));
}

FRESH_PROCESS_TEST(RootRulesDeathTest, TheSignersAreRightWhenAHostHoldsSomeOfTheRoots) {
  // G3 first: the built-in roots are in another order then.
  support::cert g3 = file_cert(SOURCE_DIR "/roots/public/pca3_g3.der");
  ASSERT_TRUE(g3);
  add_host_ca("root", {g3});
  set_up();
  const STACK *rules = find_ca("root")->cert_status_methods;
  ASSERT_EQ(5, OPENSSL_sk_num(rules));
  EXPECT_EQ(5, OPENSSL_sk_num(find_ca("root")->trusted_roots));
  EXPECT_EQ(0, X509_cmp(root_of("root", 1), crl_signer(rules, 0)));
  EXPECT_EQ(0, X509_cmp(root_of("root", 2), crl_signer(rules, 2)));
  EXPECT_EQ(0, X509_cmp(g3.get(), crl_signer(rules, 3)));
}

FRESH_PROCESS_TEST(RootRulesDeathTest, AHostsRulesStayInFront) {
  ca_ref host = add_host_ca("root");
  rule_list none(OPENSSL_sk_new_null(), OPENSSL_sk_free);
  ASSERT_EQ(0, pki_add_ocsp_info(host.get(), none.get(), "http://host/", nullptr, 0, 0, 0));
  set_up();
  texts rules = describe(host->cert_status_methods);
  ASSERT_EQ(6U, rules.size());
  EXPECT_EQ("ocsp http://host/ / 0", rules[0]);
  EXPECT_EQ(crl_of_first, rules[1]);
}

}  // namespace
