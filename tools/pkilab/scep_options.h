// What the SCEP room does on purpose, and wrongly.
#ifndef TOOLS_PKILAB_SCEP_OPTIONS_H
#define TOOLS_PKILAB_SCEP_OPTIONS_H

#include <optional>
#include <set>
#include <string>
#include <vector>

namespace pkilab {

// One way each to answer wrongly; several can be had at once.
enum class misdeed {
  wrong_transaction_id,
  wrong_nonce,
  no_nonce,
  stranger_signs,
  impostor_signs,
  stranger_envelope,
  no_certificates,
  other_certificate,
  no_status,
  wrong_type,
  wrong_key,
  no_message,
  http_404,
  http_500
};

struct misdeed_row {
  misdeed what;
  std::string name;  // on the command line
  std::string text;  // in the help
};
const std::vector<misdeed_row> &misdeed_rows();

// A line a misdeed.
std::string misdeed_list();

struct scep_options {
  int pending = 0;  // so many times PENDING before a request is decided
  int refuse = -1;  // every request is refused with this failInfo; -1: none is
  std::set<misdeed> misdeeds;
  // Certificates name the lab's own OCSP responder, "/ocsp" with this query.
  std::optional<std::string> ocsp_query;
  // Certificates name the lab's CRL of their issuer, with this query.
  std::optional<std::string> crl_query;
  std::string save_folder;  // receives every message; "": none does
};

}  // namespace pkilab

#endif
