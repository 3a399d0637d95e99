// pkictl provision: what a device does with a CA-pointer URL, and what it then holds.
#include <libpki/error.h>
#include <libpki/store.h>

#include <CLI/CLI.hpp>
#include <memory>

#include "tools/common/ca_info_reader.h"
#include "tools/common/ca_info_xml.h"
#include "tools/common/command_line.h"
#include "tools/common/failure.h"
#include "tools/common/keys.h"
#include "tools/common/text.h"
#include "tools/pkictl/board_problem.h"
#include "tools/pkictl/command.h"
#include "tools/pkictl/fetched_document.h"
#include "tools/pkictl/http_url.h"
#include "tools/pkictl/last_complaint.h"
#include "tools/pkictl/library.h"
#include "tools/pkictl/report.h"
#include "tools/pkictl/signed_file.h"
#include "tools/pkictl/state.h"

namespace pkictl {

namespace {

struct provision_options {
  std::string url;
  std::string doc_key;
  std::string label = "ca";
  std::string state;
};

[[noreturn]] void fail(const provision_options &given, int code, const std::string &heard) {
  std::string what = "cannot provision " + given.url;
  if (code == PKI_FLASH_ERROR)
    throw tools::library_failure(code, what + ": " + code_text_and_number(code) + ": " +
                                           board_problem(board_wants::serial_number, heard));
  if (code == PKI_P7_DECODE_ERROR)
    throw tools::library_failure(code, what + ": " + code_text_and_number(code) +
                                           ": the answer is no whole PKCS#7 message; check the"
                                           " URL: this may be a web page");
  throw tools::library_failure(code, failure_text(what, code, heard));
}

void download(const provision_options &given, EVP_PKEY *key) {
  last_complaint heard;
  int code = pki_add_ca(given.label.c_str(), given.url.c_str(), key);
  if (code != PKI_OK)
    fail(given, code, heard.text());
}

// What became of the document.
struct kept_document {
  std::string file;          // "": it was not kept
  std::string replaced_url;  // of a CA of the same label; "": there was none
  std::string expires;       // as the document says
};

// The library does not hand the document out, so it is fetched once more to be kept.
kept_document keep(const provision_options &given, tools::key_ptr key) {
  if (!state_folder::is_known(given.state)) {
    tools::complain("pkictl", "note: the CA is not kept, as there is no home folder; give --state");
    return {};
  }
  std::string document = fetch_document(given.url);
  std::string xml;
  require_ok("cannot keep what " + given.url + " sent the second time",
             open_signed(document, key.get(), &xml));
  saved_ca ca = {given.url, document, std::move(key)};
  state_folder state(given.state);
  kept_document done = {state.file(), "", tools::expires_text(xml)};
  state.update([&](saved_state *kept) {
    saved_ca &place = kept->cas[given.label];
    done.replaced_url = place.url;
    place = std::move(ca);
  });
  return done;
}

std::string kept_text(const provision_options &given, const kept_document &kept) {
  if (kept.file.empty())
    return "";
  std::string text = "saved " + tools::printable(kept.file);
  if (!kept.replaced_url.empty())
    text +=
        ", in the place of the CA " + given.label + " from " + tools::printable(kept.replaced_url);
  return text + "\n";
}

json text_or_null(const std::string &text) {
  return text.empty() ? json(nullptr) : json(text);
}

int provision(const context &where, const provision_options &given) {
  require_http_url("URL", given.url);
  tools::key_ptr key = tools::load_public_key(given.doc_key);
  check_label("the CA", given.label);
  if (state_folder::is_known(given.state))
    (void)state_folder(given.state).load();  // one that cannot be read is told before any exchange
  start_library();
  download(given, key.get());
  tools::ca_info_ptr info(pki_find_ca_info_by_label(given.label.c_str()));
  if (!info)
    throw tools::failure("the store does not find the CA that was provisioned");
  json ca = ca_json(info.get(), pki_store->provisioned_certs);
  kept_document kept = keep(given, std::move(key));
  if (ca["expires"].is_null() && !kept.expires.empty())
    ca["expires"] = kept.expires;
  if (where.json)
    where.out->write_json({{"ca", ca},
                           {"file", text_or_null(kept.file)},
                           {"replaced", text_or_null(kept.replaced_url)}});
  else
    where.out->write_text(ca_text(ca) + kept_text(given, kept));
  return tools::exit_done;
}

}  // namespace

void add_provision_command(CLI::App &app, action *chosen) {
  auto given = std::make_shared<provision_options>();
  CLI::App *command = app.add_subcommand(
      "provision", "Download a CA-info document as a device does and print what is in the store");
  command->add_option("URL", given->url, "The CA-pointer URL (http)")->required();
  command
      ->add_option("--doc-key", given->doc_key,
                   "The document signer's public key or certificate (PEM or DER)")
      ->required();
  command->add_option("--label", given->label, "The CA's label; a CA of that label is replaced")
      ->capture_default_str();
  add_state_option(command, &given->state);
  command->footer(
      std::string(
          "Examples:\n"
          "  pkictl provision http://127.0.0.1:8080/ca-info \\\n"
          "    --doc-key doc-key.pub.pem --label office\n\n"
          "The device's serial number goes along in the query \"?serial=\". The reference\n"
          "board library reads it from the file serialnumber in the folder that the\n"
          "environment variable BOARD_INFO_DIR names (/etc/board by default). The document\n"
          "is then fetched once more, and kept for enroll and cert find.\n\n") +
      state_footer + common_footer);
  command->callback(
      [=] { *chosen = [=](const context &where) { return provision(where, *given); }; });
}

}  // namespace pkictl
