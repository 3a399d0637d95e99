// What the export commands share.
#ifndef TOOLS_PKICTL_EXPORTED_H
#define TOOLS_PKICTL_EXPORTED_H

#include <string>

#include "tools/pkictl/command.h"

namespace pkictl {

struct export_options {
  std::string state;
  std::string out;
  bool force = false;
};

// Adds --state, --out and --force.
void add_export_options(CLI::App *command, export_options *given);

// Prints PEM, or writes it into the file --out (mode 0600). In JSON it goes behind the members of
// `about`, as "pem" or as the name of the "file".
void write_export(const context &where, const export_options &given, const std::string &pem,
                  json about);

}  // namespace pkictl

#endif
