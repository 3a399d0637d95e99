#include "tools/pkictl/files_option.h"

#include <CLI/CLI.hpp>

namespace pkictl {

CLI::Option *add_files_option(CLI::App *command, const std::string &name,
                              std::vector<std::string> *files, const std::string &help) {
  return command->add_option(name, *files, help + "; may be given again")
      ->allow_extra_args(false)
      ->option_text("FILE");
}

}  // namespace pkictl
