// How the OCSP room answers, rightly and wrongly. The same words stand on the command line, for
// every answer, and in a request's query, for that answer.
#ifndef TOOLS_PKILAB_OCSP_OPTIONS_H
#define TOOLS_PKILAB_OCSP_OPTIONS_H

#include <optional>
#include <string>
#include <vector>

#include "tools/pkilab/option_words.h"

namespace pkilab {

enum class ocsp_signer { issuer, delegated, other_ca, stranger, impostor };
enum class ocsp_responder_id { name, key, other_name };
enum class ocsp_nonce { mirror, none, wrong };
enum class ocsp_cert_id { asked, other_serial, other_issuer, sha256 };
enum class ocsp_body { message, no_message, no_bytes, no_basic };

struct ocsp_options {
  std::optional<int> status;  // V_OCSP_CERTSTATUS_*; without it, what is true
  std::optional<int> second;  // a second answer for the same certificate, behind the first
  long response_status = 0;
  ocsp_body body = ocsp_body::message;
  std::string response_type = "1.3.6.1.5.5.7.48.1.1";  // id-pkix-ocsp-basic

  ocsp_signer signer = ocsp_signer::issuer;
  bool signing_usage = true;            // of a delegated responder's certificate: its
  bool no_check = true;                 // extensions id-kp-OCSPSigning, id-pkix-ocsp-nocheck,
  std::optional<std::string> ocsp_aia;  // authorityInfoAccess with our URL and this query,
  long valid_from = -24L * 60 * 60;     // and its times, in seconds from when it is made
  long valid_until = 3650L * 24 * 60 * 60;
  bool with_cert = true;  // the signer's certificate is in the answer
  ocsp_responder_id id = ocsp_responder_id::name;
  bool damaged_signature = false;
  std::string digest = "SHA256";

  ocsp_nonce nonce = ocsp_nonce::mirror;
  ocsp_cert_id cert_id = ocsp_cert_id::asked;
  bool answers = true;
  long others = 0;  // so many answers for other certificates come first
  answer_time produced_at = 0L;
  answer_time this_update = 0L;
  std::optional<answer_time> next_update = 3600L;

  int http_status = 200;
  std::string content_type = "application/ocsp-response";
};

// Takes one word, "NAME" or "NAME=VALUE". Throws tools::usage_failure.
void set_ocsp_option(const std::string &word, ocsp_options *options);

// Takes every word of a query, with its "%XX" decoded. Throws tools::usage_failure.
void set_ocsp_options(const std::string &query, ocsp_options *options);

// A line an option.
std::string ocsp_option_list();
std::vector<std::string> ocsp_option_names();

}  // namespace pkilab

#endif
