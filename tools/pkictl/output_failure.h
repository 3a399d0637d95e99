// Standard output that cannot be written.
#ifndef TOOLS_PKICTL_OUTPUT_FAILURE_H
#define TOOLS_PKICTL_OUTPUT_FAILURE_H

#include "tools/common/failure.h"

namespace pkictl {

class output_failure : public tools::failure {
 public:
  using tools::failure::failure;
};

}  // namespace pkictl

#endif
