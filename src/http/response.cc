// Reading a response: status line, headers, a body of known length.
#include <libpki/error.h>

#include <cerrno>
#include <cstring>

#include "common/log.h"
#include "common/text.h"
#include "http/internal.h"

namespace pki {

namespace {

constexpr char status_prefix[] = "HTTP/1.";
constexpr size_t status_prefix_length = sizeof status_prefix - 1;

// The value of the header `name` (its colon included) if `line` is one and is longer than its
// name, else null.
const char *header_value(const char *line, size_t length, const char *name) {
  size_t name_length = std::strlen(name);
  if (length <= name_length || !equal_ignoring_case(line, name, name_length))
    return nullptr;
  const char *value = line + name_length;
  while (is_space(*value))
    value++;
  return value;
}

int store_content_type(http_head *head, const char *value) {
  size_t length = std::strcspn(value, " \t;");
  auto *copy = static_cast<char *>(allocate(length + 1));
  if (!copy)
    return PKI_OUT_OF_MEMORY;
  std::memcpy(copy, value, length);
  copy[length] = '\0';
  head->content_type.reset(copy);
  return PKI_OK;
}

void store_location(http_head *head, const char *value) {
  size_t length = std::strlen(value);
  if (length > sizeof head->location - 1)
    length = sizeof head->location - 1;
  std::memcpy(head->location, value, length);
  head->location[length] = '\0';
}

int store_header(http_head *head, const char *line, size_t length) {
  const char *value;
  if (head->wants_content_type && (value = header_value(line, length, "Content-Type:")))
    return store_content_type(head, value);
  if ((value = header_value(line, length, "Content-Length:"))) {
    int announced = decimal_prefix(value);
    head->content_length = announced < 0 ? -1 : announced;
  } else if ((value = header_value(line, length, "Location:"))) {
    store_location(head, value);
  }
  return PKI_OK;
}

// Behind the prefix: the rest of the version, white space, the status.
bool parse_status_line(const char *line, size_t length, int *status) {
  if (length <= status_prefix_length || std::memcmp(line, status_prefix, status_prefix_length) != 0)
    return false;
  const char *at = line + status_prefix_length;
  while (*at && !is_space(*at))
    at++;
  while (is_space(*at))
    at++;
  if (!*at)
    return false;
  *status = decimal_prefix(at);
  return true;
}

int read_status_line(int fd, http_head *head, size_t *budget) {
  char line[http_line_capacity];
  size_t length = sizeof line;
  int reason = 0;
  if (int error = read_line_within(fd, line, &length, &reason, budget)) {
    syslog(log_error, "Error reading http response line: %s", strerror(reason));
    return error;
  }
  if (!parse_status_line(line, length, &head->status)) {
    syslog(log_error, "Invalid http response line: %.*s", static_cast<int>(length), line);
    return PKI_HTTP_ERROR;
  }
  return PKI_OK;
}

}  // namespace

void clear_head(http_head *head) {
  head->content_length = -1;
  head->content_type.reset();
  head->location[0] = '\0';
}

int read_head(int fd, http_head *head) {
  size_t budget = http_max_head_bytes;
  if (int error = read_status_line(fd, head, &budget))
    return error;
  for (;;) {
    char line[http_line_capacity];
    size_t length = sizeof line;
    int reason = 0;
    if (int error = read_line_within(fd, line, &length, &reason, &budget)) {
      syslog(log_error, "Error reading http header line: %s", strerror(reason));
      return error;
    }
    if (length == 0)
      return PKI_OK;
    if (int error = store_header(head, line, length))
      return error;
  }
}

int read_body(int fd, int length, void **body) {
  malloc_ptr<char> buffer(static_cast<char *>(allocate(static_cast<size_t>(length))));
  if (!buffer)
    return PKI_OUT_OF_MEMORY;
  int got = 0;
  int reason = 0;
  while (got < length) {
    ssize_t piece = timed_read(fd, buffer.get() + got, static_cast<size_t>(length - got),
                               http_timeout_ms, &reason);
    if (piece < 1)
      break;
    got += static_cast<int>(piece);
  }
  if (got < length) {
    syslog(log_error, "truncated http response: got %d bytes but expected %d bytes: %s", got,
           length, strerror(reason));
    return PKI_HTTP_ERROR;
  }
  *body = buffer.release();
  return PKI_OK;
}

}  // namespace pki
