#include "tools/pkictl/ignored_elements.h"

#include <syslog.h>

#include "tools/common/command_line.h"
#include "tools/common/text.h"
#include "tools/pkictl/log_tap.h"

namespace pkictl {

namespace {

constexpr const char *where_to_look =
    "; " DOCUMENT_FOLDER "/ca-info.md has those that devices know";

}  // namespace

tools::read_ca_info read_and_tell_ignored(const context &where, const std::string &xml,
                                          std::string *complaint) {
  std::vector<std::string> ignored;
  complaint->clear();
  tools::read_ca_info read;
  {
    log_tap tap([&](int level, const std::string &line) {
      if (level == LOG_ERR)
        *complaint = tools::trim(line);
      if (line.find("ignoring unexpected tag") != std::string::npos)
        ignored.push_back(tools::trim(line));
    });
    read = tools::read_document(xml);
  }
  if (!where.verbose)
    for (const std::string &line : ignored)
      tools::complain("pkictl", "note: " + line + where_to_look);
  return read;
}

}  // namespace pkictl
