// An HTTP/1.0 server: a bounded number of threads, one connection each, one request a connection.
#ifndef TOOLS_PKILAB_HTTP_SERVER_H
#define TOOLS_PKILAB_HTTP_SERVER_H

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tools/pkilab/http_connection.h"

namespace pkilab {

struct server_options {
  std::string bind = "127.0.0.1";  // a numeric address, IPv4 or IPv6
  int port = 0;                    // 0: any free one
  size_t max_threads = 64;         // further connections wait
};

// Throws tools::failure where `options.bind` is no numeric address.
void require_numeric_address(const server_options &options);

class server {
 public:
  // Answers one request on its connection; called in several threads at once.
  using responder = std::function<void(const request &, connection &)>;

  // Listens and serves. Throws tools::failure when it cannot listen.
  server(const server_options &options, responder respond);
  // Stops.
  ~server();
  server(const server &) = delete;
  server &operator=(const server &) = delete;

  // Ends every connection and every thread.
  void stop();

  // "ADDRESS:PORT" that it listens on.
  std::string authority() const { return authority_; }
  int port() const { return port_; }

 private:
  void listen_on(const server_options &options);
  void accept_loop();
  void hand_out(int fd);
  void work();
  void serve(int fd);
  int next_connection();

  responder respond_;
  size_t max_threads_;
  int listener_ = -1;
  int stop_pipe_[2] = {-1, -1};
  std::string authority_;
  int port_ = 0;

  std::mutex mutex_;
  std::condition_variable changed_;  // waiting_ grew, or the server stops
  std::condition_variable room_;     // waiting_ shrank, or the server stops
  bool stopping_ = false;
  size_t idle_ = 0;
  std::deque<int> waiting_;
  std::vector<std::thread> workers_;
  std::thread acceptor_;
};

}  // namespace pkilab

#endif
