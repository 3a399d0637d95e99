// One accepted connection. Every wait ends when the server stops.
#ifndef TOOLS_PKILAB_HTTP_CONNECTION_H
#define TOOLS_PKILAB_HTTP_CONNECTION_H

#include <optional>
#include <string>
#include <string_view>

#include "tools/pkilab/http_message.h"

namespace pkilab {

class connection {
 public:
  // Takes `fd`; `stop_fd` becomes readable when the server stops.
  connection(int fd, int stop_fd);
  ~connection();
  connection(const connection &) = delete;
  connection &operator=(const connection &) = delete;

  struct incoming {
    std::optional<request> message;
    int refusal = 0;  // without a message: the status to answer, or 0 when the peer has gone
  };
  // Reads a whole request, within 30 seconds.
  incoming read_request();

  // Sends everything; false when the peer has gone, takes nothing for a minute, or the server
  // stops.
  bool send(std::string_view bytes);

  // Waits; false when the server stops.
  bool pause(int milliseconds);

  // Waits until the peer closes or the server stops.
  void wait_for_close();

  // The connection will end with a reset instead of a close.
  void reset_on_close();

  // Ends our side and reads what the peer still sends, for a moment: a close with unread octets
  // would be a reset, which can destroy the answer on its way.
  void finish();

  // "ADDRESS:PORT" of our side, an IPv6 address in brackets.
  std::string local_authority() const;

 private:
  enum class readiness { ready, timed_out, stopped };
  readiness wait_for(short events, int milliseconds);
  bool receive_more(std::string *buffer, int milliseconds);
  bool read_head(std::string *buffer, size_t *head_end, int *refusal);

  int fd_;
  int stop_fd_;
};

// "ADDRESS:PORT" of the local end of a socket.
std::string local_authority(int fd);

}  // namespace pkilab

#endif
