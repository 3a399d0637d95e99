// Commands whose exit code 1 is an answer.
#ifndef TOOLS_PKICTL_VERDICT_H
#define TOOLS_PKICTL_VERDICT_H

#include <functional>

#include "tools/pkictl/command.h"

namespace pkictl {

// What `run` returns. A failure on the way to the answer is reported with exit code 2.
int fail_with_two(const context &where, const std::function<int()> &run);

}  // namespace pkictl

#endif
