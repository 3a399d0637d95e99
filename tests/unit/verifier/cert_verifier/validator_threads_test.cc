// Eight threads that verify over the shared caches and the shared store.
#include <atomic>
#include <thread>

#include "validator_support.h"

using namespace validator_support;

namespace {

constexpr int threads = 8;

// Runs `work(thread)` in each thread, all at once.
template <class Work>
void in_threads(const Work &work) {
  std::atomic<bool> go{false};
  std::vector<std::thread> running;
  for (int i = 0; i < threads; i++)
    running.emplace_back([&, i] {
      while (!go)
        std::this_thread::yield();
      work(i);
    });
  go = true;
  for (std::thread &each : running)
    each.join();
}

class ValidatorThreads : public chain_test {
 protected:
  static bool verify_shared(X509_STORE *store, const cert &leaf, STACK_OF(X509) * untrusted,
                            callback verify_cb) {
    context ctx = make_context();
    X509_STORE_CTX_init(ctx.get(), store, leaf.get(), untrusted);
    X509_STORE_CTX_set_verify_cb(ctx.get(), verify_cb);
    return X509_verify_cert(ctx.get()) == 1;
  }
};

TEST_F(ValidatorThreads, OneGoodChainIsAlwaysAccepted) {
  add_always_ok();
  x509_store store = make_x509_store({root_});
  stack untrusted = make_stack({inter_});
  std::atomic<int> wrong{0};
  in_threads([&](int thread) {
    for (int round = 0; round < 200; round++) {
      callback verify_cb = all_callbacks[static_cast<size_t>(thread + round) % 4].call;
      wrong += !verify_shared(store.get(), leaf_, untrusted.get(), verify_cb);
      if (thread == 0 && round % 20 == 0)
        zv_cv_clear_cert_sts_info_cache();
      if (round % 50 == 0)
        clear_log();  // of so many rounds it would only take memory
    }
  });
  EXPECT_EQ(0, wrong);
  EXPECT_EQ((std::vector<long>{2, 1}), collected());
}

TEST_F(ValidatorThreads, GoodAndRevokedOnesAreNeverMixedUp) {
  x509_store store = make_x509_store({root_});
  stack untrusted = make_stack({inter_});
  certs leafs;
  for (int i = 0; i < 8; i++)
    leafs.push_back(make_leaf({}, 100 + i));
  for (size_t i = 1; i < leafs.size(); i += 2)
    cache_status(leafs[i], PKI_CERT_REVOKED);
  add_always_ok();
  std::atomic<int> wrong{0};
  in_threads([&](int thread) {
    for (int round = 0; round < 100; round++) {
      size_t which = static_cast<size_t>(thread + round) % leafs.size();
      wrong +=
          verify_shared(store.get(), leafs[which], untrusted.get(), internet) != (which % 2 == 0);
      if (round % 50 == 0)
        clear_log();
    }
  });
  EXPECT_EQ(0, wrong);
}

TEST_F(ValidatorThreads, ExpiryOfASharedStatusLosesNoReference) {
  std::atomic<int> wrong{0};
  for (int round = 0; round < 100; round++) {
    record info = cache_status(leaf_, PKI_CERT_REVOKED, 10);
    fake_clock::advance(11);
    in_threads([&](int) {
      wrong += zv_cv_check_cert_status(leaf_.get(), inter_.get(), nullptr, 1, 0) != PKI_CERT_OK;
    });
    EXPECT_EQ(1U, info->ref_count);
    clear_log();
  }
  EXPECT_EQ(0, wrong);
}

}  // namespace
