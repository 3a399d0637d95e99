// A server on a real loopback socket that plays a script: each connection gets the next answer.
#ifndef TESTS_SUPPORT_TEST_SERVER_H
#define TESTS_SUPPORT_TEST_SERVER_H

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace support {

// What a connection gets. The request head (and as much body as its Content-Length says) is read
// first unless `read_request` is false.
struct answer {
  std::string bytes;         // sent as they are
  size_t chunk = 0;          // octets a send; 0: all at once
  int pause_ms = 0;          // between chunks
  bool read_request = true;  // false: answer (and close) without reading
  bool reset = false;        // close with a TCP reset
  bool hold = false;         // keep the connection open until the server stops
};

// "HTTP/1.0 200 OK", Content-Type, Content-Length and the body.
answer ok(const std::string &body, const std::string &content_type = "text/plain");
// A status line with this number, extra header lines (each with its "\r\n"), and a body that is
// announced.
answer status(int number, const std::string &headers = "", const std::string &body = "");
// A redirect to `location`.
answer redirect(int number, const std::string &location);
// Exactly these bytes.
answer raw(const std::string &bytes);

class test_server {
 public:
  // Answers the first connection with the first answer, and so on; the last answer repeats.
  explicit test_server(std::vector<answer> answers, bool ipv6 = false);
  // Answers each request with what `respond(request)` gives; `request` is head and body.
  explicit test_server(std::function<answer(const std::string &request)> respond);
  ~test_server();
  test_server(const test_server &) = delete;
  test_server &operator=(const test_server &) = delete;

  int port() const { return port_; }
  // "127.0.0.1:PORT" (or "[::1]:PORT"), and "http://" + that + path.
  std::string host() const;
  std::string url(const std::string &path = "/") const;
  // Every request so far, head and body, octet by octet.
  std::vector<std::string> requests() const;

 private:
  void listen_on_loopback();
  void serve();
  void play(int fd, const answer &what);

  std::function<answer(const std::string &)> respond_;
  bool scripted_ = false;
  bool ipv6_ = false;
  int listener_ = -1;
  int wake_[2] = {-1, -1};
  int port_ = 0;
  mutable std::mutex mutex_;
  std::vector<std::string> requests_;
  std::vector<int> held_;
  std::thread thread_;
};

// A port on 127.0.0.1 where nobody listens.
int unused_port();

}  // namespace support

#endif
