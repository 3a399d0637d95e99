#include "support/test_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>

namespace support {

namespace {

// The request's head and the body that it announces; what came when the peer closes early.
std::string read_request(int fd) {
  std::string request;
  size_t wanted = std::string::npos;
  char buffer[4096];
  while (request.size() < wanted) {
    pollfd ready = {fd, POLLIN, 0};
    if (poll(&ready, 1, 5000) <= 0)
      break;
    ssize_t got = recv(fd, buffer, sizeof buffer, 0);
    if (got <= 0)
      break;
    request.append(buffer, static_cast<size_t>(got));
    size_t head = request.find("\r\n\r\n");
    if (wanted == std::string::npos && head != std::string::npos) {
      wanted = head + 4;
      size_t at = request.find("\r\nContent-Length: ");
      if (at != std::string::npos && at < head)
        wanted += static_cast<size_t>(atol(request.c_str() + at + 18));
    }
  }
  return request;
}

int loopback_socket(bool ipv6, int *port) {
  int fd = socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_storage storage = {};
  socklen_t length;
  if (ipv6) {
    auto *address = reinterpret_cast<sockaddr_in6 *>(&storage);
    address->sin6_family = AF_INET6;
    address->sin6_addr = in6addr_loopback;
    length = sizeof *address;
  } else {
    auto *address = reinterpret_cast<sockaddr_in *>(&storage);
    address->sin_family = AF_INET;
    address->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    length = sizeof *address;
  }
  if (bind(fd, reinterpret_cast<sockaddr *>(&storage), length) != 0) {
    close(fd);
    return -1;
  }
  getsockname(fd, reinterpret_cast<sockaddr *>(&storage), &length);
  *port = ntohs(ipv6 ? reinterpret_cast<sockaddr_in6 *>(&storage)->sin6_port
                     : reinterpret_cast<sockaddr_in *>(&storage)->sin_port);
  return fd;
}

}  // namespace

answer raw(const std::string &bytes) {
  answer made;
  made.bytes = bytes;
  return made;
}

answer status(int number, const std::string &headers, const std::string &body) {
  return raw("HTTP/1.0 " + std::to_string(number) + " Status\r\n" + headers +
             "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
}

answer ok(const std::string &body, const std::string &content_type) {
  return status(200, "Content-Type: " + content_type + "\r\n", body);
}

answer redirect(int number, const std::string &location) {
  return status(number, "Location: " + location + "\r\n");
}

test_server::test_server(std::vector<answer> answers, bool ipv6) : ipv6_(ipv6) {
  auto next = std::make_shared<size_t>(0);
  scripted_ = true;
  respond_ = [answers, next](const std::string &) {
    size_t index = std::min((*next)++, answers.size() - 1);
    return answers[index];
  };
  listen_on_loopback();
}

test_server::test_server(std::function<answer(const std::string &)> respond)
    : respond_(std::move(respond)) {
  listen_on_loopback();
}

void test_server::listen_on_loopback() {
  listener_ = loopback_socket(ipv6_, &port_);
  if (listener_ < 0 || listen(listener_, 64) != 0 || pipe(wake_) != 0)
    abort();
  thread_ = std::thread([this] { serve(); });
}

test_server::~test_server() {
  close(wake_[1]);
  thread_.join();
  close(wake_[0]);
  close(listener_);
  for (int fd : held_)
    close(fd);
}

std::string test_server::host() const {
  return (ipv6_ ? "[::1]:" : "127.0.0.1:") + std::to_string(port_);
}

std::string test_server::url(const std::string &path) const {
  return "http://" + host() + path;
}

std::vector<std::string> test_server::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

void test_server::serve() {
  for (;;) {
    pollfd waits[2] = {{listener_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
    if (poll(waits, 2, -1) < 0)
      continue;
    if (waits[1].revents)
      return;
    int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0)
      continue;
    // A script decides before the request is read, for answers that do not read it.
    answer what;
    if (scripted_)
      what = respond_("");
    if (what.read_request) {
      std::string request = read_request(fd);
      {
        std::lock_guard lock(mutex_);
        requests_.push_back(request);
      }
      if (!scripted_)
        what = respond_(request);
    }
    play(fd, what);
    if (what.hold) {
      held_.push_back(fd);
      continue;
    }
    if (what.reset) {
      linger now = {1, 0};
      setsockopt(fd, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    }
    close(fd);
  }
}

void test_server::play(int fd, const answer &what) {
  size_t chunk = what.chunk ? what.chunk : what.bytes.size();
  for (size_t at = 0; at < what.bytes.size(); at += chunk) {
    size_t length = std::min(chunk, what.bytes.size() - at);
    for (size_t sent = 0; sent < length;) {
      ssize_t took = send(fd, what.bytes.data() + at + sent, length - sent, MSG_NOSIGNAL);
      if (took <= 0)
        return;
      sent += static_cast<size_t>(took);
    }
    if (what.pause_ms) {
      pollfd wait = {wake_[0], POLLIN, 0};
      if (poll(&wait, 1, what.pause_ms) > 0)
        return;
    }
  }
}

int unused_port() {
  int port = 0;
  int fd = loopback_socket(false, &port);
  close(fd);
  return port;
}

}  // namespace support
