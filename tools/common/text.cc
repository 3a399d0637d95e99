#include "tools/common/text.h"

#include <openssl/evp.h>

#include <charconv>
#include <cstdint>
#include <vector>

namespace tools {

namespace {

unsigned octet_at(std::string_view text, size_t at) {
  return static_cast<unsigned char>(text[at]);
}

// The octets of the well-formed UTF-8 character at `at` (RFC 3629), or 0. `*code` receives it.
size_t utf8_length(std::string_view text, size_t at, uint32_t *code) {
  unsigned first = octet_at(text, at);
  size_t length = first < 0x80 ? 1 : first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first > 0xF4 || (first >= 0x80 && first < 0xC2) || at + length > text.size())
    return 0;
  static constexpr unsigned masks[] = {0, 0x7F, 0x1F, 0x0F, 0x07};
  static constexpr uint32_t lowest[] = {0, 0, 0x80, 0x800, 0x10000};
  *code = first & masks[length];
  for (size_t i = 1; i < length; i++) {
    unsigned next = octet_at(text, at + i);
    if ((next & 0xC0) != 0x80)
      return 0;
    *code = (*code << 6) | (next & 0x3F);
  }
  bool surrogate = *code >= 0xD800 && *code <= 0xDFFF;
  return *code < lowest[length] || surrogate || *code > 0x10FFFF ? 0 : length;
}

bool is_control(uint32_t code) {
  return code < 0x20 || (code >= 0x7F && code < 0xA0);
}

char hex_digit(unsigned value) {
  return "0123456789ABCDEF"[value & 15];
}

}  // namespace

std::string printable(std::string_view text) {
  std::string clean;
  for (size_t at = 0; at < text.size();) {
    uint32_t code = 0;
    size_t length = utf8_length(text, at, &code);
    if (length == 0 || is_control(code))
      clean += '?';
    else
      clean.append(text.substr(at, length));
    at += length ? length : 1;
  }
  return clean;
}

std::string hex(std::string_view octets, char separator) {
  std::string digits;
  for (size_t at = 0; at < octets.size(); at++) {
    if (at > 0 && separator)
      digits += separator;
    digits += hex_digit(octet_at(octets, at) >> 4);
    digits += hex_digit(octet_at(octets, at));
  }
  return digits;
}

std::string base64_lines(std::string_view octets) {
  std::string lines;
  unsigned char line[65];
  for (size_t at = 0; at < octets.size(); at += 48) {
    std::string_view part = octets.substr(at, 48);
    std::vector<unsigned char> in(part.begin(), part.end());
    int length = EVP_EncodeBlock(line, in.data(), static_cast<int>(in.size()));
    lines.append(line, line + length);
    lines += '\n';
  }
  return lines;
}

std::string percent_encode(std::string_view text) {
  std::string encoded;
  for (size_t at = 0; at < text.size(); at++) {
    unsigned octet = octet_at(text, at);
    if (octet > 0x20 && octet < 0x7F) {
      encoded += text[at];
      continue;
    }
    encoded += '%';
    encoded += hex_digit(octet >> 4);
    encoded += hex_digit(octet);
  }
  return encoded;
}

std::string percent_decode(std::string_view text) {
  std::string decoded;
  for (size_t at = 0; at < text.size(); at++) {
    unsigned octet = 0;
    const char *digits = text.data() + at + 1;
    bool escaped = text[at] == '%' && text.size() - at > 2 &&
                   std::from_chars(digits, digits + 2, octet, 16).ptr == digits + 2;
    decoded += escaped ? static_cast<char>(octet) : text[at];
    at += escaped ? 2 : 0;
  }
  return decoded;
}

std::string trim(std::string_view text) {
  static constexpr std::string_view blanks = " \t\r\n";
  size_t first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos)
    return "";
  return std::string(text.substr(first, text.find_last_not_of(blanks) - first + 1));
}

std::string behind_colon(const std::string &text) {
  return text.empty() ? "" : ": " + text;
}

}  // namespace tools
