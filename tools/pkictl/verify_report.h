// The verdict on a certificate, for a person.
#ifndef TOOLS_PKICTL_VERIFY_REPORT_H
#define TOOLS_PKICTL_VERIFY_REPORT_H

#include <set>
#include <string>

#include "tools/pkictl/output.h"

namespace pkictl {

// Why it was rejected, on one line: the first step that failed. `report` holds "certificates" as
// verify_listener gives them, and OpenSSL's "error". `known` are the names of the certificates that
// a chain could be built of.
std::string rejection_reason(const json &report, const std::set<std::string> &known);

// The whole report as a tree, each line ended. Texts that came from outside are made printable.
std::string verify_text(const json &report);

}  // namespace pkictl

#endif
