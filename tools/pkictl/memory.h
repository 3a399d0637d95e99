// How much memory this process has used.
#ifndef TOOLS_PKICTL_MEMORY_H
#define TOOLS_PKICTL_MEMORY_H

#include "tools/pkictl/output.h"

namespace pkictl {

// The most that was resident at a time, in KiB; null where the system does not tell.
json peak_memory_json();

// The line about it, and about how much of it a CRL added; none for null.
std::string memory_text(int depth, const json &peak_kib, const json &crl_kib = nullptr);

}  // namespace pkictl

#endif
