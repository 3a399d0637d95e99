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

json cert_json(X509 *cert);

// One line "  NAME        VALUE", indented by two blanks a depth; none for null.
std::string text_line(int depth, const std::string &name, const json &value);
// A name, or "(no name)" for an empty one.
json name_or_note(const json &name);
// The lines of a cert_json.
std::string cert_text(int depth, const std::string &name, const json &cert);

// Several lines, each ended. Texts that came from outside are made printable.
std::string ca_text(const json &ca);
// In a list of CAs, without their certificates.
std::string ca_summary(const json &ca);

}  // namespace pkictl

#endif
