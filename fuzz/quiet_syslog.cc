// The library's log goes nowhere, but its lines are made, so that the sanitizers see what they are
// made of.
#include <syslog.h>

#include <cstdarg>
#include <cstdio>

extern "C" void syslog(int, const char *format, ...) {
  char line[2048];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
}
