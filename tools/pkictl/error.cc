// pkictl error N: the name and text of an error code.
#include <CLI/CLI.hpp>
#include <memory>

#include "tools/common/failure.h"
#include "tools/pkictl/command.h"
#include "tools/pkictl/library.h"

namespace pkictl {

namespace {

int explain(const context &where, unsigned code) {
  if (code_name(code).empty())
    throw tools::failure(code_text(code) + ": the library's codes are 0 to 87");
  if (where.json)
    where.out->write_json(code_json(code));
  else
    where.out->write_text(std::to_string(code) + " " + code_name(code) + ": " + code_text(code) +
                          "\n");
  return 0;
}

}  // namespace

void add_error_command(CLI::App &app, action *chosen) {
  auto code = std::make_shared<unsigned>(0);
  CLI::App *command = app.add_subcommand("error", "Print the name and text of an error code");
  command->add_option("N", *code, "The code, as an operation or a log line gave it")->required();
  command->callback([=] { *chosen = [=](const context &where) { return explain(where, *code); }; });
}

}  // namespace pkictl
