// Start-up happens once a process, so these tests run each case in a fresh one: a death test of
// the style that starts the program again.
#ifndef TESTS_UNIT_PKI_LIFECYCLE_PROCESS_H
#define TESTS_UNIT_PKI_LIFECYCLE_PROCESS_H

#include <gtest/gtest.h>
#include <libpki/libpki.h>
#include <openssl/ssl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "support/certs.h"

namespace support {

inline const testing::TestResult &result_so_far() {
  return *testing::UnitTest::GetInstance()->current_test_info()->result();
}

// Ends a process with 0, or with 1 and the failed expectations, from number `first` on, on stderr.
[[noreturn]] inline void end_process(int first = 0) {
  int failed = 0;
  for (int i = first; i < result_so_far().total_part_count(); i++) {
    const testing::TestPartResult &part = result_so_far().GetTestPartResult(i);
    if (!part.failed())
      continue;
    fprintf(stderr, "%s:%d: %s\n", part.file_name(), part.line_number(), part.message());
    failed = 1;
  }
  exit(failed);
}

// What the libraries beneath set up at their first use, and would take for a lasting failure if
// they ran out of memory then.
inline void warm_up_libraries() {
  SSL_library_init();
  OBJ_create("1.3.6.1.4.1.32473.98.1", "libpki-warm-up", nullptr);
  clear_openssl_errors();
  raise_openssl_error(1);
  log_openssl_errors(7);
}

// In a copy of this process: whether `body` met its expectations.
template <class Body>
bool holds_in_copy(Body body) {
  fflush(nullptr);
  int failed_before = result_so_far().total_part_count();
  pid_t child = fork();
  if (child == 0) {
    body();
    end_process(failed_before);
  }
  int status = 0;
  return child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) &&
         WEXITSTATUS(status) == 0;
}

}  // namespace support

// Expects that the function `body` meets its expectations in a fresh process.
#define EXPECT_IN_FRESH_PROCESS(body)               \
  do {                                              \
    GTEST_FLAG_SET(death_test_style, "threadsafe"); \
    EXPECT_EXIT(                                    \
        {                                           \
          body();                                   \
          support::end_process();                   \
        },                                          \
        testing::ExitedWithCode(0), "");            \
  } while (false)

#endif
