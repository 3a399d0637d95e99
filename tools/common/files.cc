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

#include "tools/common/descriptor.h"
#include "tools/common/failure.h"

namespace tools {

namespace {

[[noreturn]] void fail(const std::string &what, const std::string &path) {
  throw failure("cannot " + what + " " + path + ": " + strerror(errno));
}

}  // namespace

bool write_all(int fd, const void *bytes, size_t length) {
  const auto *at = static_cast<const char *>(bytes);
  while (length > 0) {
    ssize_t took = write(fd, at, length);
    if (took < 0 && errno == EINTR)
      continue;
    if (took <= 0)
      return false;
    at += took;
    length -= static_cast<size_t>(took);
  }
  return true;
}

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

bool is_device(const std::string &path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode) && !S_ISDIR(info.st_mode);
}

std::vector<std::string> make_folders(const std::string &path) {
  std::vector<std::string> made;
  for (size_t at = path.find('/', 1);; at = path.find('/', at + 1)) {
    std::string part = path.substr(0, at);
    if (mkdir(part.c_str(), 0700) == 0)
      made.push_back(part);
    else if (errno != EEXIST)
      fail("make the folder", part);
    if (at == std::string::npos)
      return made;
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
  bool written = write_all(file.get(), bytes.data(), bytes.size()) &&
                 fchmod(file.get(), mode) == 0 && fsync(file.get()) == 0 && file.close_now() &&
                 rename(temporary.c_str(), path.c_str()) == 0;
  if (written)
    return;
  int error = errno;
  unlink(temporary.c_str());
  errno = error;
  fail("write", path);
}

void require_free(const std::string &path, bool force) {
  if (!force && file_exists(path) && !is_device(path))
    throw failure(path + " is there already; take another name, or --force it");
}

void require_other_file(const std::string &path, const std::vector<std::string> &inputs,
                        const std::string &advice) {
  if (is_device(path))
    return;
  auto same = std::find_if(inputs.begin(), inputs.end(), [&](const std::string &input) {
    return !input.empty() && is_same_file(path, input);
  });
  if (same != inputs.end())
    throw usage_failure("--out is the same file as " + *same + "; " + advice);
}

bool is_same_file(const std::string &path, const std::string &other) {
  std::error_code error;
  if (std::filesystem::equivalent(path, other, error))
    return true;
  std::filesystem::path one = std::filesystem::weakly_canonical(path, error);
  return !error && one == std::filesystem::weakly_canonical(other, error) && !error;
}

}  // namespace tools
