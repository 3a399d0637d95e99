// The HTTP client's private parts: one exchange is connect, send, read the head, take the body.
#ifndef PKI_HTTP_INTERNAL_H
#define PKI_HTTP_INTERNAL_H

#include <libpki/http.h>

#include "common/alloc.h"
#include "common/limits.h"
#include "common/socket_owner.h"

namespace pki {

// Waits until `fd` is ready for `events`, at most `timeout_ms` milliseconds whatever signals the
// host takes. Returns as poll does.
[[nodiscard]] int wait_for(int fd, short events, int timeout_ms);

// What is sent: the same for every hop of a redirect chain but for host, path and method.
struct http_request {
  const char *method;
  char *host;  // cut at its port by connect_to
  const char *path;
  const char *accept;
  const char *content_type;
  const void *body;
  int body_length;
};

// What a response's head says.
struct http_head {
  int status;
  int content_length;  // -1: not announced
  malloc_ptr<char> content_type;
  bool wants_content_type;
  char location[http_location_capacity];
};

// Forgets what an earlier response said, but for its status.
void clear_head(http_head *head);

// Connects to "name", "name:port", "[address]" or "[address]:port" and cuts
// the port off in place. The first http_max_addresses of a name are tried in order.
// Returns 0; PKI_OUT_OF_MEMORY when the resolver or an address's connection lacked memory;
// PKI_HTTP_ERROR. Both logged.
[[nodiscard]] int connect_to(char *host, socket_owner *sock);

// Sends head and body. Returns 0, PKI_OUT_OF_MEMORY, or PKI_HTTP_ERROR, logged.
[[nodiscard]] int send_request(int fd, const char *head, const http_request &request);

// The request's head, as long as it needs to be, in memory of the caller's own; null when memory
// runs out. Written before connect_to cuts the port off the host.
[[nodiscard]] char *write_request_head(const http_request &request);

// read_line for a line of a response's head: the octets it takes, carriage returns included, come
// off `*budget`, and a line that needs more fails.
[[nodiscard]] int read_line_within(int fd, char *buffer, size_t *length, int *error,
                                   size_t *budget);

// Reads status line and headers. Returns 0, PKI_OUT_OF_MEMORY, PKI_HTTP_ERROR or
// PKI_HTTP_READ_RESP_ERROR, logged. head->status holds the status as soon as it is known.
[[nodiscard]] int read_head(int fd, http_head *head);

// Reads a body of the announced length, at most http_max_body_bytes. Returns 0, PKI_OUT_OF_MEMORY
// or PKI_HTTP_ERROR, logged.
[[nodiscard]] int read_body(int fd, int length, void **body);

}  // namespace pki

#endif
