#include "tools/pkilab/http_message.h"

#include <strings.h>

#include <charconv>

#include "tools/common/text.h"

namespace pkilab {

namespace {

// Where " HTTP/1.x\r\n" begins at or behind `from`.
size_t find_version(std::string_view head, size_t from) {
  static constexpr std::string_view version = " HTTP/1.";
  for (size_t at = head.find(version, from); at != std::string_view::npos;
       at = head.find(version, at + 1)) {
    std::string_view rest = head.substr(at + version.size());
    if (rest.size() >= 3 && rest[0] >= '0' && rest[0] <= '9' && rest.substr(1, 2) == "\r\n")
      return at;
  }
  return std::string_view::npos;
}

bool add_header(request *request, std::string_view line) {
  size_t colon = line.find(':');
  if (colon == 0 || colon == std::string_view::npos)
    return false;
  request->headers.emplace_back(line.substr(0, colon), tools::trim(line.substr(colon + 1)));
  return true;
}

const char *reason(int status) {
  switch (status) {
    case 200:
      return "OK";
    case 302:
      return "Found";
    case 400:
      return "Bad Request";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 413:
      return "Content Too Large";
    case 431:
      return "Request Header Fields Too Large";
    case 500:
      return "Internal Server Error";
    default:
      return "Status";
  }
}

}  // namespace

std::string request::header(std::string_view name) const {
  std::string wanted(name);
  for (const auto &[key, value] : headers)
    if (strcasecmp(key.c_str(), wanted.c_str()) == 0)
      return value;
  return "";
}

void set_target(request *request, const std::string &target) {
  size_t mark = target.find('?');
  request->target = target;
  request->path = target.substr(0, mark);
  request->query = mark == std::string::npos ? "" : target.substr(mark + 1);
  if (request->path.empty())
    request->path = "/";
}

std::optional<request> parse_head(std::string_view head) {
  size_t method_end = head.find(' ');
  if (method_end == 0 || method_end == std::string_view::npos)
    return std::nullopt;
  size_t target = method_end + 1;
  size_t version = find_version(head, target);
  if (version == std::string_view::npos)
    return std::nullopt;
  request parsed;
  parsed.method = head.substr(0, method_end);
  set_target(&parsed, std::string(head.substr(target, version - target)));
  size_t at = head.find("\r\n", version) + 2;
  for (;;) {
    size_t end = head.find("\r\n", at);
    if (end == std::string_view::npos)
      return std::nullopt;
    if (end == at)
      return parsed;
    if (!add_header(&parsed, head.substr(at, end - at)))
      return std::nullopt;
    at = end + 2;
  }
}

std::optional<size_t> body_length(const request &request) {
  std::string text = request.header("Content-Length");
  if (text.empty())
    return 0;
  size_t length = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), length);
  if (error != std::errc() || end != text.data() + text.size())
    return std::nullopt;
  return length;
}

response text_response(int status, const std::string &text) {
  response made;
  made.status = status;
  made.body = text + "\n";
  return made;
}

std::string head_text(const response &response, std::optional<size_t> content_length) {
  std::string head = "HTTP/1.0 " + std::to_string(response.status) + " " + reason(response.status) +
                     "\r\nServer: pkilab\r\n";
  for (const std::string &line : response.headers)
    head += line + "\r\n";
  if (!response.content_type.empty())
    head += "Content-Type: " + response.content_type + "\r\n";
  if (content_length)
    head += "Content-Length: " + std::to_string(*content_length) + "\r\n";
  return head + "\r\n";
}

}  // namespace pkilab
