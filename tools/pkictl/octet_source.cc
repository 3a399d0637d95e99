#include "tools/pkictl/octet_source.h"

#include <fcntl.h>
#include <libpki/error.h>
#include <libpki/http.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tools/common/failure.h"
#include "tools/common/ossl.h"
#include "tools/pkictl/last_complaint.h"
#include "tools/pkictl/library.h"
#include "tools/pkictl/log_words.h"

namespace pkictl {

namespace {

constexpr int read_timeout_ms = 60000;
constexpr int status_ok = 200;

class descriptor {
 public:
  descriptor() = default;
  ~descriptor() {
    if (fd_ >= 0)
      close(fd_);
  }
  descriptor(const descriptor &) = delete;
  descriptor &operator=(const descriptor &) = delete;

  void set(int fd) { fd_ = fd; }
  int get() const { return fd_; }

 private:
  int fd_ = -1;
};

class file_source : public octet_source {
 public:
  explicit file_source(const std::string &path) : path_(path) {
    file_.set(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat info;
    if (file_.get() < 0 || fstat(file_.get(), &info) != 0)
      fail();
    if (S_ISREG(info.st_mode))
      length_ = static_cast<uint64_t>(info.st_size);
  }

  size_t read(char *buffer, size_t size) override {
    for (;;) {
      ssize_t got = ::read(file_.get(), buffer, size);
      if (got >= 0)
        return static_cast<size_t>(got);
      if (errno != EINTR)
        fail();
    }
  }
  uint64_t length() const override { return length_; }

 private:
  [[noreturn]] void fail() const {
    throw tools::failure("cannot read " + path_ + ": " + strerror(errno));
  }

  std::string path_;
  descriptor file_;
  uint64_t length_ = 0;
};

class http_source : public octet_source {
 public:
  explicit http_source(const std::string &url) : url_(url) {
    char *copy = nullptr;
    char *host = nullptr;
    char *path = nullptr;
    require_ok("cannot fetch " + url, parse_url(url.c_str(), &copy, &host, &path));
    std::unique_ptr<char, tools::free_with<free>> owner(copy);
    int status = 0;
    int length = -1;
    int fd = -1;
    last_complaint heard;
    int code =
        send_http_get(host, *path ? path : "/", &status, "*/*", &length, nullptr, 1, nullptr, &fd);
    socket_.set(fd);
    if (code != PKI_OK)
      throw tools::library_failure(code, failure_text("cannot fetch " + url, code, heard.text()));
    if (status != status_ok)
      throw tools::failure("cannot fetch " + url + ": " + answered_text(status));
    length_ = length > 0 ? static_cast<uint64_t>(length) : 0;
  }

  size_t read(char *buffer, size_t size) override {
    int error = 0;
    ssize_t got = timed_read(socket_.get(), buffer, size, read_timeout_ms, &error);
    if (got < 0)
      throw tools::failure("cannot fetch " + url_ + ": " + strerror(error) + "; try again");
    return static_cast<size_t>(got);
  }
  uint64_t length() const override { return length_; }

 private:
  std::string url_;
  descriptor socket_;
  uint64_t length_ = 0;
};

}  // namespace

bool is_url(const std::string &file_or_url) {
  return file_or_url.find("://") != std::string::npos;
}

std::unique_ptr<octet_source> open_source(const std::string &file_or_url) {
  if (!is_url(file_or_url))
    return std::make_unique<file_source>(file_or_url);
  return std::make_unique<http_source>(file_or_url);
}

}  // namespace pkictl
