#include "tools/pkictl/crl_scan.h"

#include <CLI/CLI.hpp>

#include "tools/common/cert_text.h"
#include "tools/common/keys.h"
#include "tools/pkictl/cost.h"
#include "tools/pkictl/crl_input.h"
#include "tools/pkictl/crl_report.h"
#include "tools/pkictl/http_url.h"
#include "tools/pkictl/library.h"
#include "tools/pkictl/report.h"

namespace pkictl {

namespace {

const char *signature_word(int signature) {
  switch (signature) {
    case PKI_CRL_SIGNED:
      return "good";
    case PKI_CRL_NOT_SIGNED:
      return "bad";
    default:
      return "not checked";
  }
}

std::string signature_text(const json &report) {
  if (report["signature"] == "not checked")
    return "NOT CHECKED, so anybody may have made this; give --issuer";
  std::string signer = name_or_note(report["signer"]).get<std::string>();
  return report["signature"] == "good" ? "good, by " + signer : "BAD, not by " + signer;
}

}  // namespace

void add_crl_options(CLI::App *command, crl_options *given) {
  command
      ->add_option("SOURCE", given->source,
                   "The CRL: a file, or an http URL; DER, PEM, or in a PKCS#7 message")
      ->type_name("FILE|URL")
      ->required();
  command
      ->add_option("--issuer", given->issuer,
                   "Check the signature with the key of this certificate (PEM or DER)")
      ->type_name("CERT");
  add_cost_option(command, &given->cost);
}

scanned_crl scan_crl(const crl_options &given, pki_crl_query query) {
  if (is_url(given.source))
    require_http_url("SOURCE", given.source);
  tools::cert_ptr signer;
  if (!given.issuer.empty())
    signer = tools::load_certificate(given.issuer);
  query.signer = signer.get();
  start_library();
  pki_crl_report found = {};
  cost_meter meter;
  crl_input(given.source).scan(query, &found);
  json cost = meter.read_with_crl(found.octets);
  scanned_crl scanned;
  scanned.crl.reset(found.crl);
  scanned.report = {{"source", given.source},
                    {"crl", crl_json(found.crl)},
                    {"signature", signature_word(found.signature)},
                    {"signer", signer ? json(tools::name_text(X509_get_subject_name(signer.get())))
                                      : json(nullptr)},
                    {"entries", found.entries},
                    {"critical_entries", found.critical_entries},
                    {"octets", found.octets}};
  if (given.cost)
    scanned.report["cost"] = std::move(cost);
  return scanned;
}

std::string scan_text(const json &report) {
  std::string entries = report["entries"].dump();
  if (report["critical_entries"] != 0)
    entries +=
        ", of them with an unknown critical extension: " + report["critical_entries"].dump() +
        "; the library refuses this CRL";
  return crl_text(report["crl"]) + text_line(1, "signature", signature_text(report)) +
         text_line(1, "entries", entries) +
         text_line(1, "size", report["octets"].dump() + " octets") +
         cost_text(1, report.value("cost", json(nullptr)));
}

std::string disbelief(const crl_options &given, const json &report) {
  if (report["signature"] != "bad")
    return "";
  return given.source + " has no good signature: it was changed, or the key of " + given.issuer +
         " did not make it";
}

}  // namespace pkictl
