// What the export commands share.
#ifndef TOOLS_PKICTL_EXPORTED_H
#define TOOLS_PKICTL_EXPORTED_H

#include <sys/types.h>

#include <string>

#include "tools/pkictl/command.h"

namespace pkictl {

struct export_options {
  std::string state;
  std::string out;
  bool force = false;
  mode_t mode = 0644;  // of the file; certificates are no secrets
};

// Adds --state, --out and --force. `examples` stand in front of the help's closing lines.
void add_export_options(CLI::App *command, export_options *given, const std::string &examples = "");

// Prints `text` and PEM behind it, or writes the PEM into the file --out and says so instead. In
// JSON the PEM goes behind the members of `about`, as "pem" or as the name of the "file".
void write_export(const context &where, const export_options &given, const std::string &pem,
                  json about, const std::string &text = "");

}  // namespace pkictl

#endif
