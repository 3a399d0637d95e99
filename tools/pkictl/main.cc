// pkictl: for the person who integrates or debugs the library.
#include <signal.h>
#include <syslog.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <string_view>

#include "tools/common/command_line.h"
#include "tools/common/failure.h"
#include "tools/common/help_formatter.h"
#include "tools/pkictl/command.h"
#include "tools/pkictl/failure_report.h"

namespace {

using pkictl::action;
using pkictl::context;

constexpr const char *main_footer =
    "Examples:\n"
    "  pkictl provision http://127.0.0.1:8080/ca-info --doc-key lab/doc-key.pub.pem\n"
    "  pkictl verify server.pem --trust lab/issuing-cert.pem\n\n"
    "Files:\n"
    "  ~/.local/state/pkictl/state\n"
    "                              Keys (unencrypted), certificates and CAs, mode\n"
    "                              0600; --state names another folder\n\n"
    "Environment:\n"
    "  XDG_STATE_HOME              In the place of ~/.local/state; ignored unless it\n"
    "                              is an absolute path\n"
    "  BOARD_INFO_DIR              Folder of the files serialnumber and secret, which\n"
    "                              the reference board library reads; /etc/board by\n"
    "                              default\n\n";

constexpr const char *exit_footer =
    "-v shows the library's log lines on stderr; --json prints JSON.\n"
    "Exit codes: 0 done, 1 failed, 2 wrong usage. Of verify 1 is a rejected\n"
    "certificate and of crl find a listed one, and all failures are 2.";

void add_commands(CLI::App &app, context *where, action *chosen) {
  app.add_flag("-v,--verbose", where->verbose, "Show the library's log lines on stderr");
  app.add_flag("--json", where->json, "Print JSON");
  app.set_version_flag("--version", "pkictl " TOOL_VERSION);
  app.require_subcommand(1);
  app.fallthrough();
  app.footer(pkictl::common_footer);  // subcommands inherit it
  CLI::App *cainfo = app.add_subcommand("cainfo", "Sign, verify and show CA-info documents");
  cainfo->require_subcommand(1);
  cainfo->fallthrough();
  pkictl::add_cainfo_sign_command(*cainfo, chosen);
  pkictl::add_cainfo_verify_command(*cainfo, chosen);
  pkictl::add_cainfo_show_command(*cainfo, chosen);
  pkictl::add_provision_command(app, chosen);
  pkictl::add_ca_command(app, chosen);
  pkictl::add_key_command(app, chosen);
  pkictl::add_enroll_command(app, chosen);
  pkictl::add_cert_command(app, chosen);
  pkictl::add_verify_command(app, chosen);
  CLI::App *crl = app.add_subcommand("crl", "Look into CRLs of any size");
  crl->require_subcommand(1);
  crl->fallthrough();
  pkictl::add_crl_show_command(*crl, chosen);
  pkictl::add_crl_find_command(*crl, chosen);
  pkictl::add_scep_command(app, chosen);
  pkictl::add_state_command(app, chosen);
  pkictl::add_error_command(app, chosen);
  app.footer(std::string(main_footer) + exit_footer +
             "\n\nStart with " DOCUMENT_FOLDER "/quick-start.md");
}

int run(const action &chosen, const context &given) {
  try {
    pkictl::output out;
    context where = given;
    where.out = &out;
    if (where.verbose)
      openlog("pkictl", LOG_PERROR, LOG_USER);
    try {
      return chosen(where);
    } catch (const tools::usage_failure &error) {
      return pkictl::report_failure(where, error, tools::exit_usage);
    } catch (const std::exception &error) {
      return pkictl::report_failure(where, error, tools::exit_failed);
    }
  } catch (const std::exception &error) {
    tools::complain("pkictl", error.what());
    return tools::exit_failed;
  }
}

// Of a command line that could not be parsed to its end.
bool asks_for_json(int argc, char **argv) {
  char **end = std::find_if(argv, argv + argc,
                            [](const char *word) { return std::string_view(word) == "--"; });
  return std::any_of(argv, end,
                     [](const char *word) { return std::string_view(word) == "--json"; });
}

// stderr has the complaint already.
void print_usage_error(const std::string &complaint) {
  try {
    pkictl::output().write_json({{"error", pkictl::plain_error_json(complaint)}});
  } catch (const std::exception &error) {
    tools::complain("pkictl", error.what());
  }
}

}  // namespace

int main(int argc, char **argv) {
  tools::keep_standard_streams();
  signal(SIGXFSZ, SIG_IGN);  // a limit of the size of files is an error of whoever writes
  context where;
  action chosen;
  CLI::App app("Provision CAs, enroll with them, and look into what they send", "pkictl");
  tools::wrap_help(&app);
  int code = tools::exit_done;
  add_commands(app, &where, &chosen);
  std::string complaint;
  if (!tools::parse_command_line(app, argc, argv, &code, &complaint)) {
    if (!complaint.empty() && asks_for_json(argc, argv))
      print_usage_error(complaint);
    return code;
  }
  return run(chosen, where);
}
