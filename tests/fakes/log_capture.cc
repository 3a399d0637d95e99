#include "fakes/log_capture.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "fakes/allocator.h"

namespace {

std::mutex mutex;
std::vector<log_entry> entries;
int setup_calls = 0;

void record(int level, const char *format, va_list args) {
  fake_allocator::pause no_failures;
  va_list copy;
  va_copy(copy, args);
  int length = vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
  if (length > 0)
    vsnprintf(text.data(), text.size() + 1, format, args);
  std::lock_guard lock(mutex);
  entries.push_back({level, text});
}

}  // namespace

std::vector<log_entry> captured_log() {
  std::lock_guard lock(mutex);
  return entries;
}

void clear_log() {
  std::lock_guard lock(mutex);
  entries.clear();
}

size_t count_logged(int level, const std::string &text) {
  std::lock_guard lock(mutex);
  size_t count = 0;
  for (const log_entry &entry : entries)
    count += entry.level == level && entry.text == text;
  return count;
}

bool logged_containing(int level, const std::string &part) {
  std::lock_guard lock(mutex);
  for (const log_entry &entry : entries)
    if (entry.level == level && entry.text.find(part) != std::string::npos)
      return true;
  return false;
}

std::string log_dump() {
  std::string dump;
  for (const log_entry &entry : captured_log())
    dump += std::to_string(entry.level) + ": " + entry.text + "\n";
  return dump;
}

int log_setup_calls() {
  return setup_calls;
}

#pragma GCC diagnostic ignored "-Wformat-nonliteral"

extern "C" {

void syslog(int level, const char *format, ...) {
  va_list args;
  va_start(args, format);
  record(level, format, args);
  va_end(args);
}

void vsyslog(int level, const char *format, va_list args) {
  record(level, format, args);
}

// What a fortified build calls instead.
void __syslog_chk(int level, int flag, const char *format, ...) {
  (void)flag;
  va_list args;
  va_start(args, format);
  record(level, format, args);
  va_end(args);
}

void __vsyslog_chk(int level, int flag, const char *format, va_list args) {
  (void)flag;
  record(level, format, args);
}

void openlog(const char *, int, int) {
  setup_calls++;
}
void closelog() {
  setup_calls++;
}
// Asking for the mask (0) changes nothing.
int setlogmask(int mask) {
  if (mask != 0)
    setup_calls++;
  return 0xFF;  // every level up to LOG_DEBUG
}
}
