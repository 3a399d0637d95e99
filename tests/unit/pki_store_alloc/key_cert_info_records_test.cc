#include <gtest/gtest.h>
#include <libpki/records.h>
#include <libpki/util.h>

#include "fakes/allocator.h"
#include "support/certs.h"
#include "unit/pki_store_alloc/destruction.h"

namespace {

using support::reference;
using support::watch;

TEST(KeyInfoRecord, StartsEmptyWithAnEmptyList) {
  key_info *info = alloc_key_info();
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(info->label, nullptr);
  EXPECT_EQ(info->key, nullptr);
  ASSERT_NE(info->certs, nullptr);
  EXPECT_EQ(OPENSSL_sk_num(info->certs), 0);
  free_key_info(info);
}

TEST(KeyInfoRecord, ReleasesItsKeyOnlyWithTheLastReference) {
  support::key key = support::make_key();
  auto destroyed = watch(key);
  key_info *info = alloc_key_info();
  info->label = pki_strdup("key");
  info->key = reference(key);
  key.reset();
  dup_key_info(info);
  free_key_info(info);
  EXPECT_EQ(*destroyed, 0);
  free_key_info(info);
  EXPECT_EQ(*destroyed, 1);
}

TEST(KeyInfoRecord, ReleasesOneReferenceToEveryCertificateRecord) {
  cert_info *first = alloc_cert_info(), *second = alloc_cert_info();
  key_info *info = alloc_key_info();
  OPENSSL_sk_push(info->certs, dup_cert_info(first));
  OPENSSL_sk_push(info->certs, dup_cert_info(second));
  free_key_info(info);
  EXPECT_EQ(first->ref_count, 1);
  EXPECT_EQ(second->ref_count, 1);
  free_cert_info(first);
  free_cert_info(second);
}

TEST(KeyStoreList, StartsEmpty) {
  STACK *list = alloc_key_store();
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(OPENSSL_sk_num(list), 0);
  free_key_store(list);
}

TEST(KeyStoreList, ReleasesOneReferenceToEveryKey) {
  key_info *first = alloc_key_info(), *second = alloc_key_info();
  STACK *list = alloc_key_store();
  OPENSSL_sk_push(list, dup_key_info(first));
  OPENSSL_sk_push(list, dup_key_info(second));
  free_key_store(list);
  EXPECT_EQ(first->ref_count, 1);
  EXPECT_EQ(second->ref_count, 1);
  free_key_info(first);
  free_key_info(second);
}

TEST(KeyStoreList, ReleasingNothingDoesNothing) {
  free_key_store(nullptr);
}

TEST(KeyStoreList, IsNullWhenMemoryRunsOut) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "the allocator cannot be made to fail in this build";
  fake_allocator::fail_at(1);
  STACK *list = alloc_key_store();
  fake_allocator::stop_failing();
  EXPECT_EQ(list, nullptr);
}

TEST(CertInfoRecord, StartsEmpty) {
  cert_info *info = alloc_cert_info();
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(info->label, nullptr);
  EXPECT_EQ(info->cert, nullptr);
  EXPECT_EQ(info->issuer, nullptr);
  EXPECT_EQ(info->subject, nullptr);
  EXPECT_EQ(info->serial, nullptr);
  free_cert_info(info);
}

TEST(CertInfoRecord, ReleasesItsCertificateOnlyWithTheLastReference) {
  support::cert cert = support::simple_cert("issuer", "subject", 7);
  auto destroyed = watch(cert);
  cert_info *info = alloc_cert_info();
  info->label = pki_strdup("label");
  info->cert = reference(cert);
  info->issuer = X509_NAME_dup(X509_get_issuer_name(cert.get()));
  info->subject = X509_NAME_dup(X509_get_subject_name(cert.get()));
  info->serial = ASN1_INTEGER_dup(X509_get0_serialNumber(cert.get()));
  cert.reset();
  dup_cert_info(info);
  free_cert_info(info);
  EXPECT_EQ(*destroyed, 0);
  EXPECT_EQ(ASN1_INTEGER_get(info->serial), 7);
  free_cert_info(info);
  EXPECT_EQ(*destroyed, 1);
}

}  // namespace
