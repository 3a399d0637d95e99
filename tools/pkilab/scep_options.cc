#include "tools/pkilab/scep_options.h"

#include "tools/common/help_formatter.h"

namespace pkilab {

const std::vector<misdeed_row> &misdeed_rows() {
  static const std::vector<misdeed_row> rows = {
      {misdeed::wrong_transaction_id, "wrong-transaction-id", "answers another transaction"},
      {misdeed::wrong_nonce, "wrong-nonce", "sends back a nonce that nobody sent"},
      {misdeed::no_nonce, "no-nonce", "sends no recipient nonce"},
      {misdeed::stranger_signs, "stranger-signs", "lets a stranger sign, with a name of its own"},
      {misdeed::impostor_signs, "impostor-signs",
       "lets a stranger sign, with the CA's name and serial number"},
      {misdeed::stranger_envelope, "stranger-envelope", "encrypts the certificates for a stranger"},
      {misdeed::no_certificates, "no-certificates", "sends an empty list of certificates"},
      {misdeed::other_certificate, "other-certificate", "sends the root's certificate instead"},
      {misdeed::no_status, "no-status", "leaves the status out"},
      {misdeed::wrong_type, "wrong-type", "calls its answer a PKCSReq"},
      {misdeed::wrong_key, "wrong-key", "issues the certificate for another key"},
      {misdeed::no_message, "no-message", "answers with octets that are no message"},
      {misdeed::http_404, "http-404", "answers with HTTP status 404"},
      {misdeed::http_500, "http-500", "answers with HTTP status 500"},
  };
  return rows;
}

std::string misdeed_list() {
  std::string text;
  for (const misdeed_row &row : misdeed_rows())
    text += tools::help_row(row.name, row.text);
  return text;
}

}  // namespace pkilab
