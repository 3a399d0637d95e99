// Certificate searches by issuer and serial number and by subject.
#include <gtest/gtest.h>
#include <libpki/libpki.h>

#include "fakes/failures.h"
#include "unit/pki/store_helpers.h"

namespace {

using support::cert;
using support::cert_list;
using support::common_name;
using support::elements;
using support::make_serial;
using support::pointers;
using support::simple_cert;
using support::store_contents;
using support::watch;

using StoreFindBySubject = support::store_test;
using StoreFindByIssuerSerial = support::store_test;

int find_by_subject(const char *cn, STACK **result) {
  return pki_find_certs_by_subject(common_name(cn).get(), result);
}

int find_by_issuer_serial(const char *cn, long serial, STACK **result) {
  return pki_find_certs_by_issuer_serial(common_name(cn).get(), make_serial(serial).get(), result);
}

void keep(const cert &object) {
  ASSERT_EQ(pki_add_untrusted_cert(object.get(), 1), 0);
}
void collect(const cert &object) {
  ASSERT_EQ(pki_add_untrusted_cert(object.get(), 0), 0);
}

TEST_F(StoreFindBySubject, FillsANewListForANullHandle) {
  cert wanted = simple_cert("issuer", "wanted", 1), other = simple_cert("issuer", "other", 2);
  keep(other);
  keep(wanted);
  cert_list found;
  EXPECT_EQ(find_by_subject("wanted", found.null_handle()), 0);
  EXPECT_EQ(elements(found.get()), pointers{wanted.get()});
}

TEST_F(StoreFindBySubject, GivesTheCallerAReference) {
  cert wanted = simple_cert("issuer", "wanted", 1);
  auto destroyed = watch(wanted);
  keep(wanted);
  cert_list found;
  EXPECT_EQ(find_by_subject("wanted", found.null_handle()), 0);
  wanted.reset();
  support::empty_store();
  EXPECT_EQ(*destroyed, 0);
  found.clear();
  EXPECT_EQ(*destroyed, 1);
}

TEST_F(StoreFindBySubject, LooksThroughTheListsInTheirOrder) {
  cert kept_first = simple_cert("issuer", "wanted", 6), kept_second = simple_cert("a", "wanted", 5),
       met_first = simple_cert("issuer", "wanted", 4), met_second = simple_cert("a", "wanted", 3),
       first_root = simple_cert("issuer", "wanted", 2), second_root = simple_cert("a", "wanted", 1),
       last_root = simple_cert("b", "wanted", 0);
  support::ca first_ca = support::make_ca_info("first"), last_ca = support::make_ca_info("last");
  ASSERT_EQ(pki_add_ca_info(first_ca.get()), 0);
  ASSERT_EQ(pki_add_ca_info(last_ca.get()), 0);
  ASSERT_EQ(pki_add_trusted_cert(last_root.get(), last_ca.get()), 0);
  ASSERT_EQ(pki_add_trusted_cert(first_root.get(), first_ca.get()), 0);
  ASSERT_EQ(pki_add_trusted_cert(second_root.get(), first_ca.get()), 0);
  collect(met_first);
  collect(met_second);
  keep(kept_first);
  keep(kept_second);
  cert_list found;
  EXPECT_EQ(find_by_subject("wanted", found.null_handle()), 0);
  EXPECT_EQ(elements(found.get()),
            (pointers{kept_first.get(), kept_second.get(), met_first.get(), met_second.get(),
                      first_root.get(), second_root.get(), last_root.get()}));
}

TEST_F(StoreFindBySubject, CertificateInSeveralListsIsFoundOnceForEach) {
  cert wanted = simple_cert("issuer", "wanted", 1);
  auto destroyed = watch(wanted);
  support::ca ca = support::make_ca_info("ca");
  ASSERT_EQ(pki_add_ca_info(ca.get()), 0);
  ASSERT_EQ(pki_add_trusted_cert(wanted.get(), ca.get()), 0);
  keep(wanted);
  collect(wanted);
  cert_list found;
  EXPECT_EQ(find_by_subject("wanted", found.null_handle()), 0);
  EXPECT_EQ(elements(found.get()), pointers(3, wanted.get()));
  wanted.reset();
  ca.reset();
  found.clear();
  support::empty_store();
  EXPECT_EQ(*destroyed, 1);
}

TEST_F(StoreFindBySubject, RootsOfACaThatIsNotInTheStoreAreNotFound) {
  support::ca ca = support::make_ca_info("ca");
  cert root = simple_cert("issuer", "wanted", 1);
  ASSERT_EQ(pki_add_trusted_cert(root.get(), ca.get()), 0);
  cert_list found;
  EXPECT_EQ(find_by_subject("wanted", found.null_handle()), 0);
  EXPECT_EQ(OPENSSL_sk_num(found), 0);
}

TEST_F(StoreFindBySubject, AppendsToAGivenList) {
  cert wanted = simple_cert("issuer", "wanted", 1), mine = simple_cert("issuer", "mine", 2);
  keep(wanted);
  cert_list found{mine, wanted};
  STACK *list = found;
  EXPECT_EQ(find_by_subject("wanted", found.handle()), 0);
  EXPECT_EQ(found.get(), list);
  EXPECT_EQ(elements(found.get()), (pointers{mine.get(), wanted.get(), wanted.get()}));
}

TEST_F(StoreFindBySubject, FindingNothingSucceedsWithAnEmptyList) {
  keep(simple_cert("issuer", "other", 1));
  cert_list found;
  EXPECT_EQ(find_by_subject("wanted", found.null_handle()), 0);
  ASSERT_NE(found.get(), nullptr);
  EXPECT_EQ(OPENSSL_sk_num(found), 0);
}

TEST_F(StoreFindBySubject, FindingNothingLeavesAGivenListAlone) {
  cert mine = simple_cert("issuer", "mine", 1);
  cert_list found{mine};
  EXPECT_EQ(find_by_subject("wanted", found.handle()), 0);
  EXPECT_EQ(elements(found.get()), pointers{mine.get()});
}

TEST_F(StoreFindBySubject, StoreStaysAsItWas) {
  keep(simple_cert("issuer", "wanted", 1));
  collect(simple_cert("issuer", "wanted", 2));
  auto before = store_contents();
  cert_list found;
  EXPECT_EQ(find_by_subject("wanted", found.null_handle()), 0);
  EXPECT_EQ(store_contents(), before);
}

TEST_F(StoreFindBySubject, IssuerDoesNotCount) {
  keep(simple_cert("wanted", "subject", 1));
  cert_list found;
  EXPECT_EQ(find_by_subject("wanted", found.null_handle()), 0);
  EXPECT_EQ(OPENSSL_sk_num(found), 0);
}

// RFC 5280 7.1: letter case, and how many blanks part two words, are no part of a name.
TEST_F(StoreFindBySubject, LetterCaseAndBlanksDoNotMatter) {
  cert kept = simple_cert("issuer", "The  Wanted", 1), met = simple_cert("issuer", "THE WANTED", 2),
       other = simple_cert("issuer", "TheWanted", 3);
  keep(kept);
  collect(met);
  collect(other);
  cert_list found;
  EXPECT_EQ(find_by_subject("  the wanted ", found.null_handle()), 0);
  EXPECT_EQ(elements(found.get()), (pointers{kept.get(), met.get()}));
}

TEST_F(StoreFindBySubject, TakesTheStoreLockForWritingOnce) {
  keep(simple_cert("issuer", "wanted", 1));
  support::name subject = common_name("wanted");
  cert_list found;
  STACK **handle = found.null_handle();
  fake_failures::reset();
  EXPECT_EQ(pki_find_certs_by_subject(subject.get(), handle), 0);
  EXPECT_EQ(fake_failures::wrlock_calls(), 1);
  EXPECT_EQ(fake_failures::rdlock_calls(), 0);
}

TEST_F(StoreFindBySubject, NullArgumentsAreRefused) {
  keep(simple_cert("issuer", "wanted", 1));
  STACK *result = nullptr;
  EXPECT_EQ(pki_find_certs_by_subject(nullptr, &result), 63);
  EXPECT_EQ(result, nullptr);
  EXPECT_EQ(pki_find_certs_by_subject(common_name("wanted").get(), nullptr), 63);
}

TEST_F(StoreFindByIssuerSerial, BothMustBeEqual) {
  cert wanted = simple_cert("issuer", "a", 300), other_serial = simple_cert("issuer", "a", 301),
       other_issuer = simple_cert("other", "a", 300);
  for (const cert &each : {other_serial, other_issuer, wanted})
    collect(each);
  cert_list found;
  EXPECT_EQ(find_by_issuer_serial("issuer", 300, found.null_handle()), 0);
  EXPECT_EQ(elements(found.get()), pointers{wanted.get()});
}

TEST_F(StoreFindByIssuerSerial, LetterCaseAndBlanksOfTheIssuerDoNotMatter) {
  cert wanted = simple_cert("The  Issuer", "a", 300), other = simple_cert("TheIssuer", "a", 300);
  collect(wanted);
  collect(other);
  cert_list found;
  EXPECT_EQ(find_by_issuer_serial(" THE issuer", 300, found.null_handle()), 0);
  EXPECT_EQ(elements(found.get()), pointers{wanted.get()});
}

TEST_F(StoreFindByIssuerSerial, LongSerialNumbersAreComparedWhole) {
  support::cert_options options;
  options.issuer = common_name("issuer");
  cert held = support::make_cert(options);
  support::integer twenty = make_serial(std::string(20, '\x11'));
  X509_set_serialNumber(held.get(), twenty.get());
  collect(held);
  cert_list found;
  EXPECT_EQ(
      pki_find_certs_by_issuer_serial(options.issuer.get(), twenty.get(), found.null_handle()), 0);
  EXPECT_EQ(OPENSSL_sk_num(found), 1);
  EXPECT_EQ(
      pki_find_certs_by_issuer_serial(
          options.issuer.get(), make_serial(std::string(19, '\x11')).get(), found.null_handle()),
      0);
  EXPECT_EQ(OPENSSL_sk_num(found), 0);
}

TEST_F(StoreFindByIssuerSerial, FindsRootsAndAppends) {
  cert root = simple_cert("issuer", "root", 9), mine = simple_cert("mine", "mine", 1);
  support::ca ca = support::make_ca_info("ca");
  ASSERT_EQ(pki_add_ca_info(ca.get()), 0);
  ASSERT_EQ(pki_add_trusted_cert(root.get(), ca.get()), 0);
  cert_list found{mine};
  EXPECT_EQ(find_by_issuer_serial("issuer", 9, found.handle()), 0);
  EXPECT_EQ(elements(found.get()), (pointers{mine.get(), root.get()}));
}

TEST_F(StoreFindByIssuerSerial, TakesTheStoreLockForWritingOnce) {
  collect(simple_cert("issuer", "a", 1));
  support::name issuer = common_name("issuer");
  support::integer serial = make_serial(1);
  cert_list found;
  STACK **handle = found.null_handle();
  fake_failures::reset();
  EXPECT_EQ(pki_find_certs_by_issuer_serial(issuer.get(), serial.get(), handle), 0);
  EXPECT_EQ(fake_failures::wrlock_calls(), 1);
  EXPECT_EQ(fake_failures::rdlock_calls(), 0);
}

TEST_F(StoreFindByIssuerSerial, NullArgumentsAreRefused) {
  collect(simple_cert("issuer", "a", 1));
  support::name issuer = common_name("issuer");
  support::integer serial = make_serial(1);
  STACK *result = nullptr;
  EXPECT_EQ(pki_find_certs_by_issuer_serial(nullptr, serial.get(), &result), 63);
  EXPECT_EQ(pki_find_certs_by_issuer_serial(issuer.get(), nullptr, &result), 63);
  EXPECT_EQ(pki_find_certs_by_issuer_serial(issuer.get(), serial.get(), nullptr), 63);
  EXPECT_EQ(result, nullptr);
}

}  // namespace
