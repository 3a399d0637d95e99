// Octets to and from a server, without an HTTP client between.
#ifndef TESTS_TOOLS_RAW_HTTP_H
#define TESTS_TOOLS_RAW_HTTP_H

#include <string>

namespace tool_test {

class raw_client {
 public:
  // Connects to 127.0.0.1.
  explicit raw_client(int port);
  ~raw_client();
  raw_client(const raw_client &) = delete;
  raw_client &operator=(const raw_client &) = delete;

  void send(const std::string &bytes);
  // Reads until `length` octets are there or the stream ends.
  std::string receive(size_t length);
  // Everything up to the end of the stream.
  std::string receive_all() { return receive(std::string::npos); }
  // Is nothing there to read, and the stream still open?
  bool is_silent();
  // Did the stream end with a reset?
  bool was_reset() const { return was_reset_; }

 private:
  int fd_;
  bool was_reset_ = false;
};

// Sends a request, and gives what the server sends until it closes.
std::string exchange(int port, const std::string &bytes);

// The part of an answer behind its head.
std::string body_of(const std::string &answer);

}  // namespace tool_test

#endif
