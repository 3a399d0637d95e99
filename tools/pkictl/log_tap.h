// Hears what the library logs.
#ifndef TOOLS_PKICTL_LOG_TAP_H
#define TOOLS_PKICTL_LOG_TAP_H

#include <functional>
#include <string>

namespace pkictl {

// While it lives, `heard` gets every line that is logged in the calling thread, and the system log
// gets it as well. One at a time.
class log_tap {
 public:
  // The level is syslog's. Exceptions do not get out of it: there is C code above.
  using listener = std::function<void(int level, const std::string &line)>;

  explicit log_tap(listener heard);
  ~log_tap();
  log_tap(const log_tap &) = delete;
  log_tap &operator=(const log_tap &) = delete;

 private:
  listener heard_;
};

}  // namespace pkictl

#endif
