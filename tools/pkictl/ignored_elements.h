// Elements of a CA-info document that the library passes over.
#ifndef TOOLS_PKICTL_IGNORED_ELEMENTS_H
#define TOOLS_PKICTL_IGNORED_ELEMENTS_H

#include "tools/common/ca_info_reader.h"
#include "tools/pkictl/command.h"

namespace pkictl {

// Reads a document, and notes on stderr each element that the library does not know: a name that
// was typed wrongly leaves its content out without an error. With -v the log says so. `*complaint`
// receives the library's last error, or "".
tools::read_ca_info read_and_tell_ignored(const context &where, const std::string &xml,
                                          std::string *complaint);

}  // namespace pkictl

#endif
