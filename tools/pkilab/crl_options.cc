#include "tools/pkilab/crl_options.h"

#include <limits>

#include "tools/pkilab/day.h"
#include "tools/pkilab/revocations.h"

namespace pkilab {

namespace {

constexpr long most_generated = 100'000'000;
constexpr int remove_from_crl = 8;

// A cRLNumber has up to 20 octets (RFC 5280, 5.2.3); so a few more digits show what is too long.
std::string decimal(const std::string &text) {
  constexpr size_t max_digits = 60;
  if (text.empty() || text.size() > max_digits ||
      text.find_first_not_of("0123456789") != std::string::npos)
    refuse_value(text, "a number of at most 60 digits");
  return text;
}

int reason_value(const std::string &text) {
  choices<int> reasons = {{"removeFromCRL", remove_from_crl}};
  int number = 0;
  for (const std::string &name : revocation_reasons()) {
    if (!name.empty())
      reasons.emplace(name, number);
    number++;
  }
  return choice_value<int>(text, reasons);
}

// "keyCompromise,superseded"
unsigned reason_list(const std::string &text) {
  unsigned bits = 0;
  for (size_t at = 0; at <= text.size();) {
    size_t end = std::min(text.find(',', at), text.size());
    int bit = reason_bit(reason_value(text.substr(at, end - at)));
    if (bit < 0)
      refuse_value(text, "a list of reasons to revoke; removeFromCRL is none");
    bits |= 1u << bit;
    at = end + 1;
  }
  return bits;
}

// "10C4" or "10C4:keyCompromise"
crl_entry_wish entry_value(const std::string &text) {
  size_t mark = text.find(':');
  crl_entry_wish wish;
  wish.serial = text.substr(0, mark);
  if (!tools::parse_serial(wish.serial))
    refuse_value(wish.serial, "a serial number; write it as in 10C4 or 10C4:keyCompromise");
  if (mark != std::string::npos)
    wish.reason = reason_value(text.substr(mark + 1));
  return wish;
}

std::string place(const std::string &text) {
  if (!text.starts_with('/') && text.find(':') == std::string::npos)
    refuse_value(text, "a URL, or a path of the lab's such as /crl/issuing.crl");
  return text;
}

void set_times(crl_options *options, long this_update, long next_update) {
  options->this_update = this_update;
  options->next_update = next_update;
}

using word_text = const std::string &;
using into = crl_options *;

constexpr option_row<crl_options> rows[] = {
    {"number", "N", "the cRLNumber; the time in seconds unless it is given",
     [](word_text value, into options) { options->number = decimal(value); }},
    {"no-number", "", "leaves the cRLNumber out",
     [](word_text, into options) { options->has_number = false; }},
    {"delta", "N", "is a delta CRL for the base with that cRLNumber",
     [](word_text value, into options) { options->delta = decimal(value); }},
    {"freshest", "PLACE", "names its delta CRL, a URL or a path, in freshestCRL; several times",
     [](word_text value, into options) { options->freshest.push_back(place(value)); }},
    {"indirect", "", "lists what the other CAs revoked too, with their names",
     [](word_text, into options) { options->indirect = true; }},
    {"reasons", "LIST", "is for these reasons only, as in keyCompromise,superseded",
     [](word_text value, into options) { options->reasons = reason_list(value); }},
    {"only", "WHAT", "is for user, ca or attribute certificates only",
     [](word_text value, into options) {
       options->scope = choice_value<crl_scope>(
           value,
           {{"user", crl_scope::user}, {"ca", crl_scope::ca}, {"attribute", crl_scope::attribute}});
     }},
    {"idp-name", "PLACE", "is for this distribution point, a URL or a path; several times",
     [](word_text value, into options) { options->idp_names.push_back(place(value)); }},
    {"idp-relative", "", "is for a distribution point with a name relative to the issuer's",
     [](word_text, into options) { options->idp_relative = true; }},
    {"empty", "", "lists nothing of what is revoked",
     [](word_text, into options) { options->lists_revoked = false; }},
    {"entry", "HEX[:REASON]",
     "lists this serial number too; removeFromCRL is a reason; several times",
     [](word_text value, into options) { options->entries.push_back(entry_value(value)); }},
    {"entries", "N", "lists N made-up serial numbers first, up to 100,000,000",
     [](word_text value, into options) {
       options->generated = number_value(value, 0, most_generated);
     }},
    {"reason-in-each", "", "gives each of those a reason",
     [](word_text, into options) { options->reason_in_each = true; }},
    {"this-update", "TIME", "seconds from now; what is no number is sent as it is",
     [](word_text value, into options) { options->this_update = time_value(value); }},
    {"next-update", "TIME", "the same; 86400 unless it is given",
     [](word_text value, into options) { options->next_update = time_value(value); }},
    {"no-next-update", "", "leaves nextUpdate out",
     [](word_text, into options) { options->next_update.reset(); }},
    {"expired", "", "was to be replaced a day ago",
     [](word_text, into options) { set_times(options, -2 * day, -day); }},
    {"future", "", "is of tomorrow",
     [](word_text, into options) { set_times(options, day, 2 * day); }},
    {"signer", "WHO", "issuer, delegated (whom the CA certified for it), other-ca or stranger",
     [](word_text value, into options) {
       options->signer = choice_value<crl_signer>(value, {{"issuer", crl_signer::issuer},
                                                          {"delegated", crl_signer::delegated},
                                                          {"other-ca", crl_signer::other_ca},
                                                          {"stranger", crl_signer::stranger}});
     }},
    {"same-name", "", "gives the delegated signer the CA's own name",
     [](word_text, into options) { options->same_name = true; }},
    {"no-crl-sign", "", "gives the delegated signer no cRLSign",
     [](word_text, into options) { options->crl_sign = false; }},
    {"signer-dp", "QUERY",
     "names our URL with this query, or \"\", in the delegated signer's certificate",
     [](word_text value, into options) { options->signer_dp = value; }},
    {"damaged-signature", "", "flips a bit in the signature",
     [](word_text, into options) { options->damaged_signature = true; }},
    {"digest", "NAME", "signs with this digest",
     [](word_text value, into options) { options->digest = digest_value(value); }},
    {"akid", "", "names the signer's issuer and serial number, not only its key",
     [](word_text, into options) { options->akid = crl_akid::whole; }},
    {"wrong-akid", "", "names another key in the authorityKeyIdentifier",
     [](word_text, into options) { options->akid = crl_akid::wrong; }},
    {"no-akid", "", "leaves the authorityKeyIdentifier out",
     [](word_text, into options) { options->akid = crl_akid::none; }},
    {"critical", "OID", "has this critical extension; several times",
     [](word_text value, into options) { options->critical.push_back(oid_value(value)); }},
    {"entry-critical", "OID", "has this critical extension in each entry that is not made up",
     [](word_text value, into options) { options->entry_critical.push_back(oid_value(value)); }},
    {"pkcs7", "", "sends the CRL in a PKCS#7",
     [](word_text, into options) { options->body = crl_body::pkcs7; }},
    {"pkcs7-certs", "", "the same, with the signer's certificate and the CA's",
     [](word_text, into options) { options->body = crl_body::pkcs7_certs; }},
    {"no-crl", "", "sends octets that are no CRL",
     [](word_text, into options) { options->body = crl_body::no_crl; }},
    {"no-length", "", "announces no Content-Length",
     [](word_text, into options) { options->announce_length = false; }},
    {"http-status", "N", "answers with this HTTP status (100 to 999)",
     [](word_text value, into options) {
       options->http_status = static_cast<int>(number_value(value, 100, 999));
     }},
    {"content-type", "TYPE", "calls the answer so; an empty TYPE leaves the line out",
     [](word_text value, into options) { options->content_type = header_value(value); }},
};

constexpr option_table<crl_options> table("CRL", rows);

}  // namespace

void set_crl_option(const std::string &word, crl_options *options) {
  table.set(word, options);
}

void set_crl_options(const std::string &query, crl_options *options) {
  table.set_query(query, options);
}

std::vector<std::string> crl_option_names() {
  return table.names();
}

std::string crl_option_list() {
  return table.list();
}

std::string crl_url(const std::string &authority, const std::string &ca_name,
                    const std::string &query) {
  std::string url = "http://" + authority + "/crl/" + ca_name + ".crl";
  return query.empty() ? url : url + "?" + query;
}

int reason_bit(int reason) {
  constexpr int privilege_withdrawn = 9;
  constexpr int aa_compromise = 10;
  switch (reason) {
    case remove_from_crl:
      return -1;
    case privilege_withdrawn:
    case aa_compromise:
      return reason - 2;
    default:
      return std::max(reason, 0);
  }
}

}  // namespace pkilab
