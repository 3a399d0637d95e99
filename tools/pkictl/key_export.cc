// pkictl key export: a kept key as PEM, for other programs.
#include <openssl/crypto.h>

#include <CLI/CLI.hpp>
#include <memory>

#include "tools/common/keys.h"
#include "tools/pkictl/exported.h"
#include "tools/pkictl/state.h"

namespace pkictl {

namespace {

struct key_export_options {
  export_options to;
  std::string label;
  bool is_public = false;
};

int export_key(const context &where, const key_export_options &given) {
  state_folder state = state_folder::to_read(given.to.state, "key generate");
  saved_state kept = state.load();
  EVP_PKEY *pair = state.key_in(&kept, given.label).pair.get();
  std::string pem = given.is_public ? tools::public_pem(pair) : tools::private_pem(pair);
  write_export(where, given.to, pem, {{"key", given.label}, {"public", given.is_public}});
  OPENSSL_cleanse(pem.data(), pem.size());
  return 0;
}

}  // namespace

void add_key_export_command(CLI::App &key, action *chosen) {
  auto given = std::make_shared<key_export_options>();
  CLI::App *command = key.add_subcommand("export", "Print a private key as PEM, unencrypted");
  command->add_option("LABEL", given->label, "The key's label")->required();
  command->add_flag("--public", given->is_public, "Only its public half");
  given->to.mode = 0600;
  add_export_options(command, &given->to);
  command->callback(
      [=] { *chosen = [=](const context &where) { return export_key(where, *given); }; });
}

}  // namespace pkictl
