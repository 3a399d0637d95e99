// What always has to hold: where it does not, the fuzzer stops with the reason.
#ifndef FUZZ_INVARIANT_H
#define FUZZ_INVARIANT_H

#include <cstdio>
#include <cstdlib>

namespace fuzz {

inline void require(bool holds, const char *what, long value = 0) {
  if (holds)
    return;
  std::fprintf(stderr, "fuzz: violated: %s (%ld)\n", what, value);
  std::abort();
}

}  // namespace fuzz

#endif
