// pkictl key: the device's key pairs.
#include <libpki/store.h>

#include <CLI/CLI.hpp>
#include <memory>

#include "tools/common/command_line.h"
#include "tools/common/failure.h"
#include "tools/common/text.h"
#include "tools/pkictl/command.h"
#include "tools/pkictl/library.h"
#include "tools/pkictl/report.h"
#include "tools/pkictl/state.h"
#include "tools/pkictl/state_store.h"

namespace pkictl {

namespace {

constexpr int default_bits = 2048;
constexpr int lowest_bits_for_tls = 2048;  // at the security level that systems set today
constexpr int lowest_bits = 512;
constexpr int highest_bits = 16384;

struct key_options {
  std::string label;
  std::string state;
  int bits = default_bits;
};

json key_json(const std::string &label, const saved_key &key) {
  json certs = json::array();
  for (const auto &[cert_label, cert] : key.certs)
    certs.push_back({{"label", cert_label}, {"certificate", cert_json(cert.get())}});
  return {{"label", label},
          {"type", "RSA"},
          {"bits", EVP_PKEY_get_bits(key.pair.get())},
          {"certs", certs}};
}

std::string key_text(const json &key) {
  std::string text = key["label"].get<std::string>() + " (RSA " + key["bits"].dump() + ")\n";
  for (const json &cert : key["certs"])
    text += cert_text(1, cert["label"], cert["certificate"]);
  return text;
}

void require_no_key(const saved_state &kept, const std::string &label, const state_folder &state) {
  if (kept.keys.count(label) != 0)
    throw tools::failure("there is a key " + label +
                         " already; take another label, or remove it with " +
                         state.command("key remove " + label));
}

void require_key(const saved_state &kept, const std::string &label, const state_folder &state) {
  check_label("the key", label);
  if (kept.keys.count(label) == 0)
    throw tools::failure("there is no key " + label + " in " + state.folder() + "; see " +
                         state.command("key list"));
}

saved_key make_key(const key_options &given) {
  start_library();
  require_ok("cannot make the key " + given.label,
             pki_generate_key_pair(given.label.c_str(), "RSA", given.bits));
  key_info_ptr made(pki_find_key_info_by_label(given.label.c_str()));
  if (!made)
    throw tools::failure("the store does not find the key that was made");
  saved_key key;
  key.pair.reset(std::exchange(made->key, nullptr));
  return key;
}

int generate(const context &where, const key_options &given) {
  check_label("the key", given.label);
  state_folder state(given.state);
  require_no_key(state.load(), given.label, state);
  saved_key made = make_key(given);
  json key = key_json(given.label, made);
  state.update([&](saved_state *kept) {
    require_no_key(*kept, given.label, state);
    kept->keys[given.label] = std::move(made);
  });
  if (given.bits < lowest_bits_for_tls)
    tools::complain("pkictl", "warning: TLS on current systems takes no RSA key below " +
                                  std::to_string(lowest_bits_for_tls) + " bits");
  if (where.json)
    where.out->write_json({{"key", key}, {"file", state.file()}});
  else
    where.out->write_text("made " + key_text(key) + "saved " + tools::printable(state.file()) +
                          "\n");
  return 0;
}

int list(const context &where, const key_options &given) {
  state_folder state = state_folder::to_read(given.state, "key generate");
  saved_state kept = state.load();
  json keys = json::array();
  for (const auto &[label, key] : kept.keys)
    keys.push_back(key_json(label, key));
  if (where.json) {
    where.out->write_json({{"keys", keys}});
    return 0;
  }
  std::string text;
  for (const json &key : keys)
    text += key_text(key);
  where.out->write_text(text.empty() ? "no keys in " + state.folder() + "\n" : text);
  return 0;
}

int remove(const context &where, const key_options &given) {
  state_folder state(given.state);
  const saved_state before = state.load();
  require_key(before, given.label, state);  // without one nothing is written, not even a lock
  size_t certs = 0;
  state.update([&](saved_state *kept) {
    require_key(*kept, given.label, state);
    certs = kept->keys[given.label].certs.size();
    kept->keys.erase(given.label);
  });
  if (where.json)
    where.out->write_json({{"removed", given.label}, {"certs", certs}});
  else
    where.out->write_text("removed " + given.label + " and " + std::to_string(certs) +
                          (certs == 1 ? " certificate\n" : " certificates\n"));
  return 0;
}

CLI::App *add_command(CLI::App *key, const char *name, const char *help,
                      int (*run)(const context &, const key_options &), action *chosen,
                      const std::shared_ptr<key_options> &given) {
  CLI::App *command = key->add_subcommand(name, help);
  add_state_option(command, &given->state);
  command->footer(std::string(state_footer) + common_footer);
  command->callback([=] { *chosen = [=](const context &where) { return run(where, *given); }; });
  return command;
}

}  // namespace

void add_key_command(CLI::App &app, action *chosen) {
  CLI::App *key = app.add_subcommand("key", "Make, list, export and remove the device's keys");
  key->require_subcommand(1);
  key->fallthrough();
  auto made = std::make_shared<key_options>();
  CLI::App *command = add_command(key, "generate", "Make an RSA key pair", generate, chosen, made);
  command->footer(std::string("Examples:\n"
                              "  pkictl key generate device\n\n") +
                  state_footer + common_footer);
  command->add_option("LABEL", made->label, "The key's label")->required();
  command
      ->add_option("--bits", made->bits, "Its size; TLS on current systems takes none below 2048")
      ->check(tools::check_number)
      ->check(CLI::Range(lowest_bits, highest_bits))
      ->capture_default_str();
  add_command(key, "list", "Print the keys and their certificates", list, chosen,
              std::make_shared<key_options>());
  auto removed = std::make_shared<key_options>();
  command =
      add_command(key, "remove", "Remove a key with its certificates", remove, chosen, removed);
  command->add_option("LABEL", removed->label, "The key's label")->required();
  add_key_export_command(*key, chosen);
}

}  // namespace pkictl
