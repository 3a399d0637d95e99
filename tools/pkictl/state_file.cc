#include "tools/pkictl/state_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tools/common/descriptor.h"
#include "tools/common/failure.h"
#include "tools/common/files.h"

namespace pkictl {

namespace {

constexpr mode_t private_mode = 0600;
constexpr size_t read_bytes = 65536;

[[noreturn]] void fail(const std::string &what, const std::string &path) {
  throw tools::failure("cannot " + what + " " + path + ": " + strerror(errno));
}

// Removes a file that is not wanted after all.
class unfinished_file {
 public:
  explicit unfinished_file(std::string path) : path_(std::move(path)) {}
  ~unfinished_file() {
    if (!path_.empty())
      unlink(path_.c_str());
  }
  unfinished_file(const unfinished_file &) = delete;
  unfinished_file &operator=(const unfinished_file &) = delete;

  void finished() { path_.clear(); }

 private:
  std::string path_;
};

std::string folder_of(const std::string &path) {
  return path.substr(0, path.rfind('/'));
}

// Some file systems have no fsync for folders, and keep what was renamed without it.
bool sync_folder(int fd) {
  return fsync(fd) == 0 || errno == EINVAL;
}

// A new folder is brought to the disk with those above it that are new.
void make_folder(const std::string &folder) {
  if (tools::file_exists(folder))
    return;
  tools::make_folders(folder);
  tools::descriptor made(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (made.is_open())
    syncfs(made.get());
}

}  // namespace

state_lock::state_lock(const std::string &folder) {
  make_folder(folder);
  std::string path = folder + "/state.lock";
  tools::descriptor file(
      open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, private_mode));
  if (!file.is_open())
    fail("write", path);
  int result = 0;
  do
    result = flock(file.get(), LOCK_EX);
  while (result != 0 && errno == EINTR);
  if (result != 0)
    fail("lock", path);
  fd_ = file.release();
}

state_lock::~state_lock() {
  close(fd_);
}

bool read_state_file(const std::string &path, secret_octets *octets) {
  tools::descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file.is_open() && (errno == ENOENT || errno == ENOTDIR))
    return false;
  if (!file.is_open())
    fail("read", path);
  octets->clear();
  for (;;) {
    size_t had = octets->size();
    octets->resize(had + read_bytes);
    ssize_t got = read(file.get(), octets->data() + had, read_bytes);
    if (got < 0 && errno != EINTR)
      fail("read", path);
    octets->resize(had + static_cast<size_t>(got > 0 ? got : 0));
    if (got == 0)
      return true;
    if (octets->size() > tools::max_file_bytes)
      throw tools::failure(path + " is larger than 64 MiB and no state of pkictl; move it away");
  }
}

void replace_state_file(const std::string &path, const secret_octets &octets) {
  std::string folder = folder_of(path);
  tools::descriptor place(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!place.is_open())
    fail("write", path);
  std::string fresh = path + ".new";
  if (unlink(fresh.c_str()) != 0 && errno != ENOENT)  // of a call that was killed
    fail("write", path);
  tools::descriptor file(
      open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, private_mode));
  if (!file.is_open())
    fail("write", path);
  unfinished_file until_renamed(fresh);
  if (!tools::write_all(file.get(), octets.data(), octets.size()) ||
      fchmod(file.get(), private_mode) != 0 || fsync(file.get()) != 0 || !file.close_now() ||
      rename(fresh.c_str(), path.c_str()) != 0)
    fail("write", path);
  until_renamed.finished();
  if (!sync_folder(place.get()))
    fail("bring to the disk what was written to", path);
}

}  // namespace pkictl
