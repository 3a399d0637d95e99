// Answers to the HTTP client, redirects and all: an error that the interface names, or a body of
// exactly the announced length.
#include <libpki/libpki.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "invariant.h"
#include "scripted_peer.h"

namespace {

using namespace fuzz;

constexpr size_t most_requests = 20;
// Of the choices: how, and the seed.
constexpr size_t choices_size = 2;
// Between the answers.
constexpr char separator[] = "\xff\xfe";

peer_script read_script(const uint8_t *data, size_t size) {
  peer_script script;
  script.reset = (data[0] & 4) != 0;
  script.seed = data[1];
  std::string all(data + choices_size, data + size);
  size_t at = 0, end;
  for (; (end = all.find(separator, at)) != std::string::npos; at = end + strlen(separator))
    script.answers.push_back(all.substr(at, end - at));
  script.answers.push_back(all.substr(at));
  return script;
}

bool is_known(int code) {
  return code == PKI_OK || code == PKI_OUT_OF_MEMORY || code == PKI_HTTP_ERROR ||
         code == PKI_HTTP_READ_RESP_ERROR;
}

}  // namespace

extern "C" {

int LLVMFuzzerInitialize(int *, char ***) {
  return libpki_init() == 0 ? 0 : 1;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < choices_size)
    return -1;
  peer_script script = read_script(data, size);
  play(script);
  bool stream = (data[0] & 1) != 0, with_type = (data[0] & 2) != 0;
  char host[] = "server.test:8080";
  int status = -7, length = -7, sock = -7;
  char *type = nullptr;
  void *body = nullptr;
  int code = send_http_get(host, "/path", &status, "*/*", &length, with_type ? &type : nullptr,
                           stream, &body, &sock);
  require(is_known(code), "a known code", code);
  require(connections() <= most_requests, "not redirected for ever");
  bool answered = code == PKI_OK && status == 200;
  require((body != nullptr) == (answered && !stream), "a body when it was asked for", status);
  require(!stream || (sock >= 0) == answered, "a socket when it was asked for", sock);
  require(code != PKI_OUT_OF_MEMORY || length > 64 << 20, "memory ran out for a reason", length);
  if (body)
    require(length >= 0 && static_cast<size_t>(length) <= size, "what was announced came", length);
  require(!type || std::strlen(type) < 700, "a content type from one line");
  std::free(body);
  std::free(type);
  if (stream && sock >= 0)
    close(sock);
  return 0;
}
}
