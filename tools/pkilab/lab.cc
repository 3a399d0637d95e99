#include "tools/pkilab/lab.h"

#include "tools/common/text.h"
#include "tools/pkilab/ca_info.h"
#include "tools/pkilab/misbehave.h"

namespace pkilab {

namespace {

void add_index(route_table *routes) {
  routes->add({"GET", "/", "this list", [routes](const request &) {
                 response answer;
                 answer.body = routes->index() + "\n" + misbehaviour_list();
                 return answer;
               }});
}

// Every room of the lab.
route_table *add_rooms(route_table *routes, const ca &keys, const lab_options &options) {
  add_index(routes);
  add_ca_info_room(routes, keys, options.document_file);
  return routes;
}

}  // namespace

lab::lab(const lab_options &options)
    : log_(options.log),
      keys_(options.folder, options.key_bits),
      server_((add_rooms(&routes_, keys_, options), options.server),
              [this](const request &asked, connection &peer) { respond(asked, peer); }) {}

std::string lab::url(const std::string &path) const {
  return "http://" + server_.authority() + path;
}

void lab::respond(const request &asked, connection &peer) {
  // Logged before it is sent, so that whoever has the answer finds the line.
  if (asks_to_misbehave(asked)) {
    log(asked, "misbehaving");
    misbehave(asked, routes_, peer);
    return;
  }
  response answer = routes_.answer(asked);
  log(asked, std::to_string(answer.status) + " " + std::to_string(answer.body.size()));
  send_response(answer, peer);
}

void lab::log(const request &asked, const std::string &answer) const {
  if (log_)
    log_(tools::printable(asked.method + " " + asked.target + " -> " + answer));
}

}  // namespace pkilab
