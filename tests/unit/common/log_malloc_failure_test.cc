#include <gtest/gtest.h>
#include <libpki/error.h>
#include <openssl/err.h>

#include <thread>

#include "fakes/log_capture.h"
#include "support/certs.h"

namespace {

class OpensslMallocFailure : public testing::Test {
 protected:
  void SetUp() override {
    support::clear_openssl_errors();
    clear_log();
  }
  void TearDown() override { support::clear_openssl_errors(); }
};

constexpr int other = 101;

void raise(std::initializer_list<int> reasons) {
  for (int reason : reasons)
    support::raise_openssl_error(reason);
}

TEST_F(OpensslMallocFailure, EmptyQueueHasNone) {
  EXPECT_EQ(openssl_malloc_failure(), 0);
}

TEST_F(OpensslMallocFailure, OnlyEntryCounts) {
  raise({ERR_R_MALLOC_FAILURE});
  EXPECT_EQ(openssl_malloc_failure(), 1);
}

TEST_F(OpensslMallocFailure, OldestOfSeveralCounts) {
  raise({ERR_R_MALLOC_FAILURE, other, other});
  EXPECT_EQ(openssl_malloc_failure(), 1);
}

TEST_F(OpensslMallocFailure, NewestOfSeveralCounts) {
  raise({other, other, ERR_R_MALLOC_FAILURE});
  EXPECT_EQ(openssl_malloc_failure(), 1);
}

TEST_F(OpensslMallocFailure, MiddleOfSeveralCounts) {
  raise({other, ERR_R_MALLOC_FAILURE, other});
  EXPECT_EQ(openssl_malloc_failure(), 1);
}

TEST_F(OpensslMallocFailure, OtherReasonsAreNone) {
  raise({other, ERR_R_INTERNAL_ERROR, ERR_R_PASSED_NULL_PARAMETER});
  EXPECT_EQ(openssl_malloc_failure(), 0);
}

TEST_F(OpensslMallocFailure, AnyLibraryOfOpensslCounts) {
  ERR_raise(ERR_LIB_X509, ERR_R_MALLOC_FAILURE);
  EXPECT_EQ(openssl_malloc_failure(), 1);
}

// OpenSSL 3.0 gives the number that older series used for it to other reasons.
TEST_F(OpensslMallocFailure, ReasonNumber65OfALibraryIsNone) {
  ERR_raise(ERR_LIB_X509, 65);
  EXPECT_EQ(openssl_malloc_failure(), 0);
}

TEST_F(OpensslMallocFailure, LeavesTheQueueAlone) {
  raise({other, ERR_R_MALLOC_FAILURE, other + 1});
  EXPECT_EQ(openssl_malloc_failure(), 1);
  EXPECT_EQ(ERR_GET_REASON(ERR_get_error()), other);
  EXPECT_EQ(ERR_GET_REASON(ERR_get_error()), ERR_R_MALLOC_FAILURE);
  EXPECT_EQ(ERR_GET_REASON(ERR_get_error()), other + 1);
  EXPECT_EQ(ERR_get_error(), 0ul);
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(OpensslMallocFailure, ConsumedEntriesDoNotCount) {
  raise({ERR_R_MALLOC_FAILURE, other});
  ERR_get_error();
  EXPECT_EQ(openssl_malloc_failure(), 0);
}

TEST_F(OpensslMallocFailure, LoggedEntriesDoNotCount) {
  raise({ERR_R_MALLOC_FAILURE});
  log_openssl_errors(3);
  EXPECT_EQ(openssl_malloc_failure(), 0);
}

// The queue is a ring of 16 slots: an entry must be found wherever in the ring it lies.
TEST_F(OpensslMallocFailure, IsFoundInEverySlotOfTheRing) {
  for (int start = 0; start < 16; start++) {
    raise({other});
    ERR_get_error();
    raise({ERR_R_MALLOC_FAILURE, other, other});
    EXPECT_EQ(openssl_malloc_failure(), 1) << "oldest, start " << start;
    while (ERR_get_error()) {
    }
    raise({other, other, ERR_R_MALLOC_FAILURE});
    EXPECT_EQ(openssl_malloc_failure(), 1) << "newest, start " << start;
    while (ERR_get_error()) {
    }
    raise({other, other, other});
    EXPECT_EQ(openssl_malloc_failure(), 0) << "none, start " << start;
    while (ERR_get_error()) {
    }
  }
}

TEST_F(OpensslMallocFailure, OldestOfAFullRingCounts) {
  raise({ERR_R_MALLOC_FAILURE});
  for (int i = 0; i < 14; i++)
    raise({other});
  EXPECT_EQ(openssl_malloc_failure(), 1);
}

TEST_F(OpensslMallocFailure, EntryPushedOutOfTheRingDoesNotCount) {
  raise({ERR_R_MALLOC_FAILURE});
  for (int i = 0; i < 15; i++)
    raise({other});
  EXPECT_EQ(openssl_malloc_failure(), 0);
}

TEST_F(OpensslMallocFailure, NewestOfAnOverrunRingCounts) {
  for (int i = 0; i < 40; i++)
    raise({other});
  raise({ERR_R_MALLOC_FAILURE});
  EXPECT_EQ(openssl_malloc_failure(), 1);
}

TEST_F(OpensslMallocFailure, SeesItsOwnThreadOnly) {
  raise({ERR_R_MALLOC_FAILURE});
  int seen = -1;
  std::thread([&] { seen = openssl_malloc_failure(); }).join();
  EXPECT_EQ(seen, 0);
}

}  // namespace
