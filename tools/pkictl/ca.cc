// pkictl ca: the CAs that were provisioned.
#include <CLI/CLI.hpp>
#include <memory>

#include "tools/common/failure.h"
#include "tools/pkictl/command.h"
#include "tools/pkictl/library.h"
#include "tools/pkictl/report.h"
#include "tools/pkictl/state.h"
#include "tools/pkictl/state_store.h"

namespace pkictl {

namespace {

struct ca_options {
  std::string label;
  std::string state;
};

int list(const context &where, const ca_options &given) {
  state_folder state = state_folder::to_read(given.state, "provision");
  saved_state kept = state.load();
  start_library();
  json cas = json::array();
  for (const auto &[label, saved] : kept.cas) {
    read_ca_document read = read_ca(label, saved);
    json ca = ca_json(read.info.get(), read.additional_certs.get());
    if (ca["expires"].is_null() && !read.expires.empty())
      ca["expires"] = read.expires;
    cas.push_back(std::move(ca));
  }
  if (where.json) {
    where.out->write_json({{"cas", cas}});
    return 0;
  }
  std::string text;
  for (const json &ca : cas)
    text += ca_summary(ca);
  where.out->write_text(text.empty() ? "no CAs in " + state.folder() + "\n" : text);
  return 0;
}

void require_ca(const saved_state &kept, const std::string &label, const state_folder &state) {
  check_label("the CA", label);
  if (kept.cas.count(label) == 0)
    throw tools::failure("there is no CA " + label + " in " + state.folder() + "; see " +
                         state.command("ca list"));
}

int remove(const context &where, const ca_options &given) {
  state_folder state(given.state);
  const saved_state before = state.load();
  require_ca(before, given.label, state);  // without one nothing is written, not even a lock
  state.update([&](saved_state *kept) {
    require_ca(*kept, given.label, state);
    kept->cas.erase(given.label);
  });
  if (where.json)
    where.out->write_json({{"removed", given.label}});
  else
    where.out->write_text("removed " + given.label + "\n");
  return 0;
}

CLI::App *add_command(CLI::App *ca, const char *name, const char *help,
                      int (*run)(const context &, const ca_options &), action *chosen,
                      const std::shared_ptr<ca_options> &given) {
  CLI::App *command = ca->add_subcommand(name, help);
  add_state_option(command, &given->state);
  command->callback([=] { *chosen = [=](const context &where) { return run(where, *given); }; });
  return command;
}

}  // namespace

void add_ca_command(CLI::App &app, action *chosen) {
  CLI::App *ca = app.add_subcommand("ca", "List and remove the provisioned CAs");
  ca->require_subcommand(1);
  ca->fallthrough();
  CLI::App *command =
      add_command(ca, "list", "Print the CAs", list, chosen, std::make_shared<ca_options>());
  command->footer(std::string("By --json each CA is printed as 'pkictl provision' prints it.\n\n") +
                  state_footer + common_footer);
  auto removed = std::make_shared<ca_options>();
  command = add_command(ca, "remove", "Remove a CA, with its roots, certificates and rules", remove,
                        chosen, removed);
  command->add_option("LABEL", removed->label, "The CA's label")->required();
  command->footer(std::string("Keys, and the certificates that the CA issued for them, stay.\n\n") +
                  state_footer + common_footer);
}

}  // namespace pkictl
