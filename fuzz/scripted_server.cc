#include "scripted_server.h"

#include <libpki/http.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "der_tree.h"
#include "invariant.h"

namespace fuzz {

namespace {

constexpr int expected_timeout_ms = 60000;

struct {
  const server_script *script = nullptr;
  random_source random;
  size_t at = 0;
  bool ended = false;
} server;

size_t piece_size(size_t at) {
  switch (server.script->delivery) {
    case server_script::pieces::single:
      return 1;
    case server_script::pieces::small:
      return 1 + below(server.random, 40);
    case server_script::pieces::any:
      return 1 + below(server.random, 3000);
    case server_script::pieces::one_cut: {
      size_t cut = 1 + server.script->seed % 4096;
      return at < cut ? cut - at : SIZE_MAX;
    }
    default:
      return SIZE_MAX;
  }
}

// The octet at a place in the body, or in what comes again behind it.
size_t place(size_t at) {
  const server_script &script = *server.script;
  if (at < script.body.size())
    return at;
  size_t start = script.body.size() - script.repeated;
  return start + (at - script.body.size()) % script.repeated;
}

}  // namespace

void play(const server_script &script) {
  server.script = &script;
  server.random.seed(script.seed);
  server.at = 0;
  server.ended = false;
  require(script.size <= script.body.size() || script.repeated > 0, "a script that can be played");
}

long read_scripted(void *buffer, size_t length) {
  require(length > 0, "no read of nothing");
  require(!server.ended, "no read behind the end");
  size_t left = server.script->size - server.at;
  if (left == 0) {
    server.ended = true;
    return server.script->reset ? -1 : 0;
  }
  size_t size = std::min({length, left, piece_size(server.at)});
  auto *out = static_cast<char *>(buffer);
  for (size_t i = 0; i < size; i++)
    out[i] = server.script->body[place(server.at++)];
  return static_cast<long>(size);
}

}  // namespace fuzz

extern "C" {

ssize_t __wrap_timed_read(int fd, void *buffer, size_t length, int timeout_ms, int *error);
int __wrap_send_http_get(char *host, const char *path, int *status, const char *accept,
                         int *content_length, char **content_type, unsigned char stream,
                         void **body, int *sock);

ssize_t __wrap_timed_read(int, void *buffer, size_t length, int timeout_ms, int *error) {
  fuzz::require(timeout_ms == fuzz::expected_timeout_ms, "the time-out of each read");
  ssize_t got = fuzz::read_scripted(buffer, length);
  if (got < 1 && error)
    *error = got < 0 ? ECONNRESET : ENOTCONN;
  return got;
}

int __wrap_send_http_get(char *, const char *, int *status, const char *, int *content_length,
                         char **content_type, unsigned char stream, void **, int *sock) {
  using fuzz::server;
  fuzz::require(stream == 1, "a CRL is streamed");
  *status = 200;
  *content_length = server.script->content_length;
  *content_type = server.script->has_content_type ? strdup("application/pkix-crl") : nullptr;
  *sock = -1;
  return 0;
}
}
