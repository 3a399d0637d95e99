// An owner of a file descriptor.
#ifndef TOOLS_COMMON_DESCRIPTOR_H
#define TOOLS_COMMON_DESCRIPTOR_H

#include <unistd.h>

#include <utility>

namespace tools {

class descriptor {
 public:
  explicit descriptor(int fd) : fd_(fd) {}
  ~descriptor() {
    if (fd_ >= 0)
      close(fd_);
  }
  descriptor(const descriptor &) = delete;
  descriptor &operator=(const descriptor &) = delete;

  int get() const { return fd_; }
  bool is_open() const { return fd_ >= 0; }
  int release() { return std::exchange(fd_, -1); }
  // For those who want to know whether what was written arrived.
  bool close_now() { return close(release()) == 0; }

 private:
  int fd_;
};

}  // namespace tools

#endif
