// What a tool throws when it cannot go on: one line of text that says what to do.
#ifndef TOOLS_COMMON_FAILURE_H
#define TOOLS_COMMON_FAILURE_H

#include <stdexcept>
#include <string>

namespace tools {

// Exit code 1.
class failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Exit code 2: the command line asks for something that cannot be.
class usage_failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// An operation of the library returned `code`. Exit code 1.
class library_failure : public failure {
 public:
  library_failure(int code, const std::string &text) : failure(text), code_(code) {}
  int code() const { return code_; }

 private:
  int code_;
};

// An operation of the library returned `code` for what the command line gave. Exit code 2.
class library_usage_failure : public usage_failure {
 public:
  library_usage_failure(int code, const std::string &text) : usage_failure(text), code_(code) {}
  int code() const { return code_; }

 private:
  int code_;
};

// What OpenSSL and the library say when memory ran out.
inline void require_memory(bool had) {
  if (!had)
    throw failure("out of memory");
}

}  // namespace tools

#endif
