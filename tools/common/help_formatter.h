// How the tools' help looks.
#ifndef TOOLS_COMMON_HELP_FORMATTER_H
#define TOOLS_COMMON_HELP_FORMATTER_H

#include <string>

namespace CLI {
class App;
}

namespace tools {

// Wraps what the help says about options and subcommands. Before the first subcommand is added:
// they inherit it.
void wrap_help(CLI::App *app);

// "  NAME      text", with the lines of the text below each other. A name that leaves less than two
// blanks in front of the text has a line of its own.
std::string help_row(const std::string &name, const std::string &text);

}  // namespace tools

#endif
