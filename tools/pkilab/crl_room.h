// The room of CRLs (RFC 5280, 5): GET /crl/CA.crl.
#ifndef TOOLS_PKILAB_CRL_ROOM_H
#define TOOLS_PKILAB_CRL_ROOM_H

#include "tools/pkilab/ca.h"
#include "tools/pkilab/crl_options.h"
#include "tools/pkilab/http_routes.h"

namespace pkilab {

// Publishes as `options` say, and as the words in a request's query say for that request. `keys`
// must outlive the routes.
void add_crl_room(route_table *routes, const ca &keys, const crl_options &options);

}  // namespace pkilab

#endif
