// How much memory is held at most, by everybody in this process.
#ifndef FUZZ_MEMORY_METER_H
#define FUZZ_MEMORY_METER_H

#include <cstddef>

namespace fuzz {

// Once, before the first.
void install_memory_meter();

class memory_meter {
 public:
  memory_meter();
  // Octets above what was held when it was made.
  [[nodiscard]] long peak() const;

 private:
  long start_;
};

}  // namespace fuzz

#endif
