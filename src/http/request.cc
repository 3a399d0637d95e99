// One call: the request, its redirects, and what the caller gets.
#include <libpki/error.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "common/log.h"
#include "common/text.h"
#include "http/internal.h"
#include "http/post_within.h"

namespace pki {

namespace {

constexpr int status_ok = 200;

// Where the caller wants its results.
struct http_outputs {
  int *status;
  int *content_length;
  char **content_type;  // may be null
  bool stream;
  void **body;
  int *sock;
  int limit = INT_MAX;  // of a body: a longer one is of no use and stays unread
};

bool is_redirect(int status) {
  return status == 301 || status == 302 || status == 303 || status == 307;
}

// snprintf's length for text that is not written yet.
size_t written(int length) {
  return length > 0 ? static_cast<size_t>(length) : 0;
}

// Writes the head into `out` of `size` octets, or with none of it only measures.
size_t format_request_head(const http_request &request, char *out, size_t size) {
  size_t at = 0;
  auto room = [&] { return at < size ? size - at : 0; };
  auto end = [&] { return at < size ? out + at : nullptr; };
  at += written(snprintf(end(), room(), "%s %s HTTP/1.0\r\n", request.method, request.path));
  at += written(snprintf(end(), room(), "Host: %s\r\n", request.host));
  at += written(snprintf(end(), room(), "User-Agent: ZelvoPKI/3.7\r\n"));
  if (request.accept || equal_ignoring_case(request.method, "GET"))
    at += written(snprintf(end(), room(), "Accept: %s\r\n", text_or_null(request.accept)));
  if (request.body) {
    if (request.content_type)
      at += written(snprintf(end(), room(), "Content-Type: %s\r\n", request.content_type));
    at += written(snprintf(end(), room(), "Content-Length: %d\r\n", request.body_length));
  }
  return at + written(snprintf(end(), room(), "\r\n"));
}

// Waits until the socket takes octets again, as long as for any other step.
bool wait_writable(int fd) {
  int ready = wait_for(fd, POLLOUT, http_timeout_ms);
  if (ready == 0)
    errno = ETIMEDOUT;
  return ready > 0;
}

// A peer that closes early must not kill the host, and one that does not read must not hold it.
bool send_all(int fd, const char *octets, size_t length) {
  while (length > 0) {
    ssize_t sent = send(fd, octets, length, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      if (!wait_writable(fd))
        return false;
      continue;
    }
    if (sent < 0 && errno == EINTR)
      continue;
    if (sent <= 0)
      return false;
    octets += sent;
    length -= static_cast<size_t>(sent);
  }
  return true;
}

// Turns the request into the one that a redirect asks for. `*url` owns its host and path.
int follow_redirect(const http_head &head, http_request *request, malloc_ptr<char> *url) {
  if (head.status == 302 || head.status == 303) {
    request->method = "GET";
    request->body_length = 0;
  }
  char *copy;
  char *host;
  char *path;
  int error = parse_url(head.location, &copy, &host, &path);
  if (error == PKI_OUT_OF_MEMORY)
    return error;
  malloc_ptr<char> owner(copy);
  if (error || !equal_ignoring_case(copy, "http")) {
    syslog(log_error, "Invalid or unsupported url in redirect: %s", head.location);
    return PKI_INVALID_URL;
  }
  syslog(log_debug, "Redirecting to url '%s'", head.location);
  *url = std::move(owner);
  request->host = host;
  request->path = path;
  return PKI_OK;
}

// Connects, sends, and reads the answer's head.
int exchange(const http_request &request, socket_owner *sock, http_head *head) {
  clear_head(head);
  malloc_ptr<char> text(write_request_head(request));
  if (!text)
    return PKI_OUT_OF_MEMORY;
  if (int error = connect_to(request.host, sock))
    return error;
  if (int error = send_request(sock->get(), text.get(), request))
    return error;
  return read_head(sock->get(), head);
}

// Requests until an answer is no redirect, cannot be followed, or the budget is used up.
int exchange_following_redirects(http_request request, const http_outputs &out, socket_owner *sock,
                                 http_head *head) {
  malloc_ptr<char> url;
  for (int requests = 1;; requests++) {
    int error = exchange(request, sock, head);
    *out.status = head->status;
    *out.content_length = head->content_length;
    if (error || !is_redirect(head->status))
      return error;
    error = follow_redirect(*head, &request, &url);
    if (error)
      return error == PKI_OUT_OF_MEMORY ? error : PKI_OK;
    sock->reset();
    if (requests == http_max_requests)
      return PKI_OK;
  }
}

int deliver(const http_outputs &out, socket_owner *sock, const http_head &head) {
  if (head.status != status_ok) {
    *out.content_length = 0;
    return PKI_OK;
  }
  if (out.stream) {
    *out.sock = sock->release();
    return PKI_OK;
  }
  if (head.content_length < 0) {
    syslog(log_error, "Won't buffer http response with indeterminate length");
    return PKI_HTTP_ERROR;
  }
  if (head.content_length > http_max_body_bytes)
    return PKI_OUT_OF_MEMORY;
  if (head.content_length > out.limit)
    return PKI_OK;
  return read_body(sock->get(), head.content_length, out.body);
}

bool has_required(const http_request &request, const http_outputs &out) {
  return request.host && request.path && request.body_length >= 0 && out.status &&
         out.content_length && (out.stream ? out.sock != nullptr : out.body != nullptr);
}

void clear(const http_outputs &out) {
  if (out.stream && out.sock)
    *out.sock = -1;
  if (!out.stream && out.body)
    *out.body = nullptr;
  if (out.content_type)
    *out.content_type = nullptr;
  if (out.content_length)
    *out.content_length = -1;
  if (out.status)
    *out.status = 0;
}

int do_req(const http_request &request, const http_outputs &out) {
  clear(out);
  if (!has_required(request, out))
    return PKI_INVALID_ARGS;
  socket_owner sock;
  http_head head = {};
  head.wants_content_type = out.content_type != nullptr;
  int error = exchange_following_redirects(request, out, &sock, &head);
  if (!error)
    error = deliver(out, &sock, head);
  if (out.content_type)
    *out.content_type = head.content_type.release();
  return error;
}

}  // namespace

char *write_request_head(const http_request &request) {
  size_t size = format_request_head(request, nullptr, 0) + 1;
  auto *text = static_cast<char *>(allocate(size));
  if (text)
    format_request_head(request, text, size);
  return text;
}

int send_request(int fd, const char *head, const http_request &request) {
  if (!send_all(fd, head, std::strlen(head))) {
    syslog(log_error, "Error sending request header: %s", strerror(errno));
    return PKI_HTTP_ERROR;
  }
  size_t length = static_cast<size_t>(request.body_length);
  if (request.body && length > 0 &&
      !send_all(fd, static_cast<const char *>(request.body), length)) {
    syslog(log_error, "Error sending request body: %s", strerror(errno));
    return PKI_HTTP_ERROR;
  }
  return PKI_OK;
}

int send_http_post_within(int limit, char *host, const char *path, const char *request_type,
                          const void *request_body, int request_length, int *status,
                          int *content_length, char **content_type, void **body) {
  http_request request = {"POST", host, path, nullptr, request_type, request_body, request_length};
  return do_req(request, {status, content_length, content_type, false, body, nullptr, limit});
}

}  // namespace pki

int send_http_get(char *host, const char *path, int *status, const char *accept,
                  int *content_length, char **content_type, unsigned char stream, void **body,
                  int *sock) {
  pki::http_request request = {"GET", host, path, accept, nullptr, nullptr, 0};
  return pki::do_req(request, {status, content_length, content_type, stream != 0, body, sock});
}

int send_http_post(char *host, const char *path, const char *request_type, const void *request_body,
                   int request_length, int *status, int *content_length, char **content_type,
                   unsigned char stream, void **body, int *sock) {
  pki::http_request request = {"POST",       host,         path,          nullptr,
                               request_type, request_body, request_length};
  return pki::do_req(request, {status, content_length, content_type, stream != 0, body, sock});
}
