// SCEP messages (RFC 8894) as anybody can read them, without a key.
#ifndef TOOLS_COMMON_SCEP_MESSAGE_H
#define TOOLS_COMMON_SCEP_MESSAGE_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/common/ossl.h"

namespace tools {

// Further message types and the reasons of a refusal, beside those of libpki/scep_msg.h.
enum { scep_renewal_req = 17, scep_get_crl = 22 };
enum scep_fail_info { bad_alg, bad_message_check, bad_request, bad_time, bad_cert_id };

// The authenticated attributes of the first signer; what is absent, or of another type, has no
// value. Texts and octets as sent.
struct scep_outside {
  std::optional<std::string> type;
  std::optional<std::string> status;
  std::optional<std::string> fail_info;
  std::optional<std::string> transaction_id;
  std::optional<std::string> sender_nonce;
  std::optional<std::string> recipient_nonce;
};

// libpki_init must have run.
scep_outside read_outside(PKCS7 *message);

// The number that an attribute's text is, or -1.
int scep_number(const std::optional<std::string> &text);

// "PKCSReq", "PENDING", "badTime"; "" for an unknown number.
std::string scep_type_name(int type);
std::string scep_status_name(int status);
std::string scep_fail_info_name(int fail_info);

// "PENDING (3)"; the text as it is where its number has no name.
std::string scep_name_and_number(const std::string &text, std::string (*name)(int));

// "badAlg", ..., "badCertId": names in the order of scep_fail_info.
const std::vector<std::string> &scep_fail_info_names();

// The first signer; null when there is none.
PKCS7_SIGNER_INFO *first_signer(PKCS7 *message);
// OpenSSL's name of its digest, or "".
std::string digest_name(PKCS7 *message);

// The certificates that a SignedData carries; borrowed, possibly null.
STACK_OF(X509) * carried_certs(PKCS7 *message);

// The EnvelopedData in the content; null when the content is empty or something else.
pkcs7_ptr read_envelope(PKCS7 *message);
// OpenSSL's name of an EnvelopedData's cipher, or "".
std::string cipher_name(PKCS7 *envelope);

pkcs7_ptr decode_pkcs7(std::string_view der);
// Throws failure.
std::string pkcs7_der(PKCS7 *message);

// The octets of base64 text as it stands in a URL: "%XX" is decoded, white space ignored, and a
// "+" is a plus. No value when it is no base64.
std::optional<std::string> decode_message_text(std::string_view text);

// The value of a query's parameter, as it stands there.
std::optional<std::string> query_value(std::string_view query, std::string_view name);

}  // namespace tools

#endif
