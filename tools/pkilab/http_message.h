// HTTP/1.0 messages as the lab reads and writes them.
#ifndef TOOLS_PKILAB_HTTP_MESSAGE_H
#define TOOLS_PKILAB_HTTP_MESSAGE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace pkilab {

struct request {
  std::string method;
  // As sent: possibly empty, unescaped, with line feeds in it.
  std::string target;
  std::string path;   // the target up to its first "?"; "/" for an empty one
  std::string query;  // behind that "?"
  std::vector<std::pair<std::string, std::string>> headers;  // names as sent
  std::string body;
  std::string authority;  // "ADDRESS:PORT" of our side of the connection
  // Asked for on a misbehaving path: the answer is to be signed by a stranger.
  bool by_stranger = false;

  // The value of the first header of that name (in any letter case), or "".
  std::string header(std::string_view name) const;
};

// Reads a head that ends with its blank line. A request line ends at " HTTP/1.x\r\n" and nowhere
// else: clients send base64 with its line feeds in the target. No value when it is malformed.
std::optional<request> parse_head(std::string_view head);

// Sets the target and what is derived from it.
void set_target(request *request, const std::string &target);

// The announced length of the request's body; no value when it is no number.
std::optional<size_t> body_length(const request &request);

// Receives octets; false when it takes no more.
using octet_sink = std::function<bool(std::string_view)>;

// Octets that are made while they are sent, so that nobody holds them all.
struct octet_stream {
  uint64_t length = 0;
  std::function<bool(const octet_sink &)> make;  // false when the sink took no more
};

struct response {
  int status = 200;
  std::string content_type = "text/plain";  // "": no such line
  std::string body;
  std::optional<octet_stream> stream;  // stands in for the body
  bool announce_length = true;
  std::vector<std::string> headers;  // further lines, without line ends
  std::string note;                  // for the lab's log only: what was answered
  bool has_failed = false;           // the lab could not answer; `note` says why

  uint64_t length() const { return stream ? stream->length : body.size(); }
};

response text_response(int status, const std::string &text);

// The head up to and with its blank line.
std::string head_text(const response &response, std::optional<size_t> content_length);

}  // namespace pkilab

#endif
