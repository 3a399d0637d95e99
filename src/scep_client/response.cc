// The CA's answers: decoded, checked against the request, verified, opened.
#include <libpki/attributes.h>
#include <libpki/error.h>
#include <libpki/util.h>

#include "common/log.h"
#include "common/oids.h"
#include "common/pkcs7.h"
#include "common/text.h"
#include "scep_client/internal.h"

namespace pki {

namespace {

// What the response says of itself before its signature is looked at.
int read_message_type(PKCS7 *response) {
  const char *type;
  if (get_string_attr(response, registered_nid(PKI_OID_SCEP_MESSAGE_TYPE), &type)) {
    syslog(log_error, "no message-type found in response to cert-request: %s",
           message_text(response).get());
    return PKI_INVALID_SCEP_RSP;
  }
  if (decimal_prefix(type) == SCEP_CERT_REP)
    return PKI_OK;
  syslog(log_error, "unknown message-type '%s' found in response to cert-request: %s", type,
         message_text(response).get());
  return PKI_INVALID_SCEP_RSP;
}

int read_status(PKCS7 *response, int *status) {
  const char *text;
  if (get_string_attr(response, registered_nid(PKI_OID_SCEP_PKI_STATUS), &text)) {
    syslog(log_error, "no status-code found in response to cert-request: %s",
           message_text(response).get());
    return PKI_INVALID_SCEP_RSP;
  }
  *status = decimal_prefix(text);
  return PKI_OK;
}

int open_cert_reply(PKCS7 *response, EVP_PKEY *key, X509 *ca_cert, X509 *own_cert,
                    pkcs7_ptr *content) {
  X509 *signer = ca_cert;
  void *opened = nullptr;
  int error = parse_scep_cert_rep(response, &signer, key, own_cert, &opened);
  content->reset(static_cast<PKCS7 *>(opened));
  if (!error)
    return PKI_OK;
  syslog(log_error, "failed to parse or verify scep cert-response: err = `%s', resp = %s",
         pki_strerror(static_cast<unsigned>(error)), message_text(response).get());
  return PKI_INVALID_SCEP_RSP;
}

int verify_status_reply(PKCS7 *response, X509 *ca_cert) {
  X509 *signer = ca_cert;
  if (parse_scep_sts_rep(response, &signer) == PKI_OK)
    return PKI_OK;
  syslog(log_error, "failed to parse or verify scep status-response: %s",
         message_text(response).get());
  return PKI_INVALID_SCEP_RSP;
}

STACK_OF(X509) * certs_of(PKCS7 *message) {
  const PKCS7_SIGNED *signed_data = signed_data_of(message);
  return signed_data ? signed_data->cert : nullptr;
}

}  // namespace

message_text::message_text(PKCS7 *message)
    : text_(message ? hex_der_encode(message, reinterpret_cast<i2d_fn *>(i2d_PKCS7)) : nullptr) {}

const char *message_text::get() const {
  return text_or_null(text_.get());
}

int exchange_scep(PKCS7 *request, const scep_req_info &info, EVP_PKEY *key, X509 *own_cert,
                  scep_answer *answer, int *parse_error) {
  void *body;
  int length;
  *parse_error = PKI_OK;
  if (int error = send_scep_msg(request, info.url, &body, &length))
    return error;
  malloc_ptr<unsigned char> der(static_cast<unsigned char *>(body));
  PKCS7 *message;
  PKCS7 *content;
  *parse_error = parse_scep_rsp(der.get(), length, key, info.ca_cert, own_cert, request, &message,
                                &answer->status, &content);
  answer->message.reset(message);
  answer->content.reset(content);
  return *parse_error;
}

X509 *requester_cert(PKCS7 *request) {
  return sk_X509_value(certs_of(request), 0);
}

int take_issued_cert(PKCS7 *content, X509 **cert) {
  X509 *first = sk_X509_value(certs_of(content), 0);
  if (!first) {
    syslog(log_error, "no certificate found in response tocert-request: %s",
           message_text(content).get());
    return PKI_INVALID_SCEP_RSP;
  }
  if (!take_reference(first))
    return PKI_CRYPTO_LOCK_FAILED;
  *cert = first;
  return PKI_OK;
}

int report_rejection(PKCS7 *response) {
  syslog(log_error, "cert-request rejected");
  const char *reason;
  if (get_string_attr(response, registered_nid(PKI_OID_SCEP_FAIL_INFO), &reason) == PKI_OK)
    syslog(log_error, "rejection-reason: %s", reason);
  return PKI_SCEP_REQ_REJ;
}

}  // namespace pki

using namespace pki;

int parse_scep_rsp(const unsigned char *der, int der_length, EVP_PKEY *private_key, X509 *ca_cert,
                   X509 *own_cert, PKCS7 *request, PKCS7 **response, int *status, PKCS7 **content) {
  if (response)
    *response = nullptr;
  if (content)
    *content = nullptr;
  if (!der || der_length < 0 || !private_key || !own_cert || !request || !response || !status ||
      !content)
    return PKI_INVALID_ARGS;
  // No reply is ever verified by a certificate that it brought along.
  if (!ca_cert)
    return PKI_INVALID_SCEP_RSP;
  const unsigned char *in = der;
  pkcs7_ptr message(d2i_PKCS7(nullptr, &in, der_length));
  if (!message) {
    log_openssl_errors(log_error);
    malloc_ptr<char> text(to_hex_string(der, der_length));
    syslog(log_error, "failed to decode scep response: %s", text_or_null(text.get()));
    return PKI_INVALID_SCEP_RSP;
  }
  pkcs7_ptr opened;
  if (check_tx_attrs(request, message.get(), 1) || read_message_type(message.get()) ||
      read_status(message.get(), status))
    return PKI_INVALID_SCEP_RSP;
  int error = *status == SCEP_STATUS_SUCCESS
                  ? open_cert_reply(message.get(), private_key, ca_cert, own_cert, &opened)
                  : verify_status_reply(message.get(), ca_cert);
  if (error)
    return error;
  *response = message.release();
  *content = opened.release();
  return PKI_OK;
}
