// A device runs for years: the certificates that it meets must not fill its memory.
#include <gtest/gtest.h>
#include <libpki/libpki.h>

#include <vector>

#include "fakes/failures.h"
#include "unit/pki/store_helpers.h"

namespace {

using support::cert;
using support::cert_list;
using support::elements;
using support::simple_cert;
using support::watch;

constexpr int limit = 512;
constexpr int cert_count = 600;

// Certificates with the serial numbers from 0 on, made once.
const std::vector<cert> &certs() {
  static const std::vector<cert> made = [] {
    std::vector<cert> list;
    for (int i = 0; i < cert_count; i++)
      list.push_back(simple_cert("issuer", "subject", i));
    return list;
  }();
  return made;
}

support::pointers pointers_of(int first, int end) {
  support::pointers found;
  for (int i = first; i < end; i++)
    found.push_back(certs()[static_cast<size_t>(i)].get());
  return found;
}

void add_up_to(int end, unsigned char keep) {
  for (int i = 0; i < end; i++)
    ASSERT_EQ(pki_add_untrusted_cert(certs()[static_cast<size_t>(i)].get(), keep), 0);
}

using CollectedLimit = support::store_test;

TEST_F(CollectedLimit, ListHolds512) {
  add_up_to(limit, 0);
  EXPECT_EQ(elements(pki_store->collected_certs), pointers_of(0, limit));
}

TEST_F(CollectedLimit, OldestLeavesFirst) {
  add_up_to(limit + 1, 0);
  EXPECT_EQ(elements(pki_store->collected_certs), pointers_of(1, limit + 1));
  ASSERT_EQ(pki_add_untrusted_cert(certs()[limit + 1].get(), 0), 0);
  EXPECT_EQ(elements(pki_store->collected_certs), pointers_of(2, limit + 2));
}

TEST_F(CollectedLimit, OldestIsReleased) {
  cert oldest = simple_cert("issuer", "oldest", 100000);
  auto destroyed = watch(oldest);
  ASSERT_EQ(pki_add_untrusted_cert(oldest.get(), 0), 0);
  oldest.reset();
  add_up_to(limit - 1, 0);
  EXPECT_EQ(*destroyed, 0);
  ASSERT_EQ(pki_add_untrusted_cert(certs()[limit].get(), 0), 0);
  EXPECT_EQ(*destroyed, 1);
}

TEST_F(CollectedLimit, CertificateThatIsHeldPushesNothingOut) {
  add_up_to(limit, 0);
  EXPECT_EQ(pki_add_untrusted_cert(certs()[limit - 1].get(), 0), 0);
  EXPECT_EQ(pki_add_untrusted_cert(certs()[0].get(), 0), 0);
  EXPECT_EQ(elements(pki_store->collected_certs), pointers_of(0, limit));
}

TEST_F(CollectedLimit, CertificateThatCannotBeAddedPushesNothingOut) {
  add_up_to(limit, 0);
  fake_failures::fail_x509_up_ref();
  EXPECT_EQ(pki_add_untrusted_cert(certs()[limit].get(), 0), 49);
  EXPECT_EQ(elements(pki_store->collected_certs), pointers_of(0, limit));
}

TEST_F(CollectedLimit, HoldsForWholeListsToo) {
  cert_list list;
  for (size_t i = 0; i < limit + 2; i++)
    list.push(certs()[i]);
  EXPECT_EQ(pki_add_untrusted_certs(list, 0), 0);
  EXPECT_EQ(elements(pki_store->collected_certs), pointers_of(2, limit + 2));
}

TEST_F(CollectedLimit, HoldsForCertificatesThatAreAddedToTheListItself) {
  for (int i = 0; i < cert_count; i++) {
    EXPECT_EQ(pki_add_cert(pki_store->collected_certs, certs()[static_cast<size_t>(i)].get()), 0);
    EXPECT_EQ(OPENSSL_sk_num(pki_store->collected_certs), i < limit ? i + 1 : limit);
  }
  EXPECT_EQ(elements(pki_store->collected_certs), pointers_of(cert_count - limit, cert_count));
}

TEST_F(CollectedLimit, HeldCertificateThatIsAddedToTheListItselfPushesNothingOut) {
  add_up_to(limit, 0);
  for (size_t held : {0, 1, limit - 1})
    EXPECT_EQ(pki_add_cert(pki_store->collected_certs, certs()[held].get()), 0);
  EXPECT_EQ(elements(pki_store->collected_certs), pointers_of(0, limit));
}

TEST_F(CollectedLimit, OtherListsHaveNone) {
  cert_list list;
  for (const cert &each : certs())
    ASSERT_EQ(pki_add_cert(list, each.get()), 0);
  EXPECT_EQ(OPENSSL_sk_num(list), cert_count);
}

// What a search gave that a host made at a certificate's end.
struct search_at_the_end {
  int code = -1;
  int found = -1;
};

void search_the_store(void *, void *value, CRYPTO_EX_DATA *, int, long, void *) {
  if (!value)
    return;
  auto *seen = static_cast<search_at_the_end *>(value);
  cert_list found;
  seen->code =
      pki_find_certs_by_subject(X509_get_subject_name(certs()[limit].get()), found.null_handle());
  seen->found = OPENSSL_sk_num(found);
}

class CollectedLimitEnd : public CollectedLimit {
 protected:
  // Fills the list; the oldest certificate, which only the list holds, searches when it ends.
  void SetUp() override {
    CollectedLimit::SetUp();
    static const int index = X509_get_ex_new_index(0, nullptr, nullptr, nullptr, search_the_store);
    cert oldest = simple_cert("issuer", "oldest", 100000);
    X509_set_ex_data(oldest.get(), index, &seen_);
    ASSERT_EQ(pki_add_untrusted_cert(oldest.get(), 0), 0);
    oldest.reset();
    add_up_to(limit - 1, 0);
    ASSERT_EQ(seen_.code, -1);
  }
  // The search got every lock, and met the new certificate in the list.
  void expect_a_search() const {
    EXPECT_EQ(seen_.code, 0);
    EXPECT_EQ(seen_.found, limit);
  }

  X509 *next_ = certs()[limit].get();
  search_at_the_end seen_;
};

TEST_F(CollectedLimitEnd, NoLockIsHeldWhenOneCertificateIsAdded) {
  EXPECT_EQ(pki_add_untrusted_cert(next_, 0), 0);
  expect_a_search();
}

TEST_F(CollectedLimitEnd, NoLockIsHeldWhenAListIsAdded) {
  cert_list list{certs()[limit]};
  EXPECT_EQ(pki_add_untrusted_certs(list, 0), 0);
  expect_a_search();
}

TEST_F(CollectedLimitEnd, NoLockIsHeldWhenTheListItselfIsAddedTo) {
  EXPECT_EQ(pki_add_cert(pki_store->collected_certs, next_), 0);
  expect_a_search();
}

TEST_F(CollectedLimit, ProvisionedListHasNone) {
  add_up_to(limit + 2, 1);
  EXPECT_EQ(elements(pki_store->provisioned_certs), pointers_of(0, limit + 2));
}

}  // namespace
