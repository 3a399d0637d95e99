#include "raw_http.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>

namespace tool_test {

raw_client::raw_client(int port) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  timeval limit = {60, 0};
  int on = 1;
  setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  if (connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
    throw std::runtime_error("cannot connect");
}

raw_client::~raw_client() {
  close(fd_);
}

void raw_client::send(const std::string &bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t took = ::send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (took <= 0)
      return;
    done += static_cast<size_t>(took);
  }
}

std::string raw_client::receive(size_t length) {
  std::string bytes;
  char part[65536];
  while (bytes.size() < length) {
    ssize_t got = recv(fd_, part, std::min(sizeof part, length - bytes.size()), 0);
    was_reset_ = got < 0 && errno == ECONNRESET;
    if (got <= 0)
      break;
    bytes.append(part, static_cast<size_t>(got));
  }
  return bytes;
}

bool raw_client::is_silent() {
  char octet;
  return recv(fd_, &octet, 1, MSG_DONTWAIT | MSG_PEEK) < 0 && errno == EAGAIN;
}

std::string exchange(int port, const std::string &bytes) {
  raw_client client(port);
  client.send(bytes);
  return client.receive_all();
}

std::string body_of(const std::string &answer) {
  size_t end = answer.find("\r\n\r\n");
  return end == std::string::npos ? "" : answer.substr(end + 4);
}

}  // namespace tool_test
