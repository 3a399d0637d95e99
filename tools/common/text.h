// Text from outside, made fit for a terminal, a log line or a URL.
#ifndef TOOLS_COMMON_TEXT_H
#define TOOLS_COMMON_TEXT_H

#include <string>
#include <string_view>

namespace tools {

// Control characters (C0, C1, delete) and octets that are no UTF-8 become "?": what a server or a
// document sent must not drive the reader's terminal.
std::string printable(std::string_view text);

// Upper-case hexadecimal, two digits an octet, separated by `separator` unless that is 0.
std::string hex(std::string_view octets, char separator = 0);

// Base64 in lines of 64 characters, each ended by a line feed.
std::string base64_lines(std::string_view octets);

// Blanks, control characters and octets above 126 as "%XX"; all others unchanged.
std::string percent_encode(std::string_view text);

// "%XX" as the octet that it stands for; all others, and a "%" without two digits, unchanged.
std::string percent_decode(std::string_view text);

// Without white space at both ends.
std::string trim(std::string_view text);

// ": text", as what is known of a reason stands at the end of a message; "" for nothing.
std::string behind_colon(const std::string &text);

}  // namespace tools

#endif
