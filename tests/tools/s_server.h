// An `openssl s_server` process on a free port of the loopback.
#ifndef TESTS_TOOLS_S_SERVER_H
#define TESTS_TOOLS_S_SERVER_H

#include <sys/types.h>

#include <string>

#include "run_tool.h"

namespace tool_test {

class s_server {
 public:
  // With -cert, -key and so on.
  explicit s_server(const strings &options);
  ~s_server();
  s_server(const s_server &) = delete;
  s_server &operator=(const s_server &) = delete;

  const std::string &port() const { return port_; }

 private:
  pid_t pid_ = -1;
  int out_ = -1;
  std::string port_;
};

}  // namespace tool_test

#endif
