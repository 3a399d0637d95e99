// Name resolution and TCP connections.
#include <fcntl.h>
#include <libpki/error.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/log.h"
#include "common/text.h"
#include "http/internal.h"

namespace pki {

namespace {

constexpr int no_port = 0;
constexpr int default_port = 80;
constexpr int highest_port = 65535;

using addrinfo_ptr = std::unique_ptr<addrinfo, free_with<freeaddrinfo>>;

struct endpoint {
  const char *name;
  int port;
};

// Cuts the port off in place. An IPv6 address stands in brackets, which go too.
endpoint split_port(char *host) {
  char *name = host;
  char *rest = host;
  char *bracket = *host == '[' ? std::strchr(host, ']') : nullptr;
  if (bracket) {
    name = host + 1;
    *bracket = '\0';
    rest = bracket + 1;
    if (*rest && *rest != ':')
      return {name, no_port};
  }
  char *colon = std::strchr(rest, ':');
  if (!colon)
    return {name, default_port};
  *colon = '\0';
  return {name, decimal_prefix(colon + 1)};
}

void set_port(sockaddr *address, int port) {
  auto number = htons(static_cast<uint16_t>(port));
  if (address->sa_family == AF_INET6)
    reinterpret_cast<sockaddr_in6 *>(address)->sin6_port = number;
  else
    reinterpret_cast<sockaddr_in *>(address)->sin_port = number;
}

int resolve(const endpoint &peer, addrinfo_ptr *addresses) {
  addrinfo hints = {};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo *found = nullptr;
  int failure = getaddrinfo(peer.name, nullptr, &hints, &found);
  if (failure) {
    const char *reason = failure == EAI_SYSTEM ? strerror(errno) : gai_strerror(failure);
    syslog(log_error, "Error getting hostname-info for %s: %s", peer.name, reason);
    return PKI_HTTP_ERROR;
  }
  addresses->reset(found);
  return PKI_OK;
}

// Waits for a connection under way. Returns 0 or an errno value.
int finish_connect(int fd) {
  int ready = wait_for(fd, POLLOUT, http_timeout_ms);
  if (ready <= 0)
    return ready == 0 ? ETIMEDOUT : errno;
  int failure = 0;
  socklen_t size = sizeof failure;
  return getsockopt(fd, SOL_SOCKET, SO_ERROR, &failure, &size) == 0 ? failure : errno;
}

// Returns 0 or an errno value.
int connect_within_timeout(int fd, const addrinfo &address) {
  int flags = fcntl(fd, F_GETFL);
  if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0)
    return errno;
  if (connect(fd, address.ai_addr, address.ai_addrlen) != 0) {
    if (errno != EINPROGRESS && errno != EINTR)
      return errno;
    if (int failure = finish_connect(fd))
      return failure;
  }
  // Callers that take the socket over expect one that blocks.
  return fcntl(fd, F_SETFL, flags) == 0 ? 0 : errno;
}

int connect_to_address(const endpoint &peer, const addrinfo &address, bool is_last,
                       socket_owner *sock) {
  set_port(address.ai_addr, peer.port);
  sock->reset(socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (sock->get() < 0) {
    int reason = errno;
    if (is_last)
      syslog(log_error, "Error creating socket to %s:%d: %s", peer.name, peer.port,
             strerror(reason));
    return PKI_HTTP_ERROR;
  }
  int failure = connect_within_timeout(sock->get(), address);
  if (!failure)
    return PKI_OK;
  sock->reset();
  // An address that fails is no news while another is left to try.
  if (is_last)
    syslog(log_error, "Error connecting to %s:%d: %s", peer.name, peer.port, strerror(failure));
  return PKI_HTTP_ERROR;
}

}  // namespace

int connect_to(char *host, socket_owner *sock) {
  endpoint peer = split_port(host);
  if (peer.port < 1 || peer.port > highest_port) {
    syslog(log_error, "Error connecting to %s:%d: %s", peer.name, peer.port, strerror(EINVAL));
    return PKI_HTTP_ERROR;
  }
  addrinfo_ptr addresses;
  if (int error = resolve(peer, &addresses))
    return error;
  for (const addrinfo *address = addresses.get(); address; address = address->ai_next)
    if (connect_to_address(peer, *address, !address->ai_next, sock) == PKI_OK)
      return PKI_OK;
  return PKI_HTTP_ERROR;
}

}  // namespace pki
