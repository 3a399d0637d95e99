#include "tools/pkictl/last_complaint.h"

#include <syslog.h>

#include "tools/common/text.h"

namespace pkictl {

last_complaint::last_complaint()
    : tap_([this](int level, const std::string &line) {
        if (level <= LOG_WARNING)
          (level == LOG_WARNING ? warning_ : error_) = tools::trim(line.substr(0, line.find('\n')));
      }) {}

}  // namespace pkictl
