#include <gtest/gtest.h>
#include <libpki/libpki.h>

#include "fakes/failures.h"
#include "unit/pki/store_helpers.h"

namespace {

using support::cert;
using support::cert_list;
using support::elements;
using support::pointers;
using support::simple_cert;
using support::store_contents;
using support::watch;

using StoreDeleteCert = support::store_test;
using StoreDeleteUntrustedCert = support::store_test;
using StoreDeleteTrustedCert = support::store_test;

TEST_F(StoreDeleteCert, DropsTheListsReference) {
  cert held = simple_cert("issuer", "a", 1), other = simple_cert("issuer", "b", 2);
  auto destroyed = watch(held);
  cert_list list{held, other};
  cert same = simple_cert("issuer", "a", 1);
  held.reset();
  EXPECT_EQ(*destroyed, 0);
  EXPECT_EQ(pki_delete_cert(list, same.get()), 0);
  EXPECT_EQ(*destroyed, 1);
  EXPECT_EQ(elements(list.get()), pointers{other.get()});
}

TEST_F(StoreDeleteCert, IssuerAndSerialNameTheCertificate) {
  cert held = simple_cert("issuer", "a", 1), stands_for_it = simple_cert("issuer", "b", 1);
  cert_list list{held};
  EXPECT_EQ(pki_delete_cert(list, stands_for_it.get()), 0);
  EXPECT_EQ(OPENSSL_sk_num(list), 0);
}

TEST_F(StoreDeleteCert, LetterCaseAndBlanksOfTheIssuerDoNotMatter) {
  cert other = simple_cert("TheIssuer", "a", 1);
  cert_list list{other, simple_cert("The  Issuer", "a", 1)};
  EXPECT_EQ(pki_delete_cert(list, simple_cert("the issuer ", "a", 1).get()), 0);
  EXPECT_EQ(elements(list.get()), pointers{other.get()});
}

TEST_F(StoreDeleteCert, OnlyTheFirstOfSeveralGoes) {
  cert first = simple_cert("issuer", "a", 1), second = simple_cert("issuer", "b", 1);
  cert_list list{first, second};
  EXPECT_EQ(pki_delete_cert(list, second.get()), 0);
  EXPECT_EQ(elements(list.get()), pointers{second.get()});
}

TEST_F(StoreDeleteCert, OrderOfTheRestStays) {
  cert first = simple_cert("issuer", "a", 1), second = simple_cert("issuer", "b", 2),
       third = simple_cert("issuer", "c", 3);
  cert_list list{first, second, third};
  EXPECT_EQ(pki_delete_cert(list, second.get()), 0);
  EXPECT_EQ(elements(list.get()), (pointers{first.get(), third.get()}));
}

TEST_F(StoreDeleteCert, CertificateThatIsNotThereIsReported) {
  cert held = simple_cert("issuer", "a", 1);
  cert_list list{held};
  EXPECT_EQ(pki_delete_cert(list, simple_cert("issuer", "a", 2).get()), 52);
  EXPECT_EQ(pki_delete_cert(list, simple_cert("other", "a", 1).get()), 52);
  EXPECT_EQ(elements(list.get()), pointers{held.get()});
}

TEST_F(StoreDeleteCert, NullArgumentsAreRefused) {
  cert held = simple_cert("issuer", "a", 1);
  cert_list list{held};
  EXPECT_EQ(pki_delete_cert(nullptr, held.get()), 63);
  EXPECT_EQ(pki_delete_cert(list, nullptr), 63);
  EXPECT_EQ(elements(list.get()), pointers{held.get()});
}

TEST_F(StoreDeleteUntrustedCert, LeavesBothListsWithSuccess) {
  cert held = simple_cert("issuer", "a", 1);
  ASSERT_EQ(pki_add_untrusted_cert(held.get(), 0), 0);
  ASSERT_EQ(pki_add_untrusted_cert(held.get(), 1), 0);
  EXPECT_EQ(pki_delete_untrusted_cert(held.get()), 0);
  EXPECT_EQ(OPENSSL_sk_num(pki_store->collected_certs), 0);
  EXPECT_EQ(OPENSSL_sk_num(pki_store->provisioned_certs), 0);
}

TEST_F(StoreDeleteUntrustedCert, HeldByTheProvisionedListOnlyItGoesAndIsYetReportedMissing) {
  cert held = simple_cert("issuer", "a", 1);
  ASSERT_EQ(pki_add_untrusted_cert(held.get(), 1), 0);
  EXPECT_EQ(pki_delete_untrusted_cert(held.get()), 52);
  EXPECT_EQ(OPENSSL_sk_num(pki_store->provisioned_certs), 0);
}

TEST_F(StoreDeleteUntrustedCert, HeldByTheCollectedListOnlyItGoesAndIsYetReportedMissing) {
  cert held = simple_cert("issuer", "a", 1);
  ASSERT_EQ(pki_add_untrusted_cert(held.get(), 0), 0);
  EXPECT_EQ(pki_delete_untrusted_cert(held.get()), 52);
  EXPECT_EQ(OPENSSL_sk_num(pki_store->collected_certs), 0);
}

TEST_F(StoreDeleteUntrustedCert, HeldNowhereIsReported) {
  cert held = simple_cert("issuer", "a", 1);
  ASSERT_EQ(pki_add_untrusted_cert(held.get(), 0), 0);
  ASSERT_EQ(pki_add_untrusted_cert(held.get(), 1), 0);
  auto before = store_contents();
  EXPECT_EQ(pki_delete_untrusted_cert(simple_cert("issuer", "a", 2).get()), 52);
  EXPECT_EQ(store_contents(), before);
}

TEST_F(StoreDeleteUntrustedCert, ReferencesOfBothListsAreDropped) {
  cert held = simple_cert("issuer", "a", 1);
  auto destroyed = watch(held);
  ASSERT_EQ(pki_add_untrusted_cert(held.get(), 0), 0);
  ASSERT_EQ(pki_add_untrusted_cert(held.get(), 1), 0);
  held.reset();
  EXPECT_EQ(*destroyed, 0);
  EXPECT_EQ(pki_delete_untrusted_cert(simple_cert("issuer", "a", 1).get()), 0);
  EXPECT_EQ(*destroyed, 1);
}

// What a list holds may be named by the list's own element, and the list be its only holder.
X509 *only_element(const STACK *list) {
  EXPECT_EQ(OPENSSL_sk_num(list), 1);
  return static_cast<X509 *>(OPENSSL_sk_value(list, 0));
}

TEST_F(StoreDeleteCert, TakesTheListsOwnElement) {
  cert held = simple_cert("issuer", "a", 1);
  auto destroyed = watch(held);
  cert_list list{held};
  held.reset();
  EXPECT_EQ(pki_delete_cert(list, only_element(list)), 0);
  EXPECT_EQ(*destroyed, 1);
  EXPECT_EQ(OPENSSL_sk_num(list), 0);
}

TEST_F(StoreDeleteUntrustedCert, TakesTheCollectedListsOwnElement) {
  cert held = simple_cert("issuer", "a", 1);
  auto destroyed = watch(held);
  ASSERT_EQ(pki_add_untrusted_cert(held.get(), 0), 0);
  held.reset();
  EXPECT_EQ(pki_delete_untrusted_cert(only_element(pki_store->collected_certs)), 52);
  EXPECT_EQ(*destroyed, 1);
  EXPECT_EQ(OPENSSL_sk_num(pki_store->collected_certs), 0);
}

TEST_F(StoreDeleteUntrustedCert, CollectedListsOwnElementTakesItsEqualWithIt) {
  ASSERT_EQ(pki_add_untrusted_cert(simple_cert("issuer", "a", 1).get(), 0), 0);
  ASSERT_EQ(pki_add_untrusted_cert(simple_cert("issuer", "a", 1).get(), 1), 0);
  EXPECT_EQ(pki_delete_untrusted_cert(only_element(pki_store->collected_certs)), 0);
  EXPECT_EQ(OPENSSL_sk_num(pki_store->collected_certs), 0);
  EXPECT_EQ(OPENSSL_sk_num(pki_store->provisioned_certs), 0);
}

TEST_F(StoreDeleteUntrustedCert, TakesTheProvisionedListsOwnElement) {
  ASSERT_EQ(pki_add_untrusted_cert(simple_cert("issuer", "a", 1).get(), 1), 0);
  EXPECT_EQ(pki_delete_untrusted_cert(only_element(pki_store->provisioned_certs)), 52);
  EXPECT_EQ(OPENSSL_sk_num(pki_store->provisioned_certs), 0);
}

TEST_F(StoreDeleteUntrustedCert, WithoutAReferenceNothingGoes) {
  cert held = simple_cert("issuer", "a", 1);
  ASSERT_EQ(pki_add_untrusted_cert(held.get(), 0), 0);
  ASSERT_EQ(pki_add_untrusted_cert(held.get(), 1), 0);
  auto before = store_contents();
  fake_failures::fail_x509_up_ref();
  EXPECT_EQ(pki_delete_untrusted_cert(held.get()), 49);
  EXPECT_EQ(store_contents(), before);
}

TEST_F(StoreDeleteUntrustedCert, TrustedRootsStay) {
  cert held = support::make_ca("root");
  support::ca ca = support::make_ca_info("ca");
  ASSERT_EQ(pki_add_ca_info(ca.get()), 0);
  ASSERT_EQ(pki_add_trusted_cert(held.get(), ca.get()), 0);
  EXPECT_EQ(pki_delete_untrusted_cert(held.get()), 52);
  EXPECT_EQ(elements(ca->trusted_roots), pointers{held.get()});
}

TEST_F(StoreDeleteUntrustedCert, NullIsRefused) {
  EXPECT_EQ(pki_delete_untrusted_cert(nullptr), 63);
}

TEST_F(StoreDeleteTrustedCert, GoesFromTheRootsOfThatCaOnly) {
  cert root = support::make_ca("root");
  support::ca ca = support::make_ca_info("ca"), other = support::make_ca_info("other");
  for (const support::ca &each : {ca, other}) {
    ASSERT_EQ(pki_add_ca_info(each.get()), 0);
    ASSERT_EQ(pki_add_trusted_cert(root.get(), each.get()), 0);
  }
  EXPECT_EQ(pki_delete_trusted_cert(root.get(), ca.get()), 0);
  EXPECT_EQ(OPENSSL_sk_num(ca->trusted_roots), 0);
  EXPECT_EQ(elements(other->trusted_roots), pointers{root.get()});
}

TEST_F(StoreDeleteTrustedCert, RootThatTheCaDoesNotHaveIsReported) {
  cert root = support::make_ca("root");
  support::ca ca = support::make_ca_info("ca"), other = support::make_ca_info("other");
  ASSERT_EQ(pki_add_trusted_cert(root.get(), other.get()), 0);
  EXPECT_EQ(pki_delete_trusted_cert(root.get(), ca.get()), 52);
}

TEST_F(StoreDeleteTrustedCert, WithoutACaItGoesFromEveryCa) {
  cert root = support::make_ca("root"), other_root = support::make_ca("other");
  support::ca first = support::make_ca_info("a"), second = support::make_ca_info("b"),
              third = support::make_ca_info("c");
  for (const support::ca &each : {first, second, third})
    ASSERT_EQ(pki_add_ca_info(each.get()), 0);
  ASSERT_EQ(pki_add_trusted_cert(root.get(), first.get()), 0);
  ASSERT_EQ(pki_add_trusted_cert(other_root.get(), second.get()), 0);
  ASSERT_EQ(pki_add_trusted_cert(root.get(), third.get()), 0);
  EXPECT_EQ(pki_delete_trusted_cert(root.get(), nullptr), 0);
  EXPECT_EQ(OPENSSL_sk_num(first->trusted_roots), 0);
  EXPECT_EQ(elements(second->trusted_roots), pointers{other_root.get()});
  EXPECT_EQ(OPENSSL_sk_num(third->trusted_roots), 0);
}

TEST_F(StoreDeleteTrustedCert, WithoutACaItSucceedsEvenWhenNoneHeldIt) {
  cert root = support::make_ca("root");
  EXPECT_EQ(pki_delete_trusted_cert(root.get(), nullptr), 0);
  support::ca ca = support::make_ca_info("ca");
  ASSERT_EQ(pki_add_ca_info(ca.get()), 0);
  EXPECT_EQ(pki_delete_trusted_cert(root.get(), nullptr), 0);
}

TEST_F(StoreDeleteTrustedCert, TakesTheListsOwnElement) {
  support::ca ca = support::make_ca_info("ca");
  ASSERT_EQ(pki_add_ca_info(ca.get()), 0);
  cert root = support::make_ca("root");
  auto destroyed = watch(root);
  ASSERT_EQ(pki_add_trusted_cert(root.get(), ca.get()), 0);
  root.reset();
  EXPECT_EQ(pki_delete_trusted_cert(only_element(ca->trusted_roots), nullptr), 0);
  EXPECT_EQ(*destroyed, 1);
  EXPECT_EQ(OPENSSL_sk_num(ca->trusted_roots), 0);
}

TEST_F(StoreDeleteTrustedCert, ListsOwnElementTakesItsEqualsFromEveryCa) {
  support::ca first = support::make_ca_info("a"), second = support::make_ca_info("b"),
              third = support::make_ca_info("c");
  for (const support::ca &each : {first, second, third}) {
    ASSERT_EQ(pki_add_ca_info(each.get()), 0);
    ASSERT_EQ(pki_add_trusted_cert(support::make_ca("root").get(), each.get()), 0);
  }
  EXPECT_EQ(pki_delete_trusted_cert(only_element(first->trusted_roots), nullptr), 0);
  for (const support::ca &each : {first, second, third})
    EXPECT_EQ(OPENSSL_sk_num(each->trusted_roots), 0);
}

TEST_F(StoreDeleteTrustedCert, TakesTheOwnElementOfTheGivenCa) {
  support::ca ca = support::make_ca_info("ca");
  ASSERT_EQ(pki_add_trusted_cert(support::make_ca("root").get(), ca.get()), 0);
  EXPECT_EQ(pki_delete_trusted_cert(only_element(ca->trusted_roots), ca.get()), 0);
  EXPECT_EQ(OPENSSL_sk_num(ca->trusted_roots), 0);
}

TEST_F(StoreDeleteTrustedCert, WithoutAReferenceNothingGoes) {
  cert root = support::make_ca("root");
  support::ca ca = support::make_ca_info("ca");
  ASSERT_EQ(pki_add_ca_info(ca.get()), 0);
  ASSERT_EQ(pki_add_trusted_cert(root.get(), ca.get()), 0);
  fake_failures::fail_x509_up_ref();
  EXPECT_EQ(pki_delete_trusted_cert(root.get(), nullptr), 49);
  EXPECT_EQ(elements(ca->trusted_roots), pointers{root.get()});
}

TEST_F(StoreDeleteTrustedCert, UntrustedCertificatesStay) {
  cert held = support::make_ca("root");
  ASSERT_EQ(pki_add_untrusted_cert(held.get(), 0), 0);
  ASSERT_EQ(pki_add_untrusted_cert(held.get(), 1), 0);
  auto before = store_contents();
  EXPECT_EQ(pki_delete_trusted_cert(held.get(), nullptr), 0);
  EXPECT_EQ(store_contents(), before);
}

TEST_F(StoreDeleteTrustedCert, NullCertificateIsRefused) {
  support::ca ca = support::make_ca_info("ca");
  EXPECT_EQ(pki_delete_trusted_cert(nullptr, ca.get()), 63);
  EXPECT_EQ(pki_delete_trusted_cert(nullptr, nullptr), 63);
}

TEST_F(StoreDeleteTrustedCert, DeletesTakeNoStoreLock) {
  cert held = support::make_ca("root");
  support::ca ca = support::make_ca_info("ca");
  cert_list list{held};
  ASSERT_EQ(pki_add_trusted_cert(held.get(), ca.get()), 0);
  ASSERT_EQ(pki_add_untrusted_cert(held.get(), 0), 0);
  fake_failures::reset();
  EXPECT_EQ(pki_delete_trusted_cert(held.get(), ca.get()), 0);
  EXPECT_EQ(pki_delete_trusted_cert(held.get(), nullptr), 0);
  EXPECT_EQ(pki_delete_untrusted_cert(held.get()), 52);
  EXPECT_EQ(pki_delete_cert(list, held.get()), 0);
  EXPECT_EQ(fake_failures::wrlock_calls(), 0);
  EXPECT_EQ(fake_failures::rdlock_calls(), 0);
}

}  // namespace
