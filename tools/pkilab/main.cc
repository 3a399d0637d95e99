// pkilab: a CA to try things on.
#include <netinet/in.h>
#include <openssl/evp.h>
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>
#include <exception>
#include <memory>

#include "tools/common/command_line.h"
#include "tools/common/failure.h"
#include "tools/common/files.h"
#include "tools/common/help_formatter.h"
#include "tools/common/text.h"
#include "tools/pkilab/command.h"
#include "tools/pkilab/crl_command_line.h"
#include "tools/pkilab/lab.h"
#include "tools/pkilab/misbehave.h"
#include "tools/pkilab/ocsp_command_line.h"
#include "tools/pkilab/scep_command_line.h"

namespace {

struct serve_options {
  pkilab::lab_options lab;
  std::string ready_file;
  bool quiet = false;
};

// The signals that end the lab. Blocked before the first thread starts, so that they wait for
// wait_for_end in every thread.
sigset_t end_signals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  return set;
}

void wait_for_end(const sigset_t &set) {
  int number = 0;
  while (sigwait(&set, &number) != 0) {
  }
}

void write_line(int fd, const std::string &line) {
  // One write a line: lines of several threads do not mix, and a reader that is gone is its loss.
  std::string text = line + "\n";
  if (write(fd, text.data(), text.size()) < 0)
    return;
}

bool is_loopback(const std::string &address) {
  return address.starts_with("127.") || address == "::1";
}

// The file that tells others the lab's URL: there while the lab answers, and at no other time.
class ready_file {
 public:
  explicit ready_file(std::string path) : path_(std::move(path)) {
    if (tools::is_device(path_))
      throw tools::usage_failure("--ready-file " + path_ +
                                 " is no file; give the name of one that may be made");
    if (!path_.empty() && unlink(path_.c_str()) != 0 && errno != ENOENT)
      throw tools::failure("cannot remove " + path_ + ": " + strerror(errno));
  }
  ~ready_file() {
    if (!written_.empty() && is_ours())
      unlink(path_.c_str());
  }
  ready_file(const ready_file &) = delete;
  ready_file &operator=(const ready_file &) = delete;

  bool is_wanted() const { return !path_.empty(); }
  void write(const std::string &line) {
    written_ = line + "\n";
    tools::write_file(path_, written_, 0644);
  }

 private:
  // Another lab may have written its own there meanwhile.
  bool is_ours() const {
    try {
      return tools::read_file(path_) == written_;
    } catch (const tools::failure &) {
      return false;
    }
  }

  std::string path_;
  std::string written_;
};

// A device takes its own default in the place of a name that it does not know.
void warn_of_unknown(bool known, const char *what, const std::string &name) {
  if (!known && !name.empty())
    tools::complain("pkilab", std::string("warning: OpenSSL knows no ") + what + " " + name +
                                  "; devices take their default instead");
}

void warn_of_unknown_algorithms(const pkilab::scep_algorithms &named) {
  warn_of_unknown(EVP_get_digestbyname(named.digest.c_str()), "digest", named.digest);
  warn_of_unknown(EVP_get_cipherbyname(named.cipher.c_str()), "cipher", named.cipher);
}

int serve(const serve_options &given) {
  sigset_t signals = end_signals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);
  ready_file ready(given.ready_file);
  pkilab::require_numeric_address(given.lab.listen);
  pkilab::lab_options setup = given.lab;
  setup.quiet = given.quiet;
  setup.log = [](const std::string &line) { write_line(STDERR_FILENO, "pkilab: " + line); };
  if (!is_loopback(setup.listen.bind))
    tools::complain("pkilab", "warning: " + setup.listen.bind +
                                  " can be reached from other machines, and the lab trusts"
                                  " everybody");
  if (!setup.document_file.empty() && !tools::file_exists(setup.document_file))
    tools::complain("pkilab", "warning: there is no " + setup.document_file +
                                  " yet; /ca-info answers 404 until it is there");
  warn_of_unknown_algorithms(setup.algorithms);
  pkilab::lab lab(setup);
  if (ready.is_wanted())
    ready.write(lab.url());
  std::string line = "pkilab is ready: " + lab.url("/ca-info");
  if (!ready.is_wanted())
    tools::print(line + "\n");  // nothing else says which port it is
  else if (!given.quiet)
    write_line(STDOUT_FILENO, line);
  wait_for_end(signals);
  lab.stop();
  return tools::exit_done;
}

std::string serve_footer() {
  return "Examples:\n"
         "  pkilab serve --dir lab --port 8080\n"
         "  pkilab serve --dir lab --ready-file ready --scep-pending 2 \\\n"
         "    --ocsp-answer status=revoked\n"
         "\n"
         "What is in the folder: doc-key.pem and doc-key.pub.pem (signs documents), root-,\n"
         "issuing- and additional-key.pem and -cert.pem. GET / lists what is served.\n\n"
         "Bad answers on request. \"...\" is the path to answer badly, /ca-info by default:\n" +
         pkilab::misbehaviour_list() +
         "\nSCEP is at /scep. It issues at once, unless the options say otherwise.\n\n"
         "Values of --scep-misbehave:\n" +
         pkilab::misdeed_list() +
         "\nOCSP is at /ocsp. It tells the truth, unless the options or the query of the\n"
         "request's URL (/ocsp?NAME=VALUE&...) say otherwise.\n\n"
         "Values of --ocsp-answer and names in the query:\n" +
         pkilab::ocsp_option_list() +
         "\nCRLs are at /crl/issuing.crl, /crl/additional.crl and /crl/root.crl. The options\n"
         "and the query of the request's URL do the same there.\n\n"
         "Values of --crl-answer and names in the query:\n" +
         pkilab::crl_option_list() +
         "\nExit codes: 0 ended by SIGTERM or SIGINT, 1 failed, 2 wrong usage.";
}

void add_serve_command(CLI::App &app, pkilab::action *chosen) {
  auto given = std::make_shared<serve_options>();
  CLI::App *serve_command = app.add_subcommand("serve", "Serve a CA until SIGTERM or SIGINT");
  serve_command
      ->add_option("--dir", given->lab.folder,
                   "Folder of keys and certificates, which are made on first start")
      ->required();
  serve_command->add_option("--port", given->lab.listen.port, "Port; 0 for any free one")
      ->check(tools::check_number)
      ->check(CLI::Range(0, 65535))
      ->capture_default_str();
  serve_command->add_option("--bind", given->lab.listen.bind, "Numeric address to listen on")
      ->capture_default_str();
  serve_command->add_option("--ready-file", given->ready_file,
                            "File that holds the server's URL while it is ready");
  serve_command->add_option("--document", given->lab.document_file,
                            "Serve this signed document at /ca-info instead of the lab's own");
  pkilab::add_scep_options(serve_command, &given->lab);
  pkilab::add_ocsp_command_line(serve_command, &given->lab);
  pkilab::add_crl_command_line(serve_command, &given->lab);
  serve_command->add_flag(
      "-q,--quiet", given->quiet,
      "No line a request on stderr, but for those that the lab fails to answer, and"
      " with --ready-file no line on stdout");
  serve_command->footer(serve_footer());
  serve_command->callback([given, chosen] { *chosen = [given] { return serve(*given); }; });
}

}  // namespace

int main(int argc, char **argv) {
  tools::keep_standard_streams();
  pkilab::action chosen;
  int code = tools::exit_done;
  CLI::App app("A CA to try the library on, with an HTTP server of its own", "pkilab");
  tools::wrap_help(&app);
  app.set_version_flag("--version", "pkilab " TOOL_VERSION);
  app.require_subcommand(1);
  add_serve_command(app, &chosen);
  pkilab::add_issue_command(app, &chosen);
  pkilab::add_revoke_commands(app, &chosen);
  app.footer(
      "Examples:\n"
      "  pkilab serve --dir lab --port 8080\n"
      "  pkilab issue --dir lab --new-key server-key.pem \\\n"
      "    --subject \"CN=server, O=Example\" --out server.pem\n\n"
      "Exit codes: 0 done, 1 failed, 2 wrong usage.\n\n"
      "Start with " DOCUMENT_FOLDER "/quick-start.md");
  if (!tools::parse_command_line(app, argc, argv, &code))
    return code;
  try {
    return chosen();
  } catch (const tools::usage_failure &error) {
    tools::complain("pkilab", error.what());
    return tools::exit_usage;
  } catch (const std::exception &error) {
    tools::complain("pkilab", error.what());
    return tools::exit_failed;
  }
}
