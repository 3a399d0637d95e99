// What CRLs the CRL room publishes, good and bad ones. The same words stand on the command line,
// for every CRL, and in a request's query, for that CRL.
#ifndef TOOLS_PKILAB_CRL_OPTIONS_H
#define TOOLS_PKILAB_CRL_OPTIONS_H

#include <optional>
#include <string>
#include <vector>

#include "tools/pkilab/option_words.h"

namespace pkilab {

enum class crl_signer { issuer, delegated, other_ca, stranger };
enum class crl_akid { key, whole, wrong, none };
enum class crl_scope { all, user, ca, attribute };
enum class crl_body { plain, pkcs7, pkcs7_certs, no_crl };

// An entry beside those for what is revoked.
struct crl_entry_wish {
  std::string serial;  // hexadecimal
  int reason = -1;     // a CRLReason; -1: none is given
};

// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): in the order of their meaning
struct crl_options {
  std::optional<std::string> number;  // decimal; without it, the time
  bool has_number = true;
  std::optional<std::string> delta;   // decimal: the base's number
  std::vector<std::string> freshest;  // URLs, or paths of the lab's
  bool indirect = false;
  std::optional<unsigned> reasons;  // bit N is the ReasonFlags bit N
  crl_scope scope = crl_scope::all;
  std::vector<std::string> idp_names;  // URLs, or paths of the lab's
  bool idp_relative = false;

  answer_time this_update = 0L;
  std::optional<answer_time> next_update = 24L * 60 * 60;

  crl_signer signer = crl_signer::issuer;
  bool crl_sign = true;    // of a delegated signer's certificate: the key usage cRLSign, and
  bool same_name = false;  // the CA's own subject
  std::optional<std::string> signer_dp;  // cRLDistributionPoints with our URL and this query
  bool damaged_signature = false;
  std::string digest = "SHA256";
  crl_akid akid = crl_akid::key;
  std::vector<std::string> critical;        // OIDs of unknown extensions
  std::vector<std::string> entry_critical;  // the same, in each entry that is not generated

  long generated = 0;  // so many made-up entries come first
  bool reason_in_each = false;
  std::vector<crl_entry_wish> entries;  // these come last
  bool lists_revoked = true;

  crl_body body = crl_body::plain;
  bool announce_length = true;
  int http_status = 200;
  std::optional<std::string> content_type;  // without it, what fits the body
};

// Takes one word, "NAME" or "NAME=VALUE". Throws tools::usage_failure.
void set_crl_option(const std::string &word, crl_options *options);

// Takes every word of a query, with its "%XX" decoded. Throws tools::usage_failure.
void set_crl_options(const std::string &query, crl_options *options);

// A line an option.
std::string crl_option_list();
std::vector<std::string> crl_option_names();

// The URL of a lab's CRL; `authority` is its "ADDRESS:PORT".
std::string crl_url(const std::string &authority, const std::string &ca_name,
                    const std::string &query);

constexpr int reason_bit_max = 8;

// The bit of ReasonFlags for a CRLReason, 0 for none given; -1 where there is no such bit.
int reason_bit(int reason);

}  // namespace pkilab

#endif
