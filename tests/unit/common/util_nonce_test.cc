#include <gtest/gtest.h>
#include <libpki/util.h>

#include <climits>
#include <cstdlib>
#include <memory>
#include <set>
#include <string>

#include "fakes/allocator.h"
#include "fakes/failures.h"
#include "fakes/log_capture.h"
#include "support/certs.h"

namespace {

class UtilNonce : public testing::Test {
 protected:
  void SetUp() override {
    // OpenSSL seeds its generators once a thread; that is none of a nonce's allocations.
    free(gen_nonce(&length));
    length = 0;
    clear_log();
  }
  void TearDown() override {
    fake_failures::reset();
    support::clear_openssl_errors();
  }

  std::string nonce(int wanted) {
    length = wanted;
    std::unique_ptr<unsigned char, void (*)(void *)> bytes(gen_nonce(&length), free);
    return bytes ? std::string(reinterpret_cast<char *>(bytes.get()), static_cast<size_t>(length))
                 : "null";
  }

  int length = 1;
};

TEST_F(UtilNonce, NegativeLengthGives16Octets) {
  for (int wanted : {-1, -16, INT_MIN}) {
    EXPECT_EQ(nonce(wanted).size(), 16u);
    EXPECT_EQ(length, 16);
  }
}

TEST_F(UtilNonce, GivesAsManyOctetsAsWanted) {
  for (int wanted : {1, 16, 20, 4096}) {
    EXPECT_EQ(nonce(wanted).size(), static_cast<size_t>(wanted));
    EXPECT_EQ(length, wanted);
  }
}

TEST_F(UtilNonce, LengthZeroIsNotNull) {
  length = 0;
  unsigned char *bytes = gen_nonce(&length);
  EXPECT_NE(bytes, nullptr);
  EXPECT_EQ(length, 0);
  free(bytes);
}

TEST_F(UtilNonce, NoTwoAreAlike) {
  std::set<std::string> seen;
  for (int i = 0; i < 100; i++)
    seen.insert(nonce(-1));
  EXPECT_EQ(seen.size(), 100u);
}

TEST_F(UtilNonce, EveryOctetIsFilled) {
  // A place that is never written would hold the same octet each time.
  std::string first = nonce(64);
  std::string changed(64, ' ');
  for (int i = 0; i < 50; i++) {
    std::string next = nonce(64);
    for (size_t k = 0; k < 64; k++)
      if (next[k] != first[k])
        changed[k] = 'x';
  }
  EXPECT_EQ(changed, std::string(64, 'x'));
}

TEST_F(UtilNonce, NoRandomOctetsIsNull) {
  for (int wanted : {-1, 1, 16}) {
    length = wanted;
    fake_failures::fail_rand_bytes();
    unsigned char *bytes = gen_nonce(&length);
    EXPECT_EQ(bytes, nullptr);
    free(bytes);
  }
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(UtilNonce, NoOctetsNeedTheGeneratorToo) {
  length = 0;
  fake_failures::fail_rand_bytes();
  EXPECT_EQ(gen_nonce(&length), nullptr);
  unsigned char *bytes = gen_nonce(&length);  // works again
  EXPECT_NE(bytes, nullptr);
  EXPECT_EQ(length, 0);
  free(bytes);
}

TEST_F(UtilNonce, WithoutALengthThereIsNone) {
  EXPECT_EQ(gen_nonce(nullptr), nullptr);
}

TEST_F(UtilNonce, OutOfMemoryIsNull) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be told to fail";
  for (int wanted : {-1, 0, 16}) {
    unsigned char *bytes = nullptr;
    size_t failures = fake_allocator::sweep(
        [&] {
          length = wanted;
          bytes = gen_nonce(&length);
          free(bytes);
        },
        [&](size_t n) { EXPECT_EQ(bytes, nullptr) << n; });
    EXPECT_GE(failures, 1u) << wanted;
  }
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

}  // namespace
