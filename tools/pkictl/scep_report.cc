#include "tools/pkictl/scep_report.h"

#include <libpki/error.h>
#include <libpki/pkcs7.h>
#include <libpki/scep_msg.h>
#include <openssl/err.h>

#include "tools/common/cert_text.h"
#include "tools/common/failure.h"
#include "tools/common/keys.h"
#include "tools/common/scep_message.h"
#include "tools/common/text.h"
#include "tools/pkictl/library.h"
#include "tools/pkictl/report.h"
#include "tools/pkictl/scep_request_report.h"

namespace pkictl {

namespace {

json named(const std::optional<std::string> &text, std::string (*name)(int)) {
  return text ? json(tools::scep_name_and_number(*text, name)) : json(nullptr);
}

json hex_or_null(const std::optional<std::string> &octets) {
  return octets ? json(tools::hex(*octets)) : json(nullptr);
}

json issuer_and_serial_json(const PKCS7_ISSUER_AND_SERIAL *named_cert) {
  return {{"issuer", tools::name_text(named_cert->issuer)},
          {"serial", tools::serial_text(named_cert->serial)}};
}

json certs_json(STACK_OF(X509) * certs) {
  json list = json::array();
  for (int i = 0; i < sk_X509_num(certs); i++)
    list.push_back(cert_json(sk_X509_value(certs, i)));
  return list;
}

STACK_OF(PKCS7_RECIP_INFO) * recipients_of(PKCS7 *envelope) {
  return envelope->d.enveloped->recipientinfo;
}

// ---- payloads ----

using parse_function = int(PKCS7 *, X509 **, EVP_PKEY *, X509 *, void **);
using req_ptr = std::unique_ptr<X509_REQ, tools::free_with<X509_REQ_free>>;
using issuer_and_subject_ptr =
    std::unique_ptr<SCEP_ISSUER_AND_SUBJECT, tools::free_with<SCEP_ISSUER_AND_SUBJECT_free>>;
using issuer_and_serial_ptr =
    std::unique_ptr<PKCS7_ISSUER_AND_SERIAL, tools::free_with<PKCS7_ISSUER_AND_SERIAL_free>>;

json describe(X509_REQ *request) {
  return request_json(request);
}

json describe(SCEP_ISSUER_AND_SUBJECT *asked) {
  return {{"kind", "issuer and subject"},
          {"issuer", tools::name_text(asked->issuer)},
          {"subject", tools::name_text(asked->subject)}};
}

json describe(PKCS7_ISSUER_AND_SERIAL *asked) {
  json named_cert = issuer_and_serial_json(asked);
  return {{"kind", "issuer and serial number"},
          {"issuer", named_cert["issuer"]},
          {"serial", named_cert["serial"]}};
}

json describe(PKCS7 *list) {
  return {{"kind", "certificates"}, {"certificates", certs_json(tools::carried_certs(list))}};
}

struct opening {
  PKCS7 *message;
  EVP_PKEY *key;
  X509 *cert;
  int *code;
};

template <class Payload>
json open_payload(parse_function *parse, const opening &with) {
  void *opened = nullptr;
  *with.code = parse(with.message, nullptr, with.key, with.cert, &opened);
  Payload payload(static_cast<typename Payload::pointer>(opened));
  ERR_clear_error();
  return payload ? describe(payload.get()) : json(nullptr);
}

json open_by_type(const opening &with) {
  switch (tools::scep_number(tools::read_outside(with.message).type)) {
    case SCEP_CERT_REP:
      return open_payload<tools::pkcs7_ptr>(parse_scep_cert_rep, with);
    case SCEP_PKCS_REQ:
    case tools::scep_renewal_req:
      return open_payload<req_ptr>(parse_scep_cert_req, with);
    case SCEP_GET_CERT_INITIAL:
      return open_payload<issuer_and_subject_ptr>(parse_scep_get_cert_init, with);
    case SCEP_GET_CERT:
    case tools::scep_get_crl:
      return open_payload<issuer_and_serial_ptr>(parse_scep_get_cert, with);
    default:
      return {{"kind", "unknown"}};
  }
}

// A certificate that the envelope takes for its first recipient's: a recipient is known by issuer
// and serial number alone.
tools::cert_ptr first_recipient(PKCS7 *envelope, EVP_PKEY *key) {
  const PKCS7_RECIP_INFO *recipient = sk_PKCS7_RECIP_INFO_value(recipients_of(envelope), 0);
  tools::cert_ptr cert(X509_new());
  if (!recipient || !cert ||
      X509_set_issuer_name(cert.get(), recipient->issuer_and_serial->issuer) != 1 ||
      X509_set_serialNumber(cert.get(), recipient->issuer_and_serial->serial) != 1 ||
      X509_set_pubkey(cert.get(), key) != 1)
    throw tools::failure("the envelope has no recipient; give --cert");
  return cert;
}

}  // namespace

json scep_outside_json(PKCS7 *message) {
  tools::scep_outside read = tools::read_outside(message);
  return {{"message_type", named(read.type, tools::scep_type_name)},
          {"status", named(read.status, tools::scep_status_name)},
          {"failure_info", named(read.fail_info, tools::scep_fail_info_name)},
          {"transaction_id", read.transaction_id ? json(*read.transaction_id) : json(nullptr)},
          {"sender_nonce", hex_or_null(read.sender_nonce)},
          {"recipient_nonce", hex_or_null(read.recipient_nonce)}};
}

json scep_signature_json(PKCS7 *message, int *code) {
  X509 *signer = nullptr;
  *code = pkcs7_verify(message, &signer, nullptr);
  ERR_clear_error();
  const PKCS7_SIGNER_INFO *info = tools::first_signer(message);
  json said = info ? issuer_and_serial_json(info->issuer_and_serial) : json(nullptr);
  return {{"digest", tools::digest_name(message)},
          {"signer", said},
          {"signature", *code == PKI_OK ? "good" : "bad"},
          {"certificates", certs_json(tools::carried_certs(message))}};
}

json scep_envelope_json(PKCS7 *envelope) {
  if (!envelope)
    return nullptr;
  json recipients = json::array();
  STACK_OF(PKCS7_RECIP_INFO) *list = recipients_of(envelope);
  for (int i = 0; i < sk_PKCS7_RECIP_INFO_num(list); i++)
    recipients.push_back(
        issuer_and_serial_json(sk_PKCS7_RECIP_INFO_value(list, i)->issuer_and_serial));
  return {{"cipher", tools::cipher_name(envelope)}, {"recipients", recipients}};
}

json scep_payload_json(PKCS7 *message, PKCS7 *envelope, EVP_PKEY *key, X509 *cert, int *code) {
  tools::cert_ptr made;
  if (!cert)
    made = first_recipient(envelope, key);
  return open_by_type({message, key, cert ? cert : made.get(), code});
}

}  // namespace pkictl
