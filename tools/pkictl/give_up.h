// Ways out of an enrollment that is pending: Ctrl-C and a time limit.
#ifndef TOOLS_PKICTL_GIVE_UP_H
#define TOOLS_PKICTL_GIVE_UP_H

namespace pkictl {

// While it lives, SIGINT and SIGTERM, and the passing of `timeout_s` seconds unless that is 0,
// make an enrollment that is pending end. One at a time.
class give_up_watch {
 public:
  explicit give_up_watch(unsigned timeout_s);
  ~give_up_watch();
  give_up_watch(const give_up_watch &) = delete;
  give_up_watch &operator=(const give_up_watch &) = delete;

  bool interrupted() const;
  bool timed_out() const;
};

}  // namespace pkictl

#endif
