// pkictl crl find: does a CRL list this certificate?
#include <CLI/CLI.hpp>
#include <memory>

#include "tools/common/cert_text.h"
#include "tools/common/command_line.h"
#include "tools/common/crl_text.h"
#include "tools/common/failure.h"
#include "tools/common/keys.h"
#include "tools/common/serial.h"
#include "tools/pkictl/command.h"
#include "tools/pkictl/crl_report.h"
#include "tools/pkictl/crl_scan.h"
#include "tools/pkictl/report.h"
#include "tools/pkictl/verdict.h"

namespace pkictl {

namespace {

struct crl_find_options : crl_options {
  std::string serial;
  std::string cert;
};

std::string find_text(const json &report) {
  const json &entries = report["listed"];
  std::string text = entries.empty() ? "not listed\n" : "listed\n";
  text += text_line(1, "serial", report["serial"]);
  for (const json &entry : entries)
    text += entry_text(entry);
  return text + "CRL\n" + scan_text(report);
}

// A list that does not speak for the certificate's issuer would say "not listed" to everything.
void require_same_issuer(const scanned_crl &scanned, const X509 *cert) {
  const X509_NAME *issuer = X509_get_issuer_name(cert);
  if (X509_NAME_cmp(X509_CRL_get_issuer(scanned.crl.get()), issuer) != 0 &&
      !is_indirect(scanned.crl.get()))
    throw tools::failure("this CRL is by " + scanned.report["crl"]["issuer"].get<std::string>() +
                         ", and the certificate by " + tools::name_text(issuer) +
                         "; give the CRL of the certificate's issuer");
}

int find(const context &where, const crl_find_options &given) {
  if (given.cert.empty() == given.serial.empty())
    throw tools::usage_failure("give either --serial or --cert");
  tools::cert_ptr cert;
  tools::serial_ptr serial;
  pki_crl_query query = {};
  if (!given.cert.empty()) {
    cert = tools::load_certificate(given.cert);
    query.serial = X509_get0_serialNumber(cert.get());
    query.issuer = X509_get_issuer_name(cert.get());
  } else {
    serial = tools::require_serial(given.serial);
    query.serial = serial.get();
  }
  scanned_crl scanned = scan_crl(given, query);
  if (cert)
    require_same_issuer(scanned, cert.get());
  std::string reason = disbelief(given, scanned.report);
  if (!reason.empty())
    throw tools::failure(reason);
  json report = {{"serial", tools::serial_text(query.serial)},
                 {"listed", entries_json(scanned.crl.get())}};
  report.update(scanned.report);
  if (where.json)
    where.out->write_json(report);
  else
    where.out->write_text(find_text(report));
  return report["listed"].empty() ? tools::exit_done : tools::exit_failed;
}

constexpr const char *find_footer =
    "Examples:\n"
    "  pkictl crl find ca.crl --cert server.pem\n"
    "  pkictl crl find http://crl.example.com/ca.crl --serial 10C4 --issuer ca.pem\n\n"
    "The list is read as it comes and never held in memory. This looks into one CRL\n"
    "and judges nothing: whether a certificate is to be accepted is for 'pkictl\n"
    "verify' to say.\n\n"
    "-v shows the library's log lines on stderr; --json prints JSON.\n"
    "Exit codes: 0 not listed, 1 listed, 2 wrong usage or a CRL that cannot be used.";

}  // namespace

void add_crl_find_command(CLI::App &crl, action *chosen) {
  auto given = std::make_shared<crl_find_options>();
  CLI::App *command = crl.add_subcommand("find", "Say whether a CRL lists a certificate");
  add_crl_options(command, given.get());
  command
      ->add_option("--serial", given->serial,
                   "The certificate's serial number in hexadecimal, as in 10C4, 0x10C4 or 10:C4;"
                   " decimal as in dec:4292")
      ->type_name("HEX");
  command->add_option("--cert", given->cert, "The certificate instead (PEM or DER)")
      ->type_name("FILE");
  command->footer(find_footer);
  command->callback([=] {
    *chosen = [=](const context &where) {
      return fail_with_two(where, [&] { return find(where, *given); });
    };
  });
}

}  // namespace pkictl
