// A report with its times made the same.
#ifndef TESTS_TOOLS_WITHOUT_TIMES_H
#define TESTS_TOOLS_WITHOUT_TIMES_H

#include <regex>
#include <string>

namespace tool_test {

inline std::string without_times(const std::string &text) {
  std::string plain =
      std::regex_replace(text, std::regex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8}Z"), "TIME");
  return std::regex_replace(plain, std::regex("in [0-9]+ ms"), "in N ms");
}

}  // namespace tool_test

#endif
