#include "tools/pkilab/http_server.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <system_error>

#include "tools/common/failure.h"

namespace pkilab {

server::server(listener &listener, responder respond, size_t max_threads)
    : listener_(listener), respond_(std::move(respond)), max_threads_(max_threads) {
  if (pipe2(stop_pipe_, O_CLOEXEC) != 0)
    throw tools::failure(std::string("cannot make a pipe: ") + strerror(errno));
  acceptor_ = std::thread([this] { accept_loop(); });
}

server::~server() {
  stop();
  close(stop_pipe_[0]);
}

void server::stop() {
  {
    std::lock_guard lock(mutex_);
    if (stopping_)
      return;
    stopping_ = true;
  }
  // The closed end makes the other readable for every wait there is.
  close(stop_pipe_[1]);
  changed_.notify_all();
  room_.notify_all();
  acceptor_.join();
  listener_.close();  // ends what nobody has accepted yet
  for (std::thread &worker : workers_)
    worker.join();
  for (int fd : waiting_)
    close(fd);
}

void server::accept_loop() {
  for (;;) {
    pollfd waits[2] = {{listener_.fd(), POLLIN, 0}, {stop_pipe_[0], POLLIN, 0}};
    if (poll(waits, 2, -1) < 0)
      continue;
    if (waits[1].revents)
      return;
    int fd = accept4(listener_.fd(), nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0)
      hand_out(fd);
    else if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS)
      poll(&waits[1], 1, 10);  // a connection that ends makes room again
  }
}

void server::hand_out(int fd) {
  std::unique_lock lock(mutex_);
  room_.wait(lock, [this] { return stopping_ || waiting_.size() < max_threads_; });
  waiting_.push_back(fd);
  if (idle_ < waiting_.size() && workers_.size() < max_threads_) {
    try {
      workers_.emplace_back([this] { work(); });
    } catch (const std::system_error &) {
      // No new thread now: the threads that there are take it later.
    }
  }
  changed_.notify_one();
}

int server::next_connection() {
  std::unique_lock lock(mutex_);
  idle_++;
  changed_.wait(lock, [this] { return stopping_ || !waiting_.empty(); });
  idle_--;
  if (stopping_)
    return -1;
  int fd = waiting_.front();
  waiting_.pop_front();
  room_.notify_one();
  return fd;
}

void server::work() {
  for (int fd = next_connection(); fd >= 0; fd = next_connection()) {
    try {
      serve(fd);
    } catch (const std::exception &) {
      // Memory ran out for this connection; the others go on.
    }
  }
}

void server::serve(int fd) {
  connection peer(fd, stop_pipe_[0]);
  connection::incoming incoming = peer.read_request();
  if (incoming.message) {
    respond_(*incoming.message, peer);
    return;
  }
  if (incoming.refusal == 0)
    return;
  response refusal = text_response(incoming.refusal, "the request cannot be read");
  peer.send(head_text(refusal, refusal.body.size()) + refusal.body);
  peer.finish();
}

}  // namespace pkilab
