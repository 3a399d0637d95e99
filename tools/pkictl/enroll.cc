// pkictl enroll: a certificate for a key, from a provisioned CA.
#include <libpki/error.h>
#include <libpki/scep_client.h>
#include <libpki/store.h>

#include <CLI/CLI.hpp>
#include <climits>
#include <memory>
#include <optional>

#include "tools/common/cert_text.h"
#include "tools/common/command_line.h"
#include "tools/common/failure.h"
#include "tools/common/name_advice.h"
#include "tools/common/text.h"
#include "tools/pkictl/board_problem.h"
#include "tools/pkictl/command.h"
#include "tools/pkictl/failure_report.h"
#include "tools/pkictl/give_up.h"
#include "tools/pkictl/last_complaint.h"
#include "tools/pkictl/library.h"
#include "tools/pkictl/patience_notice.h"
#include "tools/pkictl/report.h"
#include "tools/pkictl/state.h"
#include "tools/pkictl/state_store.h"

namespace pkictl {

namespace {

constexpr int unlimited = -1;
constexpr unsigned longest_timeout_s = 10u * 365 * 24 * 60 * 60;

struct enroll_options {
  std::string ca = "ca";
  std::string key;
  std::string cert = "cert";
  std::string subject;
  std::string state;
  int polls = unlimited;
  unsigned timeout_s = 0;
  bool replace = false;
};

std::string advice(int code, const last_complaint &heard) {
  switch (code) {
    case PKI_FLASH_ERROR:
      return board_problem(board_wants::secret, heard.text());
    case PKI_INVALID_SCEP_RSP:
      return "what the CA answered is no good answer to this request" + heard.behind_colon() +
             "; if the CA was replaced, run 'pkictl provision' again";
    case PKI_KEY_MISMATCH:
      return "the CA issued the certificate for another key";
    case PKI_NO_SUPP_CERT_REQ_METH:
      return "the CA's document names no SCEP";
    case PKI_INVALID_ARGS:
      return "the CA's document names no certificate for SCEP, or the subject is too long";
    case PKI_P7_ENCRYPT_FAILED:
      return "the document's cipher cannot be used here" + heard.behind_colon();
    default:
      return "";
  }
}

std::string pending_text(const enroll_options &given, const give_up_watch &watch) {
  std::string text = "still pending: the CA has not issued the certificate yet";
  if (watch.interrupted())
    text += ", and the enrollment was interrupted";
  else if (watch.timed_out())
    text += ", and " + std::to_string(given.timeout_s) + " seconds are over";
  else if (given.polls > 0)
    text += ", and " + std::to_string(given.polls) +
            (given.polls == 1 ? " poll is" : " polls are") + " over";
  return text + "; enroll again to go on";
}

[[noreturn]] void fail(const enroll_options &given, int code, const give_up_watch &watch,
                       const last_complaint &heard) {
  if (code == PKI_NO_SUCH_CERT)
    throw scep_failure(code, pending_text(given, watch), "pending");
  std::string what = "cannot enroll " + given.key;
  std::string with_code = what + ": " + code_text_and_number(code) + ": ";
  std::string reason = heard.rejection();
  if (code == PKI_SCEP_REQ_REJ)
    throw scep_failure(code,
                       with_code + "the CA rejected the request" +
                           (reason.empty() ? ", without a reason" : ": " + reason),
                       "rejected", reason);
  if (tools::is_name_code(code))
    throw tools::library_usage_failure(
        code, with_code + tools::name_advice("subject", code, heard.text()));
  std::string told = advice(code, heard);
  throw tools::library_failure(
      code, told.empty() ? failure_text(what, code, heard.text()) : with_code + told);
}

void request_certificate(const enroll_options &given) {
  if (given.polls > 0)
    scep_limit_polls(static_cast<unsigned>(given.polls));
  if (given.polls == 0)
    scep_stop_polling(1);
  give_up_watch watch(given.timeout_s);
  std::optional<patience_notice> notice;
  if (given.polls != 0)
    notice.emplace();
  last_complaint heard;
  int code = pki_get_certificate(given.ca.c_str(), given.key.c_str(), given.cert.c_str(),
                                 given.subject.empty() ? nullptr : given.subject.c_str());
  notice.reset();
  if (code != PKI_OK)
    fail(given, code, watch, heard);
}

// The new certificate stands behind a replaced one of the same label.
X509 *newest_cert(const key_info *key) {
  const void *last = OPENSSL_sk_value(key->certs, OPENSSL_sk_num(key->certs) - 1);
  if (!last)
    throw tools::failure("the store does not find the certificate that was issued");
  return static_cast<const cert_info *>(last)->cert;
}

void require_room(const enroll_options &given, const saved_key &key) {
  if (key.certs.count(given.cert) != 0 && !given.replace)
    throw tools::failure("the key " + given.key + " has a certificate " + given.cert +
                         " already; take another --cert, or --replace it");
}

// The key may have been removed, or another one made, while the CA thought.
void keep(const state_folder &state, const enroll_options &given, X509 *issued) {
  state.update([&](saved_state *kept) {
    saved_key &key = state.key_in(kept, given.key);
    if (EVP_PKEY_eq(X509_get0_pubkey(issued), key.pair.get()) != 1)
      throw tools::failure("the key " + given.key + " is another one by now; enroll again");
    require_room(given, key);
    if (X509_up_ref(issued) != 1)
      throw tools::failure("out of memory");
    key.certs[given.cert].reset(issued);
  });
}

// Whoever cannot keep what was issued still finds it at the CA.
void keep_or_say_where_it_is(const state_folder &state, const enroll_options &given, X509 *issued) {
  try {
    keep(state, given, issued);
  } catch (const tools::failure &error) {
    throw tools::failure("the certificate " + tools::serial_text(X509_get0_serialNumber(issued)) +
                         " was issued, but cannot be kept: " + error.what());
  }
}

int enroll(const context &where, const enroll_options &given) {
  check_label("the CA", given.ca);
  check_label("the key", given.key);
  check_label("the certificate", given.cert);
  state_folder state(given.state);
  saved_state kept = state.load();
  const saved_ca &saved = state.ca_in(&kept, given.ca);
  const saved_key &pair = state.key_in(&kept, given.key);
  require_room(given, pair);
  start_library();
  tools::ca_info_ptr ca = enter_ca(given.ca, saved);
  key_info_ptr key = enter_key(given.key, pair);
  request_certificate(given);
  X509 *issued = newest_cert(key.get());
  keep_or_say_where_it_is(state, given, issued);
  json cert = cert_json(issued);
  if (where.json)
    where.out->write_json({{"status", "issued"},
                           {"key", given.key},
                           {"label", given.cert},
                           {"file", state.file()},
                           {"certificate", cert}});
  else
    where.out->write_text("enrolled " + given.key + " with the CA " + given.ca + "\n" +
                          cert_text(1, given.cert, cert) + "saved " +
                          tools::printable(state.file()) + "\n");
  return 0;
}

void add_limits(CLI::App *command, enroll_options *given) {
  command
      ->add_option(
          "--polls", given->polls,
          "Give up after so many polls, 600 seconds apart; 0: at the first PENDING, without a"
          " poll. By default the command polls until the CA decides")
      ->check(tools::check_number)
      ->check(CLI::Range(0, INT_MAX))
      ->type_name("N");
  command
      ->add_option(
          "--timeout", given->timeout_s,
          "Give up a request that is still pending after so many seconds; by default never")
      ->check(tools::check_number)
      ->check(CLI::Range(1u, longest_timeout_s))
      ->type_name("SECONDS");
}

}  // namespace

void add_enroll_command(CLI::App &app, action *chosen) {
  auto given = std::make_shared<enroll_options>();
  CLI::App *command =
      app.add_subcommand("enroll", "Get a certificate for a key from a provisioned CA by SCEP");
  command->add_option("--key", given->key, "The key's label")->required();
  command->add_option("--ca", given->ca, "The CA's label")->capture_default_str();
  command->add_option("--cert", given->cert, "The label for the certificate")
      ->capture_default_str();
  command
      ->add_option("--subject", given->subject,
                   "The name to ask for, most specific part first: \"CN=device, O=Example\"")
      ->required();
  add_limits(command, given.get());
  command->add_flag("--replace", given->replace, "Replace a certificate of this label");
  add_state_option(command, &given->state);
  command->footer(
      std::string(
          "Examples:\n"
          "  pkictl enroll --ca office --key device --subject \"CN=device, O=Example\"\n"
          "  pkictl enroll --key device --subject 'CN=device, O=\"Example, Inc.\"'\n\n"
          "The device's serial number and secret go along, encrypted for the CA. The\n"
          "reference board library reads them from the files serialnumber and secret in\n"
          "the folder $BOARD_INFO_DIR (/etc/board by default). While the CA answers\n"
          "PENDING the command waits and polls; Ctrl-C ends it.\n\n"
          "Exit code 1 says that no certificate was kept. Whether the CA may still issue it\n"
          "is in the \"status\" that --json prints: \"pending\" (enroll again to go on) or\n"
          "\"rejected\" (\"failure_info\" in \"error\" has the CA's reason, if it gave one);\n"
          "\"issued\" with exit code 0. Other failures have none.\n\n") +
      state_footer + common_footer);
  command->callback([=] { *chosen = [=](const context &where) { return enroll(where, *given); }; });
}

}  // namespace pkictl
