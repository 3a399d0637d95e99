#include <gtest/gtest.h>
#include <libpki/error.h>
#include <openssl/err.h>

#include "common/log.h"
#include "fakes/log_capture.h"
#include "support/certs.h"

namespace {

class OpensslFailure : public testing::Test {
 protected:
  void SetUp() override {
    support::clear_openssl_errors();
    clear_log();
  }
  void TearDown() override { support::clear_openssl_errors(); }
};

TEST_F(OpensslFailure, GivesTheOwnCodeWithoutAnAllocationFailure) {
  support::raise_openssl_error(101);
  EXPECT_EQ(pki::openssl_failure(PKI_P7_SIGN_FAILED), 25);
}

TEST_F(OpensslFailure, GivesTheOwnCodeForAnEmptyQueue) {
  EXPECT_EQ(pki::openssl_failure(PKI_INVALID_PUBLIC_KEY), 75);
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(OpensslFailure, GivesOutOfMemoryForAnAllocationFailure) {
  support::raise_openssl_error(ERR_R_MALLOC_FAILURE);
  support::raise_openssl_error(101);
  EXPECT_EQ(pki::openssl_failure(PKI_P7_SIGN_FAILED), 2);
}

TEST_F(OpensslFailure, MovesTheQueueIntoTheLogAtLevel3) {
  support::raise_openssl_error(ERR_R_MALLOC_FAILURE);
  support::raise_openssl_error(101);
  EXPECT_EQ(pki::openssl_failure(PKI_P7_SIGN_FAILED), 2);
  EXPECT_EQ(ERR_peek_error(), 0ul);
  std::vector<log_entry> log = captured_log();
  ASSERT_EQ(log.size(), 2u);
  for (const log_entry &entry : log) {
    EXPECT_EQ(entry.level, 3);
    EXPECT_EQ(entry.text.rfind("OpenSSL error: error:", 0), 0u) << entry.text;
  }
}

TEST(LogText, NullIsWrittenOut) {
  EXPECT_STREQ(pki::text_or_null(nullptr), "(null)");
}

TEST(LogText, OtherTextsAreThemselves) {
  const char *text = "text";
  EXPECT_EQ(pki::text_or_null(text), text);
  EXPECT_STREQ(pki::text_or_null(""), "");
}

}  // namespace
