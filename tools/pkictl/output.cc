#include "tools/pkictl/output.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "tools/common/descriptor.h"
#include "tools/pkictl/output_failure.h"

namespace pkictl {

output::output() : fd_(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3)) {
  if (fd_ < 0 || dup2(STDERR_FILENO, STDOUT_FILENO) < 0)
    throw tools::failure(std::string("cannot use standard output: ") + strerror(errno));
}

output::~output() {
  close(fd_);
}

void output::write_text(const std::string &text) {
  size_t done = 0;
  while (done < text.size()) {
    ssize_t took = write(fd_, text.data() + done, text.size() - done);
    if (took < 0 && errno == EINTR)
      continue;
    if (took <= 0)
      throw output_failure(std::string("cannot write to standard output: ") + strerror(errno) +
                           "; all else was done");
    done += static_cast<size_t>(took);
  }
}

void output::write_json(const json &value) {
  write_text(value.dump(2, ' ', false, json::error_handler_t::replace) + "\n");
}

std::string output::standard_output_of(const std::function<void()> &print) {
  tools::descriptor file(memfd_create("stdout", MFD_CLOEXEC));
  fflush(stdout);
  if (!file.is_open() || dup2(file.get(), STDOUT_FILENO) < 0)
    throw tools::failure(std::string("cannot use standard output: ") + strerror(errno));
  print();
  bool arrived = fflush(stdout) == 0 && ferror(stdout) == 0;
  int error = errno;
  dup2(STDERR_FILENO, STDOUT_FILENO);
  if (!arrived)
    throw tools::failure(std::string("cannot gather what is printed: ") + strerror(error));
  std::string text(static_cast<size_t>(lseek(file.get(), 0, SEEK_END)), '\0');
  for (size_t at = 0; at < text.size();) {
    ssize_t got = pread(file.get(), text.data() + at, text.size() - at, static_cast<off_t>(at));
    if (got <= 0)
      throw tools::failure(std::string("cannot gather what is printed: ") + strerror(errno));
    at += static_cast<size_t>(got);
  }
  return text;
}

}  // namespace pkictl
