// What a peer sends is large where the peer likes it so: the octets of the collected certificates
// are limited, of each and of all.
#include <gtest/gtest.h>
#include <libpki/libpki.h>

#include <vector>

#include "fakes/log_capture.h"
#include "unit/pki/store_helpers.h"

namespace {

using support::cert;
using support::cert_list;
using support::elements;
using support::pointers;
using support::watch;

constexpr size_t largest = 16 * 1024;
constexpr size_t smallest = 500;
constexpr int largest_that_fit = 128;

cert cert_of(size_t size, long serial) {
  return support::cert_of_size(size, "issuer", "subject", serial);
}

// Certificates of the largest size with the serial numbers from 0 on, made once.
const std::vector<cert> &large_certs() {
  static const std::vector<cert> made = [] {
    std::vector<cert> list;
    for (int i = 0; i < largest_that_fit + 2; i++)
      list.push_back(cert_of(largest, i));
    return list;
  }();
  return made;
}

X509 *large(int number) {
  return large_certs()[static_cast<size_t>(number)].get();
}

void collect_large(int count) {
  for (int i = 0; i < count; i++)
    ASSERT_EQ(pki_add_untrusted_cert(large(i), 0), 0);
}

// The large ones with the numbers from `first` to in front of `end`, behind others.
pointers followed_by_large(pointers others, int first, int end) {
  for (int i = first; i < end; i++)
    others.push_back(large(i));
  return others;
}

pointers collected() {
  return elements(pki_store->collected_certs);
}

using CollectedSize = support::store_test;

TEST_F(CollectedSize, Of16KiBIsCollected) {
  EXPECT_EQ(pki_add_untrusted_cert(large(0), 0), 0);
  EXPECT_EQ(collected(), pointers{large(0)});
}

TEST_F(CollectedSize, OneOctetMoreIsPassedOverWithoutAWord) {
  cert larger = cert_of(largest + 1, 1);
  auto destroyed = watch(larger);
  clear_log();
  EXPECT_EQ(pki_add_untrusted_cert(larger.get(), 0), 0);
  EXPECT_EQ(pki_add_untrusted_certs(cert_list{larger}, 0), 0);
  EXPECT_EQ(pki_add_cert(pki_store->collected_certs, larger.get()), 0);
  EXPECT_EQ(collected(), pointers{});
  EXPECT_EQ(log_dump(), "");
  larger.reset();
  EXPECT_EQ(*destroyed, 1);
}

TEST_F(CollectedSize, WhatIsPassedOverKeepsNothingElseOut) {
  cert first = cert_of(smallest, 1), last = cert_of(smallest, 3);
  EXPECT_EQ(pki_add_untrusted_certs(cert_list{first, cert_of(100000, 2), last}, 0), 0);
  EXPECT_EQ(collected(), (pointers{first.get(), last.get()}));
}

TEST_F(CollectedSize, WhatIsPassedOverPushesNothingOut) {
  collect_large(largest_that_fit);
  EXPECT_EQ(pki_add_untrusted_cert(cert_of(100000, 1000).get(), 0), 0);
  EXPECT_EQ(collected(), followed_by_large({}, 0, largest_that_fit));
}

TEST_F(CollectedSize, OtherListsHaveNone) {
  cert larger = cert_of(100000, 1);
  cert_list list;
  support::ca info = support::make_ca_info("ca");
  EXPECT_EQ(pki_add_untrusted_cert(larger.get(), 1), 0);
  EXPECT_EQ(pki_add_cert(list, larger.get()), 0);
  EXPECT_EQ(pki_add_trusted_cert(larger.get(), info.get()), 0);
  for (const STACK *each : {pki_store->provisioned_certs, list.get(), info->trusted_roots})
    EXPECT_EQ(elements(each), pointers{larger.get()});
  EXPECT_EQ(collected(), pointers{});
}

TEST_F(CollectedSize, ProvisionedListHasNone) {
  for (int i = 0; i < largest_that_fit + 2; i++)
    ASSERT_EQ(pki_add_untrusted_cert(large(i), 1), 0);
  EXPECT_EQ(elements(pki_store->provisioned_certs), followed_by_large({}, 0, largest_that_fit + 2));
}

TEST_F(CollectedSize, ListHolds2MiB) {
  collect_large(largest_that_fit);
  EXPECT_EQ(collected(), followed_by_large({}, 0, largest_that_fit));
}

TEST_F(CollectedSize, OldestLeavesFirst) {
  collect_large(largest_that_fit + 1);
  EXPECT_EQ(collected(), followed_by_large({}, 1, largest_that_fit + 1));
  ASSERT_EQ(pki_add_cert(pki_store->collected_certs, large(largest_that_fit + 1)), 0);
  EXPECT_EQ(collected(), followed_by_large({}, 2, largest_that_fit + 2));
}

TEST_F(CollectedSize, SmallOneThatDoesNotFitPushesOneOut) {
  collect_large(largest_that_fit);
  cert small = cert_of(smallest, 1000);
  ASSERT_EQ(pki_add_untrusted_cert(small.get(), 0), 0);
  pointers expected = followed_by_large({}, 1, largest_that_fit);
  expected.push_back(small.get());
  EXPECT_EQ(collected(), expected);
}

TEST_F(CollectedSize, HeldOnePushesNothingOut) {
  collect_large(largest_that_fit);
  for (int held : {0, 1, largest_that_fit - 1})
    ASSERT_EQ(pki_add_untrusted_cert(large(held), 0), 0);
  EXPECT_EQ(collected(), followed_by_large({}, 0, largest_that_fit));
}

// 32,000 octets in small ones and 2,064,384 in large ones leave 768; 32 small ones make room.
TEST_F(CollectedSize, AsManySmallOnesLeaveAsMakeRoom) {
  constexpr int small_count = 64, large_count = 126, leaving = 32;
  std::vector<cert> small;
  std::vector<support::destruction_count> ends;
  for (int i = 0; i < small_count; i++) {
    small.push_back(cert_of(smallest, 1000 + i));
    ends.push_back(watch(small.back()));
    ASSERT_EQ(pki_add_untrusted_cert(small.back().get(), 0), 0);
  }
  collect_large(large_count);
  ASSERT_EQ(OPENSSL_sk_num(pki_store->collected_certs), small_count + large_count);
  ASSERT_EQ(pki_add_untrusted_cert(large(large_count), 0), 0);
  pointers stay;
  for (size_t i = leaving; i < small.size(); i++)
    stay.push_back(small[i].get());
  EXPECT_EQ(collected(), followed_by_large(stay, 0, large_count + 1));
  small.clear();
  for (int i = 0; i < small_count; i++)
    EXPECT_EQ(*ends[static_cast<size_t>(i)], i < leaving ? 1 : 0) << i;
}

TEST_F(CollectedSize, HoldsForWholeListsToo) {
  cert_list list;
  for (const cert &each : large_certs())
    list.push(each);
  EXPECT_EQ(pki_add_untrusted_certs(list, 0), 0);
  EXPECT_EQ(collected(), followed_by_large({}, 2, largest_that_fit + 2));
}

// However a certificate left, it no longer counts.
TEST_F(CollectedSize, WhatHasLeftTheListMakesRoom) {
  collect_large(largest_that_fit);
  EXPECT_EQ(pki_delete_untrusted_cert(large(5)), 52);
  EXPECT_EQ(pki_delete_cert(pki_store->collected_certs, large(6)), 0);
  ASSERT_EQ(pki_add_untrusted_cert(large(largest_that_fit), 0), 0);
  ASSERT_EQ(pki_add_untrusted_cert(large(largest_that_fit + 1), 0), 0);
  pointers first_five = followed_by_large({}, 0, 5);
  EXPECT_EQ(collected(), followed_by_large(first_five, 7, largest_that_fit + 2));
  support::empty_store();
  collect_large(largest_that_fit);
  EXPECT_EQ(collected(), followed_by_large({}, 0, largest_that_fit));
}

TEST_F(CollectedSize, WhatCannotBeMeasuredIsNotCollected) {
  cert unencodable(X509_new(), X509_free);
  ASSERT_LT(i2d_X509(unencodable.get(), nullptr), 1);
  support::clear_openssl_errors();
  EXPECT_EQ(pki_add_untrusted_cert(unencodable.get(), 0), 2);
  EXPECT_EQ(collected(), pointers{});
  EXPECT_EQ(ERR_peek_error(), 0U);
}

// What a search gave that a host made at a certificate's end.
struct search_at_an_end {
  int code = -1;
  int found = -1;
};

void search_from_an_end(void *, void *value, CRYPTO_EX_DATA *, int, long, void *) {
  if (!value)
    return;
  auto *seen = static_cast<search_at_an_end *>(value);
  cert_list found;
  seen->code = pki_find_certs_by_subject(X509_get_subject_name(large(0)), found.null_handle());
  seen->found = OPENSSL_sk_num(found);
}

TEST_F(CollectedSize, NoLockIsHeldWhenTheOldestIsFreed) {
  static const int index = X509_get_ex_new_index(0, nullptr, nullptr, nullptr, search_from_an_end);
  search_at_an_end seen;
  cert oldest = cert_of(smallest, 1000);
  X509_set_ex_data(oldest.get(), index, &seen);
  ASSERT_EQ(pki_add_untrusted_cert(oldest.get(), 0), 0);
  oldest.reset();
  collect_large(largest_that_fit - 1);
  ASSERT_EQ(seen.code, -1);
  ASSERT_EQ(pki_add_untrusted_cert(large(largest_that_fit - 1), 0), 0);
  EXPECT_EQ(seen.code, 0);
  EXPECT_EQ(seen.found, largest_that_fit);
}

}  // namespace
