// CRL sources: what they own, what they borrow, and create_crl_info.
#include <gtest/gtest.h>
#include <libpki/records.h>
#include <libpki/util.h>

#include <cstring>

#include "fakes/allocator.h"
#include "fakes/failures.h"
#include "support/certs.h"
#include "unit/pki_store_alloc/destruction.h"
#include "unit/pki_store_alloc/own_error.h"

namespace {

using support::reference;
using support::watch;

class CrlInfoRecord : public testing::Test {
 protected:
  void TearDown() override {
    fake_failures::reset();
    support::clear_openssl_errors();
  }
};
class CreateCrlInfo : public CrlInfoRecord {};

TEST_F(CrlInfoRecord, StartsEmpty) {
  crl_info *info = alloc_crl_info();
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(info->url, nullptr);
  EXPECT_EQ(info->format, 0);
  EXPECT_EQ(info->reasons, 0u);
  EXPECT_EQ(info->flags, 0u);
  EXPECT_EQ(info->crl_issuer, nullptr);
  EXPECT_EQ(info->crl_signer, nullptr);
  EXPECT_EQ(info->dist_point, nullptr);
  EXPECT_EQ(info->ref_count, 1);
  free_crl_info(info);
}

// That url and issuer are freed shows under the leak checker.
TEST_F(CrlInfoRecord, ReleasesWhatItOwnsOnlyWithTheLastReference) {
  support::cert signer = support::make_ca("signer");
  auto destroyed = watch(signer);
  crl_info *info = alloc_crl_info();
  info->url = pki_strdup("http://crl.example/");
  info->crl_issuer = X509_NAME_dup(X509_get_subject_name(signer.get()));
  info->crl_signer = reference(signer);
  signer.reset();
  dup_crl_info(info);
  free_crl_info(info);
  EXPECT_EQ(*destroyed, 0);
  EXPECT_STREQ(info->url, "http://crl.example/");
  free_crl_info(info);
  EXPECT_EQ(*destroyed, 1);
}

TEST_F(CrlInfoRecord, BorrowedUrlStaysAfterTheRelease) {
  char url[] = "http://crl.example/borrowed";
  crl_info *info = alloc_crl_info();
  info->url = url;
  info->flags = UINT32_C(1) << 16;
  info->crl_issuer = X509_NAME_dup(support::common_name("issuer").get());
  free_crl_info(info);
  EXPECT_STREQ(url, "http://crl.example/borrowed");
}

TEST_F(CrlInfoRecord, BorrowedIssuerStaysAfterTheRelease) {
  support::name issuer = support::common_name("issuer");
  crl_info *info = alloc_crl_info();
  info->url = pki_strdup("http://crl.example/");
  info->crl_issuer = issuer.get();
  info->flags = UINT32_C(1) << 17;
  free_crl_info(info);
  EXPECT_EQ(X509_NAME_entry_count(issuer.get()), 1);
}

TEST_F(CrlInfoRecord, BorrowedFlagsHaveTheirFixedBits) {
  EXPECT_EQ(PKI_CRL_URL_BORROWED, UINT32_C(1) << 16);
  EXPECT_EQ(PKI_CRL_ISSUER_BORROWED, UINT32_C(1) << 17);
  EXPECT_EQ(PKI_ALL_REASONS, 511u);
}

TEST_F(CreateCrlInfo, StoresItsValuesAndACopyOfTheUrl) {
  char url[] = "http://crl.example/";
  crl_info *info = create_crl_info(url, 4, 511, 0xff, nullptr, nullptr);
  ASSERT_NE(info, nullptr);
  EXPECT_NE(info->url, url);
  memset(url, 'x', strlen(url));
  EXPECT_STREQ(info->url, "http://crl.example/");
  EXPECT_EQ(info->format, 4);
  EXPECT_EQ(info->reasons, 511u);
  EXPECT_EQ(info->flags, 0xffu);
  EXPECT_EQ(info->crl_issuer, nullptr);
  EXPECT_EQ(info->crl_signer, nullptr);
  EXPECT_EQ(info->dist_point, nullptr);
  EXPECT_EQ(info->ref_count, 1);
  free_crl_info(info);
}

TEST_F(CreateCrlInfo, UrlMayBeLeftOut) {
  crl_info *info = create_crl_info(nullptr, 0, 2, 0, nullptr, nullptr);
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(info->url, nullptr);
  EXPECT_EQ(info->reasons, 2u);
  free_crl_info(info);
}

TEST_F(CreateCrlInfo, CopiesTheIssuerName) {
  support::name issuer = support::common_name("issuer");
  crl_info *info = create_crl_info("http://crl.example/", 0, 511, 0, issuer.get(), nullptr);
  ASSERT_NE(info, nullptr);
  ASSERT_NE(info->crl_issuer, nullptr);
  EXPECT_NE(info->crl_issuer, issuer.get());
  EXPECT_EQ(X509_NAME_cmp(info->crl_issuer, issuer.get()), 0);
  free_crl_info(info);
}

TEST_F(CreateCrlInfo, TakesAReferenceToTheSignerWhenNoIssuerIsGiven) {
  support::cert signer = support::make_ca("signer");
  auto destroyed = watch(signer);
  crl_info *info = create_crl_info("http://crl.example/", 0, 511, 0, nullptr, signer.get());
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(info->crl_signer, signer.get());
  EXPECT_EQ(info->crl_issuer, nullptr);
  signer.reset();
  EXPECT_EQ(*destroyed, 0);
  free_crl_info(info);
  EXPECT_EQ(*destroyed, 1);
}

TEST_F(CreateCrlInfo, LeavesTheSignerAloneWhenAnIssuerIsGiven) {
  support::cert signer = support::make_ca("signer");
  auto destroyed = watch(signer);
  support::name issuer = support::common_name("issuer");
  crl_info *info = create_crl_info("http://crl.example/", 0, 511, 0, issuer.get(), signer.get());
  ASSERT_NE(info, nullptr);
  EXPECT_NE(info->crl_issuer, nullptr);
  EXPECT_EQ(info->crl_signer, nullptr);
  signer.reset();
  EXPECT_EQ(*destroyed, 1);
  free_crl_info(info);
}

TEST_F(CreateCrlInfo, GivesNullWhenTheSignerCannotBeReferenced) {
  support::cert signer = support::make_ca("signer");
  auto destroyed = watch(signer);
  fake_failures::fail_x509_up_ref();
  EXPECT_EQ(create_crl_info("http://crl.example/", 0, 511, 0, nullptr, signer.get()), nullptr);
  EXPECT_EQ(*destroyed, 0);
  signer.reset();
  EXPECT_EQ(*destroyed, 1);
}

// The null says it all: OpenSSL's queue is the caller's.
TEST_F(CreateCrlInfo, LeavesOpenSslsQueueAloneWhenMemoryRunsOut) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "the allocator cannot be made to fail in this build";
  support::name issuer = support::make_name({{"C", "US"}, {"O", "Example"}, {"CN", "issuer"}});
  for (bool stay_failed : {false, true}) {
    support::own_error queued;
    fake_allocator::sweep(
        [&] {
          free_crl_info(create_crl_info("http://crl.example/", 0, 511, 0, issuer.get(), nullptr));
        },
        [&](size_t n) { EXPECT_TRUE(queued.is_alone()) << "allocation " << n; }, stay_failed);
  }
}

TEST_F(CreateCrlInfo, LeavesOpenSslsQueueAloneWhenTheSignerCannotBeReferenced) {
  support::cert signer = support::make_ca("signer");
  support::own_error queued;
  fake_failures::fail_x509_up_ref();
  EXPECT_EQ(create_crl_info("http://crl.example/", 0, 511, 0, nullptr, signer.get()), nullptr);
  EXPECT_TRUE(queued.is_alone());
}

TEST_F(CreateCrlInfo, GivesNullWheneverMemoryRunsOut) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "the allocator cannot be made to fail in this build";
  support::cert signer = support::make_ca("signer");
  auto destroyed = watch(signer);
  support::name issuer = support::common_name("issuer");
  for (const X509_NAME *name :
       {static_cast<const X509_NAME *>(issuer.get()), static_cast<const X509_NAME *>(nullptr)}) {
    crl_info *made = nullptr;
    size_t failures = fake_allocator::sweep(
        [&] {
          made = create_crl_info("http://crl.example/", 0, 511, 0, name, signer.get());
          fake_allocator::pause no_failures;
          if (!fake_allocator::has_failed())
            free_crl_info(made);
        },
        [&](size_t n) { EXPECT_EQ(made, nullptr) << "allocation " << n; });
    EXPECT_GE(failures, 2u);
  }
  signer.reset();
  EXPECT_EQ(*destroyed, 1);
}

}  // namespace
