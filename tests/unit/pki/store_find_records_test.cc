// CAs, keys and certificate records that are found in the store.
#include <gtest/gtest.h>
#include <libpki/libpki.h>

#include "fakes/allocator.h"
#include "fakes/failures.h"
#include "unit/pki/store_helpers.h"

namespace {

using support::common_name;
using support::elements;
using support::make_ca_info;
using support::pointers;

using StoreFindCaByLabel = support::store_test;
using StoreFindCaByIssuer = support::store_test;
using StoreAllCas = support::store_test;

void add_to_store(const support::ca &ca) {
  ASSERT_EQ(pki_add_ca_info(ca.get()), 0);
}

TEST_F(StoreFindCaByLabel, GivesTheCallerAReference) {
  support::ca ca = make_ca_info("ca");
  add_to_store(ca);
  ca_info *found = pki_find_ca_info_by_label("ca");
  EXPECT_EQ(found, ca.get());
  EXPECT_EQ(ca->ref_count, 3);
  free_ca_info(found);
}

TEST_F(StoreFindCaByLabel, FoundCaOutlivesItsPlaceInTheStore) {
  add_to_store(make_ca_info("ca"));
  ca_info *found = pki_find_ca_info_by_label("ca");
  EXPECT_EQ(pki_remove_ca("ca"), 0);
  EXPECT_STREQ(found->label, "ca");
  EXPECT_EQ(found->ref_count, 1);
  free_ca_info(found);
}

TEST_F(StoreFindCaByLabel, LetterCaseCounts) {
  add_to_store(make_ca_info("Ca"));
  EXPECT_EQ(pki_find_ca_info_by_label("ca"), nullptr);
}

TEST_F(StoreFindCaByLabel, WholeLabelMustBeEqual) {
  add_to_store(make_ca_info("label"));
  EXPECT_EQ(pki_find_ca_info_by_label("labe"), nullptr);
  EXPECT_EQ(pki_find_ca_info_by_label("label2"), nullptr);
  EXPECT_EQ(pki_find_ca_info_by_label(""), nullptr);
}

TEST_F(StoreFindCaByLabel, CaWithoutLabelIsPassedOver) {
  support::ca unnamed = make_ca_info(nullptr), named = make_ca_info("ca");
  add_to_store(unnamed);
  add_to_store(named);
  ca_info *found = pki_find_ca_info_by_label("ca");
  EXPECT_EQ(found, named.get());
  free_ca_info(found);
}

TEST_F(StoreFindCaByLabel, NothingIsFoundInAnEmptyStoreOrForNull) {
  EXPECT_EQ(pki_find_ca_info_by_label("ca"), nullptr);
  add_to_store(make_ca_info("ca"));
  EXPECT_EQ(pki_find_ca_info_by_label(nullptr), nullptr);
}

TEST_F(StoreFindCaByIssuer, FirstCaOfThatIssuerIsFound) {
  support::ca other = make_ca_info("a", "other"), first = make_ca_info("b", "issuer"),
              second = make_ca_info("c", "issuer");
  for (const support::ca &each : {other, first, second})
    add_to_store(each);
  ca_info *found = pki_find_ca_info_by_issuer(common_name("issuer").get());
  EXPECT_EQ(found, first.get());
  EXPECT_EQ(first->ref_count, 3);
  free_ca_info(found);
}

TEST_F(StoreFindCaByIssuer, CaWithoutIssuerIsPassedOver) {
  support::ca bare = make_ca_info("a"), wanted = make_ca_info("b", "issuer");
  add_to_store(bare);
  add_to_store(wanted);
  ca_info *found = pki_find_ca_info_by_issuer(common_name("issuer").get());
  EXPECT_EQ(found, wanted.get());
  free_ca_info(found);
}

TEST_F(StoreFindCaByIssuer, LetterCaseAndBlanksDoNotMatter) {
  support::ca other = make_ca_info("a", "TheIssuer"), wanted = make_ca_info("b", "The  Issuer");
  add_to_store(other);
  add_to_store(wanted);
  ca_info *found = pki_find_ca_info_by_issuer(common_name(" the ISSUER ").get());
  EXPECT_EQ(found, wanted.get());
  free_ca_info(found);
}

TEST_F(StoreFindCaByIssuer, AnotherNameOrNullFindsNothing) {
  add_to_store(make_ca_info("bare"));
  add_to_store(make_ca_info("ca", "issuer"));
  EXPECT_EQ(pki_find_ca_info_by_issuer(common_name("other").get()), nullptr);
  EXPECT_EQ(pki_find_ca_info_by_issuer(nullptr), nullptr);
}

TEST_F(StoreAllCas, AreSharedInOrder) {
  support::ca first = make_ca_info("a"), second = make_ca_info("b");
  add_to_store(first);
  add_to_store(second);
  STACK *all = pki_get_all_ca_infos();
  ASSERT_NE(all, nullptr);
  EXPECT_NE(all, pki_store->ca_infos);
  EXPECT_EQ(elements(all), (pointers{first.get(), second.get()}));
  EXPECT_EQ(first->ref_count, 3);
  EXPECT_EQ(second->ref_count, 3);
  free_ca_infos(all);
  EXPECT_EQ(first->ref_count, 2);
}

TEST_F(StoreAllCas, OfAnEmptyStoreAreAnEmptyList) {
  STACK *all = pki_get_all_ca_infos();
  ASSERT_NE(all, nullptr);
  EXPECT_EQ(OPENSSL_sk_num(all), 0);
  free_ca_infos(all);
}

TEST_F(StoreAllCas, AreNullAndUnsharedWhenMemoryRunsOut) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "the allocator cannot be made to fail in this build";
  std::vector<support::ca> cas;
  for (int i = 0; i < 9; i++) {
    cas.push_back(make_ca_info("ca"));
    add_to_store(cas.back());
  }
  STACK *all = nullptr;
  size_t failures = fake_allocator::sweep([&] { all = pki_get_all_ca_infos(); },
                                          [&](size_t n) {
                                            EXPECT_EQ(all, nullptr) << "allocation " << n;
                                            for (const support::ca &each : cas)
                                              EXPECT_EQ(each->ref_count, 2) << "allocation " << n;
                                            EXPECT_EQ(OPENSSL_sk_num(pki_store->ca_infos), 9);
                                          });
  EXPECT_GE(failures, 2u);
  free_ca_infos(all);
}

class StoreFindKey : public support::store_test {
 protected:
  static key_info *add_key(const char *label) {
    key_info *made = alloc_key_info();
    made->label = pki_strdup(label);
    OPENSSL_sk_push(pki_store->key_store, made);
    return made;
  }
  static cert_info *add_cert(key_info *key, const char *label) {
    cert_info *made = alloc_cert_info();
    made->label = pki_strdup(label);
    OPENSSL_sk_push(key->certs, made);
    return made;
  }
};

TEST_F(StoreFindKey, FirstKeyOfThatLabelIsFound) {
  add_key("other");
  key_info *first = add_key("key");
  add_key("key");
  key_info *found = pki_find_key_info_by_label("key");
  EXPECT_EQ(found, first);
  EXPECT_EQ(first->ref_count, 2);
  free_key_info(found);
}

TEST_F(StoreFindKey, UnknownLabelOtherCaseOrNullFindsNothing) {
  EXPECT_EQ(pki_find_key_info_by_label("key"), nullptr);
  add_key("key");
  EXPECT_EQ(pki_find_key_info_by_label("KEY"), nullptr);
  EXPECT_EQ(pki_find_key_info_by_label("ke"), nullptr);
  EXPECT_EQ(pki_find_key_info_by_label(nullptr), nullptr);
}

TEST_F(StoreFindKey, KeyWithoutLabelIsPassedOver) {
  add_key(nullptr);
  key_info *named = add_key("key");
  key_info *found = pki_find_key_info_by_label("key");
  EXPECT_EQ(found, named);
  free_key_info(found);
}

TEST_F(StoreFindKey, FirstCertificateRecordOfThatLabelIsFound) {
  key_info *key = add_key("key");
  add_cert(key, nullptr);
  add_cert(key, "other");
  cert_info *first = add_cert(key, "cert");
  add_cert(key, "cert");
  cert_info *found = pki_find_cert_info_by_label("cert", key);
  EXPECT_EQ(found, first);
  EXPECT_EQ(first->ref_count, 2);
  free_cert_info(found);
}

TEST_F(StoreFindKey, CertificateRecordsOfOtherKeysAreNotLookedAt) {
  key_info *key = add_key("key"), *other = add_key("other");
  add_cert(other, "cert");
  EXPECT_EQ(pki_find_cert_info_by_label("cert", key), nullptr);
}

TEST_F(StoreFindKey, CertificateRecordNeedsLabelAndKey) {
  key_info *key = add_key("key");
  add_cert(key, "cert");
  EXPECT_EQ(pki_find_cert_info_by_label(nullptr, key), nullptr);
  EXPECT_EQ(pki_find_cert_info_by_label("cert", nullptr), nullptr);
  EXPECT_EQ(pki_find_cert_info_by_label("CERT", key), nullptr);
}

TEST_F(StoreFindKey, RecordSearchesTakeNoStoreLock) {
  key_info *key = add_key("key");
  add_cert(key, "cert");
  add_to_store(make_ca_info("ca", "issuer"));
  support::name issuer = common_name("issuer");
  fake_failures::reset();
  free_key_info(pki_find_key_info_by_label("key"));
  free_cert_info(pki_find_cert_info_by_label("cert", key));
  free_ca_info(pki_find_ca_info_by_label("ca"));
  free_ca_info(pki_find_ca_info_by_issuer(issuer.get()));
  free_ca_infos(pki_get_all_ca_infos());
  EXPECT_EQ(fake_failures::wrlock_calls(), 0);
  EXPECT_EQ(fake_failures::rdlock_calls(), 0);
}

}  // namespace
