#include <gtest/gtest.h>
#include <libpki/error.h>
#include <openssl/err.h>
#include <openssl/x509.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "fakes/log_capture.h"
#include "support/certs.h"

namespace {

class LogOpensslErrors : public testing::Test {
 protected:
  void SetUp() override {
    support::clear_openssl_errors();
    clear_log();
  }
  void TearDown() override { support::clear_openssl_errors(); }
};

// The oldest queued error as the library has to write it.
std::string line_of_oldest_error() {
  char text[200];
  ERR_error_string_n(ERR_peek_error(), text, sizeof text);
  return std::string("OpenSSL error: ") + text;
}

// Queues an error whose reason reads `text`, which must live until the process ends.
void raise_error_with_text(const char *text) {
  static int library = 0;
  static ERR_STRING_DATA strings[2];
  if (!library)
    library = ERR_get_next_error_library();
  strings[0] = {ERR_PACK(library, 0, 1), text};
  ERR_load_strings(library, strings);
  ERR_new();
  ERR_set_error(library, 1, nullptr);
}

TEST_F(LogOpensslErrors, EmptyQueueLogsNothing) {
  EXPECT_EQ(log_openssl_errors(3), 0ul);
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(LogOpensslErrors, OneLineAnEntryOldestFirst) {
  support::raise_openssl_error(101);
  std::string first = line_of_oldest_error();
  support::clear_openssl_errors();
  support::raise_openssl_error(102);
  std::string second = line_of_oldest_error();
  support::clear_openssl_errors();
  ASSERT_NE(first, second);

  support::raise_openssl_error(101);
  support::raise_openssl_error(102);
  log_openssl_errors(3);

  std::vector<log_entry> expected = {{3, first}, {3, second}};
  EXPECT_EQ(captured_log(), expected) << log_dump();
}

TEST_F(LogOpensslErrors, ReturnsZeroAndEmptiesTheQueue) {
  support::raise_openssl_error(101);
  support::raise_openssl_error(102);
  EXPECT_EQ(log_openssl_errors(3), 0ul);
  EXPECT_EQ(ERR_peek_error(), 0ul);
}

TEST_F(LogOpensslErrors, AFullQueueIsLoggedToItsEnd) {
  for (int i = 0; i < 40; i++)
    support::raise_openssl_error(100 + i);
  log_openssl_errors(3);
  // OpenSSL keeps the newest 15.
  EXPECT_EQ(captured_log().size(), 15u) << log_dump();
  EXPECT_EQ(ERR_peek_error(), 0ul);
}

TEST_F(LogOpensslErrors, PriorityIsUsedAsItIs) {
  for (int priority : {0, 4, 7, 0x80 | 3}) {
    clear_log();
    support::raise_openssl_error(101);
    std::string line = line_of_oldest_error();
    log_openssl_errors(priority);
    std::vector<log_entry> expected = {{priority, line}};
    EXPECT_EQ(captured_log(), expected) << log_dump();
  }
}

// OpenSSL writes numbers only where the texts do not fit into the 200 octets that it is given.
TEST_F(LogOpensslErrors, EntryThatDoesNotFitInto200OctetsIsWrittenInNumbers) {
  static const std::string fits(150, 'x');
  raise_error_with_text(fits.c_str());
  log_openssl_errors(3);
  EXPECT_TRUE(logged_containing(3, fits)) << log_dump();
  clear_log();

  static const std::string too_long(185, 'x');
  raise_error_with_text(too_long.c_str());
  std::string line = line_of_oldest_error();
  ASSERT_EQ(line.rfind("OpenSSL error: err:", 0), 0u);
  log_openssl_errors(3);
  EXPECT_TRUE(was_logged(3, line)) << log_dump();
}

TEST_F(LogOpensslErrors, EntryIsNoFormat) {
  raise_error_with_text("100%s %n done");
  log_openssl_errors(3);
  ASSERT_EQ(captured_log().size(), 1u);
  EXPECT_TRUE(logged_containing(3, "100%s %n done")) << log_dump();
}

TEST_F(LogOpensslErrors, OtherThreadsKeepTheirErrors) {
  support::raise_openssl_error(101);
  std::thread([] { log_openssl_errors(3); }).join();
  EXPECT_TRUE(captured_log().empty()) << log_dump();
  EXPECT_NE(ERR_peek_error(), 0ul);
}

[[noreturn]] void log_a_first_error() {
  ERR_raise(ERR_LIB_X509, X509_R_CERT_ALREADY_IN_HASH_TABLE);
  log_openssl_errors(3);
  bool in_words = captured_log().size() == 1 && logged_containing(3, "x509 certificate routines") &&
                  logged_containing(3, "cert already in hash table");
  fprintf(stderr, "%s", log_dump().c_str());
  exit(in_words ? 0 : 1);
}

// In a process of its own, where nothing had OpenSSL load its texts before.
TEST(LogOpensslErrorsDeathTest, FirstLineOfAProcessHasItsTexts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(log_a_first_error(), testing::ExitedWithCode(0), "");
  GTEST_FLAG_SET(death_test_style, "fast");
}

TEST_F(LogOpensslErrors, LeavesTheLogsSetUpToTheHost) {
  int before = log_setup_calls();
  support::raise_openssl_error(101);
  log_openssl_errors(3);
  EXPECT_EQ(log_setup_calls(), before);
}

}  // namespace
