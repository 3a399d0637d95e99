// Reading from a socket with a time-out.
#include <libpki/error.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "common/log.h"
#include "http/internal.h"

namespace pki {

namespace {

void store(int *error, int value) {
  if (error)
    *error = value;
}

long long now_ms() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

}  // namespace

int wait_for(int fd, short events, int timeout_ms) {
  if (fd < 0) {
    errno = EBADF;
    return -1;
  }
  pollfd wait = {fd, events, 0};
  long long deadline = now_ms() + timeout_ms;
  for (;;) {
    int ready = poll(&wait, 1, timeout_ms);
    if (ready >= 0 || errno != EINTR)
      return ready;
    long long left = deadline - now_ms();
    if (timeout_ms >= 0)
      timeout_ms = left > 0 ? static_cast<int>(left) : 0;
  }
}

int read_line_within(int fd, char *buffer, size_t *length, int *error, size_t *budget) {
  size_t capacity = *length;
  size_t stored = 0;
  int read_error = EINVAL;
  store(error, read_error);
  while (stored<capacity && * budget> 0) {
    char c;
    if (timed_read(fd, &c, 1, http_timeout_ms, &read_error) < 1)
      break;
    read_error = EINVAL;
    --*budget;
    if (c == '\n') {
      buffer[stored] = '\0';
      *length = stored;
      return PKI_OK;
    }
    if (c != '\r')
      buffer[stored++] = c;
  }
  *length = stored;
  store(error, read_error);
  return PKI_HTTP_READ_RESP_ERROR;
}

}  // namespace pki

ssize_t timed_read(int fd, void *buffer, size_t length, int timeout_ms, int *error) {
  int ready = pki::wait_for(fd, POLLIN, timeout_ms);
  if (ready < 0) {
    int reason = errno;
    pki::store(error, reason);
    syslog(pki::log_error, "poll error: %d (%s)", ready, strerror(reason));
    return ready;
  }
  if (ready == 0) {
    syslog(pki::log_error, "read timed out");
    pki::store(error, ETIMEDOUT);
    errno = ETIME;
    return -1;
  }
  ssize_t got = read(fd, buffer, length);
  if (got <= 0)
    pki::store(error, got == 0 ? ENOTCONN : errno);
  return got;
}

int read_line(int fd, char *buffer, size_t *length, int *error) {
  if (!buffer || !length)
    return PKI_INVALID_ARGS;
  size_t budget = pki::http_max_head_bytes;
  return pki::read_line_within(fd, buffer, length, error, &budget);
}
