#include "tools/pkictl/failure_report.h"

#include "tools/common/command_line.h"
#include "tools/pkictl/library.h"
#include "tools/pkictl/output_failure.h"

namespace pkictl {

json plain_error_json(const std::string &message) {
  return {{"text", message}, {"message", message}};
}

json failure_report(const std::exception &failure) {
  json report = json::object();
  json error = plain_error_json(failure.what());
  if (const auto *of_library = dynamic_cast<const tools::library_failure *>(&failure))
    error = failure_json(of_library->code(), failure.what());
  if (const auto *of_usage = dynamic_cast<const tools::library_usage_failure *>(&failure))
    error = failure_json(of_usage->code(), failure.what());
  if (const auto *of_ca = dynamic_cast<const scep_failure *>(&failure)) {
    report["status"] = of_ca->status();
    if (!of_ca->failure_info().empty())
      error["failure_info"] = of_ca->failure_info();
  }
  report["error"] = std::move(error);
  return report;
}

int report_failure(const context &where, const std::exception &failure, int exit_code) {
  tools::complain("pkictl", failure.what());
  // Nobody would read that either.
  if (where.json && !dynamic_cast<const output_failure *>(&failure))
    where.out->write_json(failure_report(failure));
  return exit_code;
}

}  // namespace pkictl
