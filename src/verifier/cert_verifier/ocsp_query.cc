// Asking an OCSP responder.
#include <libpki/error.h>
#include <libpki/store.h>
#include <libpki/util.h>

#include "common/limits.h"
#include "common/text.h"
#include "http/post_within.h"
#include "verifier/cert_status.h"
#include "verifier/cert_verifier/internal.h"
#include "verifier/cert_verifier/ocsp.h"
#include "verifier/http_address.h"

namespace pki {

namespace {

constexpr int status_ok = 200;
constexpr int request_nonce_octets = 20;
constexpr char request_type[] = "application/ocsp-request";
constexpr char response_type[] = "application/ocsp-response";

int split(const char *url, http_address *address) {
  switch (split_http_url(url, address)) {
    case url_fault::none:
      return PKI_OK;
    case url_fault::no_memory:
      return want_of_memory();
    case url_fault::not_http:
      syslog(log_error, "OCSP transport '%s' not supported - must be http", address->copy.get());
      return PKI_INVALID_URL;
    default:
      syslog(log_error, "OCSP url '%s' is invalid", text_or_null(url));
      return PKI_INVALID_URL;
  }
}

int encode(const OCSP_REQUEST *request, malloc_ptr<unsigned char> *octets, int *length) {
  *length = i2d_OCSP_REQUEST(request, nullptr);
  if (*length < 1)
    return want_of_memory();
  octets->reset(static_cast<unsigned char *>(allocate(static_cast<size_t>(*length))));
  unsigned char *end = octets->get();
  return end && i2d_OCSP_REQUEST(request, &end) == *length ? PKI_OK : want_of_memory();
}

bool add_nonce(OCSP_REQUEST *request) {
  int length = request_nonce_octets;
  malloc_ptr<unsigned char> nonce(gen_nonce(&length));
  return nonce && OCSP_request_add1_nonce(request, nonce.get(), length) == 1;
}

int judge_head(const char *url, int error, int status, const char *content_type) {
  if (error) {
    syslog(log_error, "Error sending OCSP request to '%s': %s", url,
           pki_strerror(static_cast<unsigned>(error)));
    return error;
  }
  if (status != status_ok) {
    syslog(log_error, "OCSP responder (%s) returned %d", url, status);
    return PKI_OCSP_ERROR;
  }
  if (content_type && equal_ignoring_case(content_type, response_type))
    return PKI_OK;
  syslog(log_error,
         "OCSP responder (%s) returned unexpected content-type '%s' - only %s is supported", url,
         text_or_null(content_type), response_type);
  return PKI_OCSP_ERROR;
}

int post(const char *url, http_address *address, const unsigned char *request, int length,
         ocsp_reply *reply) {
  int status = 0;
  char *content_type = nullptr;
  void *body = nullptr;
  // Many responders' URLs end with the host.
  const char *path = *address->path ? address->path : "/";
  int error = send_http_post_within(ocsp_max_response_bytes, address->host, path, request_type,
                                    request, length, &status, &reply->length, &content_type, &body);
  malloc_ptr<char> type_owner(content_type);
  reply->body.reset(static_cast<unsigned char *>(body));
  if (int refused = judge_head(url, error, status, content_type))
    return refused;
  if (reply->length <= ocsp_max_response_bytes)
    return PKI_OK;
  syslog(log_error, "OCSP responder (%s) returned %d octets - at most %d are looked at", url,
         reply->length, ocsp_max_response_bytes);
  return PKI_OCSP_ERROR;
}

// They may be what verifies the signature, and are believed no more for having been sent. A
// responder needs few; thousands would push everybody else's out of the store.
void collect_certs(const STACK_OF(X509) * sent) {
  if (sk_X509_num(sent) > ocsp_max_certs)
    syslog(log_warning, "ignoring certs of the ocsp response behind the first %d", ocsp_max_certs);
  for (int i = 0; i < sk_X509_num(sent) && i < ocsp_max_certs; i++)
    (void)pki_add_untrusted_cert(sk_X509_value(sent, i), 0);
}

// What the responder answers, whoever signed it.
int ask(ocsp_query *query, ocsp_basicresp_ptr *basic, ocsp_status *answer) {
  if (int error = make_request(query))
    return error;
  ocsp_reply reply;
  if (int error = exchange(*query, &reply))
    return error;
  if (int error = open_basic_response(reply, basic))
    return error;
  return find_status(*query, basic->get(), answer);
}

int to_cert_status(int ocsp_status) {
  switch (ocsp_status) {
    case V_OCSP_CERTSTATUS_GOOD:
      return PKI_CERT_OK;
    case V_OCSP_CERTSTATUS_REVOKED:
      return PKI_CERT_REVOKED;
    default:
      return PKI_CERT_UNKNOWN;
  }
}

}  // namespace

int want_of_memory() {
  syslog(log_error, "out of memory");
  return PKI_OUT_OF_MEMORY;
}

int make_request(ocsp_query *query) {
  openssl_error_mark the_line_says_it_all;
  query->request.reset(OCSP_REQUEST_new());
  if (!query->request || !add_nonce(query->request.get()))
    return want_of_memory();
  query->cert_id = OCSP_cert_to_id(EVP_sha1(), query->cert, query->issuer);
  if (query->cert_id && OCSP_request_add0_id(query->request.get(), query->cert_id))
    return PKI_OK;
  OCSP_CERTID_free(query->cert_id);
  query->cert_id = nullptr;
  return want_of_memory();
}

int exchange(const ocsp_query &query, ocsp_reply *reply) {
  malloc_ptr<unsigned char> request;
  int length = 0;
  {
    openssl_error_mark the_line_says_it_all;
    if (int error = encode(query.request.get(), &request, &length))
      return error;
  }
  http_address address;
  if (int error = split(query.responder->url, &address))
    return error;
  return post(query.responder->url, &address, request.get(), length, reply);
}

cert_sts_info *zv_cv_ocsp_get_sts_info(void *data, X509 *cert, X509 *issuer, X509_STORE_CTX *ctx,
                                       unsigned char flag, int depth) {
  const auto *responder = static_cast<const ocsp_locator *>(data);
  if (responder->type != locator_ocsp_url) {
    syslog(log_critical, "wrong locator-data type %d encountered in zv_cv_ocsp_get_sts_info",
           responder->type);
    return nullptr;
  }
  if (is_logged(log_debug))
    syslog(log_debug, "look up status of cert '%s' using OCSP (%s)", subject_text(cert).get(),
           responder->url);
  if (!issuer) {
    syslog(log_error, "Cert issuer is null");
    return nullptr;
  }
  ocsp_query query = {responder, cert, issuer, ctx, flag, depth, nullptr, nullptr};
  ocsp_basicresp_ptr basic;
  ocsp_status answer;
  if (ask(&query, &basic, &answer) != PKI_OK)
    return nullptr;
  // Made before the answer counts: later, want of memory could lose a "revoked". An answer without
  // nextUpdate says nothing about how long it holds: it is not used.
  int status = to_cert_status(answer.status);
  sts_info_ptr info(cv_alloc_cert_sts_info(status, cert, answer.next_update));
  if (!info && answer.next_update) {
    (void)want_of_memory();
    return nullptr;
  }
  collect_certs(OCSP_resp_get0_certs(basic.get()));
  if (check_signer(query, basic.get()) != PKI_OK)
    return nullptr;
  syslog(log_debug, "ocsp-response was accepted");
  if (is_logged(log_debug))
    syslog(log_debug, "cert (%s) status is: %s", subject_text(cert).get(),
           zv_cv_cert_sts_to_str(status));
  if (!info)
    syslog(log_warning, "the ocsp response has no next-update - it cannot be used");
  return info.release();
}

}  // namespace pki
