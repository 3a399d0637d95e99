// Looking certificates up in the status cache.
#include <cerrno>
#include <cstdint>
#include <cstdio>

#include "../cache_support.h"
#include "fakes/allocator.h"
#include "fakes/failures.h"
#include "fakes/log_capture.h"

using namespace cache_support;

namespace {

class StatusCacheFind : public cache_test {};

std::string bad_ref_count_line(const cert_sts_info *info) {
  char text[100];
  snprintf(text, sizeof text, "bad ref count idx %p - %d", static_cast<const void *>(info), 0);
  return text;
}

TEST_F(StatusCacheFind, GivesTheRecordWithAReferenceAndCountsTheHit) {
  record info = make_record(1);
  zv_cv_add_cert_sts_info_cache(info.get());
  record found = hold(zv_cv_find_cert_sts_info_cache(info->cert));
  EXPECT_EQ(info.get(), found.get());
  EXPECT_EQ(3U, info->ref_count);
  EXPECT_EQ(1U, info->hits);
  EXPECT_EQ("", log_dump());
}

TEST_F(StatusCacheFind, AnEqualCertificateMatches) {
  support::cert cert = support::simple_cert("issuer", "device", 1);
  record info = make_record(cert);
  zv_cv_add_cert_sts_info_cache(info.get());
  support::cert same(X509_dup(cert.get()), X509_free);
  record found = hold(zv_cv_find_cert_sts_info_cache(same.get()));
  EXPECT_EQ(info.get(), found.get());
}

TEST_F(StatusCacheFind, OnlyTheCertificatesOwnRecordMatches) {
  std::vector<record> records;
  for (long serial = 1; serial <= 5; serial++) {
    records.push_back(make_record(serial));
    zv_cv_add_cert_sts_info_cache(records.back().get());
  }
  record found = hold(zv_cv_find_cert_sts_info_cache(records[3]->cert));
  EXPECT_EQ(records[3].get(), found.get());
  for (size_t i = 0; i < records.size(); i++)
    EXPECT_EQ(i == 3 ? 1U : 0U, records[i]->hits) << i;
}

TEST_F(StatusCacheFind, UnknownCertificateGivesNull) {
  record info = make_record(1);
  zv_cv_add_cert_sts_info_cache(info.get());
  support::cert other = support::simple_cert("issuer", "device", 2);
  EXPECT_EQ(nullptr, zv_cv_find_cert_sts_info_cache(other.get()));
  EXPECT_EQ(0U, info->hits);
  EXPECT_EQ(2U, info->ref_count);
}

TEST_F(StatusCacheFind, EmptyCacheGivesNull) {
  support::cert cert = support::simple_cert("issuer", "device", 1);
  EXPECT_EQ(nullptr, zv_cv_find_cert_sts_info_cache(cert.get()));
}

TEST_F(StatusCacheFind, NullGivesNull) {
  record info = make_record(1);
  zv_cv_add_cert_sts_info_cache(info.get());
  EXPECT_EQ(nullptr, zv_cv_find_cert_sts_info_cache(nullptr));
  EXPECT_EQ(0U, info->hits);
}

TEST_F(StatusCacheFind, OfTwoRecordsOfACertificateTheOlderIsFound) {
  support::cert cert = support::simple_cert("issuer", "device", 1);
  record older = make_record(cert);
  record newer = make_record(cert, start + 7200, PKI_CERT_REVOKED);
  zv_cv_add_cert_sts_info_cache(older.get());
  zv_cv_add_cert_sts_info_cache(newer.get());
  record found = hold(zv_cv_find_cert_sts_info_cache(cert.get()));
  EXPECT_EQ(older.get(), found.get());
  EXPECT_EQ(1U, older->hits);
  EXPECT_EQ(0U, newer->hits);
}

TEST_F(StatusCacheFind, ExpiredRecordIsStillFound) {
  record info = make_record(1, start + 10);
  zv_cv_add_cert_sts_info_cache(info.get());
  fake_clock::advance(60);
  record found = hold(zv_cv_find_cert_sts_info_cache(info->cert));
  EXPECT_EQ(info.get(), found.get());
}

TEST_F(StatusCacheFind, HitsStopAtTheLargestNumber) {
  record info = make_record(1);
  zv_cv_add_cert_sts_info_cache(info.get());
  info->hits = UINT32_MAX - 1;
  hold(zv_cv_find_cert_sts_info_cache(info->cert));
  EXPECT_EQ(4294967295U, info->hits);
  record found = hold(zv_cv_find_cert_sts_info_cache(info->cert));
  EXPECT_EQ(info.get(), found.get());
  EXPECT_EQ(4294967295U, info->hits);
}

TEST_F(StatusCacheFind, WithoutTheLockNothingIsFound) {
  record info = make_record(1);
  zv_cv_add_cert_sts_info_cache(info.get());
  fake_failures::fail_wrlock(EDEADLK);
  EXPECT_EQ(nullptr, zv_cv_find_cert_sts_info_cache(info->cert));
  EXPECT_EQ(0U, info->hits);
  EXPECT_EQ(2U, info->ref_count);
}

TEST_F(StatusCacheFind, TakesTheLockForWriting) {
  record info = make_record(1);
  zv_cv_add_cert_sts_info_cache(info.get());
  hold(zv_cv_find_cert_sts_info_cache(info->cert));  // OpenSSL has looked at the certificate now
  fake_failures::reset();
  hold(zv_cv_find_cert_sts_info_cache(info->cert));
  EXPECT_EQ(1, fake_failures::wrlock_calls());
  EXPECT_EQ(0, fake_failures::rdlock_calls());
}

TEST_F(StatusCacheFind, RecordWithoutHoldersIsReportedAndStillFound) {
  record info = make_record(1);
  zv_cv_add_cert_sts_info_cache(info.get());
  info->ref_count = 0;
  cert_sts_info *found = zv_cv_find_cert_sts_info_cache(info->cert);
  EXPECT_EQ(info.get(), found);
  EXPECT_EQ(1U, info->ref_count);
  EXPECT_EQ((std::vector<log_entry>{{3, bad_ref_count_line(info.get())}}), captured_log());
  info->ref_count = 2;  // the test's and the cache's
}

TEST_F(StatusCacheFind, RecordWithoutHoldersIsReportedOnTheWayToAnother) {
  record broken = make_record(1);
  record wanted = make_record(2);
  zv_cv_add_cert_sts_info_cache(broken.get());
  zv_cv_add_cert_sts_info_cache(wanted.get());
  broken->ref_count = 0;
  record found = hold(zv_cv_find_cert_sts_info_cache(wanted->cert));
  broken->ref_count = 2;
  EXPECT_EQ(wanted.get(), found.get());
  EXPECT_EQ((std::vector<log_entry>{{3, bad_ref_count_line(broken.get())}}), captured_log());
}

TEST_F(StatusCacheFind, RecordsBehindTheMatchAreNotExamined) {
  record wanted = make_record(1);
  record broken = make_record(2);
  zv_cv_add_cert_sts_info_cache(wanted.get());
  zv_cv_add_cert_sts_info_cache(broken.get());
  broken->ref_count = 0;
  record found = hold(zv_cv_find_cert_sts_info_cache(wanted->cert));
  broken->ref_count = 2;
  EXPECT_EQ(wanted.get(), found.get());
  EXPECT_EQ("", log_dump());
}

TEST_F(StatusCacheFind, RecordWithoutACertificateIsSkipped) {
  record bare = make_record(1);
  record wanted = make_record(2);
  zv_cv_add_cert_sts_info_cache(bare.get());
  zv_cv_add_cert_sts_info_cache(wanted.get());
  X509 *kept = bare->cert;
  bare->cert = nullptr;
  record found = hold(zv_cv_find_cert_sts_info_cache(wanted->cert));
  bare->cert = kept;
  EXPECT_EQ(wanted.get(), found.get());
}

// OpenSSL's comparison of a certificate that has no encoding says "equal".
TEST_F(StatusCacheFind, ACertificateThatDoesNotEncodeMatchesNoRecord) {
  record info = make_record(1);
  zv_cv_add_cert_sts_info_cache(info.get());
  support::cert unfinished(X509_new(), X509_free);
  EXPECT_EQ(nullptr, zv_cv_find_cert_sts_info_cache(unfinished.get()));
  EXPECT_EQ(0U, info->hits);
  EXPECT_EQ(2U, info->ref_count);
}

TEST_F(StatusCacheFind, ACertificateThatDoesNotEncodeLeavesNothingInOpensslsQueue) {
  support::cert unfinished(X509_new(), X509_free);
  EXPECT_EQ(nullptr, zv_cv_find_cert_sts_info_cache(unfinished.get()));
  EXPECT_EQ(0UL, ERR_peek_error());
}

// OpenSSL computes a certificate's fingerprint when it is first compared, and needs memory then.
TEST_F(StatusCacheFind, AnAllocationFailureNeverFindsAnotherRecord) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "the allocator cannot be replaced in this build";
  record other = make_record(1);
  record wanted = make_record(2);
  zv_cv_add_cert_sts_info_cache(other.get());
  zv_cv_add_cert_sts_info_cache(wanted.get());
  std::string octets = support::der(support::cert(X509_dup(wanted->cert), X509_free));
  cert_sts_info *found = nullptr;
  fake_allocator::sweep(
      [&] {
        support::cert fresh;
        {
          fake_allocator::pause no_failures;
          const auto *in = reinterpret_cast<const unsigned char *>(octets.data());
          fresh.reset(d2i_X509(nullptr, &in, static_cast<long>(octets.size())), X509_free);
        }
        found = zv_cv_find_cert_sts_info_cache(fresh.get());
        cv_free_cert_sts_info(found);
      },
      [&](size_t n) { EXPECT_TRUE(!found || found == wanted.get()) << n; });
  EXPECT_EQ(wanted.get(), found);
  EXPECT_EQ(0U, other->hits);
  EXPECT_EQ(2U, wanted->ref_count);
}

}  // namespace
