#include "tools/common/help_formatter.h"

#include <CLI/CLI.hpp>
#include <memory>
#include <sstream>

namespace tools {

namespace {

constexpr size_t columns = 80;
constexpr size_t text_column = 30;

class help_formatter : public CLI::Formatter {
 public:
  std::string make_option(const CLI::Option *option, bool is_positional) const override {
    return help_row(make_option_name(option, is_positional) + make_option_opts(option),
                    make_option_desc(option));
  }

  std::string make_option_opts(const CLI::Option *option) const override {
    const std::string needs = " Needs: ";
    std::string text = CLI::Formatter::make_option_opts(option);
    text.resize(std::min(text.find(" Excludes: "), text.size()));  // the option's help says which
    size_t at = text.find(needs);
    return at == std::string::npos
               ? text
               : text.substr(0, at) + " (with " + text.substr(at + needs.size()) + ")";
  }

  std::string make_subcommand(const CLI::App *command) const override {
    return help_row(command->get_display_name(true), command->get_description());
  }
};

}  // namespace

std::string help_row(const std::string &name, const std::string &text) {
  std::string line = "  " + name;
  std::istringstream words(text);
  std::string rows;
  bool begun = false;
  for (std::string word; words >> word; begun = true) {
    bool fits = begun ? line.size() + 1 + word.size() <= columns : line.size() + 2 <= text_column;
    if (!fits) {
      rows += line + "\n";
      line.clear();
    }
    if (begun && fits)
      line += ' ';
    else
      line.resize(text_column, ' ');
    line += word;
  }
  return rows + line + "\n";
}

void wrap_help(CLI::App *app) {
  app->formatter(std::make_shared<help_formatter>());
}

}  // namespace tools
