// Opening SCEP messages, and checking that a reply answers a request.
#include <libpki/attributes.h>
#include <libpki/error.h>
#include <libpki/pkcs7.h>
#include <libpki/util.h>
#include <openssl/objects.h>

#include <cstring>

#include "common/log.h"
#include "common/oids.h"
#include "common/pkcs7.h"
#include "common/scep_msg.h"

namespace pki {

const ASN1_OCTET_STRING *inner_data_of(PKCS7 *message) {
  const PKCS7_SIGNED *signed_data = signed_data_of(message);
  const PKCS7 *inner = signed_data ? signed_data->contents : nullptr;
  return inner && inner->type && OBJ_obj2nid(inner->type) == NID_pkcs7_data ? inner->d.data
                                                                            : nullptr;
}

PKCS7 *decode_envelope(PKCS7 *message) {
  const ASN1_OCTET_STRING *data = inner_data_of(message);
  if (!data || !data->data || data->length < 1)
    return nullptr;
  const unsigned char *in = data->data;
  return d2i_PKCS7(nullptr, &in, data->length);
}

namespace {

constexpr int nid_of_tx_id() {
  return PKI_OID_SCEP_TRANSACTION_ID;
}

struct nonce_view {
  const unsigned char *octets;
  int length;
};

// "request" and "response" in the messages.
int read_tx_id(PKCS7 *message, const char *which, const char **tx_id) {
  int error = get_string_attr(message, registered_nid(nid_of_tx_id()), tx_id);
  switch (error) {
    case PKI_OK:
      return PKI_OK;
    case PKI_NOT_SIGNED_DATA:
    case PKI_NO_SIGNERS:
      syslog(log_error, "CheckTxAttrs: %s is not a signed-data!", which);
      break;
    case PKI_ATTR_NOT_FOUND:
      syslog(log_error, "CheckTxAttrs: no tx-id found in %s", which);
      break;
    case PKI_ATTR_NOT_STRING:
      syslog(log_error, "CheckTxAttrs: tx-id in %s is not a string!", which);
      break;
    default:
      syslog(log_error, "CheckTxAttrs: unexpected status returned by get_string_attr: %d", error);
  }
  return PKI_TX_CHECK_FAILED;
}

// A nonce, or the reader's code. An empty BIT STRING is as good as none.
int read_nonce(PKCS7 *message, int row, nonce_view *nonce) {
  int nid = registered_nid(row);
  if (int error = get_os_attr_val(message, nid, &nonce->octets))
    return error;
  if (!nonce->octets)
    return PKI_ATTR_NOT_FOUND;
  return get_os_attr_len(message, nid, &nonce->length);
}

int check_nonces(const nonce_view &sent, const nonce_view &received) {
  if (sent.length == received.length &&
      std::memcmp(sent.octets, received.octets, static_cast<size_t>(sent.length)) == 0)
    return PKI_OK;
  malloc_ptr<char> sent_text(to_hex_string(sent.octets, sent.length));
  malloc_ptr<char> received_text(to_hex_string(received.octets, received.length));
  if (sent_text && received_text)
    syslog(log_error,
           "The sender-nonce in the request doesn't match the recipient-nonce in the response: "
           "'%s' != '%s'",
           sent_text.get(), received_text.get());
  return PKI_TX_CHECK_FAILED;
}

int check_tx_ids(PKCS7 *request, PKCS7 *response) {
  const char *request_id;
  const char *response_id;
  if (int error = read_tx_id(request, "request", &request_id))
    return error;
  if (int error = read_tx_id(response, "response", &response_id))
    return error;
  if (std::strcmp(request_id, response_id) == 0)
    return PKI_OK;
  syslog(log_error, "CheckTxAttrs: tx-id mismatch: '%s' != '%s'", response_id, request_id);
  return PKI_TX_CHECK_FAILED;
}

int read_sender_nonce(PKCS7 *request, nonce_view *nonce) {
  switch (read_nonce(request, PKI_OID_SCEP_SENDER_NONCE, nonce)) {
    case PKI_OK:
      return PKI_OK;
    case PKI_ATTR_NOT_FOUND:
      syslog(log_error, "CheckTxAttrs: no sender-nonce found in request");
      break;
    case PKI_ATTR_NOT_OCTET_STRING:
      syslog(log_error, "CheckTxAttrs: sender-nonce in request is not an OCTET STRING");
      break;
    default:
      break;
  }
  return PKI_TX_CHECK_FAILED;
}

// `*absent` says that the response has none and need not.
int read_recipient_nonce(PKCS7 *response, bool required, nonce_view *nonce, bool *absent) {
  *absent = false;
  switch (read_nonce(response, PKI_OID_SCEP_RECIPIENT_NONCE, nonce)) {
    case PKI_OK:
      return PKI_OK;
    case PKI_ATTR_NOT_FOUND:
      *absent = !required;
      if (*absent)
        return PKI_OK;
      syslog(log_error, "CheckTxAttrs: no recipient-nonce found in response");
      break;
    case PKI_ATTR_NOT_OCTET_STRING:
      syslog(log_error, "CheckTxAttrs: recipient-nonce in response is not an OCTET STRING");
      break;
    default:
      break;
  }
  return PKI_TX_CHECK_FAILED;
}

template <class T>
d2i_fn *decoder(T *(*d2i)(T **, const unsigned char **, long)) {
  return reinterpret_cast<d2i_fn *>(d2i);
}

int open_payload(PKCS7 *msg, d2i_fn *decode, EVP_PKEY *key, X509 *cert, void **out) {
  pkcs7_ptr envelope(decode_envelope(msg));
  if (!envelope)
    return openssl_failure(PKI_INVALID_DER);
  unsigned char *data = nullptr;
  int length = 0;
  if (int error = pkcs7_decrypt(envelope.get(), key, cert, &data, &length))
    return error;
  secret_octets plaintext(data, length);
  const unsigned char *in = data;
  *out = decode(nullptr, &in, length);
  return *out ? PKI_OK : openssl_failure(PKI_INVALID_DER);
}

}  // namespace

}  // namespace pki

using namespace pki;

int scep_unwrap_msg(PKCS7 *msg, d2i_fn *decode, X509 **signer, EVP_PKEY *key, X509 *cert,
                    void **out) {
  if (!out)
    return PKI_INVALID_ARGS;
  *out = nullptr;
  if (!msg || !decode || !key || !cert)
    return PKI_INVALID_ARGS;
  X509 *found = signer ? *signer : nullptr;
  if (int error = pkcs7_verify(msg, &found, nullptr))
    return error;
  if (int error = open_payload(msg, decode, key, cert, out))
    return error;
  if (signer)
    *signer = found;
  return PKI_OK;
}

int parse_scep_cert_rep(PKCS7 *msg, X509 **signer, EVP_PKEY *key, X509 *cert, void **out) {
  return scep_unwrap_msg(msg, decoder(d2i_PKCS7), signer, key, cert, out);
}

int parse_scep_get_cert(PKCS7 *msg, X509 **signer, EVP_PKEY *key, X509 *cert, void **out) {
  return scep_unwrap_msg(msg, decoder(d2i_PKCS7_ISSUER_AND_SERIAL), signer, key, cert, out);
}

int parse_scep_get_cert_init(PKCS7 *msg, X509 **signer, EVP_PKEY *key, X509 *cert, void **out) {
  return scep_unwrap_msg(msg, decoder(d2i_SCEP_ISSUER_AND_SUBJECT), signer, key, cert, out);
}

int parse_scep_cert_req(PKCS7 *msg, X509 **signer, EVP_PKEY *key, X509 *cert, void **out) {
  return scep_unwrap_msg(msg, decoder(d2i_X509_REQ), signer, key, cert, out);
}

int parse_scep_sts_rep(PKCS7 *msg, X509 **signer) {
  return pkcs7_verify(msg, signer, nullptr);
}

int check_tx_attrs(PKCS7 *request, PKCS7 *response, int require_recipient_nonce) {
  if (int error = check_tx_ids(request, response))
    return error;
  nonce_view sent;
  nonce_view received;
  bool absent;
  if (int error = read_sender_nonce(request, &sent))
    return error;
  if (int error = read_recipient_nonce(response, require_recipient_nonce != 0, &received, &absent))
    return error;
  return absent ? PKI_OK : check_nonces(sent, received);
}
