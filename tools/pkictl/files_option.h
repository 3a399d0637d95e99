// Options that name a file each time they are given.
#ifndef TOOLS_PKICTL_FILES_OPTION_H
#define TOOLS_PKICTL_FILES_OPTION_H

#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace pkictl {

// One file behind each, so that the words that follow it stay what they are.
CLI::Option *add_files_option(CLI::App *command, const std::string &name,
                              std::vector<std::string> *files, const std::string &help);

}  // namespace pkictl

#endif
