// What main and the subcommands share.
#ifndef TOOLS_PKICTL_COMMAND_H
#define TOOLS_PKICTL_COMMAND_H

#include <functional>

#include "tools/pkictl/output.h"

namespace CLI {
class App;
}

namespace pkictl {

struct context {
  bool json = false;     // --json
  bool verbose = false;  // -v
  output *out = nullptr;
};

// Runs a parsed subcommand and returns the exit code; throws the failures of common/failure.h.
using action = std::function<int(const context &)>;

// Ends the help of every command.
inline constexpr const char *common_footer =
    "-v shows the library's log lines on stderr; --json prints JSON.\n"
    "Exit codes: 0 done, 1 failed, 2 wrong usage.";

// Each adds a subcommand, which when given on the command line puts its action into `*chosen`.
void add_error_command(CLI::App &app, action *chosen);
void add_provision_command(CLI::App &app, action *chosen);
void add_cainfo_sign_command(CLI::App &cainfo, action *chosen);
void add_cainfo_verify_command(CLI::App &cainfo, action *chosen);
void add_cainfo_show_command(CLI::App &cainfo, action *chosen);
void add_ca_command(CLI::App &app, action *chosen);
void add_key_command(CLI::App &app, action *chosen);
void add_key_export_command(CLI::App &key, action *chosen);
void add_enroll_command(CLI::App &app, action *chosen);
void add_cert_command(CLI::App &app, action *chosen);
void add_cert_export_command(CLI::App &cert, action *chosen);
void add_crl_show_command(CLI::App &crl, action *chosen);
void add_crl_find_command(CLI::App &crl, action *chosen);
void add_scep_command(CLI::App &app, action *chosen);
void add_state_command(CLI::App &app, action *chosen);
void add_verify_command(CLI::App &app, action *chosen);

}  // namespace pkictl

#endif
