#include "tools/pkictl/log_words.h"

#include <charconv>
#include <string_view>

namespace pkictl {

namespace {

constexpr size_t shortest_dump = 40;
constexpr std::string_view document_not_sent = "failed to download ca-info: url=";
constexpr std::string_view scep_not_answered = "failed to send scep request: url=";
constexpr std::string_view status_mark = " sts=";
constexpr const char *line_too_long = "Error reading http header line: Invalid argument";

bool is_redirect(int status) {
  return status == 301 || status == 302 || status == 303 || status == 307;
}

// Octets in hexadecimal behind the last blank, and the word that introduces them.
std::string without_dump(const std::string &line) {
  size_t begin = line.rfind(' ') + 1;
  bool is_dump = line.size() - begin >= shortest_dump &&
                 line.find_first_not_of("0123456789abcdefABCDEF", begin) == std::string::npos;
  if (!is_dump)
    return line;
  std::string rest = line.substr(0, begin);
  if (rest.ends_with(", resp = "))
    rest.erase(rest.rfind(','));
  return rest.substr(0, rest.find_last_not_of(": ") + 1);
}

// The status in a line "BEGIN URL sts=404", or 0.
int status_behind(std::string_view begin, std::string_view line) {
  size_t mark = line.rfind(status_mark);
  int status = 0;
  if (line.starts_with(begin) && mark != std::string_view::npos)
    std::from_chars(line.data() + mark + status_mark.size(), line.data() + line.size(), status);
  return status;
}

}  // namespace

std::string answered_text(int status) {
  std::string text = "the server answered " + std::to_string(status);
  if (is_redirect(status))
    text += ": its redirects were too many, or could not be followed";
  return text + "; check the URL";
}

std::string in_plain_words(const std::string &line) {
  if (int status = status_behind(document_not_sent, line))
    return answered_text(status);
  // Nobody gave this URL on the command line.
  if (int status = status_behind(scep_not_answered, line))
    return line.substr(scep_not_answered.size(),
                       line.rfind(status_mark) - scep_not_answered.size()) +
           ": " + answered_text(status);
  if (line == line_too_long)
    return line + ": a line of the answer's head, or all of it, is too long";
  return without_dump(line);
}

}  // namespace pkictl
