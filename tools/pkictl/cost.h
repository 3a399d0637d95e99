// What a command took, for whoever asks with --cost.
#ifndef TOOLS_PKICTL_COST_H
#define TOOLS_PKICTL_COST_H

#include <chrono>
#include <cstdint>
#include <string>

#include "tools/pkictl/output.h"

namespace CLI {
class App;
}

namespace pkictl {

void add_cost_option(CLI::App *command, bool *wanted);

// Begins with its making.
class cost_meter {
 public:
  cost_meter();

  // {"seconds": ..., "peak_memory_kib": ...}; the memory is the whole process's, and null where
  // the system does not tell.
  json read() const;
  // The same with "octets_per_second" and "crl_memory_kib", of a CRL of so many octets.
  json read_with_crl(uint64_t octets) const;

 private:
  json peak_before_;
  std::chrono::steady_clock::time_point begin_;
};

// Its lines, each ended; "" for null.
std::string cost_text(int depth, const json &cost);

}  // namespace pkictl

#endif
