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
#include "tools/pkilab/http_listener.h"

namespace pkilab {

class server {
 public:
  // Answers one request on its connection; called in several threads at once.
  using responder = std::function<void(const request &, connection &)>;

  // Serves whoever connects to `listener`, which outlives it; where `max_threads` are busy, further
  // connections wait. Throws tools::failure.
  server(listener &listener, responder respond, size_t max_threads = 64);
  // Stops.
  ~server();
  server(const server &) = delete;
  server &operator=(const server &) = delete;

  // Closes the listener, and ends every connection and every thread.
  void stop();

 private:
  void accept_loop();
  void hand_out(int fd);
  void work();
  void serve(int fd);
  int next_connection();

  listener &listener_;
  responder respond_;
  size_t max_threads_;
  int stop_pipe_[2] = {-1, -1};

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
