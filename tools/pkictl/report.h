// A CA as JSON, and that JSON as text for a person.
#ifndef TOOLS_PKICTL_REPORT_H
#define TOOLS_PKICTL_REPORT_H

#include <libpki/records.h>

#include <string>

#include "tools/pkictl/output.h"

namespace pkictl {

// `additional_certs` is the list of X509 that stands beside the CA. "expires" is null when the
// library read none.
json ca_json(const ca_info *info, const STACK *additional_certs);

// Several lines, each ended. Texts that came from outside are made printable.
std::string ca_text(const json &ca);

}  // namespace pkictl

#endif
