#include <gtest/gtest.h>
#include <libpki/records.h>
#include <libpki/util.h>

#include <cstring>

#include "fakes/allocator.h"
#include "support/certs.h"
#include "unit/pki_store_alloc/destruction.h"

namespace {

using support::reference;
using support::watch;

TEST(CaInfoRecord, StartsEmptyWithFourEmptyLists) {
  ca_info *info = alloc_ca_info();
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(info->label, nullptr);
  EXPECT_EQ(info->ca_pointer_url, nullptr);
  EXPECT_EQ(info->doc_key, nullptr);
  EXPECT_EQ(info->issuer_name, nullptr);
  for (STACK *list : {info->trusted_roots, info->cert_req_methods, info->cert_lookup_methods,
                      info->cert_status_methods}) {
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(OPENSSL_sk_num(list), 0);
  }
  free_ca_info(info);
}

TEST(CaInfoRecord, ExpiryIsAllZerosUntilItIsRead) {
  ca_info *info = alloc_ca_info();
  struct tm zero;
  memset(&zero, 0, sizeof zero);
  EXPECT_EQ(memcmp(&info->expires, &zero, sizeof zero), 0);
  free_ca_info(info);
}

TEST(CaInfoRecord, ReleasesItsDocumentKeyOnce) {
  support::key key = support::make_key();
  auto destroyed = watch(key);
  ca_info *info = alloc_ca_info();
  info->doc_key = reference(key);
  key.reset();
  EXPECT_EQ(*destroyed, 0);
  free_ca_info(info);
  EXPECT_EQ(*destroyed, 1);
}

TEST(CaInfoRecord, ReleasesEveryTrustedRoot) {
  support::cert first = support::make_ca("first"), second = support::make_ca("second");
  auto first_destroyed = watch(first), second_destroyed = watch(second);
  ca_info *info = alloc_ca_info();
  OPENSSL_sk_push(info->trusted_roots, reference(first));
  OPENSSL_sk_push(info->trusted_roots, reference(second));
  first.reset();
  second.reset();
  EXPECT_EQ(*first_destroyed + *second_destroyed, 0);
  free_ca_info(info);
  EXPECT_EQ(*first_destroyed, 1);
  EXPECT_EQ(*second_destroyed, 1);
}

TEST(CaInfoRecord, ReleasesOneReferenceToEveryMethod) {
  cert_req_info *req = alloc_cert_req_info_m(PKI_CERT_REQ_SCEP);
  cert_query_info *query = alloc_cert_query_info_m(PKI_CERT_QUERY_LDAP);
  cert_status_info *status = alloc_cert_status_info_m(PKI_STATUS_AOK);
  ca_info *info = alloc_ca_info();
  OPENSSL_sk_push(info->cert_req_methods, dup_cert_req_info(req));
  OPENSSL_sk_push(info->cert_lookup_methods, dup_cert_query_info(query));
  OPENSSL_sk_push(info->cert_status_methods, dup_cert_status_info(status));
  free_ca_info(info);
  EXPECT_EQ(req->ref_count, 1);
  EXPECT_EQ(query->ref_count, 1);
  EXPECT_EQ(status->ref_count, 1);
  free_cert_req_info(req);
  free_cert_query_info(query);
  free_cert_status_info(status);
}

TEST(CaInfoRecord, DuplicateKeepsWhatItHoldsUntilTheLastRelease) {
  support::cert root = support::make_ca("root");
  auto destroyed = watch(root);
  ca_info *info = alloc_ca_info();
  info->label = pki_strdup("label");
  info->ca_pointer_url = pki_strdup("http://ca.example/info");
  info->issuer_name = X509_NAME_dup(X509_get_subject_name(root.get()));
  OPENSSL_sk_push(info->trusted_roots, reference(root));
  root.reset();
  ca_info *same = dup_ca_info(info);
  free_ca_info(info);
  EXPECT_EQ(*destroyed, 0);
  EXPECT_STREQ(same->label, "label");
  free_ca_info(same);
  EXPECT_EQ(*destroyed, 1);
}

// A count that was lost below one must not keep the record for ever.
TEST(CaInfoRecord, IsDestroyedWhenTheCountFallsBelowZero) {
  support::cert root = support::make_ca("root");
  auto destroyed = watch(root);
  ca_info *info = alloc_ca_info();
  OPENSSL_sk_push(info->trusted_roots, reference(root));
  root.reset();
  info->ref_count = 0;
  free_ca_info(info);
  EXPECT_EQ(*destroyed, 1);
}

TEST(CaInfoList, StartsEmpty) {
  STACK *list = alloc_ca_infos();
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(OPENSSL_sk_num(list), 0);
  free_ca_infos(list);
}

TEST(CaInfoList, ReleasesOneReferenceToEveryCa) {
  ca_info *first = alloc_ca_info(), *second = alloc_ca_info();
  STACK *list = alloc_ca_infos();
  OPENSSL_sk_push(list, dup_ca_info(first));
  OPENSSL_sk_push(list, dup_ca_info(second));
  free_ca_infos(list);
  EXPECT_EQ(first->ref_count, 1);
  EXPECT_EQ(second->ref_count, 1);
  free_ca_info(first);
  free_ca_info(second);
}

TEST(CaInfoList, ReleasingNothingDoesNothing) {
  free_ca_infos(nullptr);
}

TEST(CaInfoList, IsNullWhenMemoryRunsOut) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "the allocator cannot be made to fail in this build";
  fake_allocator::fail_at(1);
  STACK *list = alloc_ca_infos();
  fake_allocator::stop_failing();
  EXPECT_EQ(list, nullptr);
}

}  // namespace
