// Certificates that go into a list, a CA's trusted roots or the store's untrusted certificates.
#include <gtest/gtest.h>
#include <libpki/libpki.h>
#include <openssl/err.h>

#include <cerrno>

#include "fakes/failures.h"
#include "fakes/log_capture.h"
#include "unit/pki/lifecycle_process.h"
#include "unit/pki/store_helpers.h"

namespace {

using support::cert;
using support::cert_list;
using support::elements;
using support::pointers;
using support::simple_cert;
using support::store_contents;
using support::watch;

using StoreAddCert = support::store_test;
using StoreAddTrustedCert = support::store_test;
using StoreAddUntrustedCert = support::store_test;
using StoreAddUntrustedCerts = support::store_test;

TEST_F(StoreAddCert, TakesOneReference) {
  cert added = simple_cert("issuer", "subject", 1);
  auto destroyed = watch(added);
  cert_list list;
  EXPECT_EQ(pki_add_cert(list, added.get()), 0);
  EXPECT_EQ(elements(list.get()), pointers{added.get()});
  added.reset();
  EXPECT_EQ(*destroyed, 0);
  list.clear();
  EXPECT_EQ(*destroyed, 1);
}

TEST_F(StoreAddCert, AppendsInOrder) {
  cert first = simple_cert("issuer", "subject", 2), second = simple_cert("issuer", "subject", 1);
  cert_list list;
  EXPECT_EQ(pki_add_cert(list, first.get()), 0);
  EXPECT_EQ(pki_add_cert(list, second.get()), 0);
  EXPECT_EQ(elements(list.get()), (pointers{first.get(), second.get()}));
}

TEST_F(StoreAddCert, AddingTwiceKeepsOneAndSucceedsBothTimes) {
  cert added = simple_cert("issuer", "subject", 1);
  auto destroyed = watch(added);
  cert_list list;
  EXPECT_EQ(pki_add_cert(list, added.get()), 0);
  EXPECT_EQ(pki_add_cert(list, added.get()), 0);
  EXPECT_EQ(elements(list.get()), pointers{added.get()});
  added.reset();
  list.clear();
  EXPECT_EQ(*destroyed, 1);
}

TEST_F(StoreAddCert, IssuerAndSerialMakeACertificateTheSame) {
  cert held = simple_cert("issuer", "subject", 1), same = simple_cert("issuer", "other", 1);
  auto same_destroyed = watch(same);
  cert_list list{held};
  EXPECT_EQ(pki_add_cert(list, same.get()), 0);
  EXPECT_EQ(elements(list.get()), pointers{held.get()});
  same.reset();
  EXPECT_EQ(*same_destroyed, 1);
}

TEST_F(StoreAddCert, AnotherIssuerOrSerialIsAnotherCertificate) {
  cert held = simple_cert("issuer", "subject", 1);
  cert other_issuer = simple_cert("other", "subject", 1);
  cert other_serial = simple_cert("issuer", "subject", 2);
  cert_list list{held};
  EXPECT_EQ(pki_add_cert(list, other_issuer.get()), 0);
  EXPECT_EQ(pki_add_cert(list, other_serial.get()), 0);
  EXPECT_EQ(elements(list.get()), (pointers{held.get(), other_issuer.get(), other_serial.get()}));
}

TEST_F(StoreAddCert, LetterCaseAndBlanksOfTheIssuerMakeNoOtherCertificate) {
  cert held = simple_cert("The Issuer", "subject", 1);
  cert_list list{held};
  EXPECT_EQ(pki_add_cert(list, simple_cert(" the  ISSUER", "subject", 1).get()), 0);
  EXPECT_EQ(elements(list.get()), pointers{held.get()});
}

TEST_F(StoreAddCert, CertificateThatCannotBeReferencedIsRefused) {
  cert added = simple_cert("issuer", "subject", 1);
  cert_list list;
  fake_failures::fail_x509_up_ref();
  EXPECT_EQ(pki_add_cert(list, added.get()), 49);
  EXPECT_EQ(OPENSSL_sk_num(list), 0);
}

// What OpenSSL queued comes out in the log, and nothing else.
void expect_reasons_in_the_log() {
  std::vector<log_entry> log = captured_log();
  ASSERT_EQ(log.size(), 1u) << log_dump();
  EXPECT_EQ(log[0].level, 3);
  EXPECT_EQ(log[0].text.find("OpenSSL error: "), 0u) << log[0].text;
  EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST_F(StoreAddCert, ReferenceThatCannotBeTakenMovesOpenSslsErrorsIntoTheLog) {
  cert added = simple_cert("issuer", "subject", 1);
  cert_list list;
  support::raise_openssl_error(77);
  fake_failures::fail_x509_up_ref();
  EXPECT_EQ(pki_add_cert(list, added.get()), 49);
  expect_reasons_in_the_log();
}

TEST_F(StoreAddCert, NullArgumentsAreRefused) {
  cert added = simple_cert("issuer", "subject", 1);
  cert_list list;
  EXPECT_EQ(pki_add_cert(nullptr, added.get()), 63);
  EXPECT_EQ(pki_add_cert(list, nullptr), 63);
  EXPECT_EQ(OPENSSL_sk_num(list), 0);
}

TEST_F(StoreAddTrustedCert, GoesToTheRootsOfThatCa) {
  cert root = support::make_ca("root");
  support::ca ca = support::make_ca_info("ca"), other = support::make_ca_info("other");
  EXPECT_EQ(pki_add_trusted_cert(root.get(), ca.get()), 0);
  EXPECT_EQ(pki_add_trusted_cert(root.get(), ca.get()), 0);
  EXPECT_EQ(elements(ca->trusted_roots), pointers{root.get()});
  EXPECT_EQ(OPENSSL_sk_num(other->trusted_roots), 0);
}

TEST_F(StoreAddTrustedCert, CertificateThatCannotBeReferencedIsRefused) {
  cert root = support::make_ca("root");
  support::ca ca = support::make_ca_info("ca");
  fake_failures::fail_x509_up_ref();
  EXPECT_EQ(pki_add_trusted_cert(root.get(), ca.get()), 49);
  EXPECT_EQ(OPENSSL_sk_num(ca->trusted_roots), 0);
}

TEST_F(StoreAddTrustedCert, NullArgumentsAreRefused) {
  cert root = support::make_ca("root");
  support::ca ca = support::make_ca_info("ca");
  EXPECT_EQ(pki_add_trusted_cert(nullptr, ca.get()), 63);
  EXPECT_EQ(pki_add_trusted_cert(root.get(), nullptr), 63);
  EXPECT_EQ(OPENSSL_sk_num(ca->trusted_roots), 0);
}

TEST_F(StoreAddTrustedCert, TakesNoStoreLock) {
  cert root = support::make_ca("root");
  support::ca ca = support::make_ca_info("ca");
  fake_failures::reset();
  EXPECT_EQ(pki_add_trusted_cert(root.get(), ca.get()), 0);
  EXPECT_EQ(fake_failures::wrlock_calls(), 0);
  EXPECT_EQ(fake_failures::rdlock_calls(), 0);
}

TEST_F(StoreAddUntrustedCert, KeepChoosesTheProvisionedList) {
  cert kept = simple_cert("issuer", "kept", 1), met = simple_cert("issuer", "met", 2);
  EXPECT_EQ(pki_add_untrusted_cert(kept.get(), 1), 0);
  EXPECT_EQ(pki_add_untrusted_cert(met.get(), 0), 0);
  EXPECT_EQ(elements(pki_store->provisioned_certs), pointers{kept.get()});
  EXPECT_EQ(elements(pki_store->collected_certs), pointers{met.get()});
}

TEST_F(StoreAddUntrustedCert, AnyNonZeroByteKeeps) {
  cert first = simple_cert("issuer", "first", 1), second = simple_cert("issuer", "second", 2);
  EXPECT_EQ(pki_add_untrusted_cert(first.get(), 2), 0);
  EXPECT_EQ(pki_add_untrusted_cert(second.get(), 0x80), 0);
  EXPECT_EQ(elements(pki_store->provisioned_certs), (pointers{first.get(), second.get()}));
}

TEST_F(StoreAddUntrustedCert, ListsAreIndependent) {
  cert added = simple_cert("issuer", "subject", 1);
  for (unsigned char keep : {0, 1, 0, 1})
    EXPECT_EQ(pki_add_untrusted_cert(added.get(), keep), 0);
  EXPECT_EQ(elements(pki_store->provisioned_certs), pointers{added.get()});
  EXPECT_EQ(elements(pki_store->collected_certs), pointers{added.get()});
}

TEST_F(StoreAddUntrustedCert, LetterCaseAndBlanksOfTheIssuerMakeNoOtherCertificate) {
  cert held = simple_cert("The Issuer", "subject", 1);
  for (unsigned char keep : {0, 1}) {
    EXPECT_EQ(pki_add_untrusted_cert(held.get(), keep), 0);
    EXPECT_EQ(pki_add_untrusted_cert(simple_cert("the  issuer ", "subject", 1).get(), keep), 0);
  }
  EXPECT_EQ(elements(pki_store->provisioned_certs), pointers{held.get()});
  EXPECT_EQ(elements(pki_store->collected_certs), pointers{held.get()});
}

TEST_F(StoreAddUntrustedCert, StoreHoldsItsOwnReference) {
  cert added = simple_cert("issuer", "subject", 1);
  auto destroyed = watch(added);
  EXPECT_EQ(pki_add_untrusted_cert(added.get(), 1), 0);
  added.reset();
  EXPECT_EQ(*destroyed, 0);
  support::empty_store();
  EXPECT_EQ(*destroyed, 1);
}

TEST_F(StoreAddUntrustedCert, LockThatCannotBeTakenIsReported) {
  cert added = simple_cert("issuer", "subject", 1);
  for (unsigned char keep : {0, 1}) {
    fake_failures::fail_wrlock(EDEADLK);
    EXPECT_EQ(pki_add_untrusted_cert(added.get(), keep), 80);
  }
  EXPECT_EQ(OPENSSL_sk_num(pki_store->provisioned_certs), 0);
  EXPECT_EQ(OPENSSL_sk_num(pki_store->collected_certs), 0);
}

TEST_F(StoreAddUntrustedCert, WorksAgainAfterTheLockFailed) {
  cert added = simple_cert("issuer", "subject", 1);
  fake_failures::fail_wrlock(EAGAIN);
  EXPECT_EQ(pki_add_untrusted_cert(added.get(), 1), 80);
  EXPECT_EQ(pki_add_untrusted_cert(added.get(), 1), 0);
}

TEST_F(StoreAddUntrustedCert, CertificateThatCannotBeReferencedIsRefused) {
  cert added = simple_cert("issuer", "subject", 1);
  fake_failures::fail_x509_up_ref();
  EXPECT_EQ(pki_add_untrusted_cert(added.get(), 0), 49);
  EXPECT_EQ(OPENSSL_sk_num(pki_store->collected_certs), 0);
  EXPECT_EQ(pki_add_untrusted_cert(added.get(), 0), 0);
}

TEST_F(StoreAddUntrustedCert, ReferenceThatCannotBeTakenMovesOpenSslsErrorsIntoTheLog) {
  cert added = simple_cert("issuer", "subject", 1);
  for (unsigned char keep : {0, 1}) {
    clear_log();
    support::raise_openssl_error(77);
    fake_failures::fail_x509_up_ref();
    EXPECT_EQ(pki_add_untrusted_cert(added.get(), keep), 49);
    expect_reasons_in_the_log();
  }
}

TEST_F(StoreAddUntrustedCert, TakesTheStoreLockForWritingOnce) {
  cert added = simple_cert("issuer", "subject", 1);
  fake_failures::reset();
  EXPECT_EQ(pki_add_untrusted_cert(added.get(), 0), 0);
  EXPECT_EQ(fake_failures::wrlock_calls(), 1);
  EXPECT_EQ(fake_failures::rdlock_calls(), 0);
}

TEST_F(StoreAddUntrustedCert, NullCertificateIsRefused) {
  auto before = store_contents();
  EXPECT_EQ(pki_add_untrusted_cert(nullptr, 0), 63);
  EXPECT_EQ(pki_add_untrusted_cert(nullptr, 1), 63);
  EXPECT_EQ(store_contents(), before);
}

TEST_F(StoreAddUntrustedCerts, AddsEachInOrderUnderOneLock) {
  cert first = simple_cert("issuer", "a", 3), second = simple_cert("issuer", "b", 1),
       third = simple_cert("issuer", "c", 2);
  cert_list list{first, second, third};
  fake_failures::reset();
  EXPECT_EQ(pki_add_untrusted_certs(list, 0), 0);
  EXPECT_EQ(fake_failures::wrlock_calls(), 1);
  EXPECT_EQ(fake_failures::rdlock_calls(), 0);
  EXPECT_EQ(elements(pki_store->collected_certs),
            (pointers{first.get(), second.get(), third.get()}));
  EXPECT_EQ(OPENSSL_sk_num(pki_store->provisioned_certs), 0);
}

TEST_F(StoreAddUntrustedCerts, KeepChoosesTheProvisionedList) {
  cert added = simple_cert("issuer", "a", 1);
  cert_list list{added};
  EXPECT_EQ(pki_add_untrusted_certs(list, 7), 0);
  EXPECT_EQ(elements(pki_store->provisioned_certs), pointers{added.get()});
  EXPECT_EQ(OPENSSL_sk_num(pki_store->collected_certs), 0);
}

TEST_F(StoreAddUntrustedCerts, RepeatedCertificateIsAddedOnce) {
  cert added = simple_cert("issuer", "a", 1);
  cert_list list{added, added};
  EXPECT_EQ(pki_add_untrusted_certs(list, 1), 0);
  EXPECT_EQ(elements(pki_store->provisioned_certs), pointers{added.get()});
}

TEST_F(StoreAddUntrustedCerts, CallersListStaysTheCallers) {
  cert added = simple_cert("issuer", "a", 1);
  auto destroyed = watch(added);
  cert_list list{added};
  EXPECT_EQ(pki_add_untrusted_certs(list, 0), 0);
  EXPECT_EQ(elements(list.get()), pointers{added.get()});
  list.clear();
  added.reset();
  EXPECT_EQ(*destroyed, 0);
  support::empty_store();
  EXPECT_EQ(*destroyed, 1);
}

TEST_F(StoreAddUntrustedCerts, EmptyListAddsNothing) {
  cert_list list;
  auto before = store_contents();
  EXPECT_EQ(pki_add_untrusted_certs(list, 0), 0);
  EXPECT_EQ(store_contents(), before);
}

TEST_F(StoreAddUntrustedCerts, StopAtTheFirstFailureAndKeepWhatWasAdded) {
  cert first = simple_cert("issuer", "a", 1), second = simple_cert("issuer", "b", 2),
       third = simple_cert("issuer", "c", 3);
  cert_list list{first, second, third};
  fake_failures::fail_x509_up_ref(1);
  EXPECT_EQ(pki_add_untrusted_certs(list, 1), 49);
  EXPECT_EQ(elements(pki_store->provisioned_certs), pointers{first.get()});
}

TEST_F(StoreAddUntrustedCerts, ReferenceThatCannotBeTakenMovesOpenSslsErrorsIntoTheLog) {
  cert_list list{simple_cert("issuer", "a", 1), simple_cert("issuer", "b", 2)};
  support::raise_openssl_error(77);
  fake_failures::fail_x509_up_ref(1);
  EXPECT_EQ(pki_add_untrusted_certs(list, 0), 49);
  expect_reasons_in_the_log();
}

void null_element_stops_the_adding() {
  support::init_library();
  cert first = simple_cert("issuer", "a", 1), last = simple_cert("issuer", "b", 2);
  cert_list list{first};
  OPENSSL_sk_push(list, nullptr);
  list.push(last);
  EXPECT_EQ(pki_add_untrusted_certs(list, 1), 63);
  EXPECT_EQ(elements(pki_store->provisioned_certs), pointers{first.get()});
}

// In a process of its own, because a list with a hole invites a crash.
TEST(StoreAddUntrustedCertsDeathTest, NullElementStopsTheAdding) {
  EXPECT_IN_FRESH_PROCESS(null_element_stops_the_adding);
}

TEST_F(StoreAddUntrustedCerts, LockThatCannotBeTakenIsReported) {
  cert_list list{simple_cert("issuer", "a", 1)};
  fake_failures::fail_wrlock(EDEADLK);
  EXPECT_EQ(pki_add_untrusted_certs(list, 0), 80);
  EXPECT_EQ(OPENSSL_sk_num(pki_store->collected_certs), 0);
}

TEST_F(StoreAddUntrustedCerts, LockIsFreeAgainAfterAFailure) {
  cert_list list{simple_cert("issuer", "a", 1)};
  fake_failures::fail_x509_up_ref();
  EXPECT_EQ(pki_add_untrusted_certs(list, 0), 49);
  EXPECT_EQ(pki_add_untrusted_certs(list, 0), 0);
}

TEST_F(StoreAddUntrustedCerts, NullListIsRefused) {
  EXPECT_EQ(pki_add_untrusted_certs(nullptr, 0), 63);
  EXPECT_EQ(pki_add_untrusted_certs(nullptr, 1), 63);
}

}  // namespace
