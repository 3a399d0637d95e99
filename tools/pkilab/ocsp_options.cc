#include "tools/pkilab/ocsp_options.h"

#include <openssl/ocsp.h>

#include <limits>

#include "tools/pkilab/day.h"

namespace pkilab {

namespace {

int cert_status(const std::string &text) {
  return choice_value<int>(text, {{"good", V_OCSP_CERTSTATUS_GOOD},
                                  {"revoked", V_OCSP_CERTSTATUS_REVOKED},
                                  {"unknown", V_OCSP_CERTSTATUS_UNKNOWN}});
}

long response_status(const std::string &text) {
  static const choices<long> names = {{"successful", 0},    {"malformedRequest", 1},
                                      {"internalError", 2}, {"tryLater", 3},
                                      {"sigRequired", 5},   {"unauthorized", 6}};
  auto found = names.find(text);
  return found == names.end() ? number_value(text, 0, std::numeric_limits<int>::max())
                              : found->second;
}

using word_text = const std::string &;
using into = ocsp_options *;

constexpr option_row<ocsp_options> rows[] = {
    {"status", "STATUS", "good, revoked or unknown, whatever is true",
     [](word_text value, into options) { options->status = cert_status(value); }},
    {"second", "STATUS", "answers a second time for the same certificate, with this status",
     [](word_text value, into options) { options->second = cert_status(value); }},
    {"response-status", "N",
     "malformedRequest, internalError, tryLater, sigRequired, unauthorized or any number",
     [](word_text value, into options) { options->response_status = response_status(value); }},
    {"no-message", "", "answers with octets that are no OCSP response",
     [](word_text, into options) { options->body = ocsp_body::no_message; }},
    {"no-bytes", "", "leaves the response bytes out",
     [](word_text, into options) { options->body = ocsp_body::no_bytes; }},
    {"no-basic", "", "sends response bytes that are no basic response",
     [](word_text, into options) { options->body = ocsp_body::no_basic; }},
    {"response-type", "OID", "calls the response bytes something else",
     [](word_text value, into options) { options->response_type = oid_value(value); }},
    {"signer", "WHO", "issuer, delegated (a responder of its), other-ca, stranger or impostor",
     [](word_text value, into options) {
       options->signer = choice_value<ocsp_signer>(value, {{"issuer", ocsp_signer::issuer},
                                                           {"delegated", ocsp_signer::delegated},
                                                           {"other-ca", ocsp_signer::other_ca},
                                                           {"stranger", ocsp_signer::stranger},
                                                           {"impostor", ocsp_signer::impostor}});
     }},
    {"no-eku", "", "gives the delegated responder no id-kp-OCSPSigning",
     [](word_text, into options) { options->signing_usage = false; }},
    {"no-nocheck", "", "gives the delegated responder no id-pkix-ocsp-nocheck",
     [](word_text, into options) { options->no_check = false; }},
    {"signer-aia", "QUERY",
     "names our URL with this query, or \"\", in the delegated responder's certificate",
     [](word_text value, into options) { options->ocsp_aia = value; }},
    {"expired", "", "uses a delegated responder that expired a day ago",
     [](word_text, into options) {
       options->valid_from = -10 * day;
       options->valid_until = -day;
     }},
    {"not-yet-valid", "", "uses a delegated responder that will be valid in ten years",
     [](word_text, into options) {
       options->valid_from = 3650 * day;
       options->valid_until = 7300 * day;
     }},
    {"no-cert", "", "leaves the signer's certificate out",
     [](word_text, into options) { options->with_cert = false; }},
    {"id", "HOW", "names the responder by name, by key (its hash) or by other-name",
     [](word_text value, into options) {
       options->id =
           choice_value<ocsp_responder_id>(value, {{"name", ocsp_responder_id::name},
                                                   {"key", ocsp_responder_id::key},
                                                   {"other-name", ocsp_responder_id::other_name}});
     }},
    {"digest", "NAME", "signs with this digest",
     [](word_text value, into options) { options->digest = digest_value(value); }},
    {"damaged-signature", "", "flips a bit in the signature",
     [](word_text, into options) { options->damaged_signature = true; }},
    {"nonce", "HOW", "mirror, the request's; none; or wrong, one that nobody sent",
     [](word_text value, into options) {
       options->nonce = choice_value<ocsp_nonce>(value, {{"mirror", ocsp_nonce::mirror},
                                                         {"none", ocsp_nonce::none},
                                                         {"wrong", ocsp_nonce::wrong}});
     }},
    {"cert-id", "HOW",
     "answers for an other-serial, an other-issuer, or with a sha256 certificate id",
     [](word_text value, into options) {
       options->cert_id =
           choice_value<ocsp_cert_id>(value, {{"asked", ocsp_cert_id::asked},
                                              {"other-serial", ocsp_cert_id::other_serial},
                                              {"other-issuer", ocsp_cert_id::other_issuer},
                                              {"sha256", ocsp_cert_id::sha256}});
     }},
    {"no-answers", "", "sends no single response",
     [](word_text, into options) { options->answers = false; }},
    {"others", "N", "sends N single responses for other certificates first",
     [](word_text value, into options) { options->others = number_value(value, 0, 1000000); }},
    {"produced-at", "TIME", "seconds from now; what is no number is sent as it is",
     [](word_text value, into options) { options->produced_at = time_value(value); }},
    {"this-update", "TIME", "the same",
     [](word_text value, into options) { options->this_update = time_value(value); }},
    {"next-update", "TIME", "the same; 3600 unless it is given",
     [](word_text value, into options) { options->next_update = time_value(value); }},
    {"no-next-update", "", "leaves nextUpdate out",
     [](word_text, into options) { options->next_update.reset(); }},
    {"http-status", "N", "answers with this HTTP status (100 to 999)",
     [](word_text value, into options) {
       options->http_status = static_cast<int>(number_value(value, 100, 999));
     }},
    {"content-type", "TYPE", "calls the answer so; an empty TYPE leaves the line out",
     [](word_text value, into options) { options->content_type = header_value(value); }},
};

constexpr option_table<ocsp_options> table("OCSP", rows);

}  // namespace

void set_ocsp_option(const std::string &word, ocsp_options *options) {
  table.set(word, options);
}

void set_ocsp_options(const std::string &query, ocsp_options *options) {
  table.set_query(query, options);
}

std::vector<std::string> ocsp_option_names() {
  return table.names();
}

std::string ocsp_option_list() {
  return table.list();
}

}  // namespace pkilab
