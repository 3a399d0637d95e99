// malloc, calloc and realloc of the test program, in front of the C library's (or a sanitizer's)
// for every library in the process. They can be told to fail, on the calling thread only.
#ifndef TESTS_FAKES_ALLOCATOR_H
#define TESTS_FAKES_ALLOCATOR_H

#include <cstddef>
#include <functional>

namespace fake_allocator {

// False in builds whose sanitizer does not let the allocator be replaced: skip such tests there.
bool available();

// The n-th allocation of this thread from now fails (1 is the next one); 0 turns failing off.
// With `stay_failed`, all later ones fail too.
void fail_at(size_t n, bool stay_failed = false);
void stop_failing();

// Allocations this thread has made since the last fail_at or stop_failing.
size_t allocations();
// And the octets that they asked for, also where a block grew.
size_t octets();
// Whether an allocation was made to fail since the last fail_at.
bool has_failed();

// Lets the code of a test or a fake allocate while failures are armed.
struct pause {
  pause();
  ~pause();
  pause(const pause &) = delete;
  pause &operator=(const pause &) = delete;
};

// Runs `operation` again and again with its 1st, 2nd, 3rd ... allocation failing, until a run
// makes no allocation fail, and returns how many runs had a failure. After each run with a
// failure, `after_failure(n)` checks what is left, with failures off. `operation` must undo its
// success itself. `limit` bounds the number of runs. A slow machine takes samples behind the 100th.
size_t sweep(const std::function<void()> &operation,
             const std::function<void(size_t n)> &after_failure, bool stay_failed = false,
             size_t limit = 100000);

// The distance between the allocations that a sampled sweep lets fail: `usual`, or what the
// environment's SWEEP_STEP says (1: each of them, which takes minutes).
size_t sweep_step(size_t usual);

}  // namespace fake_allocator

#endif
