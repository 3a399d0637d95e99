#include "tools/pkilab/http_server.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <memory>
#include <system_error>

#include "tools/common/failure.h"

namespace pkilab {

namespace {

struct free_addresses {
  void operator()(addrinfo *list) const { freeaddrinfo(list); }
};

std::unique_ptr<addrinfo, free_addresses> numeric_address(const std::string &address, int port) {
  addrinfo hints = {};
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo *found = nullptr;
  if (getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found) != 0)
    throw tools::failure("cannot listen on " + address + ": give a numeric address, as in" +
                         " 127.0.0.1, and a port from 0 to 65535");
  return std::unique_ptr<addrinfo, free_addresses>(found);
}

int bound_port(int fd) {
  sockaddr_storage storage = {};
  socklen_t length = sizeof storage;
  getsockname(fd, reinterpret_cast<sockaddr *>(&storage), &length);
  if (storage.ss_family == AF_INET6)
    return ntohs(reinterpret_cast<sockaddr_in6 *>(&storage)->sin6_port);
  return ntohs(reinterpret_cast<sockaddr_in *>(&storage)->sin_port);
}

}  // namespace

void require_numeric_address(const server_options &options) {
  (void)numeric_address(options.bind, options.port);
}

server::server(const server_options &options, responder respond)
    : respond_(std::move(respond)), max_threads_(options.max_threads) {
  listen_on(options);
  if (pipe2(stop_pipe_, O_CLOEXEC) != 0) {
    close(listener_);
    throw tools::failure(std::string("cannot make a pipe: ") + strerror(errno));
  }
  acceptor_ = std::thread([this] { accept_loop(); });
}

server::~server() {
  stop();
  close(stop_pipe_[0]);
}

void server::listen_on(const server_options &options) {
  auto address = numeric_address(options.bind, options.port);
  listener_ = socket(address->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  int on = 1;
  bool listens = listener_ >= 0 &&
                 setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
                 bind(listener_, address->ai_addr, address->ai_addrlen) == 0 &&
                 listen(listener_, SOMAXCONN) == 0;
  if (!listens) {
    std::string reason = strerror(errno);
    if (listener_ >= 0)
      close(listener_);
    throw tools::failure("cannot listen on " + options.bind + " port " +
                         std::to_string(options.port) + ": " + reason +
                         "; choose another port, or 0 for any free one");
  }
  authority_ = local_authority(listener_);
  port_ = bound_port(listener_);
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
  close(listener_);  // ends what nobody has accepted yet
  for (std::thread &worker : workers_)
    worker.join();
  for (int fd : waiting_)
    close(fd);
}

void server::accept_loop() {
  for (;;) {
    pollfd waits[2] = {{listener_, POLLIN, 0}, {stop_pipe_[0], POLLIN, 0}};
    if (poll(waits, 2, -1) < 0)
      continue;
    if (waits[1].revents)
      return;
    int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
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
