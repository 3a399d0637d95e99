#include "tools/pkictl/verdict.h"

#include "tools/common/command_line.h"
#include "tools/pkictl/failure_report.h"

namespace pkictl {

int fail_with_two(const context &where, const std::function<int()> &run) {
  try {
    return run();
  } catch (const std::exception &failure) {
    return report_failure(where, failure, tools::exit_usage);
  }
}

}  // namespace pkictl
