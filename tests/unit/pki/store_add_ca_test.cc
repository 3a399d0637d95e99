#include <gtest/gtest.h>
#include <libpki/libpki.h>

#include "fakes/failures.h"
#include "unit/pki/store_helpers.h"

namespace {

using support::elements;
using support::pointers;

using StoreAddCa = support::store_test;

TEST_F(StoreAddCa, SharesTheRecord) {
  support::ca ca = support::make_ca_info("ca");
  EXPECT_EQ(pki_add_ca_info(ca.get()), 0);
  EXPECT_EQ(elements(pki_store->ca_infos), pointers{ca.get()});
  EXPECT_EQ(ca->ref_count, 2);
}

TEST_F(StoreAddCa, LabelsMayRepeatAndTheFirstIsFound) {
  support::ca first = support::make_ca_info("ca"), second = support::make_ca_info("ca");
  EXPECT_EQ(pki_add_ca_info(first.get()), 0);
  EXPECT_EQ(pki_add_ca_info(second.get()), 0);
  EXPECT_EQ(elements(pki_store->ca_infos), (pointers{first.get(), second.get()}));
  ca_info *found = pki_find_ca_info_by_label("ca");
  EXPECT_EQ(found, first.get());
  free_ca_info(found);
}

TEST_F(StoreAddCa, OneRecordMayBeAddedTwice) {
  support::ca ca = support::make_ca_info("ca");
  EXPECT_EQ(pki_add_ca_info(ca.get()), 0);
  EXPECT_EQ(pki_add_ca_info(ca.get()), 0);
  EXPECT_EQ(ca->ref_count, 3);
  EXPECT_EQ(OPENSSL_sk_num(pki_store->ca_infos), 2);
}

TEST_F(StoreAddCa, NullIsRefused) {
  EXPECT_EQ(pki_add_ca_info(nullptr), 63);
  EXPECT_EQ(OPENSSL_sk_num(pki_store->ca_infos), 0);
}

TEST_F(StoreAddCa, TakesNoStoreLock) {
  support::ca ca = support::make_ca_info("ca");
  fake_failures::reset();
  EXPECT_EQ(pki_add_ca_info(ca.get()), 0);
  EXPECT_EQ(fake_failures::wrlock_calls(), 0);
  EXPECT_EQ(fake_failures::rdlock_calls(), 0);
}

}  // namespace
