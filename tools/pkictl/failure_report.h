// How a command ends that could not do what it was to do.
#ifndef TOOLS_PKICTL_FAILURE_REPORT_H
#define TOOLS_PKICTL_FAILURE_REPORT_H

#include <exception>
#include <string>

#include "tools/common/failure.h"
#include "tools/pkictl/command.h"

namespace pkictl {

// A CA answered, and not with what was asked for.
class scep_failure : public tools::library_failure {
 public:
  // `status` is "pending" or "rejected"; `failure_info`, the CA's reason, may be empty.
  scep_failure(int code, const std::string &text, std::string status, std::string failure_info = "")
      : library_failure(code, text),
        status_(std::move(status)),
        failure_info_(std::move(failure_info)) {}

  const std::string &status() const { return status_; }
  const std::string &failure_info() const { return failure_info_; }

 private:
  std::string status_;
  std::string failure_info_;
};

// {"text": ..., "message": ...}, the error of a failure that has no code.
json plain_error_json(const std::string &message);

// {"error": ...} with what is known of the failure; a scep_failure's "status" stands in front.
json failure_report(const std::exception &failure);

// Says on stderr what went wrong, and as JSON to a script that asked for it. Returns `exit_code`.
int report_failure(const context &where, const std::exception &failure, int exit_code);

}  // namespace pkictl

#endif
