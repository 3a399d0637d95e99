// Octets that arrive over a real socket in chosen pieces, and a reader over them.
#ifndef TESTS_UNIT_VERIFIER_CRL_CACHE_STREAM_SUPPORT_H
#define TESTS_UNIT_VERIFIER_CRL_CACHE_STREAM_SUPPORT_H

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <utility>

#include "common/limits.h"
#include "verifier/crl_cache/stream.h"

namespace crl_support {

using pki::crl_stream;

// How octets arrive: all at once, or cut behind the first `first` octets and then every `next`.
struct delivery {
  size_t first = 0;  // 0: all at once
  size_t next = 0;   // 0: the rest at once
};
constexpr delivery whole = {};
constexpr delivery one_by_one = {1, 1};
inline delivery split_at(size_t position) {
  return {position, 0};
}

// One end of a connection on which `octets` arrive, followed by the end of the stream. A piece is
// sent when the one before it has been read.
class feeder {
 public:
  explicit feeder(std::string octets, delivery how = whole) : octets_(std::move(octets)) {
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_) != 0)
      abort();
    if (!how.first && octets_.size() <= 20000) {
      send_piece(0, octets_.size());
      shutdown(ends_[1], SHUT_WR);
      return;
    }
    thread_ = std::thread([this, how] { run(how); });
  }
  ~feeder() {
    close(ends_[0]);
    stopped_ = true;
    if (thread_.joinable())
      thread_.join();
    close(ends_[1]);
  }
  feeder(const feeder &) = delete;
  feeder &operator=(const feeder &) = delete;

  int fd() const { return ends_[0]; }
  // Octets that nobody has read from the socket yet.
  size_t unread() const {
    int count = 0;
    ioctl(ends_[0], FIONREAD, &count);
    return static_cast<size_t>(count);
  }

 private:
  void run(delivery how) {
    size_t at = 0;
    for (size_t size = how.first ? how.first : octets_.size(); at < octets_.size() && !stopped_;) {
      size = std::min(size, octets_.size() - at);
      if (!send_piece(at, size))
        return;
      at += size;
      size = how.next ? how.next : octets_.size();
      wait_until_read();
    }
    shutdown(ends_[1], SHUT_WR);
  }
  bool send_piece(size_t at, size_t size) {
    for (size_t end = at + size; at < end;) {
      ssize_t sent = send(ends_[1], octets_.data() + at, end - at, MSG_NOSIGNAL);
      if (sent <= 0)
        return false;
      at += static_cast<size_t>(sent);
    }
    return true;
  }
  void wait_until_read() {
    for (int left = 1; left > 0 && !stopped_;) {
      if (ioctl(ends_[1], SIOCOUTQ, &left) != 0)
        return;
      std::this_thread::yield();
    }
  }

  std::string octets_;
  int ends_[2] = {-1, -1};
  std::atomic<bool> stopped_{false};
  std::thread thread_;
};

// A stream over a socket, with its own read buffer of exactly that size.
struct reader {
  explicit reader(int fd) {
    stream.fd = fd;
    stream.buf = buffer.get();
    stream.buf_size = pki::crl_read_bytes;
    stream.cur = buffer.get();
    stream.md = EVP_MD_CTX_new();
  }
  ~reader() { EVP_MD_CTX_free(stream.md); }
  reader(const reader &) = delete;
  reader &operator=(const reader &) = delete;

  std::unique_ptr<unsigned char[]> buffer{new unsigned char[pki::crl_read_bytes]};
  crl_stream stream = {};
};

inline std::string digest_of(const std::string &octets, const EVP_MD *md = EVP_sha256()) {
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned size = 0;
  EVP_Digest(octets.data(), octets.size(), out, &size, md, nullptr);
  return std::string(reinterpret_cast<char *>(out), size);
}

// The digest so far; the context can go on.
inline std::string digest_so_far(const EVP_MD_CTX *context) {
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned size = 0;
  EVP_MD_CTX *copy = EVP_MD_CTX_new();
  if (EVP_MD_CTX_copy_ex(copy, context) == 1)
    EVP_DigestFinal_ex(copy, out, &size);
  EVP_MD_CTX_free(copy);
  return std::string(reinterpret_cast<char *>(out), size);
}

// Octets that are different from their neighbours.
inline std::string pattern(size_t size) {
  std::string octets(size, '\0');
  uint32_t state = 12345;
  for (char &octet : octets) {
    state = state * 1103515245 + 12345;
    octet = static_cast<char>(state >> 16);
  }
  return octets;
}

}  // namespace crl_support

#endif
