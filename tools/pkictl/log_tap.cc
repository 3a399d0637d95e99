#include "tools/pkictl/log_tap.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <vector>

// <syslog.h> is not included: a fortified build would find inline versions in it of what is
// defined below.
extern "C" {
void vsyslog(int level, const char *format, va_list args);
void syslog(int level, const char *format, ...);
// NOLINTNEXTLINE(readability-identifier-naming): the C library calls it so
void __syslog_chk(int level, int flag, const char *format, ...);
}

namespace pkictl {

namespace {

thread_local log_tap::listener *listening = nullptr;

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

std::string format_line(const char *format, va_list args) {
  va_list again;
  va_copy(again, args);
  int length = vsnprintf(nullptr, 0, format, again);
  va_end(again);
  std::vector<char> text(length > 0 ? static_cast<size_t>(length) + 1 : 1);
  vsnprintf(text.data(), text.size(), format, args);
  return text.data();
}

void log_line(int level, const char *format, va_list args) {
  int error = errno;  // for %m
  if (listening) {
    va_list copy;
    va_copy(copy, args);
    try {
      std::string line = format_line(format, copy);
      (*listening)(level, line);
    } catch (...) {
      // The system log still gets it.
    }
    va_end(copy);
  }
  errno = error;
  vsyslog(level, format, args);
}

#pragma GCC diagnostic pop

}  // namespace

log_tap::log_tap(listener heard) : heard_(std::move(heard)) {
  listening = &heard_;
}

log_tap::~log_tap() {
  listening = nullptr;
}

}  // namespace pkictl

// These stand in front of the C library's. vsyslog, which is still its own, does the rest.
extern "C" {

void syslog(int level, const char *format, ...) {
  va_list args;
  va_start(args, format);
  pkictl::log_line(level, format, args);
  va_end(args);
}

// What a fortified build calls instead.
void __syslog_chk(int level, int flag, const char *format, ...) {
  (void)flag;
  va_list args;
  va_start(args, format);
  pkictl::log_line(level, format, args);
  va_end(args);
}
}
