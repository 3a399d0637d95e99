// time() and sleep() of the test program. The clock is the real one until a test sets it; sleep
// never waits: it moves the clock (once set) and is recorded.
#ifndef TESTS_FAKES_CLOCK_H
#define TESTS_FAKES_CLOCK_H

#include <ctime>
#include <functional>
#include <vector>

namespace fake_clock {

void set(time_t now);            // freezes the clock at `now`
void advance(long seconds);      // moves a frozen clock
void use_real();                 // back to the real clock; forgets the recorded sleeps and hook
std::vector<unsigned> sleeps();  // what sleep() was asked for, in order
// Called at each sleep(), after it was recorded, with the number of sleeps so far.
void on_sleep(std::function<void(size_t)> hook);

// Freezes the clock for one scope.
struct frozen {
  explicit frozen(time_t now) { set(now); }
  ~frozen() { use_real(); }
};

}  // namespace fake_clock

#endif
