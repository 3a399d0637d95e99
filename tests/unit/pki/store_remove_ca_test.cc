#include <gtest/gtest.h>
#include <libpki/libpki.h>

#include "fakes/failures.h"
#include "unit/pki/store_helpers.h"

namespace {

using support::elements;
using support::make_ca_info;
using support::pointers;

class StoreRemoveCa : public support::store_test {
 protected:
  static void add(const support::ca &ca) { ASSERT_EQ(pki_add_ca_info(ca.get()), 0); }
};

TEST_F(StoreRemoveCa, ReleasesTheStoresReference) {
  support::ca ca = make_ca_info("ca");
  add(ca);
  EXPECT_EQ(pki_remove_ca("ca"), 0);
  EXPECT_EQ(OPENSSL_sk_num(pki_store->ca_infos), 0);
  EXPECT_EQ(ca->ref_count, 1);
}

TEST_F(StoreRemoveCa, LastReferenceTakesTheRootsAlong) {
  support::cert root = support::make_ca("root");
  auto destroyed = support::watch(root);
  {
    support::ca ca = make_ca_info("ca");
    ASSERT_EQ(pki_add_trusted_cert(root.get(), ca.get()), 0);
    add(ca);
  }
  root.reset();
  EXPECT_EQ(*destroyed, 0);
  EXPECT_EQ(pki_remove_ca("ca"), 0);
  EXPECT_EQ(*destroyed, 1);
}

TEST_F(StoreRemoveCa, FirstOfThatLabelGoes) {
  support::ca other = make_ca_info("other"), first = make_ca_info("ca"),
              second = make_ca_info("ca");
  for (const support::ca &each : {other, first, second})
    add(each);
  EXPECT_EQ(pki_remove_ca("ca"), 0);
  EXPECT_EQ(elements(pki_store->ca_infos), (pointers{other.get(), second.get()}));
  EXPECT_EQ(pki_remove_ca("ca"), 0);
  EXPECT_EQ(elements(pki_store->ca_infos), pointers{other.get()});
  EXPECT_EQ(pki_remove_ca("ca"), 50);
}

TEST_F(StoreRemoveCa, UnknownLabelOrOtherCaseIsReported) {
  EXPECT_EQ(pki_remove_ca("ca"), 50);
  support::ca ca = make_ca_info("ca");
  add(ca);
  EXPECT_EQ(pki_remove_ca("CA"), 50);
  EXPECT_EQ(pki_remove_ca("c"), 50);
  EXPECT_EQ(elements(pki_store->ca_infos), pointers{ca.get()});
}

TEST_F(StoreRemoveCa, CaWithoutLabelIsPassedOver) {
  support::ca unnamed = make_ca_info(nullptr), named = make_ca_info("ca");
  add(unnamed);
  add(named);
  EXPECT_EQ(pki_remove_ca("ca"), 0);
  EXPECT_EQ(elements(pki_store->ca_infos), pointers{unnamed.get()});
}

TEST_F(StoreRemoveCa, NullLabelIsRefused) {
  support::ca unnamed = make_ca_info(nullptr);
  add(unnamed);
  EXPECT_EQ(pki_remove_ca(nullptr), 63);
  EXPECT_EQ(elements(pki_store->ca_infos), pointers{unnamed.get()});
}

TEST_F(StoreRemoveCa, TakesNoStoreLock) {
  support::ca ca = make_ca_info("ca");
  add(ca);
  fake_failures::reset();
  EXPECT_EQ(pki_remove_ca("ca"), 0);
  EXPECT_EQ(fake_failures::wrlock_calls(), 0);
  EXPECT_EQ(fake_failures::rdlock_calls(), 0);
}

}  // namespace
