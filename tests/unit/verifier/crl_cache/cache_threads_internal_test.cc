// The CRL cache under eight threads, alone and beside the status cache.
#include "../cache_support.h"
#include "verifier/crl_cache/internal.h"

using namespace cache_support;

namespace {

constexpr int crl_threads = 8;
constexpr int crl_rounds = 500;

class CrlCacheThreads : public cache_test {
 protected:
  void SetUp() override {
    cache_test::SetUp();
    for (int i = 0; i < 12; i++) {
      std::string issuer_cn = "issuer " + std::to_string(i % 6);
      issuers.push_back(support::common_name(issuer_cn));
      crls.push_back(watch(
          i % 3 == 0 ? support::crl_of_size(12000, issuer_cn)
                     : make_crl(issuer_cn, i % 3 == 1 ? std::vector{1} : std::vector<int>{})));
      X509_NAME_cmp(issuers.back().get(), X509_CRL_get_issuer(crls.back().crl.get()));
    }
  }

  // Nothing is counted wrongly, and the cache gives back all that it holds.
  void expect_a_sound_cache() {
    uint32_t sum = 0;
    for (uint32_t i = 0; i < pki::cv_crl_cache.capacity; i++)
      if (pki::cv_crl_cache.entries[i].crl)
        sum += pki::cv_crl_cache.entries[i].size;
    EXPECT_EQ(sum, pki::cv_crl_cache.total_size);
    EXPECT_LE(sum, 50000U);
    EXPECT_EQ(0, zv_cv_clear_crl_cache());
    for (watched_crl &watched : crls) {
      EXPECT_FALSE(*watched.freed);
      watched.crl.reset();
      EXPECT_TRUE(*watched.freed);
    }
    EXPECT_FALSE(*signer.freed);
    signer.cert.reset();
    EXPECT_TRUE(*signer.freed);
  }

  // One round of one thread; gives the number of things that went wrong.
  int play(int thread, int round) {
    size_t number = static_cast<size_t>(thread + round) % 12;
    X509_CRL *crl = crls[number].crl.get();
    int wrong = zv_cv_add_crl_to_cache(crl, round % 2 ? signer.cert.get() : nullptr) != 0;
    X509 *found_signer = nullptr;
    bool ask = round % 4 < 2;
    X509_CRL *found = zv_cv_find_crl_in_cache(issuers[number].get(), round % 3 ? 0x2 : 511,
                                              ask ? &found_signer : nullptr);
    wrong += found && X509_CRL_cmp(found, crl) != 0;
    wrong += found && ask && found_signer != signer.cert.get();
    wrong += !found && found_signer;
    X509_CRL_free(found);
    X509_free(found_signer);
    if (round % 2) {
      int removed = zv_cv_rem_crl_from_cache(crl);
      wrong += removed != 0 && removed != 81;
    }
    if (round % 200 == 199)
      wrong += zv_cv_clear_crl_cache() != 0;
    return wrong;
  }

  std::vector<support::name> issuers;
  std::vector<watched_crl> crls;
  watched_cert signer = watch(support::make_ca("signer"));
};

TEST_F(CrlCacheThreads, AddingFindingRemovingAndClearingLoseNoReference) {
  std::atomic<int> wrong{0};
  in_threads(crl_threads, [&](int thread) {
    for (int round = 0; round < crl_rounds; round++)
      wrong += play(thread, round);
  });
  EXPECT_EQ(0, wrong);
  expect_a_sound_cache();
}

// Readers write the time of their hit side by side.
TEST_F(CrlCacheThreads, LookUpsRunSideBySide) {
  ASSERT_EQ(0, zv_cv_add_crl_to_cache(crls[2].crl.get(), signer.cert.get()));
  std::atomic<int> wrong{0};
  in_threads(crl_threads, [&](int thread) {
    for (int round = 0; round < 4 * crl_rounds; round++) {
      X509 *found_signer = nullptr;
      X509_CRL *found = zv_cv_find_crl_in_cache(issuers[2].get(), 511, &found_signer);
      wrong += found != crls[2].crl.get() || found_signer != signer.cert.get();
      X509_CRL_free(found);
      X509_free(found_signer);
      if (thread == 0)
        fake_clock::advance(1);
    }
  });
  EXPECT_EQ(0, wrong);
  EXPECT_LE(start + 4 * crl_rounds - 8, pki::cv_crl_cache.entries[0].last_access);
  expect_a_sound_cache();
}

TEST_F(CrlCacheThreads, BothCachesServeTheSameThreads) {
  std::vector<watched_cert> certs;
  for (int i = 0; i < 24; i++)
    certs.push_back(make_watched_cert("device", i + 1));
  std::atomic<int> wrong{0};
  in_threads(crl_threads, [&](int thread) {
    for (int round = 0; round < crl_rounds; round++) {
      wrong += play(thread, round);
      X509 *cert = certs[static_cast<size_t>(thread * 3 + round) % 24].cert.get();
      support::asn1_time until = support::make_time(start + 3600);
      record info = hold(cv_alloc_cert_sts_info(PKI_CERT_OK, cert, until.get()));
      wrong += zv_cv_add_cert_sts_info_cache(info.get()) != 0;
      record found = hold(zv_cv_find_cert_sts_info_cache(cert));
      if (found && round % 2 && zv_cv_remove_cert_sts_info_cache(found.get()) == 0)
        cv_free_cert_sts_info(found.get());
    }
  });
  EXPECT_EQ(0, wrong);
  expect_a_sound_cache();
  EXPECT_EQ(0, zv_cv_clear_cert_sts_info_cache());
  for (watched_cert &watched : certs) {
    watched.cert.reset();
    EXPECT_TRUE(*watched.freed);
  }
}

}  // namespace
