// pkictl crl show: what a CRL of any size is about.
#include <CLI/CLI.hpp>
#include <memory>

#include "tools/common/command_line.h"
#include "tools/pkictl/command.h"
#include "tools/pkictl/crl_scan.h"
#include "tools/pkictl/failure_report.h"

namespace pkictl {

namespace {

int show(const context &where, const crl_options &given) {
  scanned_crl scanned = scan_crl(given, {});
  std::string reason = disbelief(given, scanned.report);
  if (!reason.empty())
    scanned.report["error"] = plain_error_json(reason);
  if (where.json)
    where.out->write_json(scanned.report);
  else
    where.out->write_text("CRL\n" + scan_text(scanned.report));
  if (reason.empty())
    return tools::exit_done;
  tools::complain("pkictl", reason);
  return tools::exit_failed;
}

}  // namespace

void add_crl_show_command(CLI::App &crl, action *chosen) {
  auto given = std::make_shared<crl_options>();
  CLI::App *command = crl.add_subcommand("show", "Print what a CRL is about, and how long it is");
  add_crl_options(command, given.get());
  command->footer(std::string("Examples:\n"
                              "  pkictl crl show http://crl.example.com/ca.crl --issuer ca.pem\n\n"
                              "The list is read as it comes and never held in memory.\n\n") +
                  common_footer);
  command->callback([=] { *chosen = [=](const context &where) { return show(where, *given); }; });
}

}  // namespace pkictl
