// pkictl crl find: does a CRL list this certificate?
#include <openssl/bn.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>

#include "tools/common/cert_text.h"
#include "tools/common/command_line.h"
#include "tools/common/crl_text.h"
#include "tools/common/failure.h"
#include "tools/common/keys.h"
#include "tools/pkictl/command.h"
#include "tools/pkictl/crl_report.h"
#include "tools/pkictl/crl_scan.h"
#include "tools/pkictl/report.h"
#include "tools/pkictl/verdict.h"

namespace pkictl {

namespace {

using serial_ptr = std::unique_ptr<ASN1_INTEGER, tools::free_with<ASN1_INTEGER_free>>;
using number_ptr = std::unique_ptr<BIGNUM, tools::free_with<BN_free>>;

constexpr size_t max_digits = 128;
constexpr const char *decimal_digits = "0123456789";
constexpr const char *hex_digits = "0123456789abcdefABCDEF";

struct options : crl_options {
  std::string serial;
  std::string cert;
};

bool is_made_of(const std::string &text, const char *characters) {
  return !text.empty() && text.size() <= max_digits &&
         text.find_first_not_of(characters) == std::string::npos;
}

// "291", "0x123" or "01:23"
serial_ptr parse_serial(const std::string &text) {
  std::string digits = text;
  bool is_hex = text.starts_with("0x") || text.starts_with("0X");
  if (is_hex)
    digits.erase(0, 2);
  is_hex = is_hex || text.find(':') != std::string::npos;
  digits.erase(std::remove(digits.begin(), digits.end(), ':'), digits.end());
  if (!is_made_of(digits, is_hex ? hex_digits : decimal_digits))
    throw tools::failure("'" + text + "' is no serial number; write it as in 291, 0x123 or 01:23");
  BIGNUM *value = nullptr;
  if (is_hex)
    BN_hex2bn(&value, digits.c_str());
  else
    BN_dec2bn(&value, digits.c_str());
  number_ptr owner(value);
  serial_ptr serial(value ? BN_to_ASN1_INTEGER(value, nullptr) : nullptr);
  if (!serial)
    throw tools::failure("out of memory");
  return serial;
}

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

int find(const context &where, const options &given) {
  tools::cert_ptr cert;
  serial_ptr serial;
  pki_crl_query query = {};
  if (!given.cert.empty()) {
    cert = tools::load_certificate(given.cert);
    query.serial = X509_get0_serialNumber(cert.get());
    query.issuer = X509_get_issuer_name(cert.get());
  } else {
    serial = parse_serial(given.serial);
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
    "The list is read as it comes and never held in memory. This looks into one CRL and judges\n"
    "nothing: whether a certificate is to be accepted is for 'pkictl verify' to say.\n\n"
    "-v shows the library's log lines on stderr; --json prints JSON.\n"
    "Exit codes: 0 not listed, 1 listed, 2 wrong usage or a CRL that cannot be used.";

}  // namespace

void add_crl_find_command(CLI::App &crl, action *chosen) {
  auto given = std::make_shared<options>();
  CLI::App *command = crl.add_subcommand("find", "Say whether a CRL lists a certificate");
  add_crl_options(command, given.get());
  CLI::Option_group *which = command->add_option_group("which certificate");
  which->add_option("--serial", given->serial, "Its serial number: 291, 0x123 or 01:23")
      ->type_name("N");
  which->add_option("--cert", given->cert, "The certificate (PEM or DER)")->type_name("FILE");
  which->require_option(1);
  command->footer(find_footer);
  command->callback([=] {
    *chosen = [=](const context &where) {
      return fail_with_two(where, [&] { return find(where, *given); });
    };
  });
}

}  // namespace pkictl
