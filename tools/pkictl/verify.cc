// pkictl verify: would a host of the library accept this certificate, and why?
#include <libpki/store.h>
#include <libpki/verify.h>
#include <openssl/err.h>
#include <openssl/x509_vfy.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <set>
#include <vector>

#include "tools/common/cert_text.h"
#include "tools/common/command_line.h"
#include "tools/common/failure.h"
#include "tools/common/files.h"
#include "tools/common/keys.h"
#include "tools/pkictl/command.h"
#include "tools/pkictl/cost.h"
#include "tools/pkictl/files_option.h"
#include "tools/pkictl/http_url.h"
#include "tools/pkictl/library.h"
#include "tools/pkictl/report.h"
#include "tools/pkictl/state.h"
#include "tools/pkictl/state_store.h"
#include "tools/pkictl/verdict.h"
#include "tools/pkictl/verify_listener.h"
#include "tools/pkictl/verify_report.h"

namespace pkictl {

namespace {

struct verify_options {
  std::string cert;
  std::vector<std::string> chain;
  std::vector<std::string> trust;
  std::string flavour = "internet";
  std::string state;
  bool has_ocsp = false;
  std::string ocsp;
  std::string ocsp_signer;
  std::vector<std::string> crls;
  bool cost = false;
};

using certs_ptr = std::unique_ptr<STACK_OF(X509), tools::free_with<[](STACK_OF(X509) * certs) {
                                    sk_X509_pop_free(certs, X509_free);
                                  }>>;
using x509_store_ptr = std::unique_ptr<X509_STORE, tools::free_with<X509_STORE_free>>;
using context_ptr = std::unique_ptr<X509_STORE_CTX, tools::free_with<X509_STORE_CTX_free>>;
using empty_list_ptr = std::unique_ptr<STACK, tools::free_with<OPENSSL_sk_free>>;

void push(STACK_OF(X509) * certs, X509 *cert) {
  tools::require_memory(X509_up_ref(cert) == 1);
  if (sk_X509_push(certs, cert) > 0)
    return;
  X509_free(cert);
  throw tools::failure("out of memory");
}

certs_ptr trusted_in(const std::vector<std::string> &files) {
  certs_ptr certs(sk_X509_new_null());
  tools::require_memory(certs != nullptr);
  for (const std::string &file : files)
    for (const tools::cert_ptr &cert : tools::load_certificates(file))
      push(certs.get(), cert.get());
  return certs;
}

// Enters the CAs of the state folder, where there is one, and collects their roots.
void add_saved_roots(const verify_options &given, STACK_OF(X509) * trusted) {
  if (!state_folder::is_known(given.state))
    return;
  saved_state kept = state_folder::to_read(given.state, "provision").load();
  for (const auto &[label, saved] : kept.cas) {
    tools::ca_info_ptr ca = enter_ca(label, saved);
    for (int i = 0; i < OPENSSL_sk_num(ca->trusted_roots); i++)
      push(trusted, static_cast<X509 *>(OPENSSL_sk_value(ca->trusted_roots, i)));
  }
}

certs_ptr find_trusted(const verify_options &given) {
  certs_ptr trusted = trusted_in(given.trust);
  add_saved_roots(given, trusted.get());
  if (sk_X509_num(trusted.get()) < 1)
    throw tools::failure(
        "nothing is trusted: give --trust FILE, or provision a CA that names trusted roots" +
        (given.state.empty() ? "" : "; there is none in " + given.state));
  return trusted;
}

// Behind those of --chain, which the person chose.
void add_saved_untrusted(STACK_OF(X509) * untrusted) {
  const STACK *saved = pki_store->provisioned_certs;
  for (int i = 0; i < OPENSSL_sk_num(saved); i++)
    push(untrusted, static_cast<X509 *>(OPENSSL_sk_value(saved, i)));
}

// A status rule for every certificate, asked before the certificate's own sources.
void add_responder(const verify_options &given) {
  if (!given.has_ocsp)
    return;
  tools::cert_ptr signer;
  if (!given.ocsp_signer.empty())
    signer = tools::load_certificate(given.ocsp_signer);
  empty_list_ptr every_cert(OPENSSL_sk_new_null());
  tools::require_memory(every_cert != nullptr);
  unsigned char believe_signer = signer ? 1 : 0;
  require_ok("cannot add the responder " + given.ocsp,
             pki_add_ocsp_info(nullptr, every_cert.get(), given.ocsp.c_str(), signer.get(),
                               believe_signer, 0, 0));
}

using crl_ptr = std::unique_ptr<crl_info, tools::free_with<free_crl_info>>;

// The same for CRLs: one source, behind the responder.
void add_crls(const verify_options &given) {
  if (given.crls.empty())
    return;
  empty_list_ptr every_cert(OPENSSL_sk_new_null());
  empty_list_ptr list(OPENSSL_sk_new_null());
  tools::require_memory(every_cert && list);
  std::vector<crl_ptr> crls;
  for (const std::string &url : given.crls) {
    crls.emplace_back(create_crl_info(url.c_str(), 0, PKI_ALL_REASONS, 0, nullptr, nullptr));
    tools::require_memory(crls.back() && OPENSSL_sk_push(list.get(), crls.back().get()) > 0);
  }
  require_ok("cannot add the CRLs", pki_add_crl_info(nullptr, every_cert.get(), list.get(), 0, 0));
}

bool is_reported(const json &certs, int depth, const std::string &sha256) {
  return std::any_of(certs.begin(), certs.end(), [&](const json &cert) {
    return cert["depth"] == depth && cert.value("sha256", "") == sha256;
  });
}

// Certificates of the chain that the verification did not come to are in the report too.
void add_unjudged(const STACK_OF(X509) * chain, json *certs) {
  for (int depth = sk_X509_num(chain) - 1; depth >= 0; depth--) {
    json cert = {{"depth", depth}, {"verdict", "not judged"}};
    cert.update(cert_json(sk_X509_value(chain, depth)));
    cert["steps"] = json::array();
    if (!is_reported(*certs, depth, cert["sha256"]))
      certs->push_back(std::move(cert));
  }
  std::stable_sort(certs->begin(), certs->end(), [](const json &one, const json &other) {
    return one["depth"].get<int>() > other["depth"].get<int>();
  });
}

void mark_trusted(const STACK_OF(X509) * trusted, json *certs) {
  std::set<std::string> fingerprints;
  for (int i = 0; i < sk_X509_num(trusted); i++)
    fingerprints.insert(tools::fingerprint_text(sk_X509_value(trusted, i)));
  for (json &cert : *certs)
    cert["trusted"] = fingerprints.count(cert.value("sha256", "")) > 0;
}

x509_store_ptr make_trust_store(const STACK_OF(X509) * trusted) {
  x509_store_ptr store(X509_STORE_new());
  tools::require_memory(store != nullptr);
  for (int i = 0; i < sk_X509_num(trusted); i++)
    tools::require_memory(X509_STORE_add_cert(store.get(), sk_X509_value(trusted, i)) == 1);
  return store;
}

json verify_cert(const verify_options &given, X509 *cert, STACK_OF(X509) * untrusted,
                 const STACK_OF(X509) * trusted) {
  x509_store_ptr store = make_trust_store(trusted);
  context_ptr context(X509_STORE_CTX_new());
  tools::require_memory(context &&
                        X509_STORE_CTX_init(context.get(), store.get(), cert, untrusted) == 1);
  X509_STORE_CTX_set_verify_cb(context.get(), given.flavour == "local"
                                                  ? zv_cv_cert_validator_local
                                                  : zv_cv_cert_validator_internet);
  verify_listener listener;
  bool good = X509_verify_cert(context.get()) == 1;
  int error = X509_STORE_CTX_get_error(context.get());
  ERR_clear_error();
  json report = {{"file", given.cert},
                 {"verdict", good ? "good" : "rejected"},
                 {"flavour", given.flavour},
                 {"error", nullptr},
                 {"certificates", listener.certificates()}};
  if (error != X509_V_OK)
    report["error"] = {{"number", error}, {"text", X509_verify_cert_error_string(error)}};
  add_unjudged(X509_STORE_CTX_get0_chain(context.get()), &report["certificates"]);
  mark_trusted(trusted, &report["certificates"]);
  return report;
}

void check_usage(const verify_options &given) {
  if (given.has_ocsp)
    require_http_url("--ocsp", given.ocsp);
  for (const std::string &url : given.crls)
    if (!is_http_url(url.c_str()))
      throw tools::usage_failure("--crl \"" + url +
                                 "\" is no URL that can be fetched; give one that begins with"
                                 " http://, and a file to 'pkictl crl find'");
}

// A script finds the line of stderr where every other failure has it.
void add_rejection(const std::string &reason, const std::string &message, json *report) {
  json &error = (*report)["error"];
  if (error.is_null())
    error["text"] = reason;
  error["message"] = message;
}

std::set<std::string> names_of(const std::vector<STACK_OF(X509) *> &lists) {
  std::set<std::string> names;
  for (const STACK_OF(X509) * list : lists)
    for (int i = 0; i < sk_X509_num(list); i++)
      names.insert(tools::name_text(X509_get_subject_name(sk_X509_value(list, i))));
  return names;
}

int verify(const context &where, const verify_options &given) {
  check_usage(given);
  cost_meter meter;
  tools::cert_ptr cert =
      tools::load_certificate(given.cert, "; put the rest into a file for --chain");
  certs_ptr untrusted = trusted_in(given.chain);
  start_library();
  certs_ptr trusted = find_trusted(given);
  add_saved_untrusted(untrusted.get());
  add_responder(given);
  add_crls(given);
  json report = verify_cert(given, cert.get(), untrusted.get(), trusted.get());
  if (given.cost)
    report["cost"] = meter.read();
  bool good = report["verdict"] == "good";
  std::string message;
  if (!good) {
    std::string reason = rejection_reason(report, names_of({untrusted.get(), trusted.get()}));
    message = given.cert + " is rejected: " + reason;
    add_rejection(reason, message, &report);
  }
  if (where.json)
    where.out->write_json(report);
  else
    where.out->write_text(verify_text(report));
  if (good)
    return tools::exit_done;
  tools::complain("pkictl", message);
  return tools::exit_failed;
}

constexpr const char *verify_footer =
    "Examples:\n"
    "  pkictl verify server.pem --chain inter.pem --trust root.pem\n"
    "  pkictl verify device.pem --ocsp http://127.0.0.1:8080/ocsp\n\n"
    "Trusted are the roots of the CAs in the folder --state, by default\n"
    "$XDG_STATE_HOME/pkictl (where that is an absolute path) or\n"
    "~/.local/state/pkictl, and the certificates of --trust. The additional\n"
    "certificates of those CAs complete chains, as those of --chain do, and their\n"
    "status rules apply. The tree shows the chain from its top down, each rule, and\n"
    "each source of a status: what it answered, how long that took, and until when it\n"
    "holds.\n\n"
    "-v shows the library's log lines on stderr; --json prints JSON.\n"
    "Exit codes: 0 good, 1 rejected, 2 wrong usage or a file that cannot be used.";

}  // namespace

void add_verify_command(CLI::App &app, action *chosen) {
  auto given = std::make_shared<verify_options>();
  CLI::App *command =
      app.add_subcommand("verify", "Judge a certificate as a host of the library does");
  command->add_option("CERT", given->cert, "The certificate (PEM or DER)")->required();
  add_files_option(command, "--chain", &given->chain, "A file of further, untrusted certificates");
  add_files_option(command, "--trust", &given->trust, "A file of trusted certificates");
  command
      ->add_option("--flavour", given->flavour,
                   "internet: with statuses; local: without, and without validity periods")
      ->check(CLI::IsMember({"internet", "local"}))
      ->capture_default_str();
  CLI::Option *ocsp = command->add_option(
      "--ocsp", given->ocsp,
      "A responder (http) to ask about every certificate, before those that the certificate names;"
      " the rules of the state's CAs are asked before it");
  ocsp->type_name("URL");
  command
      ->add_option(
          "--ocsp-signer", given->ocsp_signer,
          "A certificate whose owner may sign the answers of --ocsp, besides the issuer of the"
          " certificate in question and whom that has delegated")
      ->type_name("FILE")
      ->needs(ocsp);
  command
      ->add_option("--crl", given->crls,
                   "A CRL (http) to look up in what no rule of the state's CAs and not --ocsp has"
                   " answered, before the CRLs that the certificate names; may be given again")
      ->allow_extra_args(false)
      ->option_text("URL");
  add_state_option(command, &given->state);
  add_cost_option(command, &given->cost);
  command->footer(verify_footer);
  command->callback([=] {
    given->has_ocsp = ocsp->count() > 0;
    *chosen = [=](const context &where) {
      return fail_with_two(where, [&] { return verify(where, *given); });
    };
  });
}

}  // namespace pkictl
