#include "tools/common/command_line.h"

#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sstream>

#include "tools/common/failure.h"
#include "tools/common/text.h"

namespace tools {

namespace {

// The innermost command that was given, as it was typed: "pkictl cainfo sign".
std::string command_path(const CLI::App &app) {
  std::string path = app.get_name();
  for (const CLI::App *at = &app;;) {
    std::vector<CLI::App *> chosen = at->get_subcommands();
    if (chosen.empty())
      return path;
    at = chosen[0];
    path += " " + at->get_name();
  }
}

// An option of the innermost command that stands in front of its name.
bool is_misplaced(const CLI::App &app, const std::string &word) {
  const CLI::App *command = &app;
  while (!command->get_subcommands().empty())
    command = command->get_subcommands()[0];
  return command != &app && word.starts_with("-") && command->get_option_no_throw(word);
}

// A word that no command knows explains more than what CLI11 misses because of it.
std::string reason(const CLI::App &app, const CLI::ParseError &error) {
  std::vector<std::string> unknown = app.remaining(true);
  if (unknown.empty())
    return error.what();
  if (is_misplaced(app, unknown[0]))
    return unknown[0] + " stands behind its command: '" + command_path(app) + " " + unknown[0] +
           " ...'";
  return "'" + unknown[0] + "' is not known here";
}

// The help, or the version.
int print_what_was_asked_for(const CLI::App &app, const CLI::ParseError &error) {
  std::ostringstream text;
  app.exit(error, text);
  try {
    print(text.str());
    return exit_done;
  } catch (const failure &problem) {
    complain(app.get_name(), problem.what());
    return exit_failed;
  }
}

}  // namespace

void keep_standard_streams() {
  for (int fd = 0; fd <= 2; fd++)
    if (fcntl(fd, F_GETFD) < 0 && open("/dev/null", fd == STDERR_FILENO ? O_WRONLY : O_RDONLY) < 0)
      _exit(exit_failed);
}

void complain(const std::string &tool, const std::string &text) {
  std::cerr << tool + ": " + printable(text) + "\n";
}

void print(const std::string &text) {
  errno = 0;
  if (!(std::cout << text << std::flush))
    throw failure(std::string("cannot write to standard output: ") + strerror(errno));
}

void print_done(const std::string &text) {
  try {
    print(text);
  } catch (const failure &problem) {
    throw failure(std::string(problem.what()) + "; all else was done");
  }
}

std::string check_number(const std::string &text) {
  char *end = nullptr;
  (void)strtoll(text.c_str(), &end, 0);
  return text.empty() || *end ? text + " is no whole number" : "";
}

bool parse_command_line(CLI::App &app, int argc, char **argv, int *code, std::string *complaint) {
  try {
    app.parse(argc, argv);
    return true;
  } catch (const CLI::ParseError &error) {
    bool wants_text = error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success);
    if (wants_text && app.remaining(true).empty()) {
      *code = print_what_was_asked_for(app, error);
      return false;
    }
    *code = exit_usage;
    std::string text = reason(app, error);
    if (text.find("--help") == std::string::npos)
      text += "; see '" + command_path(app) + " --help'";
    complain(app.get_name(), text);
    if (complaint)
      *complaint = text;
    return false;
  }
}

}  // namespace tools
