// A port that is taken, whether or not anybody serves it yet.
#ifndef TOOLS_PKILAB_HTTP_LISTENER_H
#define TOOLS_PKILAB_HTTP_LISTENER_H

#include <string>

namespace pkilab {

struct listener_options {
  std::string bind = "127.0.0.1";  // a numeric address, IPv4 or IPv6
  int port = 0;                    // 0: any free one
};

// Throws tools::usage_failure where `options.bind` is no numeric address.
void require_numeric_address(const listener_options &options);

class listener {
 public:
  // Connections wait from here on. Throws tools::failure.
  explicit listener(const listener_options &options);
  ~listener() { close(); }
  listener(const listener &) = delete;
  listener &operator=(const listener &) = delete;

  // Ends the connections that nobody has accepted.
  void close();

  int fd() const { return fd_; }
  // "ADDRESS:PORT" that it listens on.
  std::string authority() const { return authority_; }
  int port() const { return port_; }

 private:
  int fd_ = -1;
  std::string authority_;
  int port_ = 0;
};

}  // namespace pkilab

#endif
