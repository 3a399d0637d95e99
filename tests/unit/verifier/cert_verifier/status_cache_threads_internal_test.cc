// The status cache and its records under eight threads.
#include "../cache_support.h"
#include "verifier/cert_verifier/internal.h"

using namespace cache_support;

namespace {

constexpr int threads = 8;
constexpr int rounds = 1000;

class StatusCacheThreads : public cache_test {};

size_t list_length() {
  size_t length = 0;
  for (const cert_sts_info *info = pki::pki_csi_cache.first; info; info = info->link.next)
    length++;
  return length;
}

// Twelve certificates a thread, so that the cache overflows and each finds others' records too.
TEST_F(StatusCacheThreads, AddingFindingRemovingAndClearingLoseNoReference) {
  std::vector<watched_cert> certs;
  for (int i = 0; i < 24; i++)
    certs.push_back(make_watched_cert("device", i + 1));
  std::atomic<int> wrong{0};
  in_threads(threads, [&](int thread) {
    for (int round = 0; round < rounds; round++) {
      X509 *cert = certs[static_cast<size_t>((thread * 5 + round) % 24)].cert.get();
      support::asn1_time until = support::make_time(start + 3600);
      record info = hold(cv_alloc_cert_sts_info(PKI_CERT_OK, cert, until.get()));
      wrong += !info || zv_cv_add_cert_sts_info_cache(info.get()) != 0;
      record found = hold(zv_cv_find_cert_sts_info_cache(cert));
      wrong += found && X509_cmp(found->cert, cert) != 0;
      // Others may have removed or evicted it: only one of them gets the cache's reference.
      if (found && round % 3 == 0 && zv_cv_remove_cert_sts_info_cache(found.get()) == 0)
        cv_free_cert_sts_info(found.get());
      if (round % 200 == 199)
        wrong += zv_cv_clear_cert_sts_info_cache() != 0;
    }
  });
  EXPECT_EQ(0, wrong);
  EXPECT_LE(pki::pki_csi_cache.count, 20);
  EXPECT_EQ(static_cast<size_t>(pki::pki_csi_cache.count), list_length());
  EXPECT_EQ(0, zv_cv_clear_cert_sts_info_cache());
  for (watched_cert &watched : certs) {
    EXPECT_FALSE(*watched.freed);
    watched.cert.reset();
    EXPECT_TRUE(*watched.freed);
  }
}

TEST_F(StatusCacheThreads, OneRecordAddedByAllIsLinkedOnce) {
  record shared = make_record(1);
  std::atomic<int> wrong{0};
  in_threads(threads, [&](int) {
    for (int round = 0; round < rounds; round++)
      wrong += zv_cv_add_cert_sts_info_cache(shared.get()) != 0;
  });
  EXPECT_EQ(0, wrong);
  EXPECT_EQ(1, pki::pki_csi_cache.count);
  EXPECT_EQ(2U, shared->ref_count);
}

TEST_F(StatusCacheThreads, OneRecordIsRemovedByOneThreadOnly) {
  record shared = make_record(1);
  for (int round = 0; round < 50; round++) {
    ASSERT_EQ(0, zv_cv_add_cert_sts_info_cache(shared.get()));
    std::atomic<int> removed{0};
    std::atomic<int> missed{0};
    in_threads(threads, [&](int) {
      int result = zv_cv_remove_cert_sts_info_cache(shared.get());
      removed += result == 0;
      missed += result == 81;
    });
    EXPECT_EQ(1, removed);
    EXPECT_EQ(threads - 1, missed);
    cv_free_cert_sts_info(shared.get());
  }
  EXPECT_EQ(1U, shared->ref_count);
}

TEST_F(StatusCacheThreads, EveryLookUpIsCounted) {
  record shared = make_record(1);
  zv_cv_add_cert_sts_info_cache(shared.get());
  in_threads(threads, [&](int) {
    for (int round = 0; round < rounds; round++)
      cv_free_cert_sts_info(zv_cv_find_cert_sts_info_cache(shared->cert));
  });
  EXPECT_EQ(static_cast<uint32_t>(threads * rounds), shared->hits);
  EXPECT_EQ(2U, shared->ref_count);
}

TEST_F(StatusCacheThreads, ReferenceCountsAreAtomic) {
  record shared = make_record(1);
  in_threads(threads, [&](int) {
    for (int round = 0; round < 20 * rounds; round++)
      cv_free_cert_sts_info(cv_dup_cert_sts_info(shared.get()));
  });
  EXPECT_EQ(1U, shared->ref_count);
}

// Each call gets the value that the call before it set, so the sums differ by the first and last.
TEST_F(StatusCacheThreads, TheRevocationSwitchIsAtomic) {
  std::atomic<long> difference{0};
  std::atomic<int> wrong{0};
  in_threads(threads, [&](int thread) {
    long given = 0, returned = 0;
    for (int round = 0; round < 1000 * rounds; round++) {
      int flag = (thread + round / 3) % 2;
      returned += zv_cv_disable_crl_check(flag);
      given += flag;
    }
    int now = zv_cv_is_disabled_crl_check();
    wrong += now != 0 && now != 1;
    difference += given - returned;
  });
  EXPECT_EQ(0, wrong);
  EXPECT_EQ(zv_cv_is_disabled_crl_check(), difference);
}

}  // namespace
