// The search behind the certificate searches, its matchers, and its result list.
#include <gtest/gtest.h>

#include "fakes/allocator.h"
#include "fakes/failures.h"
#include "fakes/log_capture.h"
#include "pki/internal.h"
#include "unit/pki/store_helpers.h"

namespace {

using support::cert;
using support::cert_list;
using support::common_name;
using support::elements;
using support::make_serial;
using support::pointers;
using support::simple_cert;

using FindResult = support::store_test;
using FindByMatcher = support::store_test;

TEST_F(FindResult, NullHandleGetsANewList) {
  STACK *result = nullptr;
  unsigned char created = 7;
  int length = 7;
  EXPECT_EQ(pki::pki_alloc_find_res(&result, &created, &length), 0);
  ASSERT_NE(result, nullptr);
  EXPECT_EQ(OPENSSL_sk_num(result), 0);
  EXPECT_EQ(created, 1);
  EXPECT_EQ(length, 0);
  OPENSSL_sk_free(result);
}

TEST_F(FindResult, GivenListIsKeptAndItsLengthReported) {
  cert_list list{simple_cert("issuer", "a", 1), simple_cert("issuer", "b", 2)};
  STACK *given = list;
  unsigned char created = 7;
  int length = 7;
  EXPECT_EQ(pki::pki_alloc_find_res(list.handle(), &created, &length), 0);
  EXPECT_EQ(list.get(), given);
  EXPECT_EQ(created, 0);
  EXPECT_EQ(length, 2);
}

TEST_F(FindResult, OutOfMemoryIsReportedAndLogged) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "the allocator cannot be made to fail in this build";
  STACK *result = nullptr;
  unsigned char created = 7;
  int length = 7;
  fake_allocator::fail_at(1);
  int code = pki::pki_alloc_find_res(&result, &created, &length);
  fake_allocator::stop_failing();
  EXPECT_EQ(code, 2);
  EXPECT_EQ(result, nullptr);
  EXPECT_TRUE(logged_containing(3, "OpenSSL error: ")) << log_dump();
  EXPECT_EQ(ERR_peek_error(), 0u);
}

// What a matcher is asked, in order.
struct asked {
  pointers certs;
  const void *arg1 = nullptr, *arg2 = nullptr;
} last_asked;

pki::match_result ask(X509 *about, const void *arg1, const void *arg2) {
  last_asked.certs.push_back(about);
  last_asked.arg1 = arg1;
  last_asked.arg2 = arg2;
  return pki::is_match;
}

TEST_F(FindByMatcher, AsksForEachCertificateWithBothArguments) {
  cert kept = simple_cert("issuer", "a", 1), met = simple_cert("issuer", "b", 2),
       root = simple_cert("issuer", "c", 3);
  support::ca ca = support::make_ca_info("ca");
  ASSERT_EQ(pki_add_ca_info(ca.get()), 0);
  ASSERT_EQ(pki_add_trusted_cert(root.get(), ca.get()), 0);
  ASSERT_EQ(pki_add_untrusted_cert(met.get(), 0), 0);
  ASSERT_EQ(pki_add_untrusted_cert(kept.get(), 1), 0);
  int one = 1, two = 2;
  cert_list found;
  last_asked = {};
  EXPECT_EQ(pki::pki_find_certs_by_f(ask, &one, &two, found.null_handle()), 0);
  EXPECT_EQ(last_asked.certs, (pointers{kept.get(), met.get(), root.get()}));
  EXPECT_EQ(last_asked.arg1, &one);
  EXPECT_EQ(last_asked.arg2, &two);
  EXPECT_EQ(elements(found.get()), last_asked.certs);
}

TEST_F(FindByMatcher, FirstFailureEndsTheScan) {
  for (long serial = 1; serial <= 4; serial++)
    ASSERT_EQ(pki_add_untrusted_cert(simple_cert("issuer", "a", serial).get(), 0), 0);
  ASSERT_EQ(pki_add_untrusted_cert(simple_cert("issuer", "a", 5).get(), 1), 0);
  STACK *result = nullptr;
  last_asked = {};
  fake_failures::fail_x509_up_ref(2);
  EXPECT_EQ(pki::pki_find_certs_by_f(ask, nullptr, nullptr, &result), 49);
  EXPECT_EQ(last_asked.certs.size(), 3u);
  EXPECT_EQ(result, nullptr);
}

pki::match_result fail(X509 *, const void *, const void *) {
  return pki::match_failed;
}

TEST_F(FindByMatcher, MatcherWithoutMemoryEndsTheSearch) {
  cert mine = simple_cert("issuer", "mine", 1);
  ASSERT_EQ(pki_add_untrusted_cert(simple_cert("issuer", "a", 2).get(), 0), 0);
  STACK *result = nullptr;
  EXPECT_EQ(pki::pki_find_certs_by_f(fail, nullptr, nullptr, &result), 2);
  EXPECT_EQ(result, nullptr);
  cert_list found{mine};
  EXPECT_EQ(pki::pki_find_certs_by_f(fail, nullptr, nullptr, found.handle()), 2);
  EXPECT_EQ(elements(found.get()), pointers{mine.get()});
}

TEST(IssuerSerialMatcher, NeedsBoth) {
  cert object = simple_cert("issuer", "subject", 5);
  support::name issuer = common_name("issuer"), subject = common_name("subject");
  support::integer five = make_serial(5), six = make_serial(6);
  EXPECT_EQ(pki::pki_is_match(object.get(), issuer.get(), five.get()), pki::is_match);
  EXPECT_EQ(pki::pki_is_match(object.get(), issuer.get(), six.get()), pki::no_match);
  EXPECT_EQ(pki::pki_is_match(object.get(), subject.get(), five.get()), pki::no_match);
}

// The same magnitude with another sign is another number.
TEST(IssuerSerialMatcher, SignOfTheSerialCounts) {
  cert object = simple_cert("issuer", "subject", 5);
  support::name issuer = common_name("issuer");
  EXPECT_EQ(pki::pki_is_match(object.get(), issuer.get(), make_serial(-5L).get()), pki::no_match);
}

TEST(SubjectMatcher, LooksAtTheSubject) {
  cert object = simple_cert("issuer", "subject", 5);
  support::name issuer = common_name("issuer"), subject = common_name("subject");
  EXPECT_EQ(pki::pki_sn_match(object.get(), subject.get(), nullptr), pki::is_match);
  EXPECT_EQ(pki::pki_sn_match(object.get(), issuer.get(), nullptr), pki::no_match);
}

TEST(KeyHashMatcher, SaysWhenMemoryRanOut) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "the allocator cannot be made to fail in this build";
  cert object = support::make_ca("ca");
  unsigned char hash[EVP_MAX_MD_SIZE];
  unsigned length = 0;
  ASSERT_EQ(X509_pubkey_digest(object.get(), EVP_sha1(), hash, &length), 1);
  pki::match_result result = pki::no_match;
  int told = 0;
  // OpenSSL can hash without some of what it asks for; a wrong "no" must not come of it.
  fake_allocator::sweep([&] { result = pki::pki_kh_match(object.get(), EVP_sha1(), hash); },
                        [&](size_t n) {
                          EXPECT_NE(result, pki::no_match) << "allocation " << n;
                          told += result == pki::match_failed;
                        });
  EXPECT_EQ(result, pki::is_match);
  EXPECT_GE(told, 1);
  support::clear_openssl_errors();
}

TEST(KeyHashMatcher, ComparesTheHashOfTheKeyBits) {
  cert object = support::make_ca("ca", 0), other = support::make_ca("ca", 1);
  unsigned char hash[EVP_MAX_MD_SIZE];
  unsigned length = 0;
  ASSERT_EQ(X509_pubkey_digest(object.get(), EVP_sha1(), hash, &length), 1);
  EXPECT_EQ(pki::pki_kh_match(object.get(), EVP_sha1(), hash), pki::is_match);
  EXPECT_EQ(pki::pki_kh_match(other.get(), EVP_sha1(), hash), pki::no_match);
  hash[length - 1] ^= 1;
  EXPECT_EQ(pki::pki_kh_match(object.get(), EVP_sha1(), hash), pki::no_match);
}

}  // namespace
