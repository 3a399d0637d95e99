#include "tools/pkilab/http_connection.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

namespace pkilab {

namespace {

using steady = std::chrono::steady_clock;

constexpr size_t max_head_bytes = 256 * 1024;  // SCEP messages travel in the request line
constexpr size_t max_body_bytes = 1024 * 1024;
constexpr int request_timeout_ms = 30000;
constexpr int send_timeout_ms = 60000;
constexpr int finish_timeout_ms = 2000;

int milliseconds_until(steady::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - steady::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

}  // namespace

std::string local_authority(int fd) {
  sockaddr_storage storage = {};
  socklen_t length = sizeof storage;
  char host[NI_MAXHOST];
  char port[NI_MAXSERV];
  auto *address = reinterpret_cast<sockaddr *>(&storage);
  if (getsockname(fd, address, &length) != 0 ||
      getnameinfo(address, length, host, sizeof host, port, sizeof port,
                  NI_NUMERICHOST | NI_NUMERICSERV) != 0)
    return "";
  std::string name = address->sa_family == AF_INET6 ? "[" + std::string(host) + "]" : host;
  return name + ":" + port;
}

connection::connection(int fd, int stop_fd) : fd_(fd), stop_fd_(stop_fd) {
  int on = 1;
  setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

connection::~connection() {
  close(fd_);
}

std::string connection::local_authority() const {
  return pkilab::local_authority(fd_);
}

connection::readiness connection::wait_for(short events, int milliseconds) {
  steady::time_point deadline = steady::now() + std::chrono::milliseconds(milliseconds);
  for (;;) {
    pollfd waits[2] = {{fd_, events, 0}, {stop_fd_, POLLIN, 0}};
    int count = poll(waits, 2, milliseconds < 0 ? -1 : milliseconds_until(deadline));
    if (count < 0 && errno == EINTR)
      continue;
    if (count < 0 || waits[1].revents)
      return readiness::stopped;
    return count == 0 ? readiness::timed_out : readiness::ready;
  }
}

bool connection::receive_more(std::string *buffer, int milliseconds) {
  char part[16384];
  if (wait_for(POLLIN, milliseconds) != readiness::ready)
    return false;
  ssize_t got = recv(fd_, part, sizeof part, MSG_DONTWAIT);
  if (got < 0 && (errno == EAGAIN || errno == EINTR))
    return true;
  if (got <= 0)
    return false;
  buffer->append(part, static_cast<size_t>(got));
  return true;
}

bool connection::read_head(std::string *buffer, size_t *head_end, int *refusal) {
  steady::time_point deadline = steady::now() + std::chrono::milliseconds(request_timeout_ms);
  size_t searched = 0;
  for (;;) {
    size_t found = buffer->find("\r\n\r\n", searched);
    if (found != std::string::npos) {
      *head_end = found + 4;
      return true;
    }
    searched = buffer->size() < 3 ? 0 : buffer->size() - 3;
    if (buffer->size() > max_head_bytes) {
      *refusal = 431;
      return false;
    }
    if (!receive_more(buffer, milliseconds_until(deadline)))
      return false;
  }
}

connection::incoming connection::read_request() {
  std::string buffer;
  size_t head_end = 0;
  incoming result;
  if (!read_head(&buffer, &head_end, &result.refusal))
    return result;
  std::optional<request> parsed = parse_head(std::string_view(buffer).substr(0, head_end));
  std::optional<size_t> length = parsed ? body_length(*parsed) : std::nullopt;
  if (!length || *length > max_body_bytes) {
    result.refusal = length ? 413 : 400;
    return result;
  }
  steady::time_point deadline = steady::now() + std::chrono::milliseconds(request_timeout_ms);
  while (buffer.size() - head_end < *length)
    if (!receive_more(&buffer, milliseconds_until(deadline)))
      return result;
  parsed->body = buffer.substr(head_end, *length);
  parsed->authority = local_authority();
  result.message = std::move(parsed);
  return result;
}

bool connection::send(std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t took = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (took > 0) {
      bytes.remove_prefix(static_cast<size_t>(took));
      continue;
    }
    bool try_again = took < 0 && (errno == EAGAIN || errno == EINTR);
    if (!try_again || wait_for(POLLOUT, send_timeout_ms) != readiness::ready)
      return false;
  }
  return true;
}

bool connection::pause(int milliseconds) {
  // Nothing is asked of the peer, so only the end of the server or of the time ends the wait.
  pollfd wait = {stop_fd_, POLLIN, 0};
  return poll(&wait, 1, milliseconds) <= 0;
}

void connection::wait_for_close() {
  std::string dropped;
  while (receive_more(&dropped, -1))
    dropped.clear();
}

void connection::reset_on_close() {
  linger now = {1, 0};
  setsockopt(fd_, SOL_SOCKET, SO_LINGER, &now, sizeof now);
}

void connection::finish() {
  steady::time_point deadline = steady::now() + std::chrono::milliseconds(finish_timeout_ms);
  std::string dropped;
  shutdown(fd_, SHUT_WR);
  while (receive_more(&dropped, milliseconds_until(deadline)))
    dropped.clear();
}

}  // namespace pkilab
