// pkictl cainfo show: the CA that a document describes.
#include <CLI/CLI.hpp>
#include <memory>

#include "tools/common/ca_info_reader.h"
#include "tools/common/ca_info_xml.h"
#include "tools/common/command_line.h"
#include "tools/common/failure.h"
#include "tools/common/files.h"
#include "tools/common/keys.h"
#include "tools/pkictl/command.h"
#include "tools/pkictl/last_complaint.h"
#include "tools/pkictl/library.h"
#include "tools/pkictl/report.h"
#include "tools/pkictl/signed_file.h"

namespace pkictl {

namespace {

struct cainfo_show_options {
  std::string file;
  std::string doc_key;
};

struct opened_document {
  std::string xml;
  std::string signature;  // "good", "not checked" or "none"
};

opened_document open_document(const cainfo_show_options &given) {
  std::string bytes = tools::read_file(given.file);
  opened_document opened;
  if (given.doc_key.empty()) {
    bool is_signed = false;
    opened.xml = open_unchecked(given.file, bytes, &is_signed);
    opened.signature = is_signed ? "not checked" : "none";
    return opened;
  }
  tools::key_ptr key = tools::load_public_key(given.doc_key);
  require_ok(given.file + " has no good signature", open_signed(bytes, key.get(), &opened.xml));
  opened.signature = "good";
  return opened;
}

std::string signature_line(const std::string &signature) {
  if (signature == "good")
    return "Signature: good\n\n";
  if (signature == "none")
    return "Signature: NONE, this is an unsigned document\n\n";
  return "Signature: NOT CHECKED, so anybody may have written this; give --doc-key\n\n";
}

tools::read_ca_info read_content(const cainfo_show_options &given, const opened_document &opened) {
  last_complaint heard;
  tools::read_ca_info read = tools::read_document(opened.xml);
  if (read.code != 0)
    throw tools::library_failure(
        read.code,
        failure_text("devices refuse what " + given.file + " says", read.code, heard.text()));
  return read;
}

int show(const context &where, const cainfo_show_options &given) {
  start_library();
  opened_document opened = open_document(given);
  tools::read_ca_info read = read_content(given, opened);
  json ca = ca_json(read.info.get(), read.additional_certs.get());
  std::string expires = tools::expires_text(opened.xml);
  if (ca["expires"].is_null() && !expires.empty())
    ca["expires"] = expires;
  if (where.json) {
    where.out->write_json({{"file", given.file}, {"signature", opened.signature}, {"ca", ca}});
    return tools::exit_done;
  }
  where.out->write_text(signature_line(opened.signature) + ca_text(ca));
  return tools::exit_done;
}

}  // namespace

void add_cainfo_show_command(CLI::App &cainfo, action *chosen) {
  auto given = std::make_shared<cainfo_show_options>();
  CLI::App *command = cainfo.add_subcommand("show", "Print the CA that a document describes");
  command->add_option("FILE", given->file, "The signed document (DER), or its XML")->required();
  command->add_option("--doc-key", given->doc_key,
                      "Check the signature with this public key or certificate (PEM or DER);"
                      " without it the signature is not checked");
  command->callback([=] { *chosen = [=](const context &where) { return show(where, *given); }; });
}

}  // namespace pkictl
