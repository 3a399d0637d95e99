// One call of the HTTP client with its outputs, and the checks that every HTTP test shares.
#ifndef TESTS_UNIT_HTTP_HTTP_EXCHANGE_H
#define TESTS_UNIT_HTTP_HTTP_EXCHANGE_H

#include <arpa/inet.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <libpki/http.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ostream>
#include <string>
#include <vector>

#include "fakes/failures.h"
#include "fakes/log_capture.h"
#include "support/descriptors.h"

inline void PrintTo(const log_entry &entry, std::ostream *out) {
  *out << entry.level << ": " << entry.text;
}

// The captured log is exactly these lines.
#define EXPECT_LOG(...) EXPECT_EQ(captured_log(), (std::vector<log_entry>{__VA_ARGS__}))

namespace http_test {

// The outputs of one call. They start with values that no call leaves behind, and are freed and
// closed with the exchange.
class exchange {
 public:
  int code = -1;
  int status = -77;
  int content_length = -77;
  char *content_type = untouched();
  void *body = untouched();
  int sock = -77;
  std::string host;  // as the call left it

  exchange() = default;
  ~exchange() { release(); }
  exchange(const exchange &) = delete;
  exchange &operator=(const exchange &) = delete;

  void release() {
    if (content_type != untouched())
      free(content_type);
    if (body != untouched())
      free(body);
    if (sock >= 0)
      close(sock);
    code = -1;
    status = content_length = sock = -77;
    content_type = untouched();
    body = untouched();
  }

  // Buffered calls.
  void get(const std::string &host_text, const std::string &path, const char *accept = nullptr) {
    start(host_text);
    code = send_http_get(host.data(), path.c_str(), &status, accept, &content_length, &content_type,
                         0, &body, nullptr);
  }
  void post(const std::string &host_text, const std::string &path, const char *type,
            const std::string &octets) {
    start(host_text);
    code = send_http_post(host.data(), path.c_str(), type, octets.data(),
                          static_cast<int>(octets.size()), &status, &content_length, &content_type,
                          0, &body, nullptr);
  }
  // Streaming calls.
  void get_stream(const std::string &host_text, const std::string &path,
                  const char *accept = nullptr) {
    start(host_text);
    code = send_http_get(host.data(), path.c_str(), &status, accept, &content_length, &content_type,
                         1, nullptr, &sock);
  }
  void post_stream(const std::string &host_text, const std::string &path, const char *type,
                   const std::string &octets) {
    start(host_text);
    code = send_http_post(host.data(), path.c_str(), type, octets.data(),
                          static_cast<int>(octets.size()), &status, &content_length, &content_type,
                          1, nullptr, &sock);
  }

  // The buffered body, content_length octets.
  std::string body_text() const {
    if (!body || body == untouched() || content_length < 0)
      return "(no body)";
    return std::string(static_cast<const char *>(body), static_cast<size_t>(content_length));
  }
  std::string type_text() const { return content_type ? content_type : "(null)"; }
  // What is left to read on the open socket, to its end.
  std::string rest_of_socket() const {
    std::string rest;
    char buffer[4096];
    for (ssize_t got; (got = read(sock, buffer, sizeof buffer)) > 0;)
      rest.append(buffer, static_cast<size_t>(got));
    return rest;
  }

 private:
  static char *untouched() {
    static char mark[] = "untouched";
    return mark;
  }
  void start(const std::string &host_text) {
    release();
    host = host_text;
  }
};

// Calls `visit(fd)` for each open descriptor of this process.
template <class Visit>
void for_each_descriptor(Visit visit) {
  DIR *folder = opendir("/proc/self/fd");
  while (const dirent *entry = readdir(folder)) {
    int fd = atoi(entry->d_name);
    if (entry->d_name[0] != '.' && fd != dirfd(folder))
      visit(fd);
  }
  closedir(folder);
}

// Sockets of this process whose peer is `port` of 127.0.0.1: the client's ends.
inline std::vector<int> client_sockets(int port) {
  std::vector<int> found;
  for_each_descriptor([&](int fd) {
    sockaddr_in peer = {};
    socklen_t length = sizeof peer;
    if (getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &length) == 0 &&
        peer.sin_family == AF_INET && ntohs(peer.sin_port) == port)
      found.push_back(fd);
  });
  return found;
}

inline const std::string agent = "User-Agent: ZelvoPKI/3.7\r\n";

// A GET as it must arrive when no Accept value was given.
inline std::string plain_get(const std::string &host, const std::string &path) {
  return "GET " + path + " HTTP/1.0\r\nHost: " + host + "\r\n" + agent + "Accept: (null)\r\n\r\n";
}

// A POST as it must arrive.
inline std::string plain_post(const std::string &host, const std::string &path,
                              const std::string &type, const std::string &body) {
  return "POST " + path + " HTTP/1.0\r\nHost: " + host + "\r\n" + agent + "Content-Type: " + type +
         "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

// After each test no descriptor is left, and the host's settings are as they were.
class fixture : public testing::Test {
 protected:
  void SetUp() override {
    fake_failures::reset();
    clear_log();
    descriptors_ = support::open_descriptors();
    log_setups_ = log_setup_calls();
  }
  void TearDown() override {
    call.release();
    EXPECT_EQ(fake_failures::host_setting_calls(), 0);
    EXPECT_EQ(log_setup_calls(), log_setups_);
    EXPECT_EQ(support::open_descriptors(), descriptors_) << "descriptors left open";
    fake_failures::reset();
  }

  exchange call;

 private:
  long descriptors_ = 0;
  int log_setups_ = 0;
};

// A listener that nobody accepts from: connections come about, nothing is answered.
class silent_listener {
 public:
  explicit silent_listener(int backlog = 16, const char *address = "127.0.0.1", int port = 0) {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_in name = {};
    name.sin_family = AF_INET;
    name.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, address, &name.sin_addr);
    socklen_t length = sizeof name;
    if (bind(fd_, reinterpret_cast<sockaddr *>(&name), length) != 0 || listen(fd_, backlog) != 0)
      abort();
    getsockname(fd_, reinterpret_cast<sockaddr *>(&name), &length);
    name_ = name;
  }
  ~silent_listener() {
    close(fd_);
    for (int fd : fillers_)
      close(fd);
  }
  silent_listener(const silent_listener &) = delete;
  silent_listener &operator=(const silent_listener &) = delete;

  // Takes every place of the backlog, so that a further connection is not answered at all.
  void fill() {
    for (int i = 0; i < 4; i++) {
      int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
      connect(fd, reinterpret_cast<sockaddr *>(&name_), sizeof name_);
      fillers_.push_back(fd);
    }
  }
  int port() const { return ntohs(name_.sin_port); }
  std::string host() const { return "127.0.0.1:" + std::to_string(port()); }
  // Whether a connection waits to be accepted.
  bool has_connection() const {
    int fd = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0)
      close(fd);
    return fd >= 0;
  }

 private:
  int fd_ = -1;
  sockaddr_in name_ = {};
  std::vector<int> fillers_;
};

}  // namespace http_test

#endif
