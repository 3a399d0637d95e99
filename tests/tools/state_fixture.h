// States of pkictl, made and read without it.
#ifndef TESTS_TOOLS_STATE_FIXTURE_H
#define TESTS_TOOLS_STATE_FIXTURE_H

#include <gtest/gtest.h>

#include "device.h"
#include "run_tool.h"
#include "tools/pkictl/state_format.h"

namespace tool_test {

inline pkictl::secret_octets octets_of(const std::string &text) {
  return {text.begin(), text.end()};
}

inline std::string text_of(const pkictl::secret_octets &octets) {
  return {octets.begin(), octets.end()};
}

inline pkictl::saved_state decoded(const std::string &text) {
  pkictl::saved_state state;
  EXPECT_EQ(pkictl::decode_state(octets_of(text), &state), 0);
  return state;
}

// A folder with a state, and pkictl with --state for it.
struct state_test {
  folder home;
  std::string dir = home / "state";
  std::string file = dir + "/state";

  result pkictl(strings arguments, const strings &environment = {}) const {
    arguments.insert(arguments.end(), {"--state", dir});
    return tool_test::pkictl(arguments, environment);
  }
  result make_key(const std::string &label) const {
    return pkictl({"key", "generate", label, "--bits", "512"});
  }
  std::string octets() const { return read_file(file); }
  void write(const std::string &octets) const { home.write("state/state", octets); }
};

}  // namespace tool_test

#endif
