#include "tools/common/scep_message.h"

#include <libpki/attributes.h>
#include <libpki/oids.h>
#include <libpki/scep_msg.h>
#include <openssl/err.h>
#include <openssl/objects.h>

#include <charconv>

#include "tools/common/failure.h"
#include "tools/common/keys.h"
#include "tools/common/text.h"

namespace tools {

namespace {

std::optional<std::string> text_attribute(PKCS7 *message, pki_oid_row row) {
  const char *text = nullptr;
  if (get_string_attr(message, pki_nid_list[row], &text) != 0)
    return std::nullopt;
  return text;
}

std::optional<std::string> octets_attribute(PKCS7 *message, pki_oid_row row) {
  const unsigned char *octets = nullptr;
  int length = 0;
  int nid = pki_nid_list[row];
  if (get_os_attr_val(message, nid, &octets) != 0 || get_os_attr_len(message, nid, &length) != 0 ||
      !octets)
    return std::nullopt;
  return std::string(octets, octets + length);
}

std::string object_name(const X509_ALGOR *algorithm) {
  int nid = algorithm ? OBJ_obj2nid(algorithm->algorithm) : NID_undef;
  return nid == NID_undef ? "" : OBJ_nid2sn(nid);
}

PKCS7_SIGNED *signed_part(PKCS7 *message) {
  return message && PKCS7_type_is_signed(message) ? message->d.sign : nullptr;
}

bool is_white_space(char character) {
  return character == ' ' || character == '\n' || character == '\r' || character == '\t';
}

// Text whose length is a multiple of four, with at most two "=" and these at its end.
std::optional<std::string> decode_base64(const std::string &text) {
  static constexpr std::string_view digits =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  size_t end = text.find_first_not_of(digits);
  size_t padding = end == std::string::npos ? 0 : text.size() - end;
  if (text.empty() || text.size() % 4 != 0 || padding > 2 ||
      text.find_first_not_of('=', text.size() - padding) != std::string::npos)
    return std::nullopt;
  std::vector<unsigned char> octets(text.size() / 4 * 3);
  std::vector<unsigned char> in(text.begin(), text.end());
  if (EVP_DecodeBlock(octets.data(), in.data(), static_cast<int>(in.size())) < 0)
    return std::nullopt;
  return std::string(octets.begin(), octets.end() - static_cast<long>(padding));
}

}  // namespace

scep_outside read_outside(PKCS7 *message) {
  scep_outside read;
  read.type = text_attribute(message, PKI_OID_SCEP_MESSAGE_TYPE);
  read.status = text_attribute(message, PKI_OID_SCEP_PKI_STATUS);
  read.fail_info = text_attribute(message, PKI_OID_SCEP_FAIL_INFO);
  read.transaction_id = text_attribute(message, PKI_OID_SCEP_TRANSACTION_ID);
  read.sender_nonce = octets_attribute(message, PKI_OID_SCEP_SENDER_NONCE);
  read.recipient_nonce = octets_attribute(message, PKI_OID_SCEP_RECIPIENT_NONCE);
  return read;
}

int scep_number(const std::optional<std::string> &text) {
  int number = -1;
  if (!text)
    return -1;
  auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), number);
  bool whole = error == std::errc() && end == text->data() + text->size();
  return whole && number >= 0 ? number : -1;
}

std::string scep_type_name(int type) {
  switch (type) {
    case SCEP_CERT_REP:
      return "CertRep";
    case scep_renewal_req:
      return "RenewalReq";
    case SCEP_PKCS_REQ:
      return "PKCSReq";
    case SCEP_GET_CERT_INITIAL:
      return "GetCertInitial";
    case SCEP_GET_CERT:
      return "GetCert";
    case scep_get_crl:
      return "GetCRL";
    default:
      return "";
  }
}

std::string scep_status_name(int status) {
  switch (status) {
    case SCEP_STATUS_SUCCESS:
      return "SUCCESS";
    case SCEP_STATUS_FAILURE:
      return "FAILURE";
    case SCEP_STATUS_PENDING:
      return "PENDING";
    default:
      return "";
  }
}

const std::vector<std::string> &scep_fail_info_names() {
  static const std::vector<std::string> names = {"badAlg", "badMessageCheck", "badRequest",
                                                 "badTime", "badCertId"};
  return names;
}

std::string scep_fail_info_name(int fail_info) {
  const std::vector<std::string> &names = scep_fail_info_names();
  bool known = fail_info >= 0 && fail_info < static_cast<int>(names.size());
  return known ? names[static_cast<size_t>(fail_info)] : "";
}

std::string scep_name_and_number(const std::string &text, std::string (*name)(int)) {
  std::string known = name(scep_number(text));
  return known.empty() ? text : known + " (" + text + ")";
}

PKCS7_SIGNER_INFO *first_signer(PKCS7 *message) {
  const PKCS7_SIGNED *part = signed_part(message);
  return part ? sk_PKCS7_SIGNER_INFO_value(part->signer_info, 0) : nullptr;
}

std::string digest_name(PKCS7 *message) {
  const PKCS7_SIGNER_INFO *signer = first_signer(message);
  return signer ? object_name(signer->digest_alg) : "";
}

STACK_OF(X509) * carried_certs(PKCS7 *message) {
  const PKCS7_SIGNED *part = signed_part(message);
  return part ? part->cert : nullptr;
}

pkcs7_ptr read_envelope(PKCS7 *message) {
  const PKCS7_SIGNED *part = signed_part(message);
  const PKCS7 *inner = part ? part->contents : nullptr;
  const ASN1_OCTET_STRING *data = inner && PKCS7_type_is_data(inner) ? inner->d.data : nullptr;
  if (!data)
    return nullptr;
  const unsigned char *octets = ASN1_STRING_get0_data(data);
  pkcs7_ptr envelope = decode_pkcs7(std::string(octets, octets + ASN1_STRING_length(data)));
  bool is_envelope = envelope && PKCS7_type_is_enveloped(envelope.get()) && envelope->d.enveloped;
  return is_envelope ? std::move(envelope) : nullptr;
}

std::string cipher_name(PKCS7 *envelope) {
  const PKCS7_ENC_CONTENT *content = envelope ? envelope->d.enveloped->enc_data : nullptr;
  return content ? object_name(content->algorithm) : "";
}

pkcs7_ptr decode_pkcs7(std::string_view der) {
  const std::string octets(der);
  const auto *at = reinterpret_cast<const unsigned char *>(octets.data());
  pkcs7_ptr message(d2i_PKCS7(nullptr, &at, static_cast<long>(octets.size())));
  ERR_clear_error();
  return message;
}

std::string pkcs7_der(PKCS7 *message) {
  unsigned char *der = nullptr;
  int length = i2d_PKCS7(message, &der);
  if (length < 0)
    throw failure("cannot encode a message: " + openssl_reason());
  std::string octets(der, der + length);
  OPENSSL_free(der);
  return octets;
}

std::optional<std::string> decode_message_text(std::string_view text) {
  std::string base64 = percent_decode(text);
  std::erase_if(base64, is_white_space);
  return decode_base64(base64);
}

std::optional<std::string> query_value(std::string_view query, std::string_view name) {
  while (!query.empty()) {
    std::string_view pair = query.substr(0, query.find('&'));
    query.remove_prefix(std::min(query.size(), pair.size() + 1));
    if (pair.size() > name.size() && pair.starts_with(name) && pair[name.size()] == '=')
      return std::string(pair.substr(name.size() + 1));
  }
  return std::nullopt;
}

}  // namespace tools
