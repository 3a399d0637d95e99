// The whole lab: a CA in a folder, its rooms, and the server in front of them.
#ifndef TOOLS_PKILAB_LAB_H
#define TOOLS_PKILAB_LAB_H

#include <functional>
#include <string>

#include "tools/pkilab/ca.h"
#include "tools/pkilab/ca_info.h"
#include "tools/pkilab/crl_options.h"
#include "tools/pkilab/http_listener.h"
#include "tools/pkilab/http_routes.h"
#include "tools/pkilab/http_server.h"
#include "tools/pkilab/ocsp_options.h"
#include "tools/pkilab/scep_options.h"

namespace pkilab {

struct lab_options {
  std::string folder;  // keys and certificates
  listener_options listen;
  std::string document_file;  // see add_ca_info_room
  int key_bits = 2048;
  scep_algorithms algorithms;
  scep_options scep;
  ocsp_options ocsp;
  crl_options crl;
  // Receives a printable line a request, in several threads at once; may be empty. With `quiet` of
  // those only that the lab failed to answer.
  std::function<void(const std::string &line)> log;
  bool quiet = false;
};

class lab {
 public:
  // Makes or reads the keys and serves. Throws tools::failure.
  explicit lab(const lab_options &options);

  void stop() { server_.stop(); }

  // "http://ADDRESS:PORT" and that with a path behind it.
  std::string url(const std::string &path = "") const;
  int port() const { return listener_.port(); }
  const ca &keys() const { return keys_; }

 private:
  void respond(const request &asked, connection &peer);
  void log(const request &asked, const std::string &answer, bool has_failed = false) const;

  std::function<void(const std::string &)> log_;
  bool quiet_;
  listener listener_;  // before keys are made: where the port is taken, nothing is left behind
  ca keys_;
  route_table routes_;
  server server_;  // last: its threads use the others
};

}  // namespace pkilab

#endif
