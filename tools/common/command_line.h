// What both tools do around their commands: parse, run, and turn failures into one line and an
// exit code.
#ifndef TOOLS_COMMON_COMMAND_LINE_H
#define TOOLS_COMMON_COMMAND_LINE_H

#include <string>

namespace CLI {
class App;
}

namespace tools {

enum exit_code { exit_done = 0, exit_failed = 1, exit_usage = 2 };

// Opens /dev/null in the place of a standard stream that the caller closed, so that no file of
// ours ever gets its number. What is written to a standard output that was closed fails.
void keep_standard_streams();

// Writes "TOOL: text" as one line to stderr.
void complain(const std::string &tool, const std::string &text);

// Writes to standard output. Throws failure when that cannot be.
void print(const std::string &text);

// The same for a command that has done all else by then, and says so.
void print_done(const std::string &text);

// What an option says of a value that is no whole number; "" of others. In front of a range, which
// would say that it is not within.
std::string check_number(const std::string &text);

// Parses the command line. Returns true when a command is to be run; otherwise `*code` is the
// exit code, and help, version or a one-line error has been written; `*complaint`, where the caller
// wants it, is then the error's text, or empty.
bool parse_command_line(CLI::App &app, int argc, char **argv, int *code,
                        std::string *complaint = nullptr);

}  // namespace tools

#endif
