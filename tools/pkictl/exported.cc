#include "tools/pkictl/exported.h"

#include <CLI/CLI.hpp>
#include <cstdio>

#include "tools/common/named_file.h"
#include "tools/common/text.h"
#include "tools/pkictl/state.h"

namespace pkictl {

namespace {

std::string mode_text(mode_t mode) {
  char text[16];
  snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode));
  return text;
}

}  // namespace

void add_export_options(CLI::App *command, export_options *given, const std::string &examples) {
  CLI::Option *out = command->add_option(
      "-o,--out", given->out,
      "File that receives it (PEM, mode " + mode_text(given->mode) + "), instead of the output");
  out->type_name("FILE");
  command->add_flag("--force", given->force, "Replace a file that is there")->needs(out);
  add_state_option(command, &given->state);
  command->footer(examples + state_footer + common_footer);
}

void write_export(const context &where, const export_options &given, const std::string &pem,
                  json about, const std::string &text) {
  if (!given.out.empty())
    tools::write_named_file(given.out, pem, given.mode, given.force);
  if (where.json) {
    about[given.out.empty() ? "pem" : "file"] = given.out.empty() ? pem : given.out;
    where.out->write_json(about);
  } else {
    where.out->write_text(
        text + (given.out.empty() ? pem : "saved " + tools::printable(given.out) + "\n"));
  }
}

}  // namespace pkictl
