#include "tools/pkictl/crl_scan.h"

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>

#include "tools/common/cert_text.h"
#include "tools/common/keys.h"
#include "tools/pkictl/crl_input.h"
#include "tools/pkictl/crl_report.h"
#include "tools/pkictl/library.h"
#include "tools/pkictl/memory.h"
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

std::string time_text(const json &report) {
  char text[80];
  snprintf(text, sizeof text, "%.3f s, %.1f MB/s", report["seconds"].get<double>(),
           report["octets_per_second"].get<double>() / 1e6);
  return text;
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
}

scanned_crl scan_crl(const crl_options &given, pki_crl_query query) {
  tools::cert_ptr signer;
  if (!given.issuer.empty())
    signer = tools::load_certificate(given.issuer);
  query.signer = signer.get();
  start_library();
  pki_crl_report found = {};
  json peak_before = peak_memory_json();
  auto begin = std::chrono::steady_clock::now();
  crl_input(given.source).scan(query, &found);
  std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
  scanned_crl scanned;
  scanned.crl.reset(found.crl);
  double seconds = took.count();
  scanned.report = {
      {"source", given.source},
      {"crl", crl_json(found.crl)},
      {"signature", signature_word(found.signature)},
      {"signer",
       signer ? json(tools::name_text(X509_get_subject_name(signer.get()))) : json(nullptr)},
      {"entries", found.entries},
      {"critical_entries", found.critical_entries},
      {"octets", found.octets},
      {"seconds", seconds},
      {"octets_per_second", seconds > 0 ? static_cast<double>(found.octets) / seconds : 0.0},
      {"peak_memory_kib", peak_memory_json()}};
  const json &peak = scanned.report["peak_memory_kib"];
  scanned.report["crl_memory_kib"] = peak.is_null() || peak_before.is_null()
                                         ? json(nullptr)
                                         : json(peak.get<long>() - peak_before.get<long>());
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
         text_line(1, "time", time_text(report)) +
         memory_text(1, report["peak_memory_kib"], report["crl_memory_kib"]);
}

std::string disbelief(const crl_options &given, const json &report) {
  if (report["signature"] != "bad")
    return "";
  return given.source + " has no good signature: it was changed, or the key of " + given.issuer +
         " did not make it";
}

}  // namespace pkictl
