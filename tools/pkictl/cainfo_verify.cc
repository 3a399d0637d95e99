// pkictl cainfo verify: would a device take this document?
#include <CLI/CLI.hpp>
#include <memory>

#include "tools/common/ca_info_reader.h"
#include "tools/common/command_line.h"
#include "tools/common/failure.h"
#include "tools/common/files.h"
#include "tools/common/keys.h"
#include "tools/pkictl/command.h"
#include "tools/pkictl/ignored_elements.h"
#include "tools/pkictl/library.h"
#include "tools/pkictl/signed_file.h"

namespace pkictl {

namespace {

struct cainfo_verify_options {
  std::string file;
  std::string doc_key;
};

// The first thing that is wrong, as a failure of this text and code; nothing is wrong with 0.
struct verdict {
  std::string what;
  int code = 0;
  bool signature_good = false;
  std::string heard;  // of the library

  std::string text() const { return failure_text(what, code, heard); }
};

verdict judge(const context &where, const std::string &file, const std::string &message,
              EVP_PKEY *key) {
  std::string xml;
  int code = open_signed(message, key, &xml);
  if (code != 0)
    return {file + " has no good signature", code, false, ""};
  std::string heard;
  code = read_and_tell_ignored(where, xml, &heard).code;
  if (code != 0)
    return {file + " is signed well, but devices refuse what it says", code, true, heard};
  return {"", 0, true, ""};
}

json verdict_json(const cainfo_verify_options &given, const verdict &found) {
  json value = {{"file", given.file},
                {"valid", found.code == 0},
                {"signature", found.signature_good ? "good" : "bad"},
                {"content", !found.signature_good ? "not checked"
                            : found.code == 0     ? "good"
                                                  : "bad"}};
  if (found.code != 0)
    value["error"] = failure_json(found.code, found.text());
  return value;
}

int verify(const context &where, const cainfo_verify_options &given) {
  tools::key_ptr key = tools::load_public_key(given.doc_key);
  std::string message = tools::read_file(given.file);
  start_library();
  verdict found = judge(where, given.file, message, key.get());
  if (where.json)
    where.out->write_json(verdict_json(given, found));
  if (found.code != 0) {
    tools::complain("pkictl", found.text());
    return tools::exit_failed;
  }
  if (!where.json)
    where.out->write_text(given.file + ": good signature, good content\n");
  return tools::exit_done;
}

}  // namespace

void add_cainfo_verify_command(CLI::App &cainfo, action *chosen) {
  auto given = std::make_shared<cainfo_verify_options>();
  CLI::App *command =
      cainfo.add_subcommand("verify", "Check the signature and the content of a document");
  command->add_option("FILE", given->file, "The signed document (DER)")->required();
  command
      ->add_option("--doc-key", given->doc_key,
                   "The signer's public key or certificate (PEM or DER)")
      ->required();
  command->footer(std::string("0 says that a device takes the document, 1 that it does not.\n\n") +
                  common_footer);
  command->callback([=] { *chosen = [=](const context &where) { return verify(where, *given); }; });
}

}  // namespace pkictl
