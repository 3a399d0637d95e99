// Bad answers on request: GET /misbehave/NAME/REST answers REST, but badly.
#ifndef TOOLS_PKILAB_MISBEHAVE_H
#define TOOLS_PKILAB_MISBEHAVE_H

#include <string>

#include "tools/pkilab/http_connection.h"
#include "tools/pkilab/http_routes.h"

namespace pkilab {

// Does this path ask for a bad answer?
bool asks_to_misbehave(const request &request);

// Plays it and ends the connection; an unknown NAME is a 404.
void misbehave(const request &request, const route_table &routes, connection &peer);

// Sends a whole, honest answer and ends the connection.
void send_response(const response &response, connection &peer);

// A line a misbehaviour: its path and what it does.
std::string misbehaviour_list();

}  // namespace pkilab

#endif
