#include "tools/pkilab/ocsp_options.h"

#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/ocsp.h>

#include <charconv>
#include <limits>
#include <map>
#include <string_view>

#include "tools/common/failure.h"
#include "tools/common/text.h"

namespace pkilab {

namespace {

constexpr long day = 24L * 60 * 60;

struct option_row {
  std::string_view name;
  std::string_view value;  // its name in the help; empty: takes none
  std::string_view text;
  void (*set)(const std::string &value, ocsp_options *options);
};

[[noreturn]] void refuse(const std::string &value, const std::string &wanted) {
  throw tools::usage_failure("'" + value + "' is not " + wanted);
}

long number(const std::string &text, long lowest, long highest) {
  long value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value < lowest || value > highest)
    refuse(text, "a number from " + std::to_string(lowest) + " to " + std::to_string(highest));
  return value;
}

template <class T>
using choices = std::map<std::string, T>;

template <class T>
T choose(const std::string &text, const choices<T> &from) {
  auto found = from.find(text);
  if (found != from.end())
    return found->second;
  std::string names;
  for (const auto &[name, value] : from)
    names += (names.empty() ? "one of " : ", ") + name;
  refuse(text, names);
}

int cert_status(const std::string &text) {
  return choose<int>(text, {{"good", V_OCSP_CERTSTATUS_GOOD},
                            {"revoked", V_OCSP_CERTSTATUS_REVOKED},
                            {"unknown", V_OCSP_CERTSTATUS_UNKNOWN}});
}

long response_status(const std::string &text) {
  static const choices<long> names = {{"successful", 0},    {"malformedRequest", 1},
                                      {"internalError", 2}, {"tryLater", 3},
                                      {"sigRequired", 5},   {"unauthorized", 6}};
  auto found = names.find(text);
  return found == names.end() ? number(text, 0, std::numeric_limits<int>::max()) : found->second;
}

// What is no number stands in the answer as it is.
ocsp_time parse_time(const std::string &text) {
  constexpr long longest = 1000L * 365 * day;
  bool is_number = !text.empty() && text.find_first_not_of("0123456789", text[0] == '-' ? 1 : 0) ==
                                        std::string::npos;
  // A GeneralizedTime is digits too, but its "Z" tells it apart.
  if (is_number)
    return number(text, -longest, longest);
  return text;
}

std::string object_identifier(const std::string &text) {
  ASN1_OBJECT *object = OBJ_txt2obj(text.c_str(), 1);
  ASN1_OBJECT_free(object);
  if (!object)
    refuse(text, "an object identifier as in 1.2.3.4");
  return text;
}

std::string digest_name(const std::string &text) {
  if (!EVP_get_digestbyname(text.c_str()))
    refuse(text, "a digest that OpenSSL knows; try SHA1");
  return text;
}

std::string header_value(const std::string &text) {
  return tools::printable(text);
}

using text = const std::string &;
using into = ocsp_options *;

constexpr option_row rows[] = {
    {"status", "STATUS", "good, revoked or unknown, whatever is true",
     [](text value, into options) { options->status = cert_status(value); }},
    {"second", "STATUS", "answers a second time for the same certificate, with this status",
     [](text value, into options) { options->second = cert_status(value); }},
    {"response-status", "N",
     "malformedRequest, internalError, tryLater, sigRequired, unauthorized or any number",
     [](text value, into options) { options->response_status = response_status(value); }},
    {"no-message", "", "answers with octets that are no OCSP response",
     [](text, into options) { options->body = ocsp_body::no_message; }},
    {"no-bytes", "", "leaves the response bytes out",
     [](text, into options) { options->body = ocsp_body::no_bytes; }},
    {"no-basic", "", "sends response bytes that are no basic response",
     [](text, into options) { options->body = ocsp_body::no_basic; }},
    {"response-type", "OID", "calls the response bytes something else",
     [](text value, into options) { options->response_type = object_identifier(value); }},
    {"signer", "WHO", "issuer, delegated (a responder of its), other-ca, stranger or impostor",
     [](text value, into options) {
       options->signer = choose<ocsp_signer>(value, {{"issuer", ocsp_signer::issuer},
                                                     {"delegated", ocsp_signer::delegated},
                                                     {"other-ca", ocsp_signer::other_ca},
                                                     {"stranger", ocsp_signer::stranger},
                                                     {"impostor", ocsp_signer::impostor}});
     }},
    {"no-eku", "", "gives the delegated responder no id-kp-OCSPSigning",
     [](text, into options) { options->signing_usage = false; }},
    {"no-nocheck", "", "gives the delegated responder no id-pkix-ocsp-nocheck",
     [](text, into options) { options->no_check = false; }},
    {"signer-aia", "QUERY",
     "names our URL with this query, or \"\", in the delegated responder's certificate",
     [](text value, into options) { options->ocsp_aia = value; }},
    {"expired", "", "uses a delegated responder that expired a day ago",
     [](text, into options) {
       options->valid_from = -10 * day;
       options->valid_until = -day;
     }},
    {"not-yet-valid", "", "uses a delegated responder that will be valid in ten years",
     [](text, into options) {
       options->valid_from = 3650 * day;
       options->valid_until = 7300 * day;
     }},
    {"no-cert", "", "leaves the signer's certificate out",
     [](text, into options) { options->with_cert = false; }},
    {"id", "HOW", "names the responder by name, by key (its hash) or by other-name",
     [](text value, into options) {
       options->id =
           choose<ocsp_responder_id>(value, {{"name", ocsp_responder_id::name},
                                             {"key", ocsp_responder_id::key},
                                             {"other-name", ocsp_responder_id::other_name}});
     }},
    {"digest", "NAME", "signs with this digest",
     [](text value, into options) { options->digest = digest_name(value); }},
    {"damaged-signature", "", "flips a bit in the signature",
     [](text, into options) { options->damaged_signature = true; }},
    {"nonce", "HOW", "mirror, the request's; none; or wrong, one that nobody sent",
     [](text value, into options) {
       options->nonce = choose<ocsp_nonce>(value, {{"mirror", ocsp_nonce::mirror},
                                                   {"none", ocsp_nonce::none},
                                                   {"wrong", ocsp_nonce::wrong}});
     }},
    {"cert-id", "HOW",
     "answers for an other-serial, an other-issuer, or with a sha256 certificate id",
     [](text value, into options) {
       options->cert_id = choose<ocsp_cert_id>(value, {{"asked", ocsp_cert_id::asked},
                                                       {"other-serial", ocsp_cert_id::other_serial},
                                                       {"other-issuer", ocsp_cert_id::other_issuer},
                                                       {"sha256", ocsp_cert_id::sha256}});
     }},
    {"no-answers", "", "sends no single response",
     [](text, into options) { options->answers = false; }},
    {"others", "N", "sends N single responses for other certificates first",
     [](text value, into options) { options->others = number(value, 0, 1000000); }},
    {"produced-at", "TIME", "seconds from now; what is no number is sent as it is",
     [](text value, into options) { options->produced_at = parse_time(value); }},
    {"this-update", "TIME", "the same",
     [](text value, into options) { options->this_update = parse_time(value); }},
    {"next-update", "TIME", "the same; 3600 unless it is given",
     [](text value, into options) { options->next_update = parse_time(value); }},
    {"no-next-update", "", "leaves nextUpdate out",
     [](text, into options) { options->next_update.reset(); }},
    {"http-status", "N", "answers with this HTTP status (100 to 999)",
     [](text value, into options) {
       options->http_status = static_cast<int>(number(value, 100, 999));
     }},
    {"content-type", "TYPE", "calls the answer so; an empty TYPE leaves the line out",
     [](text value, into options) { options->content_type = header_value(value); }},
};

// As it is typed: "NAME" or "NAME=VALUE".
std::string word_of(const option_row &row) {
  std::string name(row.name);
  return row.value.empty() ? name : name + "=" + std::string(row.value);
}

const option_row &find_row(const std::string &name) {
  for (const option_row &row : rows)
    if (row.name == name)
      return row;
  throw tools::usage_failure("there is no OCSP option '" + name +
                             "'; pkilab serve --help lists them");
}

}  // namespace

void set_ocsp_option(const std::string &word, ocsp_options *options) {
  size_t mark = word.find('=');
  const option_row &row = find_row(word.substr(0, mark));
  bool has_value = mark != std::string::npos;
  if (has_value && row.value.empty())
    throw tools::usage_failure("OCSP option '" + word_of(row) + "' takes no value");
  if (!has_value && !row.value.empty())
    throw tools::usage_failure("OCSP option '" + std::string(row.name) +
                               "' needs a value: " + word_of(row));
  try {
    row.set(has_value ? word.substr(mark + 1) : "", options);
  } catch (const tools::usage_failure &error) {
    throw tools::usage_failure("OCSP option '" + std::string(row.name) + "': " + error.what());
  }
}

void set_ocsp_options(const std::string &query, ocsp_options *options) {
  for (size_t at = 0; at < query.size();) {
    size_t end = std::min(query.find('&', at), query.size());
    if (end > at)
      set_ocsp_option(tools::percent_decode(query.substr(at, end - at)), options);
    at = end + 1;
  }
}

std::vector<std::string> ocsp_option_names() {
  std::vector<std::string> names;
  for (const option_row &row : rows)
    names.emplace_back(row.name);
  return names;
}

std::string ocsp_option_list() {
  std::string text;
  for (const option_row &row : rows) {
    std::string name = word_of(row);
    name.resize(23, ' ');
    text += name + std::string(row.text) + "\n";
  }
  return text;
}

}  // namespace pkilab
