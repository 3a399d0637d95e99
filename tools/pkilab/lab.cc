#include "tools/pkilab/lab.h"

#include <libpki/store.h>

#include "tools/common/text.h"
#include "tools/pkilab/crl_room.h"
#include "tools/pkilab/misbehave.h"
#include "tools/pkilab/ocsp_room.h"
#include "tools/pkilab/scep_room.h"

namespace pkilab {

namespace {

void add_index(route_table *routes) {
  routes->add({"GET", "/", "this list", [routes](const request &) {
                 response answer;
                 answer.body = routes->index() + "\n" + misbehaviour_list();
                 return answer;
               }});
}

// A SCEP message in a query would fill the reader's screen.
std::string shortened(const std::string &target) {
  constexpr size_t longest = 160;
  constexpr size_t shown = 64;
  if (target.size() <= longest)
    return target;
  return target.substr(0, shown) + "... (" + std::to_string(target.size()) + " characters)";
}

// Every room of the lab.
route_table *add_rooms(route_table *routes, const ca &keys, const lab_options &options) {
  (void)libpki_init();  // the rooms use the library; a process that has it up already is fine
  add_index(routes);
  add_ca_info_room(routes, keys, options.document_file, options.algorithms);
  add_scep_room(routes, keys, options.scep);
  add_ocsp_room(routes, keys, options.ocsp);
  add_crl_room(routes, keys, options.crl);
  return routes;
}

}  // namespace

lab::lab(const lab_options &options)
    : log_(options.log),
      quiet_(options.quiet),
      listener_(options.listen),
      keys_(options.folder, options.key_bits),
      server_((add_rooms(&routes_, keys_, options), listener_),
              [this](const request &asked, connection &peer) { respond(asked, peer); }) {}

std::string lab::url(const std::string &path) const {
  return "http://" + listener_.authority() + path;
}

void lab::respond(const request &asked, connection &peer) {
  // Logged before it is sent, so that whoever has the answer finds the line.
  if (asks_to_misbehave(asked)) {
    log(asked, "misbehaving");
    misbehave(asked, routes_, peer);
    return;
  }
  response answer = routes_.answer(asked);
  std::string text = std::to_string(answer.status) + " " + std::to_string(answer.length());
  log(asked, answer.note.empty() ? text : text + ", " + answer.note, answer.has_failed);
  send_response(answer, peer);
}

void lab::log(const request &asked, const std::string &answer, bool has_failed) const {
  if (log_ && (has_failed || !quiet_))
    log_(tools::printable(asked.method + " " + shortened(asked.target) + " -> " + answer));
}

}  // namespace pkilab
