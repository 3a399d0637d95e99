// One lab in the test's own process for all cases of a program.
#ifndef TESTS_TOOLS_LAB_FIXTURE_H
#define TESTS_TOOLS_LAB_FIXTURE_H

#include "run_tool.h"
#include "tools/pkilab/lab.h"

namespace tool_test {

struct shared_lab {
  folder home;
  pkilab::lab lab;

  shared_lab() : lab(options(home)) {}

  static pkilab::lab_options options(const folder &home) {
    pkilab::lab_options options;
    options.folder = home / "lab";
    options.key_bits = 1024;  // fast
    return options;
  }

  std::string file(const std::string &name) const { return home / ("lab/" + name); }
};

inline shared_lab &the_lab() {
  static shared_lab lab;
  return lab;
}

inline const pkilab::ca &keys() {
  return the_lab().lab.keys();
}

}  // namespace tool_test

#endif
