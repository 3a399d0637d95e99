// The room of SCEP (RFC 8894): GET and POST /scep.
#ifndef TOOLS_PKILAB_SCEP_ROOM_H
#define TOOLS_PKILAB_SCEP_ROOM_H

#include "tools/pkilab/ca.h"
#include "tools/pkilab/http_routes.h"
#include "tools/pkilab/scep_options.h"

namespace pkilab {

// Operations GetCACert, GetCACaps and PKIOperation. A message comes as base64 in the query,
// percent-escaped or as it is with its line feeds, or as DER in the body of a POST. `keys` must
// outlive the routes; libpki_init must have run.
void add_scep_room(route_table *routes, const ca &keys, const scep_options &options);

}  // namespace pkilab

#endif
