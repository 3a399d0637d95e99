// Status checks that run out of memory or meet failing locks.
#include <cerrno>

#include "../extension_der.h"
#include "fakes/allocator.h"
#include "fakes/failures.h"
#include "validator_support.h"

using namespace validator_support;
using namespace extension_der;

namespace {

class StatusMemory : public chain_test {
 protected:
  void SetUp() override {
    chain_test::SetUp();
    if (!fake_allocator::available())
      GTEST_SKIP() << "the allocator cannot be replaced in this build";
  }

  // Checks `subject` with each allocation failing; the answer is to be `expected`, or with a
  // failure at most unknown. After each run nothing else may be cached.
  void sweep(const cert &subject, int expected) {
    X509_get_extension_flags(subject.get());
    for (bool stay_failed : {false, true}) {
      int status = -1;
      size_t failures = fake_allocator::sweep(
          [&] { status = zv_cv_check_cert_status(subject.get(), inter_.get(), nullptr, 1, 0); },
          [&](size_t n) {
            EXPECT_TRUE(status == expected || status == PKI_CERT_UNKNOWN) << n << " " << status;
            record info = cached(subject);
            EXPECT_TRUE(!info || info->status == status) << n;
            zv_cv_clear_cert_sts_info_cache();
            support::clear_openssl_errors();
            clear_log();
          },
          stay_failed);
      EXPECT_GT(failures, 0U);
      EXPECT_EQ(expected, status);
      zv_cv_clear_cert_sts_info_cache();
    }
  }
};

TEST_F(StatusMemory, WithoutSourceItIsOkOrUnknown) {
  sweep(leaf_, PKI_CERT_OK);
}

TEST_F(StatusMemory, WithAnAlwaysOkRuleItIsOkOrUnknown) {
  add_always_ok("leaf");
  sweep(leaf_, PKI_CERT_OK);
}

TEST_F(StatusMemory, OfAnUnreachableResponderItStaysUnknown) {
  sweep(make_leaf({aia({"ldap://a/", "ldap://b/"})}), PKI_CERT_UNKNOWN);
}

TEST_F(StatusMemory, OfUselessDistributionPointsItStaysUnknown) {
  sweep(make_leaf({crl_dp_of(point("") + point(relative_name))}), PKI_CERT_UNKNOWN);
}

TEST_F(StatusMemory, OfAMalformedExtensionItStaysUnknown) {
  sweep(make_leaf({raw("authorityInfoAccess", "x")}), PKI_CERT_UNKNOWN);
  sweep(make_leaf({raw("crlDistributionPoints", "x")}), PKI_CERT_UNKNOWN);
}

TEST_F(StatusMemory, OfAConfiguredResponderItStaysUnknown) {
  add_ocsp("ldap://a/", false, true, "leaf");
  sweep(leaf_, PKI_CERT_UNKNOWN);
}

TEST_F(StatusMemory, WithoutAnyItIsUnknownWhateverTheSources) {
  for (const cert &leaf : {leaf_, make_leaf({aia({"ldap://a/"})})}) {
    X509_get_extension_flags(leaf.get());
    fake_allocator::fail_at(1, true);
    int status = zv_cv_check_cert_status(leaf.get(), inter_.get(), nullptr, 1, 0);
    fake_allocator::stop_failing();
    EXPECT_EQ(PKI_CERT_UNKNOWN, status);
  }
}

TEST_F(StatusMemory, CachedRevocationIsNeverForgotten) {
  add_always_ok("leaf");
  record info = cache_status(leaf_, PKI_CERT_REVOKED);
  int status = -1;
  fake_allocator::sweep(
      [&] { status = zv_cv_check_cert_status(leaf_.get(), inter_.get(), nullptr, 1, 0); },
      [&](size_t n) {
        EXPECT_NE(PKI_CERT_OK, status) << n;
        EXPECT_NE(nullptr, info->link.previous) << n;
        zv_cv_clear_cert_sts_info_cache();
        zv_cv_add_cert_sts_info_cache(info.get());
        support::clear_openssl_errors();
      });
  EXPECT_EQ(PKI_CERT_REVOKED, status);
  EXPECT_EQ(2U, info->ref_count);
}

class StatusLocks : public chain_test {};

// Which lock fails: the look-up's, the store's, or the one for keeping the answer.
TEST_F(StatusLocks, EveryLockMayFail) {
  for (int after = 0; after < 12; after++) {
    zv_cv_clear_cert_sts_info_cache();
    support::empty_store();
    add_ocsp("ldap://nobody/", false, false, "leaf");
    fake_failures::fail_wrlock(EDEADLK, after);
    EXPECT_EQ(PKI_CERT_UNKNOWN, zv_cv_check_cert_status(leaf_.get(), inter_.get(), nullptr, 1, 0))
        << after;
    fake_failures::reset();
  }
}

TEST_F(StatusLocks, AnswerThatCannotBeKeptIsGivenAllTheSame) {
  add_always_ok("leaf");
  // The look-up takes the first one.
  fake_failures::fail_wrlock(EDEADLK, 1);
  EXPECT_EQ(PKI_CERT_OK, zv_cv_check_cert_status(leaf_.get(), inter_.get(), nullptr, 1, 0));
}

TEST_F(StatusLocks, LostReferenceToTheCertificateLeavesItUnknown) {
  add_always_ok("leaf");
  X509_get_extension_flags(leaf_.get());
  fake_failures::fail_x509_up_ref();
  EXPECT_EQ(PKI_CERT_UNKNOWN, zv_cv_check_cert_status(leaf_.get(), inter_.get(), nullptr, 1, 0));
}

}  // namespace
