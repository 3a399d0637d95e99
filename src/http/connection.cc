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

// Want of memory says nothing about the host.
int failure_code(int reason) {
  return reason == ENOMEM || reason == ENOBUFS ? PKI_OUT_OF_MEMORY : PKI_HTTP_ERROR;
}

// The C library calls a host unknown, too, when it had no memory to look for it.
int resolver_failure_code(int failure, int reason) {
  return failure == EAI_MEMORY ? PKI_OUT_OF_MEMORY : failure_code(reason);
}

int resolve(const endpoint &peer, addrinfo_ptr *addresses) {
  addrinfo hints = {};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo *found = nullptr;
  errno = 0;
  int failure = getaddrinfo(peer.name, nullptr, &hints, &found);
  if (failure) {
    int reason = errno;
    syslog(log_error, "Error getting hostname-info for %s: %s", peer.name,
           failure == EAI_SYSTEM ? strerror(reason) : gai_strerror(failure));
    return resolver_failure_code(failure, reason);
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

// How the try of an address ended.
struct attempt {
  bool has_socket;
  int reason;  // an errno value; 0: connected
};

attempt connect_to_address(const endpoint &peer, const addrinfo &address, socket_owner *sock) {
  set_port(address.ai_addr, peer.port);
  sock->reset(socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (sock->get() < 0)
    return {false, errno};
  attempt tried = {true, connect_within_timeout(sock->get(), address)};
  if (tried.reason)
    sock->reset();
  return tried;
}

int report(const endpoint &peer, const attempt &failed) {
  if (failed.has_socket)
    syslog(log_error, "Error connecting to %s:%d: %s", peer.name, peer.port,
           strerror(failed.reason));
  else
    syslog(log_error, "Error creating socket to %s:%d: %s", peer.name, peer.port,
           strerror(failed.reason));
  return failure_code(failed.reason);
}

// An address that fails is no news while another is left to try. Behind the last one, want of
// memory is: the address that met it might have answered.
int connect_to_one_of(const endpoint &peer, const addrinfo *address, socket_owner *sock) {
  attempt failed = {};
  for (int i = 0; address && i < http_max_addresses; i++, address = address->ai_next) {
    attempt tried = connect_to_address(peer, *address, sock);
    if (!tried.reason)
      return PKI_OK;
    if (failure_code(failed.reason) != PKI_OUT_OF_MEMORY)
      failed = tried;
  }
  return report(peer, failed);
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
  return connect_to_one_of(peer, addresses.get(), sock);
}

}  // namespace pki
