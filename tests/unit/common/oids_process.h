// The end of a process that a death test started.
#ifndef TESTS_UNIT_COMMON_OIDS_PROCESS_H
#define TESTS_UNIT_COMMON_OIDS_PROCESS_H

#include <gtest/gtest.h>
#include <libpki/oids.h>

#include <cstdio>
#include <cstdlib>

// Ends it with what its expectations gave.
[[noreturn]] inline void finish() {
  pki_cleanup_oids();
  const auto *result = testing::UnitTest::GetInstance()->current_test_info()->result();
  for (int i = 0; i < result->total_part_count(); i++)
    fprintf(stderr, "%d: %s\n", result->GetTestPartResult(i).line_number(),
            result->GetTestPartResult(i).message());
  exit(result->Failed() ? 1 : 0);
}

#define IN_A_FRESH_PROCESS(what) EXPECT_EXIT((what(), finish()), testing::ExitedWithCode(0), "")

#endif
