// A SCEP message over HTTP: base64 in the query of a GET, as it is.
#include <libpki/error.h>
#include <libpki/http.h>
#include <openssl/buffer.h>

#include <climits>
#include <cstdio>
#include <cstring>

#include "common/log.h"
#include "common/text.h"
#include "scep_client/internal.h"

namespace pki {

namespace {

constexpr int status_ok = 200;
constexpr char operation[] = "operation=PKIOperation&message=";
// "?", the operation and a NUL.
constexpr size_t target_extra_bytes = 33;
static_assert(target_extra_bytes == 1 + sizeof operation);

// The base64 text, with the line feeds that the filter inserts and a NUL behind it. It belongs to
// the memory BIO.
int encode_base64(PKCS7 *message, bio_ptr *memory, const char **text, int *length) {
  memory->reset(BIO_new(BIO_s_mem()));
  bio_ptr base64(BIO_new(BIO_f_base64()));
  if (!*memory || !base64)
    return openssl_failure(PKI_OUT_OF_MEMORY);
  BIO_push(base64.get(), memory->get());
  bool encoded = i2d_PKCS7_bio(base64.get(), message) == 1 && BIO_flush(base64.get()) == 1;
  BIO_pop(base64.get());
  char *data = nullptr;
  if (!encoded || BIO_write(memory->get(), "", 1) != 1 ||
      BIO_get_mem_data(memory->get(), &data) < 1 || !data)
    return openssl_failure(PKI_OUT_OF_MEMORY);
  *text = data;
  *length = static_cast<int>(std::strlen(data));
  return PKI_OK;
}

int make_target(const char *path, const char *text, int length, malloc_ptr<char> *target) {
  size_t size = std::strlen(path) + static_cast<size_t>(length) + target_extra_bytes;
  malloc_ptr<char> made(static_cast<char *>(allocate(size)));
  if (!made)
    return PKI_OUT_OF_MEMORY;
  snprintf(made.get(), size, "%s?%s%.*s", path, operation, length, text);
  *target = std::move(made);
  return PKI_OK;
}

int split_url(const char *url, malloc_ptr<char> *copy, char **host, char **path) {
  char *made;
  int error = parse_url(url, &made, host, path);
  copy->reset(made);
  if (error && error != PKI_OUT_OF_MEMORY)
    syslog(log_error, "invalid scep url: %s", url);
  if (error)
    return error;
  if (equal_ignoring_case(made, "http"))
    return PKI_OK;
  syslog(log_error, "scep url is not an http url: %s", url);
  return PKI_INVALID_URL;
}

int get_answer(const char *url, char *host, const char *target, void **body, int *body_length) {
  int status;
  int error = send_http_get(host, target, &status, nullptr, body_length, nullptr, 0, body, nullptr);
  if (error) {
    syslog(log_warning, "failed to send scep request: url=%s err=%s", url,
           pki_strerror(static_cast<unsigned>(error)));
    *body_length = 0;
    return error;
  }
  if (status == status_ok)
    return PKI_OK;
  // An answer other than 200 comes without a body.
  syslog(log_warning, "failed to send scep request: url=%s sts=%d\n%s", url, status,
         text_or_null(nullptr));
  *body_length = 0;
  return PKI_HTTP_ERROR;
}

}  // namespace

}  // namespace pki

using namespace pki;

int send_scep_msg(PKCS7 *message, const char *url, void **body, int *body_length) {
  if (body)
    *body = nullptr;
  if (body_length)
    *body_length = 0;
  if (!message || !url || !body || !body_length)
    return PKI_INVALID_ARGS;
  bio_ptr memory;
  const char *text = nullptr;
  int length = 0;
  if (int error = encode_base64(message, &memory, &text, &length))
    return error;
  malloc_ptr<char> copy;
  char *host;
  char *path;
  if (int error = split_url(url, &copy, &host, &path))
    return error;
  malloc_ptr<char> target;
  if (int error = make_target(path, text, length, &target))
    return error;
  return get_answer(url, host, target.get(), body, body_length);
}
