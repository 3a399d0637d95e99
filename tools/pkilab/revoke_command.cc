// pkilab revoke and unrevoke.
#include <CLI/CLI.hpp>
#include <cerrno>
#include <map>
#include <memory>

#include "tools/common/cert_text.h"
#include "tools/common/command_line.h"
#include "tools/common/failure.h"
#include "tools/common/files.h"
#include "tools/common/keys.h"
#include "tools/pkilab/command.h"
#include "tools/pkilab/issued_certs.h"
#include "tools/pkilab/revocations.h"

namespace pkilab {

namespace {

struct revoke_options {
  std::string folder;
  std::string file;
  std::string serial;
  int reason = -1;
  std::string at;
};

std::map<std::string, int> reason_choices() {
  std::map<std::string, int> choices;
  int number = 0;
  for (const std::string &name : revocation_reasons()) {
    if (!name.empty())
      choices.emplace(name, number);
    number++;
  }
  return choices;
}

// The serial number of a certificate that the lab issued.
serial_ptr find_serial(const revoke_options &given) {
  if (given.file.empty() == given.serial.empty())
    throw tools::usage_failure("give either a certificate's file or --serial");
  serial_ptr serial = given.serial.empty() ? nullptr : tools::require_serial(given.serial);
  if (!tools::file_exists(given.folder + "/issuing-cert.pem") && errno == ENOENT)
    throw tools::failure("there is no lab in " + given.folder + "; pkilab serve --dir " +
                         given.folder + " makes one");
  ca keys(given.folder);
  issued_certs certs(keys);
  if (serial) {
    if (!certs.find(serial.get()))
      throw tools::failure("the lab issued nothing with the serial number " + given.serial + "; " +
                           given.folder + "/issued has what it did");
    return serial;
  }
  tools::cert_ptr cert = tools::load_certificate(given.file);
  tools::cert_ptr known =
      certs.find(X509_get_issuer_name(cert.get()), X509_get0_serialNumber(cert.get()));
  if (!known || X509_cmp(known.get(), cert.get()) != 0)
    throw tools::failure("the lab in " + given.folder + " did not issue " + given.file);
  return serial_ptr(ASN1_INTEGER_dup(X509_get0_serialNumber(cert.get())));
}

int revoke(const revoke_options &given) {
  revocation how = {time(nullptr), given.reason};
  if (!given.at.empty())
    how.at = parse_time("--at", given.at);
  serial_ptr serial = find_serial(given);
  std::string text = tools::serial_text(serial.get());
  if (!revocations(given.folder).revoke(serial.get(), how))
    throw tools::failure(text + " is revoked already; pkilab unrevoke makes it good again");
  tools::print_done("revoked " + text + "\n");
  return tools::exit_done;
}

int unrevoke(const revoke_options &given) {
  serial_ptr serial = find_serial(given);
  std::string text = tools::serial_text(serial.get());
  if (!revocations(given.folder).restore(serial.get()))
    throw tools::failure(text + " is not revoked");
  tools::print_done("unrevoked " + text + "\n");
  return tools::exit_done;
}

void add_common_options(CLI::App *command, revoke_options *given) {
  command->add_option("--dir", given->folder, "Folder of the lab")->type_name("DIR")->required();
  command->add_option("CERT", given->file, "File of a certificate that the lab issued")
      ->type_name("FILE");
  command
      ->add_option(
          "--serial", given->serial,
          "Its serial number instead, in hexadecimal as in 10C4, 0x10C4 or 10:C4; decimal as in"
          " dec:4292")
      ->type_name("HEX");
}

std::string reason_footer() {
  std::string text =
      "Examples:\n"
      "  pkilab revoke --dir lab server.pem --reason keyCompromise\n\n"
      "Values of --reason:\n";
  for (const std::string &name : revocation_reasons())
    text += name.empty() ? "" : "  " + name + "\n";
  return text +
         "\nA lab that is serving knows it at its next answer.\n"
         "\nExit codes: 0 revoked, 1 failed or revoked already, 2 wrong usage.";
}

}  // namespace

void add_revoke_commands(CLI::App &app, action *chosen) {
  auto given = std::make_shared<revoke_options>();
  CLI::App *command = app.add_subcommand("revoke", "Revoke a certificate that the lab issued");
  add_common_options(command, given.get());
  std::vector<std::string> names;
  for (const auto &[name, number] : reason_choices())
    names.push_back(name);
  command
      ->add_option_function<std::string>(
          "--reason",
          [given](const std::string &name) { given->reason = reason_choices().at(name); },
          "Why; no reason is given by default")
      ->type_name("REASON")
      ->check(CLI::IsMember(names).description(""));
  command->add_option("--at", given->at, "When; 2031-05-06 or 2031-05-06T07:08:09Z; now by default")
      ->type_name("TIME");
  command->footer(reason_footer());
  command->callback([given, chosen] { *chosen = [given] { return revoke(*given); }; });

  auto other = std::make_shared<revoke_options>();
  CLI::App *back = app.add_subcommand("unrevoke", "Make a revoked certificate good again");
  add_common_options(back, other.get());
  back->footer("Exit codes: 0 done, 1 failed or not revoked, 2 wrong usage.");
  back->callback([other, chosen] { *chosen = [other] { return unrevoke(*other); }; });
}

}  // namespace pkilab
