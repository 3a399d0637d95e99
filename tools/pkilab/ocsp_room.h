// The room of OCSP (RFC 6960): POST /ocsp and GET /ocsp/BASE64.
#ifndef TOOLS_PKILAB_OCSP_ROOM_H
#define TOOLS_PKILAB_OCSP_ROOM_H

#include "tools/pkilab/ca.h"
#include "tools/pkilab/http_routes.h"
#include "tools/pkilab/ocsp_options.h"

namespace pkilab {

// Answers as `options` say, and as the words in a request's query say for that request. `keys`
// must outlive the routes.
void add_ocsp_room(route_table *routes, const ca &keys, const ocsp_options &options);

}  // namespace pkilab

#endif
