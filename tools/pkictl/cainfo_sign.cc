// pkictl cainfo sign: make a signed CA-info document, from a file or from options.
#include <openssl/evp.h>

#include <CLI/CLI.hpp>
#include <ctime>
#include <memory>

#include "tools/common/ca_info_reader.h"
#include "tools/common/ca_info_xml.h"
#include "tools/common/command_line.h"
#include "tools/common/failure.h"
#include "tools/common/files.h"
#include "tools/common/keys.h"
#include "tools/common/name_advice.h"
#include "tools/common/named_file.h"
#include "tools/pkictl/ca_info_use.h"
#include "tools/pkictl/command.h"
#include "tools/pkictl/files_option.h"
#include "tools/pkictl/ignored_elements.h"
#include "tools/pkictl/library.h"

namespace pkictl {

namespace {

struct cainfo_sign_options {
  std::string document;
  std::string key;
  std::string out;
  bool force = false;
  bool despite_faults = false;
  tools::ca_description ca;  // its certificates are named by the files below
  std::string scep_cert;
  std::vector<std::string> roots;
  std::vector<std::string> additional_certs;
};

const char *const expires_note =
    "note: moved Expires to the end, because devices stop reading a document at its expiry and"
    " refuse one that has elements behind it";

bool is_built_from_options(const cainfo_sign_options &given) {
  const tools::ca_description &ca = given.ca;
  for (const std::string *text :
       {&ca.issuer_name, &ca.expires, &ca.scep_url, &ca.digest, &ca.cipher, &ca.scep_get_cert_url,
        &ca.ldap_url, &ca.ocsp_url, &given.scep_cert})
    if (!text->empty())
      return true;
  return !given.roots.empty() || !given.additional_certs.empty();
}

void check_usage(const cainfo_sign_options &given) {
  bool built = is_built_from_options(given);
  if (!given.document.empty() && built)
    throw tools::usage_failure("give either DOC.xml or options that describe the CA, not both");
  if (given.document.empty() && !built)
    throw tools::usage_failure("give DOC.xml, or options that describe the CA; see --help");
  const tools::ca_description &ca = given.ca;
  if (ca.scep_url.empty() && !(ca.digest.empty() && ca.cipher.empty()))
    throw tools::usage_failure("--digest and --cipher need --scep-url");
  if (ca.scep_url.empty() && ca.scep_get_cert_url.empty() && !given.scep_cert.empty())
    throw tools::usage_failure("--scep-cert needs --scep-url or --scep-get-cert-url");
  if (!ca.digest.empty() && !EVP_get_digestbyname(ca.digest.c_str()))
    throw tools::usage_failure("OpenSSL knows no digest " + ca.digest + "; try SHA256");
  if (!ca.cipher.empty() && !EVP_get_cipherbyname(ca.cipher.c_str()))
    throw tools::usage_failure("OpenSSL knows no cipher " + ca.cipher + "; try DES-EDE3-CBC");
}

// "2031-05-06" and "2031-05-06T07:08:09Z" become an HTTP date; an HTTP date stays.
std::string http_date(const std::string &text) {
  if (text.empty())
    return text;
  for (const char *form : {"%Y-%m-%d", "%Y-%m-%dT%H:%M:%SZ", "%a, %d %b %Y %H:%M:%S GMT"}) {
    struct tm parts = {};
    const char *end = strptime(text.c_str(), form, &parts);
    if (!end || *end)
      continue;
    char date[64];
    int day = parts.tm_mday;
    timegm(&parts);  // also sets the weekday
    if (parts.tm_mday != day)
      continue;  // no such day
    strftime(date, sizeof date, "%a, %d %b %Y %H:%M:%S GMT", &parts);
    return date;
  }
  throw tools::usage_failure("--expires " + text +
                             " is no date; write 2031-05-06,"
                             " 2031-05-06T07:08:09Z or \"Tue, 06 May 2031 07:08:09 GMT\"");
}

std::vector<std::string> load_all(const std::vector<std::string> &paths) {
  std::vector<std::string> certs;
  for (const std::string &path : paths)
    for (const tools::cert_ptr &cert : tools::load_certificates(path))
      certs.push_back(tools::cert_der(cert.get()));
  return certs;
}

std::string build_document(const cainfo_sign_options &given) {
  tools::ca_description ca = given.ca;
  ca.expires = http_date(ca.expires);
  if (!given.scep_cert.empty()) {
    std::string der = tools::cert_der(tools::load_certificate(given.scep_cert).get());
    ca.scep_cert = der;
    ca.scep_get_cert_cert = der;
  }
  ca.roots = load_all(given.roots);
  ca.additional_certs = load_all(given.additional_certs);
  return tools::to_xml(ca);
}

tools::prepared_document make_document(const cainfo_sign_options &given) {
  if (given.document.empty())
    return {build_document(given), false};
  return tools::prepare_document(tools::read_file(given.document), given.document);
}

// A document with methods that never work is signed only by somebody who insists. Returns what is
// to be noted.
std::vector<std::string> check_use(const cainfo_sign_options &given, const ca_info &ca) {
  ca_info_use use = judge_use(ca);
  if (!use.faults.empty() && !given.despite_faults) {
    std::string text = use.faults[0] + "; --despite-faults signs it anyway";
    if (given.document.empty())
      throw tools::usage_failure(text);
    throw tools::failure(text);
  }
  std::vector<std::string> notes = use.faults;
  notes.insert(notes.end(), use.gaps.begin(), use.gaps.end());
  return notes;
}

// So is one that every device refuses.
std::vector<std::string> check_content(const context &where, const cainfo_sign_options &given,
                                       const std::string &xml) {
  std::string heard;
  tools::read_ca_info read = read_and_tell_ignored(where, xml, &heard);
  int code = read.code;
  if (code == 0)
    return check_use(given, *read.info);
  std::string text = failure_text("devices refuse this document", code, heard);
  if (given.despite_faults)
    return {text};
  text += "; --despite-faults signs it anyway";
  if (given.document.empty() && tools::is_name_code(code))
    throw tools::library_usage_failure(code, text);
  throw tools::library_failure(code, text);
}

// Devices do not look at the date; whoever gave it may have meant another year.
bool is_past(const std::string &expires) {
  struct tm parts = {};
  const char *end = strptime(expires.c_str(), "%a, %d %b %Y %H:%M:%S GMT", &parts);
  return end && !*end && timegm(&parts) <= time(nullptr);
}

void require_out_of_its_own(const cainfo_sign_options &given) {
  std::vector<std::string> inputs = {given.key, given.document, given.scep_cert};
  inputs.insert(inputs.end(), given.roots.begin(), given.roots.end());
  inputs.insert(inputs.end(), given.additional_certs.begin(), given.additional_certs.end());
  tools::require_other_file(given.out, inputs, "give the signed document a file of its own");
}

int sign(const context &where, const cainfo_sign_options &given) {
  check_usage(given);
  require_out_of_its_own(given);
  tools::require_free(given.out, given.force);
  tools::key_ptr key = tools::load_private_key(given.key);
  start_library();
  tools::prepared_document document = make_document(given);
  if (document.expires_moved)
    tools::complain("pkictl", expires_note);
  std::vector<std::string> notes = check_content(where, given, document.xml);
  std::string expires = tools::expires_text(document.xml);
  if (is_past(expires))
    notes.push_back("Expires is past: " + expires);
  std::string message = tools::sign_document(document.xml, key.get());
  tools::write_named_file(given.out, message, 0644, given.force);
  for (const std::string &note : notes)
    tools::complain("pkictl", "note: " + note);
  if (where.json)
    where.out->write_json({{"file", given.out},
                           {"size", message.size()},
                           {"document_size", document.xml.size()},
                           {"expires_moved", document.expires_moved}});
  else
    where.out->write_text("signed " + given.out + " (" + std::to_string(message.size()) +
                          " octets)\n");
  return tools::exit_done;
}

void add_description_options(CLI::App *command, cainfo_sign_options *given) {
  const char *group = "The CA, where no DOC.xml describes it";
  auto text = [&](const char *name, std::string *value, const char *help) {
    command->add_option(name, *value, help)->group(group);
  };
  text("--issuer-name", &given->ca.issuer_name,
       "The CA's name, most specific part first: \"CN=Example CA, O=Example\"");
  text("--expires", &given->ca.expires, "2031-05-06, 2031-05-06T07:08:09Z or an HTTP date");
  text("--scep-url", &given->ca.scep_url, "Where devices enroll by SCEP");
  text("--scep-cert", &given->scep_cert, "The SCEP CA's certificate, for both SCEP methods");
  text("--digest", &given->ca.digest, "Digest of SCEP messages, for example SHA256");
  text("--cipher", &given->ca.cipher, "Cipher of SCEP messages, for example DES-EDE3-CBC");
  text("--scep-get-cert-url", &given->ca.scep_get_cert_url, "Where certificates are looked up");
  text("--ldap-url", &given->ca.ldap_url, "Where certificates are looked up by LDAP");
  text("--ocsp-url", &given->ca.ocsp_url, "The CA's OCSP responder");
  add_files_option(command, "--root", &given->roots, "A file of trusted roots")->group(group);
  add_files_option(command, "--additional-cert", &given->additional_certs,
                   "A file of other certificates that devices shall know, not trust")
      ->group(group);
}

}  // namespace

void add_cainfo_sign_command(CLI::App &cainfo, action *chosen) {
  auto given = std::make_shared<cainfo_sign_options>();
  CLI::App *command = cainfo.add_subcommand("sign", "Sign a CA-info document");
  command->add_option("DOC.xml", given->document,
                      "The document; " DOCUMENT_FOLDER "/ca-info.md has its grammar");
  command->add_option("--key", given->key, "The signer's private key (PEM or DER)")->required();
  command->add_option("-o,--out", given->out, "The file to write (DER, mode 0644)")->required();
  command->add_flag("--force", given->force, "Replace a file that is there");
  command->add_flag("--despite-faults", given->despite_faults,
                    "Sign even what devices refuse or cannot use");
  add_description_options(command, given.get());
  command->footer(
      std::string("Examples:\n"
                  "  pkictl cainfo sign ca-info.xml --key doc-key.pem --out ca-info.p7\n"
                  "  pkictl cainfo sign --issuer-name \"CN=Example CA, O=Example\" \\\n"
                  "    --scep-url http://ca.example/scep --scep-cert ca.pem --root ca.pem \\\n"
                  "    --key doc-key.pem --out ca-info.p7\n\n"
                  "Keys and certificates are PEM or DER files; a key must not be encrypted.\n"
                  "Expires is always written as the last element: its date ends a device's\n"
                  "reading, so a document with elements behind it is refused with 37.\n\n") +
      common_footer);
  command->callback([=] { *chosen = [=](const context &where) { return sign(where, *given); }; });
}

}  // namespace pkictl
