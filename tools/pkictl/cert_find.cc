// pkictl cert find: an issued certificate, looked up at its CA.
#include <libpki/error.h>
#include <libpki/names.h>
#include <libpki/scep_client.h>
#include <libpki/store.h>
#include <libpki/util.h>

#include <CLI/CLI.hpp>
#include <memory>

#include "tools/common/failure.h"
#include "tools/common/files.h"
#include "tools/common/keys.h"
#include "tools/common/name_advice.h"
#include "tools/common/serial.h"
#include "tools/pkictl/command.h"
#include "tools/pkictl/exported.h"
#include "tools/pkictl/failure_report.h"
#include "tools/pkictl/last_complaint.h"
#include "tools/pkictl/library.h"
#include "tools/pkictl/report.h"
#include "tools/pkictl/state.h"
#include "tools/pkictl/state_store.h"

namespace pkictl {

namespace {

struct cert_find_options {
  std::string serial;
  std::string issuer;
  std::string ca = "ca";
  std::string key;
  export_options to;
};

using scep_req_info_ptr = std::unique_ptr<scep_req_info, tools::free_with<free_scep_req_info>>;

template <class Method>
Method *first_method(const STACK *list, int mechanism) {
  for (int i = 0; i < OPENSSL_sk_num(list); i++) {
    auto *method = static_cast<Method *>(OPENSSL_sk_value(list, i));
    if (method->mechanism == mechanism)
      return method;
  }
  return nullptr;
}

// The look-up names no algorithms, so those of the enrollment are taken.
scep_req_info_ptr make_access(const ca_info &ca) {
  auto *look_up = first_method<cert_query_info>(ca.cert_lookup_methods, PKI_CERT_QUERY_SCEP);
  if (!look_up)
    throw tools::failure("the CA's document names no SCEP look-up");
  const auto *query = static_cast<scep_query_info *>(look_up->data);
  if (!query->url || !query->ca_cert)
    throw tools::failure("the CA's document names no certificate for the SCEP look-up");
  scep_req_info_ptr access(alloc_scep_req_info());
  if (!access || X509_up_ref(query->ca_cert) != 1)
    throw tools::failure("out of memory");
  access->ca_cert = query->ca_cert;
  access->url = pki_strdup(query->url);
  if (auto *method = first_method<cert_req_info>(ca.cert_req_methods, PKI_CERT_REQ_SCEP)) {
    const auto *enrollment = static_cast<scep_req_info *>(method->data);
    access->digest = pki_strdup(enrollment->digest);
    access->cipher = pki_strdup(enrollment->cipher);
  }
  return access;
}

void read_issuer(const std::string &text, X509_NAME **name) {
  last_complaint heard;
  int code = parse_rfc1779_str(text.c_str(), name);
  if (code == PKI_OK)
    return;
  std::string told = failure_text("cannot read --issuer " + text, code, heard.text());
  if (tools::is_name_code(code))
    throw tools::library_usage_failure(code, told);
  throw tools::library_failure(code, told);
}

cert_info_ptr make_query(const cert_find_options &given, X509 *ca_cert) {
  cert_info_ptr query(alloc_cert_info());
  if (!query)
    throw tools::failure("out of memory");
  query->serial = tools::require_serial(given.serial).release();
  if (given.issuer.empty())
    query->issuer = X509_NAME_dup(X509_get_subject_name(ca_cert));
  else
    read_issuer(given.issuer, &query->issuer);
  return query;
}

// The library takes whatever certificate the CA hands out.
bool is_what_was_asked_for(const cert_info &query) {
  return X509_NAME_cmp(X509_get_issuer_name(query.cert), query.issuer) == 0 &&
         ASN1_INTEGER_cmp(X509_get0_serialNumber(query.cert), query.serial) == 0;
}

[[noreturn]] void fail(int code, const last_complaint &heard) {
  std::string what = "cannot find the certificate";
  if (code == PKI_SCEP_REQ_REJ)
    throw scep_failure(code,
                       what + ": " + code_text_and_number(code) + ": the CA has none, or refuses" +
                           (heard.rejection().empty() ? "" : ": " + heard.rejection()),
                       "rejected", heard.rejection());
  if (code == PKI_INVALID_SCEP_RSP)
    throw tools::library_failure(code, what + ": " + code_text_and_number(code) +
                                           ": what the CA answered is no good answer to this"
                                           " request" +
                                           heard.behind_colon());
  throw tools::library_failure(code, failure_text(what, code, heard.text()));
}

int find(const context &where, const cert_find_options &given) {
  if (!given.to.out.empty())
    tools::require_free(given.to.out, given.to.force);
  state_folder state = state_folder::to_read(given.to.state, "provision");
  saved_state kept = state.load();
  const saved_ca &saved = state.ca_in(&kept, given.ca);
  const saved_key &pair = state.key_in(&kept, given.key);
  start_library();
  tools::ca_info_ptr ca = enter_ca(given.ca, saved);
  key_info_ptr key = enter_key(given.key, pair);
  scep_req_info_ptr access = make_access(*ca);
  cert_info_ptr query = make_query(given, access->ca_cert);
  last_complaint heard;
  int code = scep_qry_cert(query.get(), access.get(), key->key);
  if (code != PKI_OK)
    fail(code, heard);
  if (!is_what_was_asked_for(*query))
    throw tools::failure("the CA handed out another certificate than the one asked for");
  json cert = cert_json(query->cert);
  write_export(where, given.to, tools::cert_pem(query->cert), {{"certificate", cert}},
               "found\n" + cert_text(1, "certificate", cert));
  return 0;
}

}  // namespace

void add_cert_command(CLI::App &app, action *chosen) {
  CLI::App *cert = app.add_subcommand("cert", "Look certificates up and export them");
  cert->require_subcommand(1);
  cert->fallthrough();
  auto given = std::make_shared<cert_find_options>();
  CLI::App *command =
      cert->add_subcommand("find", "Fetch an issued certificate from its CA by SCEP GetCert");
  command
      ->add_option("SERIAL", given->serial,
                   "Its serial number in hexadecimal, as in 10C4, 0x10C4 or 10:C4; decimal as in"
                   " dec:4292")
      ->required();
  command->add_option("--key", given->key, "Label of the key that signs the request")->required();
  command->add_option("--ca", given->ca, "The CA's label")->capture_default_str();
  command->add_option("--issuer", given->issuer,
                      "Its issuer, most specific part first; the CA by default");
  add_export_options(command, &given->to,
                     "Examples:\n"
                     "  pkictl cert find 10C4 --key device --out found.pem\n\n");
  command->callback([=] { *chosen = [=](const context &where) { return find(where, *given); }; });
  add_cert_export_command(*cert, chosen);
}

}  // namespace pkictl
