// pkilab issue: a certificate of the lab's for a key or a PKCS#10 request.
#include <libpki/libpki.h>
#include <libpki/names.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <strings.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <map>
#include <memory>
#include <optional>

#include "tools/common/cert_text.h"
#include "tools/common/command_line.h"
#include "tools/common/failure.h"
#include "tools/common/files.h"
#include "tools/common/keys.h"
#include "tools/common/name_advice.h"
#include "tools/common/named_file.h"
#include "tools/pkilab/command.h"
#include "tools/pkilab/day.h"
#include "tools/pkilab/issued_certs.h"

namespace pkilab {

namespace {

using name_ptr = std::unique_ptr<X509_NAME, tools::free_with<X509_NAME_free>>;
using req_ptr = std::unique_ptr<X509_REQ, tools::free_with<X509_REQ_free>>;

struct issue_options {
  std::string folder;
  std::string request;
  std::string key;
  std::string new_key;
  std::string subject;
  std::string ca = "issuing";
  std::vector<std::string> ocsp_urls;
  std::vector<std::string> crl_urls;
  std::vector<std::string> freshest_crl_urls;
  std::string crl_issuer;
  std::vector<std::string> alt_names;
  int days = 365;
  std::string not_before;
  std::string not_after;
  std::string out;
  bool force = false;
};

req_ptr read_request(const std::string &path) {
  std::string bytes = tools::read_file(path);
  tools::bio_ptr bio(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
  req_ptr request(bio ? PEM_read_bio_X509_REQ(bio.get(), nullptr, nullptr, nullptr) : nullptr);
  if (!request) {
    const auto *at = reinterpret_cast<const unsigned char *>(bytes.data());
    request.reset(d2i_X509_REQ(nullptr, &at, static_cast<long>(bytes.size())));
  }
  ERR_clear_error();
  if (!request)
    throw tools::failure(path + " holds no PKCS#10 request (PEM or DER)");
  if (X509_REQ_verify(request.get(), X509_REQ_get0_pubkey(request.get())) != 1)
    throw tools::failure(path + " is not signed by its key; make the request anew");
  return request;
}

// Of a private key, a public one, or a certificate.
tools::key_ptr read_key(const std::string &path) {
  if (tools::read_file(path).find("PRIVATE KEY-----") != std::string::npos)
    return tools::load_private_key(path);
  return tools::load_public_key(path);
}

name_ptr read_subject(const std::string &text) {
  X509_NAME *name = nullptr;
  (void)libpki_init();
  if (int code = parse_rfc1779_str(text.c_str(), &name))
    throw tools::usage_failure("--subject " + text + " is no name; " +
                               tools::name_advice("subject", code));
  return name_ptr(name);
}

std::string joined(const std::vector<std::string> &words) {
  std::string text;
  for (const std::string &word : words)
    text += (text.empty() ? "" : ",") + word;
  return text;
}

void check_usage(const issue_options &given) {
  int sources = !given.request.empty() + !given.key.empty() + !given.new_key.empty();
  if (sources != 1)
    throw tools::usage_failure("give one of --csr, --key and --new-key");
  if (given.request.empty() && given.subject.empty())
    throw tools::usage_failure("give --subject, as in --subject \"CN=server, O=Example\"");
  tools::require_other_file(given.out, {given.new_key, given.key, given.request},
                            "give the certificate a file of its own");
  for (const std::string &name : ca::file_names()) {
    std::string own = given.folder + "/" + name;
    if (tools::is_same_file(given.out, own) ||
        (!given.new_key.empty() && tools::is_same_file(given.new_key, own)))
      throw tools::usage_failure(own + " is the lab's own; give what is made another name");
  }
  if (!given.new_key.empty())
    tools::require_free(given.new_key, given.force);
  tools::require_free(given.out, given.force);
  require_alt_names(joined(given.alt_names));
}

// A time_t of 32 bits ends in 2038.
time_t in_days(int days) {
  time_t span = 0;
  time_t then = 0;
  if (__builtin_mul_overflow(days, day, &span) ||
      __builtin_add_overflow(time(nullptr), span, &then))
    throw tools::usage_failure("--days " + std::to_string(days) +
                               " is later than this machine's clock can tell");
  return then;
}

void set_plain_wishes(const issue_options &given, cert_wishes *wishes) {
  wishes->ocsp_urls = given.ocsp_urls;
  wishes->crl_urls = given.crl_urls;
  wishes->freshest_crl_urls = given.freshest_crl_urls;
  wishes->alt_names = joined(given.alt_names);
  wishes->not_after = in_days(given.days);
  if (!given.not_before.empty())
    wishes->not_before = parse_time("--not-before", given.not_before);
  if (!given.not_after.empty())
    wishes->not_after = parse_time("--not-after", given.not_after);
}

// The lab's folder. It may be where the files are to go; left empty, it is removed again.
class lab_folder {
 public:
  explicit lab_folder(const std::string &path) : made_(tools::make_folders(path)) {}
  ~lab_folder() {
    for (; !made_.empty(); made_.pop_back())
      rmdir(made_.back().c_str());
  }
  lab_folder(const lab_folder &) = delete;
  lab_folder &operator=(const lab_folder &) = delete;

 private:
  std::vector<std::string> made_;
};

// A certificate and, where one is made, the private key for it.
class issued_files {
 public:
  explicit issued_files(const issue_options &given) : cert_(given.out, given.force) {
    if (!given.new_key.empty())
      key_.emplace(given.new_key, given.force);
  }

  // Both, or none.
  void write(X509 *cert, EVP_PKEY *key) {
    if (key_)
      key_->write(tools::private_pem(key), 0600);
    cert_.write(tools::cert_pem(cert), 0644);
    if (key_)
      key_->put();
    cert_.put();
    if (key_)
      key_->keep();
    cert_.keep();
  }

 private:
  tools::named_file cert_;
  std::optional<tools::named_file> key_;
};

// What nobody gets was not issued.
tools::cert_ptr issue_into(issued_files *files, const ca &keys, const issue_options &given,
                           const cert_wishes &wishes, EVP_PKEY *key) {
  issued_certs issued(keys);
  tools::cert_ptr cert = issued.issue(wishes, *keys.find(given.ca));
  try {
    files->write(cert.get(), key);
  } catch (const tools::failure &) {
    issued.forget(cert.get());
    throw;
  }
  return cert;
}

void require_order(const cert_wishes &wishes) {
  time_t begin = wishes.not_before.value_or(time(nullptr) - day);
  if (wishes.not_after.value_or(begin) < begin)
    throw tools::usage_failure(
        "the certificate would end before it begins; give an earlier"
        " --not-before, or a later end");
}

// A lab may want such certificates; a slip of the pen is told.
void warn_of_useless_urls(const char *option, const std::vector<std::string> &urls) {
  for (const std::string &url : urls)
    if (strncasecmp(url.c_str(), "http://", 7) != 0)
      tools::complain(
          "pkilab", std::string("warning: ") + option + " " + url + ": devices ask http URLs only");
}

int issue(const issue_options &given) {
  check_usage(given);
  warn_of_useless_urls("--ocsp", given.ocsp_urls);
  warn_of_useless_urls("--crl", given.crl_urls);
  warn_of_useless_urls("--freshest-crl", given.freshest_crl_urls);
  req_ptr request = given.request.empty() ? nullptr : read_request(given.request);
  name_ptr subject = given.subject.empty() ? nullptr : read_subject(given.subject);
  cert_wishes wishes;
  set_plain_wishes(given, &wishes);
  require_order(wishes);
  wishes.subject = subject ? subject.get() : X509_REQ_get_subject_name(request.get());
  tools::key_ptr key = given.key.empty() ? nullptr : read_key(given.key);
  tools::cert_ptr crl_issuer =
      given.crl_issuer.empty() ? nullptr : tools::load_certificate(given.crl_issuer);
  wishes.crl_issuer = crl_issuer ? X509_get_subject_name(crl_issuer.get()) : nullptr;
  bool is_new = !tools::file_exists(given.folder + "/issuing-cert.pem");
  lab_folder folder(given.folder);
  issued_files files(given);
  ca keys(given.folder);
  if (is_new)
    tools::complain("pkilab", "made a new lab in " + given.folder);
  if (!given.new_key.empty())
    key = keys.make_key();
  wishes.public_key = key ? key.get() : X509_REQ_get0_pubkey(request.get());
  tools::cert_ptr cert = issue_into(&files, keys, given, wishes, key.get());
  tools::print_done("issued " + tools::serial_text(X509_get0_serialNumber(cert.get())) + ": " +
                    tools::name_text(X509_get_subject_name(cert.get())) + "\n");
  return tools::exit_done;
}

}  // namespace

void add_issue_command(CLI::App &app, action *chosen) {
  auto given = std::make_shared<issue_options>();
  CLI::App *command = app.add_subcommand("issue", "Issue a certificate for a key or a request");
  auto text = [command](const char *option, std::string *value, const char *type,
                        const char *help) {
    return command->add_option(option, *value, help)->type_name(type);
  };
  text("--dir", &given->folder, "DIR", "Folder of the lab, which is made if need be")->required();
  text("--csr", &given->request, "FILE", "PKCS#10 request, PEM or DER");
  text("--key", &given->key, "FILE", "Private or public key, or a certificate that has it");
  text("--new-key", &given->new_key, "FILE", "Make a key, and write it to this file (mode 0600)");
  text("--subject", &given->subject, "NAME",
       "As in \"CN=server, O=Example\"; of the request unless it is given");
  text("--ca", &given->ca, "CA", "Which CA issues it")
      ->check(CLI::IsMember({"issuing", "additional", "root"}))
      ->capture_default_str();
  auto several = [command](const char *option, std::vector<std::string> *values, const char *type,
                           const char *help) {
    command->add_option(option, *values, std::string(help) + "; may be given several times")
        ->type_name(type)
        ->type_size(1)
        ->expected(1, 100);
  };
  several("--alt-name", &given->alt_names, "NAME", "As in DNS:localhost or IP:127.0.0.1");
  several("--ocsp", &given->ocsp_urls, "URL", "OCSP responder that the certificate names");
  several("--crl", &given->crl_urls, "URL", "CRL that the certificate names");
  several("--freshest-crl", &given->freshest_crl_urls, "URL",
          "Delta CRL that the certificate names");
  text("--crl-issuer", &given->crl_issuer, "FILE",
       "Certificate of whoever issues those CRLs, where that is not --ca");
  CLI::Option *days =
      command->add_option("--days", given->days, "Valid until so many days from now");
  days->check(tools::check_number)->check(CLI::Range(1, 36500))->capture_default_str();
  text("--not-before", &given->not_before, "TIME",
       "Valid from; 2031-05-06 or 2031-05-06T07:08:09Z; yesterday unless it is given");
  text("--not-after", &given->not_after, "TIME", "Valid until, instead of --days")->excludes(days);
  text("-o,--out", &given->out, "FILE", "Receives the certificate as PEM (mode 0644)")->required();
  command->add_flag("--force", given->force, "Replace files that are there");
  command->footer(
      "Examples:\n"
      "  pkilab issue --dir lab --new-key server-key.pem \\\n"
      "    --subject \"CN=server, O=Example\" --alt-name DNS:localhost --out server.pem\n\n"
      "Exit codes: 0 issued, 1 failed, 2 wrong usage.");
  command->callback([given, chosen] { *chosen = [given] { return issue(*given); }; });
}

time_t parse_time(const std::string &option, const std::string &text) {
  const std::string given = option + " " + text;
  for (const char *form : {"%Y-%m-%d", "%Y-%m-%dT%H:%M:%SZ"}) {
    struct tm parts = {};
    const char *end = strptime(text.c_str(), form, &parts);
    if (!end || *end)
      continue;
    int day_of_month = parts.tm_mday;
    errno = 0;
    time_t seconds = timegm(&parts);
    if (seconds == -1 && errno == EOVERFLOW)
      throw tools::usage_failure(given + " is not within what this machine's clock can tell");
    if (parts.tm_mday == day_of_month)
      return seconds;
  }
  throw tools::usage_failure(given + " is no time; write 2031-05-06 or 2031-05-06T07:08:09Z");
}

}  // namespace pkilab
