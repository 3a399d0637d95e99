// pkictl error N: the name, text and meaning of an error code.
#include <strings.h>

#include <CLI/CLI.hpp>
#include <charconv>
#include <memory>

#include "tools/common/failure.h"
#include "tools/pkictl/command.h"
#include "tools/pkictl/library.h"

namespace pkictl {

namespace {

// "47", "PKI_HTTP_ERROR", "http_error"
unsigned read_code(const std::string &text) {
  unsigned code = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), code);
  if (error == std::errc() && end == text.data() + text.size())
    return code;
  for (code = 0; !code_name(code).empty(); code++)
    if (strcasecmp(code_name(code).c_str(), text.c_str()) == 0 ||
        strcasecmp(code_name(code).c_str(), ("PKI_" + text).c_str()) == 0)
      return code;
  throw tools::usage_failure("there is no code '" + text +
                             "'; give a number, or a name as in PKI_HTTP_ERROR");
}

int explain(const context &where, const std::string &text) {
  unsigned code = read_code(text);
  if (code_name(code).empty())
    throw tools::usage_failure(code_text(code) + ": the library's codes are 0 to 87");
  if (where.json) {
    json explained = code_json(code);
    explained["meaning"] = code_meaning(code);
    where.out->write_json(explained);
    return 0;
  }
  where.out->write_text(std::to_string(code) + " " + code_name(code) + ": " + code_text(code) +
                        "\n" + code_meaning(code) + "\n");
  return 0;
}

}  // namespace

void add_error_command(CLI::App &app, action *chosen) {
  auto code = std::make_shared<std::string>();
  CLI::App *command =
      app.add_subcommand("error", "Print the name, text and meaning of an error code");
  command->add_option("N", *code, "The code, as an operation or a log line gave it, or its name")
      ->type_name("N|NAME")
      ->required();
  command->footer(std::string("Examples:\n"
                              "  pkictl error 47\n"
                              "  pkictl error PKI_HTTP_ERROR\n\n") +
                  common_footer);
  command->callback([=] { *chosen = [=](const context &where) { return explain(where, *code); }; });
}

}  // namespace pkictl
