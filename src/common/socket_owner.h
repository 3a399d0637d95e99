// A socket that is closed when its owner goes.
#ifndef PKI_COMMON_SOCKET_OWNER_H
#define PKI_COMMON_SOCKET_OWNER_H

#include <unistd.h>

namespace pki {

class socket_owner {
 public:
  explicit socket_owner(int fd = -1) : fd_(fd) {}
  socket_owner(const socket_owner &) = delete;
  socket_owner &operator=(const socket_owner &) = delete;
  ~socket_owner() { reset(); }

  [[nodiscard]] int get() const { return fd_; }
  void reset(int fd = -1) {
    if (fd_ >= 0)
      close(fd_);
    fd_ = fd;
  }
  int release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }

 private:
  int fd_;
};

}  // namespace pki

#endif
