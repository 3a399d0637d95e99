#include "tools/pkilab/http_listener.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "tools/common/failure.h"
#include "tools/pkilab/http_connection.h"

namespace pkilab {

namespace {

struct free_addresses {
  void operator()(addrinfo *list) const { freeaddrinfo(list); }
};

std::unique_ptr<addrinfo, free_addresses> numeric_address(const std::string &address, int port) {
  addrinfo hints = {};
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo *found = nullptr;
  if (getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found) != 0)
    throw tools::usage_failure("cannot listen on " + address + ": give a numeric address, as in" +
                               " 127.0.0.1, and a port from 0 to 65535");
  return std::unique_ptr<addrinfo, free_addresses>(found);
}

std::string listen_advice(int error) {
  if (error == EADDRINUSE || error == EACCES)
    return "; choose another port, or 0 for any free one";
  return error == EADDRNOTAVAIL ? "; give an address of this machine" : "";
}

int bound_port(int fd) {
  sockaddr_storage storage = {};
  socklen_t length = sizeof storage;
  getsockname(fd, reinterpret_cast<sockaddr *>(&storage), &length);
  if (storage.ss_family == AF_INET6)
    return ntohs(reinterpret_cast<sockaddr_in6 *>(&storage)->sin6_port);
  return ntohs(reinterpret_cast<sockaddr_in *>(&storage)->sin_port);
}

}  // namespace

void require_numeric_address(const listener_options &options) {
  (void)numeric_address(options.bind, options.port);
}

listener::listener(const listener_options &options) {
  auto address = numeric_address(options.bind, options.port);
  fd_ = socket(address->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  int on = 1;
  bool listens = fd_ >= 0 && setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
                 bind(fd_, address->ai_addr, address->ai_addrlen) == 0 &&
                 listen(fd_, SOMAXCONN) == 0;
  if (!listens) {
    int error = errno;
    close();
    throw tools::failure("cannot listen on " + options.bind + " port " +
                         std::to_string(options.port) + ": " + strerror(error) +
                         listen_advice(error));
  }
  authority_ = local_authority(fd_);
  port_ = bound_port(fd_);
}

void listener::close() {
  if (fd_ >= 0)
    ::close(fd_);
  fd_ = -1;
}

}  // namespace pkilab
