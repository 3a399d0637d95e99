// Says once that an enrollment waits, where it takes longer than a person expects.
#ifndef TOOLS_PKICTL_PATIENCE_NOTICE_H
#define TOOLS_PKICTL_PATIENCE_NOTICE_H

#include <condition_variable>
#include <mutex>
#include <thread>

namespace pkictl {

// Writes a line to stderr, from a thread of its own, when it has lived for three seconds.
class patience_notice {
 public:
  patience_notice();
  ~patience_notice();
  patience_notice(const patience_notice &) = delete;
  patience_notice &operator=(const patience_notice &) = delete;

 private:
  void wait();

  std::mutex mutex_;
  std::condition_variable changed_;
  bool over_ = false;
  std::thread waiter_;
};

}  // namespace pkictl

#endif
