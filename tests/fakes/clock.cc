#include "fakes/clock.h"

#include <unistd.h>

#include <atomic>
#include <mutex>

#include "fakes/allocator.h"

namespace {

std::atomic<bool> is_frozen{false};
std::atomic<time_t> frozen_now{0};
std::mutex mutex;
std::vector<unsigned> recorded;
std::function<void(size_t)> hook;

}  // namespace

namespace fake_clock {

void set(time_t now) {
  frozen_now = now;
  is_frozen = true;
}

void advance(long seconds) {
  frozen_now += seconds;
}

void use_real() {
  is_frozen = false;
  std::lock_guard lock(mutex);
  recorded.clear();
  hook = nullptr;
}

std::vector<unsigned> sleeps() {
  std::lock_guard lock(mutex);
  return recorded;
}

void on_sleep(std::function<void(size_t)> new_hook) {
  std::lock_guard lock(mutex);
  hook = std::move(new_hook);
}

}  // namespace fake_clock

extern "C" {

time_t time(time_t *out) noexcept {
  time_t now = frozen_now;
  if (!is_frozen) {
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    now = ts.tv_sec;
  }
  if (out)
    *out = now;
  return now;
}

unsigned sleep(unsigned seconds) {
  fake_allocator::pause no_failures;
  std::function<void(size_t)> call;
  size_t count;
  {
    std::lock_guard lock(mutex);
    recorded.push_back(seconds);
    count = recorded.size();
    call = hook;
  }
  frozen_now += seconds;
  if (call)
    call(count);
  return 0;
}
}
