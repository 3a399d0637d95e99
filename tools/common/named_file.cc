#include "tools/common/named_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "tools/common/descriptor.h"
#include "tools/common/failure.h"
#include "tools/common/files.h"

namespace tools {

namespace {

bool change_places(const std::string &one, const std::string &other) {
  return renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE) == 0;
}

bool put_where_nothing_is(const std::string &file, const std::string &place) {
  return renameat2(AT_FDCWD, file.c_str(), AT_FDCWD, place.c_str(), RENAME_NOREPLACE) == 0;
}

// The file that a link leads to, or the path itself.
std::string behind_links(const std::string &path) {
  std::error_code error;
  std::string target = std::filesystem::canonical(path, error);
  return error ? path : target;
}

std::string folder_of(const std::string &path) {
  std::string folder = std::filesystem::path(path).parent_path();
  return folder.empty() ? "." : folder;
}

bool is_folder(const std::string &path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

}  // namespace

named_file::named_file(const std::string &path, bool force)
    : named_(path),
      path_(force ? behind_links(path) : path),
      force_(force),
      is_device_(is_device(path)) {
  require_free(named_, force_);
  if (is_device_)
    return;
  if (is_folder(path_)) {
    errno = EISDIR;
    fail();
  }
  if (access(folder_of(path_).c_str(), W_OK | X_OK) != 0)
    fail();
}

named_file::~named_file() {
  if (is_put_ && has_replaced_)
    (void)change_places(temporary_, path_);
  else if (is_put_)
    unlink(path_.c_str());
  if (!temporary_.empty())
    unlink(temporary_.c_str());
}

void named_file::write(const std::string &bytes, mode_t mode) {
  descriptor file(is_device_ ? open(named_.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY)
                             : make_temporary());
  bool written = file.is_open() && write_all(file.get(), bytes.data(), bytes.size());
  if (written && !is_device_)
    written = fchmod(file.get(), mode) == 0 && fsync(file.get()) == 0 && file.close_now();
  if (!written)
    fail();
}

int named_file::make_temporary() {
  std::string name = path_ + ".XXXXXX";
  int fd = mkostemp(name.data(), O_CLOEXEC);
  if (fd >= 0)
    temporary_ = name;
  return fd;
}

void named_file::put() {
  if (is_device_)
    return;
  is_put_ = put_where_nothing_is(temporary_, path_);
  if (is_put_)
    return;
  if (!force_ && errno == EEXIST)
    throw failure(named_ + " is there already");
  // Not every file system can do these; what is replaced there is not taken back.
  has_replaced_ = errno == EEXIST && change_places(temporary_, path_);
  bool was_there = has_replaced_ || file_exists(path_);
  if (!has_replaced_ && rename(temporary_.c_str(), path_.c_str()) != 0)
    fail();
  is_put_ = has_replaced_ || !was_there;
}

void named_file::fail() const {
  throw failure("cannot write " + named_ + ": " + strerror(errno));
}

void write_named_file(const std::string &path, const std::string &bytes, mode_t mode, bool force) {
  named_file file(path, force);
  file.write(bytes, mode);
  file.put();
  file.keep();
}

}  // namespace tools
