// The room of the CA-info document: GET /ca-info.
#ifndef TOOLS_PKILAB_CA_INFO_H
#define TOOLS_PKILAB_CA_INFO_H

#include <string>

#include "tools/pkilab/ca.h"
#include "tools/pkilab/http_routes.h"

namespace pkilab {

// What the document names for SCEP messages; "" leaves it to the device.
struct scep_algorithms {
  std::string digest = "SHA256";
  std::string cipher = "DES-EDE3-CBC";
};

// The lab's document for a server at `authority` ("ADDRESS:PORT").
std::string ca_info_xml(const ca &keys, const std::string &authority,
                        const scep_algorithms &algorithms = {});

// `keys` must outlive the routes. With a `document_file`, its octets are served instead of the
// lab's own document; it is read at each request, so it may come and change while the lab runs.
void add_ca_info_room(route_table *routes, const ca &keys, const std::string &document_file,
                      const scep_algorithms &algorithms);

}  // namespace pkilab

#endif
