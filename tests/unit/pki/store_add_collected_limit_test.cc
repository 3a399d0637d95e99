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

// Certificates with the serial numbers 0 to `limit` + 1, made once.
const std::vector<cert> &certs() {
  static const std::vector<cert> made = [] {
    std::vector<cert> list;
    for (int i = 0; i < limit + 2; i++)
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
  for (const cert &each : certs())
    list.push(each);
  EXPECT_EQ(pki_add_untrusted_certs(list, 0), 0);
  EXPECT_EQ(elements(pki_store->collected_certs), pointers_of(2, limit + 2));
}

TEST_F(CollectedLimit, ProvisionedListHasNone) {
  add_up_to(limit + 2, 1);
  EXPECT_EQ(elements(pki_store->provisioned_certs), pointers_of(0, limit + 2));
}

}  // namespace
