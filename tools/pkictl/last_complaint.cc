#include "tools/pkictl/last_complaint.h"

#include <syslog.h>

#include "tools/common/scep_message.h"
#include "tools/common/text.h"
#include "tools/pkictl/log_words.h"

namespace pkictl {

namespace {

constexpr const char *rejection_begin = "rejection-reason: ";
constexpr const char *summary_begin = "failed to parse scep response to GetCert: ";

}  // namespace

last_complaint::last_complaint()
    : tap_([this](int level, const std::string &line) { hear(level, line); }) {}

std::string last_complaint::text() const {
  return in_plain_words(error_.empty() ? warning_ : error_);
}

std::string last_complaint::behind_colon() const {
  return tools::behind_colon(text());
}

void last_complaint::hear(int level, const std::string &line) {
  if (level > LOG_WARNING)
    return;
  std::string first_line = tools::trim(line.substr(0, line.find('\n')));
  if (first_line.starts_with(rejection_begin))
    rejection_ = tools::scep_name_and_number(
        first_line.substr(std::char_traits<char>::length(rejection_begin)),
        tools::scep_fail_info_name);
  // Whoever asks has the code, and the error above says why.
  if (first_line.starts_with(summary_begin) && !error_.empty())
    return;
  (level == LOG_WARNING ? warning_ : error_) = std::move(first_line);
}

}  // namespace pkictl
