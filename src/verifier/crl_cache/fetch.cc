// A CRL over HTTP: as it is, or the first one inside a PKCS#7 message.
#include <libpki/error.h>
#include <libpki/http.h>
#include <libpki/util.h>

#include <algorithm>
#include <climits>

#include "common/limits.h"
#include "common/log.h"
#include "common/socket_owner.h"
#include "common/text.h"
#include "verifier/crl_cache/extensions.h"
#include "verifier/crl_cache/fetch.h"
#include "verifier/crl_cache/pkcs7_walk.h"
#include "verifier/http_address.h"

namespace pki {

namespace {

constexpr int status_ok = 200;
constexpr char accepted_types[] =
    "application/pkix-crl,application/x-x509-crl,application/x-pkcs7-crl,*/*";
constexpr const char *usual_types[] = {"application/pkix-crl", "application/x-x509-crl",
                                       "application/x-pkcs7-crl"};

// crl_info.format
enum crl_format { format_any = 0, format_plain = 1 };

int split(const char *url, http_address *address) {
  switch (split_http_url(url, address)) {
    case url_fault::none:
      return PKI_OK;
    case url_fault::no_memory:
      return PKI_OUT_OF_MEMORY;
    case url_fault::not_http:
      syslog(log_error, "CRL transport '%s' not supported - must be http", address->copy.get());
      return PKI_INVALID_URL;
    default:
      syslog(log_error, "CRL url '%s' is invalid", text_or_null(url));
      return PKI_INVALID_URL;
  }
}

bool is_usual(const char *content_type) {
  return content_type &&
         std::any_of(std::begin(usual_types), std::end(usual_types),
                     [&](const char *usual) { return equal_ignoring_case(content_type, usual); });
}

// Leaves the socket at the first octet of the body.
int get(const char *url, int format, socket_owner *socket, uint32_t *content_length) {
  http_address address;
  if (int error = split(url, &address))
    return error;
  int status = 0;
  int length = -1;
  char *content_type = nullptr;
  int fd = -1;
  int error = send_http_get(address.host, address.path, &status, accepted_types, &length,
                            &content_type, 1, nullptr, &fd);
  socket->reset(fd);
  malloc_ptr<char> type_owner(content_type);
  if (error) {
    syslog(log_error, "Error sending CRL request to '%s': %s", url,
           pki_strerror(static_cast<unsigned>(error)));
    return error;
  }
  if (status != status_ok) {
    syslog(log_error, "CRL server at '%s' returned %d", url, status);
    return PKI_HTTP_ERROR;
  }
  if (format == format_any && !is_usual(content_type))
    syslog(
        log_warning,
        "CRL responder at '%s' returned unexpected content-type '%s' - only "
        "application/pkix-crl, application/x-x509-crl, and application/x-pkcs7-crl are supported",
        url, text_or_null(content_type));
  *content_length = static_cast<uint32_t>(length < 0 ? INT_MAX : length);
  return PKI_OK;
}

int decode_pkcs7(crl_request *request, crl_stream *stream, const char *url, uint32_t content_length,
                 const pkcs7_start &start) {
  int error = find_crl_in_pkcs7(request, stream, content_length, start);
  if (!error)
    return PKI_OK;
  syslog(log_error, "Failed to decode PKCS7 from '%s': %s", url,
         pki_strerror(static_cast<unsigned>(error)));
  log_openssl_errors(log_error);
  return error;
}

int decode(crl_request *request, crl_stream *stream, const char *url, int format,
           uint32_t content_length) {
  pkcs7_start start = {false, 0};
  if (format > format_plain)
    return decode_pkcs7(request, stream, url, content_length, start);
  int error =
      cv_crl_decode_crl(request, stream, content_length, format == format_plain ? nullptr : &start);
  if (!error)
    return PKI_OK;
  syslog(log_error, "Failed to decode CRL from '%s': %u", url, static_cast<unsigned>(error));
  log_openssl_errors(log_error);
  if (format == format_plain || error == PKI_OUT_OF_MEMORY || error == PKI_HTTP_READ_RESP_ERROR)
    return error;
  return decode_pkcs7(request, stream, url, content_length, start);
}

}  // namespace

int cv_send_crl_request(crl_request *request, const char *url, int format) {
  request->crl = nullptr;
  socket_owner socket;
  uint32_t content_length = 0;
  if (int error = get(url, format, &socket, &content_length))
    return error;
  malloc_ptr<unsigned char> buffer(static_cast<unsigned char *>(allocate(crl_read_bytes)));
  evp_md_ctx_ptr digest(EVP_MD_CTX_new());
  if (!buffer || !digest)
    return PKI_OUT_OF_MEMORY;
  crl_stream stream = {socket.get(), buffer.get(), crl_read_bytes, buffer.get(), 0,
                       nullptr,      digest.get()};
  if (int error = decode(request, &stream, url, format, content_length))
    return error;
  name_line issuer(X509_CRL_get_issuer(request->crl));
  if (request->truncated)
    syslog(log_debug, "CRL (%s) too large - truncated it", issuer.get());
  else
    syslog(log_debug, "CRL (%s) fully decoded", issuer.get());
  return PKI_OK;
}

}  // namespace pki
