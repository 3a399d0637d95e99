// The commands beside "serve". They work on the folder of a lab, whether it is being served or not.
#ifndef TOOLS_PKILAB_COMMAND_H
#define TOOLS_PKILAB_COMMAND_H

#include <ctime>
#include <functional>
#include <string>

namespace CLI {
class App;
}

namespace pkilab {

// Runs a command whose options are read; returns the exit code. Throws tools::failure and
// tools::usage_failure.
using action = std::function<int()>;

// Both set `chosen` when the command line asks for them. `chosen` must outlive the parsing.
void add_issue_command(CLI::App &app, action *chosen);
void add_revoke_commands(CLI::App &app, action *chosen);

// "2031-05-06" or "2031-05-06T07:08:09Z". Throws tools::usage_failure that begins with `option`.
time_t parse_time(const std::string &option, const std::string &text);

}  // namespace pkilab

#endif
