#include "tools/pkictl/patience_notice.h"

#include <signal.h>

#include <chrono>
#include <system_error>

#include "tools/common/command_line.h"

namespace pkictl {

namespace {

// A signal ends a sleep of the thread that gets it only, so the new one is to get none.
class no_signals {
 public:
  no_signals() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~no_signals() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  no_signals(const no_signals &) = delete;
  no_signals &operator=(const no_signals &) = delete;

 private:
  sigset_t before_;
};

}  // namespace

patience_notice::patience_notice() {
  no_signals blocked;
  try {
    waiter_ = std::thread([this] { wait(); });
  } catch (const std::system_error &) {
    // No thread now: it waits without a word.
  }
}

patience_notice::~patience_notice() {
  {
    std::lock_guard lock(mutex_);
    over_ = true;
  }
  changed_.notify_one();
  if (waiter_.joinable())
    waiter_.join();
}

void patience_notice::wait() {
  std::unique_lock lock(mutex_);
  if (!changed_.wait_for(lock, std::chrono::seconds(3), [this] { return over_; }))
    tools::complain("pkictl",
                    "still waiting for the CA; while it says PENDING it is asked again every"
                    " 600 s; Ctrl-C ends it");
}

}  // namespace pkictl
