// What the library says itself, apart from what OpenSSL adds.
#ifndef TESTS_UNIT_VERIFIER_OWN_LOG_H
#define TESTS_UNIT_VERIFIER_OWN_LOG_H

#include <string>

#include "fakes/log_capture.h"

// The log, one "level: text" a line, without what OpenSSL said.
inline std::string own_log() {
  std::string dump;
  for (const log_entry &entry : captured_log())
    if (entry.text.rfind("OpenSSL error: ", 0) != 0)
      dump += std::to_string(entry.level) + ": " + entry.text + "\n";
  return dump;
}

inline size_t openssl_lines(int level = 3) {
  size_t count = 0;
  for (const log_entry &entry : captured_log())
    count += entry.level == level && entry.text.rfind("OpenSSL error: ", 0) == 0;
  return count;
}

#endif
