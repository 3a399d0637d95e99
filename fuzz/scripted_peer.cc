#include "scripted_peer.h"

#include <fcntl.h>
#include <libpki/error.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "common/socket_owner.h"
#include "der_tree.h"
#include "invariant.h"

namespace fuzz {

namespace {

struct {
  const peer_script *script = nullptr;
  random_source random;
  size_t connected = 0;
  size_t at = 0;
} peer;

const std::string &current_answer() {
  require(peer.connected > 0, "no read without a connection");
  return peer.script->answers[peer.connected - 1];
}

}  // namespace

void play(const peer_script &script) {
  peer.script = &script;
  peer.random.seed(script.seed + 1);
  peer.connected = 0;
  peer.at = 0;
}

size_t connections() {
  return peer.connected;
}

}  // namespace fuzz

extern "C" {

int __wrap__ZN3pki10connect_toEPcPNS_12socket_ownerE(char *host, pki::socket_owner *sock);
int __wrap_poll(pollfd *fds, nfds_t count, int timeout_ms);
ssize_t __wrap_read(int fd, void *buffer, size_t length);
ssize_t __wrap_send(int fd, const void *data, size_t length, int flags);

int __wrap__ZN3pki10connect_toEPcPNS_12socket_ownerE(char *host, pki::socket_owner *sock) {
  using fuzz::peer;
  fuzz::require(std::strlen(host) < 100000, "a host");
  if (peer.connected == peer.script->answers.size())
    return PKI_HTTP_ERROR;
  peer.connected++;
  peer.at = 0;
  sock->reset(open("/dev/null", O_RDWR | O_CLOEXEC));
  return PKI_OK;
}

int __wrap_poll(pollfd *fds, nfds_t count, int) {
  fuzz::require(count == 1 && fds->fd >= 0, "one descriptor is waited for");
  fds->revents = fds->events;
  return 1;
}

ssize_t __wrap_read(int, void *buffer, size_t length) {
  using fuzz::peer;
  const std::string &answer = fuzz::current_answer();
  size_t size = std::min(length, answer.size() - peer.at);
  if (size > 1 && peer.script->seed != 0)
    size = 1 + fuzz::below(peer.random, size);
  if (size == 0 && peer.script->reset) {
    errno = ECONNRESET;
    return -1;
  }
  std::memcpy(buffer, answer.data() + peer.at, size);
  peer.at += size;
  return static_cast<ssize_t>(size);
}

ssize_t __wrap_send(int, const void *, size_t length, int flags) {
  fuzz::require((flags & MSG_NOSIGNAL) != 0, "no signal when the peer is gone");
  return static_cast<ssize_t>(length);
}
}
