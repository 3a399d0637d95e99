// pkictl cert export: a kept certificate as PEM, for other programs.
#include <CLI/CLI.hpp>
#include <memory>

#include "tools/common/keys.h"
#include "tools/pkictl/exported.h"
#include "tools/pkictl/report.h"
#include "tools/pkictl/state.h"

namespace pkictl {

namespace {

struct cert_export_options {
  export_options to;
  std::string key;
  std::string cert = "cert";
};

int export_cert(const context &where, const cert_export_options &given) {
  state_folder state = state_folder::to_read(given.to.state, "enroll");
  saved_state kept = state.load();
  X509 *cert = state.cert_in(&kept, given.key, given.cert);
  write_export(where, given.to, tools::cert_pem(cert),
               {{"key", given.key}, {"label", given.cert}, {"certificate", cert_json(cert)}});
  return 0;
}

}  // namespace

void add_cert_export_command(CLI::App &cert, action *chosen) {
  auto given = std::make_shared<cert_export_options>();
  CLI::App *command = cert.add_subcommand("export", "Print a kept certificate as PEM");
  command->add_option("KEY", given->key, "The label of its key")->required();
  command->add_option("CERT", given->cert, "Its own label")->capture_default_str();
  add_export_options(command, &given->to);
  command->callback(
      [=] { *chosen = [=](const context &where) { return export_cert(where, *given); }; });
}

}  // namespace pkictl
