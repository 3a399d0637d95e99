#include "tools/common/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <vector>

#include "tools/common/failure.h"

namespace tools {

namespace {

[[noreturn]] void fail(const std::string &what, const std::string &path) {
  throw failure("cannot " + what + " " + path + ": " + strerror(errno));
}

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
  bool close_now() {
    int fd = fd_;
    fd_ = -1;
    return close(fd) == 0;
  }

 private:
  int fd_;
};

bool write_all(int fd, const std::string &bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t took = write(fd, bytes.data() + done, bytes.size() - done);
    if (took < 0 && errno == EINTR)
      continue;
    if (took <= 0)
      return false;
    done += static_cast<size_t>(took);
  }
  return true;
}

}  // namespace

std::string read_file(const std::string &path) {
  descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (file.get() < 0)
    fail("read", path);
  std::string bytes;
  std::vector<char> buffer(65536);
  for (;;) {
    ssize_t got = read(file.get(), buffer.data(), buffer.size());
    if (got < 0 && errno == EINTR)
      continue;
    if (got < 0)
      fail("read", path);
    if (got == 0)
      return bytes;
    bytes.append(buffer.data(), static_cast<size_t>(got));
    if (bytes.size() > max_file_bytes)
      throw failure(path + " is larger than 64 MiB, more than any device takes");
  }
}

bool file_exists(const std::string &path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0;
}

void make_folders(const std::string &path) {
  for (size_t at = path.find('/', 1);; at = path.find('/', at + 1)) {
    std::string part = path.substr(0, at);
    if (mkdir(part.c_str(), 0700) != 0 && errno != EEXIST)
      fail("make the folder", part);
    if (at == std::string::npos)
      return;
  }
}

std::vector<std::string> list_folder(const std::string &path) {
  std::error_code error;
  std::vector<std::string> names;
  std::filesystem::directory_iterator entries(path, error);
  for (; !error && entries != std::filesystem::directory_iterator(); entries.increment(error))
    names.push_back(entries->path().filename());
  if (error && error != std::errc::no_such_file_or_directory)
    throw failure("cannot read the folder " + path + ": " + error.message());
  std::sort(names.begin(), names.end());
  return names;
}

void write_file(const std::string &path, const std::string &bytes, mode_t mode) {
  std::string temporary = path + ".XXXXXX";
  descriptor file(mkostemp(temporary.data(), O_CLOEXEC));
  if (file.get() < 0)
    fail("write", path);
  bool written = write_all(file.get(), bytes) && fchmod(file.get(), mode) == 0 &&
                 fsync(file.get()) == 0 && file.close_now() &&
                 rename(temporary.c_str(), path.c_str()) == 0;
  if (written)
    return;
  int error = errno;
  unlink(temporary.c_str());
  errno = error;
  fail("write", path);
}

}  // namespace tools
