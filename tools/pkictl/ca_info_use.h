// What devices can do with a CA-info document that they take.
#ifndef TOOLS_PKICTL_CA_INFO_USE_H
#define TOOLS_PKICTL_CA_INFO_USE_H

#include <libpki/records.h>

#include <string>
#include <vector>

namespace pkictl {

struct ca_info_use {
  std::vector<std::string> faults;  // methods that never work
  std::vector<std::string> gaps;    // what is missing, perhaps on purpose
};

ca_info_use judge_use(const ca_info &ca);

}  // namespace pkictl

#endif
