#include "tools/pkictl/last_complaint.h"

#include <syslog.h>

#include "tools/common/scep_message.h"
#include "tools/common/text.h"

namespace pkictl {

namespace {

constexpr const char *rejection_begin = "rejection-reason: ";

}  // namespace

last_complaint::last_complaint()
    : tap_([this](int level, const std::string &line) { hear(level, line); }) {}

void last_complaint::hear(int level, const std::string &line) {
  if (level > LOG_WARNING)
    return;
  std::string first_line = tools::trim(line.substr(0, line.find('\n')));
  if (first_line.starts_with(rejection_begin))
    rejection_ = tools::scep_name_and_number(
        first_line.substr(std::char_traits<char>::length(rejection_begin)),
        tools::scep_fail_info_name);
  (level == LOG_WARNING ? warning_ : error_) = std::move(first_line);
}

}  // namespace pkictl
