// syslog() of the test program: every line is kept with its level, and goes nowhere else.
#ifndef TESTS_FAKES_LOG_CAPTURE_H
#define TESTS_FAKES_LOG_CAPTURE_H

#include <string>
#include <vector>

struct log_entry {
  int level;
  std::string text;
  bool operator==(const log_entry &) const = default;
};

// All lines since the last clear_log, oldest first, of every thread.
std::vector<log_entry> captured_log();
void clear_log();

// How many captured lines have this level and exactly this text.
size_t count_logged(int level, const std::string &text);
inline bool was_logged(int level, const std::string &text) {
  return count_logged(level, text) > 0;
}
// Any captured line of this level that contains `part`?
bool logged_containing(int level, const std::string &part);
// The captured lines as "level: text" a line, for failure messages.
std::string log_dump();

// Calls of openlog, closelog and setlogmask so far; a library must leave them to its host.
int log_setup_calls();

#endif
