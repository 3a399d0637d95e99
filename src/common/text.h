// Character classes and comparisons of the POSIX locale, whatever locale the host has set.
// Only octets below 128 belong to a class.
#ifndef PKI_COMMON_TEXT_H
#define PKI_COMMON_TEXT_H

#include <cstddef>

namespace pki {

inline bool is_space(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}
inline bool is_digit(char c) {
  return c >= '0' && c <= '9';
}
inline char to_lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}
inline bool is_letter(char c) {
  return to_lower(c) >= 'a' && to_lower(c) <= 'z';
}

// Equal without regard to letter case, over at most `limit` characters.
inline bool equal_ignoring_case(const char *a, const char *b,
                                size_t limit = static_cast<size_t>(-1)) {
  for (size_t i = 0; i < limit; i++) {
    if (to_lower(a[i]) != to_lower(b[i]))
      return false;
    if (!a[i])
      return true;
  }
  return true;
}

// What would end or garble a line of a request.
inline bool has_control_character(const char *text) {
  for (; *text; text++)
    if (static_cast<unsigned char>(*text) < ' ' || *text == '\x7f')
      return true;
  return false;
}

// A decimal number with optional blanks and sign in front, as strtol reads it, cut to an int;
// 0 where there is none.
int decimal_prefix(const char *text);

}  // namespace pki

#endif
