// The names of a sweep's two forms: which allocations fail.
#ifndef TESTS_UNIT_COMMON_FAILING_H
#define TESTS_UNIT_COMMON_FAILING_H

#include <gtest/gtest.h>

#include <string>

inline std::string failing(const testing::TestParamInfo<bool> &stay_failed) {
  return stay_failed.param ? "OneAndAllThatFollow" : "One";
}

#endif
