#include "ocsp_client.h"

#include <gtest/gtest.h>
#include <openssl/err.h>

#include "raw_http.h"
#include "support/certs.h"
#include "tools/pkilab/issued_certs.h"

namespace tool_test {

namespace {

std::string text_of(const ASN1_GENERALIZEDTIME *time) {
  if (!time)
    return "";
  const unsigned char *octets = ASN1_STRING_get0_data(time);
  return std::string(octets, octets + ASN1_STRING_length(time));
}

}  // namespace

result openssl(const strings &arguments) {
  strings words = {"openssl"};
  words.insert(words.end(), arguments.begin(), arguments.end());
  return run("/usr/bin/env", words);
}

tools::cert_ptr issue_cert(const pkilab::ca &keys, const pkilab::ca::pair &issuer) {
  support::name subject = support::common_name("tested");
  pkilab::cert_wishes wishes;
  wishes.subject = subject.get();
  wishes.public_key = support::test_key().get();
  return pkilab::issued_certs(keys).issue(wishes, issuer);
}

ocsp_request_ptr make_ocsp_request(X509 *cert, X509 *issuer) {
  ocsp_request_ptr request(OCSP_REQUEST_new());
  OCSP_request_add0_id(request.get(), OCSP_cert_to_id(nullptr, cert, issuer));
  OCSP_request_add1_nonce(request.get(), nullptr, 20);
  return request;
}

std::string ocsp_request_der(OCSP_REQUEST *request) {
  unsigned char *octets = nullptr;
  int length = i2d_OCSP_REQUEST(request, &octets);
  std::string der(octets, octets + length);
  OPENSSL_free(octets);
  return der;
}

std::string post_ocsp(int port, const std::string &query, const std::string &body,
                      const std::string &type) {
  return tool_test::exchange(port, "POST /ocsp" + query + " HTTP/1.0\r\nContent-Type: " + type +
                                       "\r\nContent-Length: " + std::to_string(body.size()) +
                                       "\r\n\r\n" + body);
}

ocsp_query::ocsp_query(int port, X509 *cert, X509 *issuer, const std::string &query)
    : request_(make_ocsp_request(cert, issuer)),
      http_(post_ocsp(port, query, ocsp_request_der(request_.get()))) {
  std::string body = body_of(http_);
  const auto *at = reinterpret_cast<const unsigned char *>(body.data());
  response_.reset(d2i_OCSP_RESPONSE(nullptr, &at, static_cast<long>(body.size())));
  if (response_ && at != reinterpret_cast<const unsigned char *>(body.data()) + body.size())
    response_.reset();
  if (response_)
    basic_.reset(OCSP_response_get1_basic(response_.get()));
  ERR_clear_error();
}

int ocsp_query::response_status() const {
  return response_ ? OCSP_response_status(response_.get()) : -1;
}

ocsp_query::single ocsp_query::find() const {
  single found;
  ASN1_GENERALIZEDTIME *this_update = nullptr;
  ASN1_GENERALIZEDTIME *next_update = nullptr;
  OCSP_CERTID *id = OCSP_onereq_get0_id(OCSP_request_onereq_get0(request_.get(), 0));
  found.found = basic_ && OCSP_resp_find_status(basic_.get(), id, &found.status, &found.reason,
                                                nullptr, &this_update, &next_update) == 1;
  if (found.found) {
    found.this_update = text_of(this_update);
    found.next_update = text_of(next_update);
  }
  return found;
}

int ocsp_query::nonce_check() const {
  return OCSP_check_nonce(request_.get(), basic_.get());
}

bool ocsp_query::is_signed_by(X509 *signer) const {
  int good = ASN1_item_verify(
      ASN1_ITEM_rptr(OCSP_RESPDATA), OCSP_resp_get0_tbs_sigalg(basic_.get()),
      OCSP_resp_get0_signature(basic_.get()),
      const_cast<OCSP_RESPDATA *>(OCSP_resp_get0_respdata(basic_.get())), X509_get0_pubkey(signer));
  ERR_clear_error();
  return good == 1;
}

X509 *ocsp_query::carried_cert() const {
  const STACK_OF(X509) *certs = OCSP_resp_get0_certs(basic_.get());
  return sk_X509_num(certs) > 0 ? sk_X509_value(certs, 0) : nullptr;
}

}  // namespace tool_test
