// pkictl provision: what a device does with a CA-pointer URL, and what it then holds.
#include <libpki/store.h>

#include <CLI/CLI.hpp>
#include <memory>

#include "tools/common/ca_info_reader.h"
#include "tools/common/command_line.h"
#include "tools/common/failure.h"
#include "tools/common/keys.h"
#include "tools/pkictl/command.h"
#include "tools/pkictl/fetched_document.h"
#include "tools/pkictl/library.h"
#include "tools/pkictl/report.h"
#include "tools/pkictl/signed_file.h"
#include "tools/pkictl/state.h"

namespace pkictl {

namespace {

struct options {
  std::string url;
  std::string doc_key;
  std::string label = "ca";
  std::string state;
};

// The library does not hand the document out, so it is fetched once more to be kept.
void keep(const options &given, tools::key_ptr key) {
  if (!state_folder::is_known(given.state)) {
    tools::complain("pkictl", "note: the CA is not kept, as there is no home folder; give --state");
    return;
  }
  std::string document = fetch_document(given.url);
  std::string xml;
  require_ok("cannot keep what " + given.url + " sent the second time",
             open_signed(document, key.get(), &xml));
  saved_ca ca = {given.url, document, std::move(key)};
  state_folder(given.state).update([&](saved_state *kept) {
    kept->cas[given.label] = std::move(ca);
  });
}

int provision(const context &where, const options &given) {
  tools::key_ptr key = tools::load_public_key(given.doc_key);
  check_label("the CA", given.label);
  if (state_folder::is_known(given.state))
    (void)state_folder(given.state).load();  // one that cannot be read is told before any exchange
  start_library();
  require_ok("cannot provision " + given.url,
             pki_add_ca(given.label.c_str(), given.url.c_str(), key.get()));
  tools::ca_info_ptr info(pki_find_ca_info_by_label(given.label.c_str()));
  if (!info)
    throw tools::failure("the store does not find the CA that was provisioned");
  json ca = ca_json(info.get(), pki_store->provisioned_certs);
  keep(given, std::move(key));
  if (where.json)
    where.out->write_json({{"ca", ca}});
  else
    where.out->write_text(ca_text(ca));
  return tools::exit_done;
}

}  // namespace

void add_provision_command(CLI::App &app, action *chosen) {
  auto given = std::make_shared<options>();
  CLI::App *command = app.add_subcommand(
      "provision", "Download a CA-info document as a device does and print what is in the store");
  command->add_option("URL", given->url, "The CA-pointer URL (http)")->required();
  command
      ->add_option("--doc-key", given->doc_key,
                   "The document signer's public key or certificate (PEM or DER)")
      ->required();
  command->add_option("--label", given->label, "The CA's label in the store")
      ->capture_default_str();
  add_state_option(command, &given->state);
  command->footer(
      std::string(
          "The device's serial number goes along in the query \"?serial=\". The reference board\n"
          "library reads it from the file serialnumber in the folder that the environment "
          "variable\n"
          "BOARD_INFO_DIR names (/etc/board by default). The document is then fetched once more, "
          "and kept\n"
          "for enroll and cert find.\n\n") +
      state_footer + common_footer);
  command->callback(
      [=] { *chosen = [=](const context &where) { return provision(where, *given); }; });
}

}  // namespace pkictl
