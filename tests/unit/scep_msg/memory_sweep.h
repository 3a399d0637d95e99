// Runs an operation with one allocation after the other failing.
#ifndef TESTS_UNIT_SCEP_MSG_MEMORY_SWEEP_H
#define TESTS_UNIT_SCEP_MSG_MEMORY_SWEEP_H

#include <gmock/gmock.h>

#include <cstdlib>
#include <functional>

#include "fakes/allocator.h"
#include "messages.h"

namespace scep {

// The parameter says whether failing goes on after the first failure.
struct memory_test : scep_test, testing::WithParamInterface<bool> {
  void SetUp() override {
    if (!fake_allocator::available())
      GTEST_SKIP() << "this build's allocator cannot be replaced";
  }
  void TearDown() override {
    fake_allocator::stop_failing();
    support::clear_openssl_errors();
  }

  // Rounds of one sweep: longer operations fail at as many places, spread evenly. The variable
  // SWEEP_ROUNDS asks for another number.
  static size_t max_rounds() {
    const char *asked = getenv("SWEEP_ROUNDS");
    return asked ? strtoul(asked, nullptr, 10) : 1000;
  }

  // `operation` returns its code, `success` with memory. After a failure the code must be one of
  // `codes`, or `success` where OpenSSL did without the memory; `check(code)` looks at the outputs
  // and frees them. `prepare` runs before each round, with memory.
  void sweep(
      const std::function<int()> &operation, const std::function<void(int)> &check,
      const std::vector<int> &codes, int success = PKI_OK,
      const std::function<void()> &prepare = [] {}) {
    // OpenSSL fills its caches of algorithms and texts, also the ones for logging errors.
    for (int i = 0; i < 2; i++) {
      prepare();
      check(operation());
    }
    support::raise_openssl_error(ERR_R_MALLOC_FAILURE);
    log_openssl_errors(3);
    prepare();
    fake_allocator::fail_at(0);
    int code = operation();
    const size_t total = fake_allocator::allocations();
    fake_allocator::stop_failing();
    check(code);
    const size_t step = total > max_rounds() ? total / max_rounds() : 1;
    size_t refused = 0;
    for (size_t n = 1 + (GetParam() ? step / 2 : 0); n <= total; n += step) {
      SCOPED_TRACE("allocation " + std::to_string(n) + " of " + std::to_string(total));
      prepare();
      clear_log();
      fake_allocator::fail_at(n, GetParam());
      code = operation();
      fake_allocator::stop_failing();
      if (code != success) {
        EXPECT_THAT(codes, testing::Contains(code)) << log_dump();
        refused++;
      }
      check(code);
      EXPECT_EQ(ERR_peek_error(), 0u) << "code " << code;
      support::clear_openssl_errors();
    }
    EXPECT_GT(refused, 0u);
    prepare();
    clear_log();
    code = operation();
    EXPECT_EQ(code, success) << "with memory again\n" << log_dump();
    check(code);
  }

  // OpenSSL 3.0 spoils an RSA key object's blinding when memory runs out while it is used, and
  // leaks when that is its first use: each round has an object of its own, used once.
  static support::key fresh(const support::key &original) {
    support::key made(EVP_PKEY_dup(original.get()), EVP_PKEY_free);
    const std::string nothing(16, 'x');
    EVP_MD_CTX *context = EVP_MD_CTX_new();
    unsigned char signature[512];
    size_t length = sizeof signature;
    EXPECT_EQ(EVP_DigestSignInit(context, nullptr, EVP_sha1(), nullptr, made.get()), 1);
    EXPECT_EQ(
        EVP_DigestSign(context, signature, &length,
                       reinterpret_cast<const unsigned char *>(nothing.data()), nothing.size()),
        1);
    EVP_MD_CTX_free(context);
    return made;
  }
};

inline std::string failing(const testing::TestParamInfo<bool> &stay_failed) {
  return stay_failed.param ? "OneAndAllThatFollow" : "One";
}

}  // namespace scep

#endif
