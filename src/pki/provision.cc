// Provisioning: a CA from the URL of its description.
#include <board/board.h>
#include <libpki/error.h>
#include <libpki/http.h>
#include <libpki/pkcs7.h>
#include <libpki/util.h>

#include <cstdio>
#include <cstring>

#include "common/limits.h"
#include "common/log.h"
#include "common/ossl_ptr.h"
#include "common/text.h"
#include "pki/internal.h"

namespace pki {

namespace {

constexpr int status_ok = 200;
constexpr char serial_query[] = "?serial=";

struct octets {
  malloc_ptr<unsigned char> bytes;
  int length = 0;
};

int make_ca(const char *label, const char *ca_pointer_url, EVP_PKEY *doc_key, ca_info_ptr *made) {
  ca_info_ptr info(alloc_ca_info());
  if (!info)
    return openssl_failure(PKI_OUT_OF_MEMORY);
  info->label = pki_strdup(label);
  info->ca_pointer_url = pki_strdup(ca_pointer_url);
  if (!info->label || !info->ca_pointer_url)
    return PKI_OUT_OF_MEMORY;
  if (!take_reference(doc_key))
    return PKI_CRYPTO_LOCK_FAILED;
  info->doc_key = doc_key;
  *made = std::move(info);
  return PKI_OK;
}

// The path with the device's serial number as its query.
int make_request_path(const char *path, malloc_ptr<char> *request_path) {
  size_t size = std::strlen(path) + ca_pointer_query_bytes;
  malloc_ptr<char> text(static_cast<char *>(allocate(size)));
  if (!text)
    return PKI_OUT_OF_MEMORY;
  size_t used = std::strlen(path) + sizeof serial_query - 1;
  snprintf(text.get(), used + 1, "%s%s", path, serial_query);
  int failure = board_info_serialnumber(text.get() + used, static_cast<int>(size - used));
  if (failure) {
    syslog(log_error, "failed to get qrn serial-number from flash: %d", failure);
    return PKI_FLASH_ERROR;
  }
  text.get()[size - 1] = '\0';
  *request_path = std::move(text);
  return PKI_OK;
}

int get_signed_document(const char *url, char *host, const char *request_path, octets *message) {
  int status = 0;
  char *content_type = nullptr;
  void *body = nullptr;
  int error = send_http_get(host, request_path, &status, nullptr, &message->length, &content_type,
                            0, &body, nullptr);
  std::free(content_type);
  message->bytes.reset(static_cast<unsigned char *>(body));
  if (error) {
    syslog(log_warning, "failed to download ca-info: url=%s err=%s", url,
           pki_strerror(static_cast<unsigned>(error)));
    return error;
  }
  if (status != status_ok) {
    // An answer other than 200 comes without a body.
    syslog(log_warning, "failed to download ca-info: url=%s sts=%d\n%s", url, status,
           text_or_null(nullptr));
    return PKI_HTTP_ERROR;
  }
  return PKI_OK;
}

// Downloads the message that `url` leads to.
int download(const char *url, octets *message) {
  char *copy;
  char *host;
  char *path;
  int error = parse_url(url, &copy, &host, &path);
  if (error) {
    if (error != PKI_OUT_OF_MEMORY)
      syslog(log_error, "invalid ca-pointer url: %s", url);
    return error;
  }
  malloc_ptr<char> scheme(copy);
  if (!equal_ignoring_case(scheme.get(), "http")) {
    syslog(log_error, "ca-pointer url is not an http url: %s", url);
    return PKI_INVALID_URL;
  }
  malloc_ptr<char> request_path;
  error = make_request_path(path, &request_path);
  return error ? error : get_signed_document(url, host, request_path.get(), message);
}

int open_document(const octets &message, EVP_PKEY *doc_key, octets *document) {
  unsigned char *content;
  int error =
      verify_bytes(message.bytes.get(), message.length, doc_key, &content, &document->length);
  document->bytes.reset(content);
  return error;
}

int read_document(const octets &document, ca_info *info) {
  if (int error = parse_ca_info_doc(document.bytes.get(), document.length, pki_store, info))
    return error;
  cleanout_duplicate_certs(info->trusted_roots);
  cleanout_duplicate_certs(pki_store->provisioned_certs);
  return PKI_OK;
}

}  // namespace

}  // namespace pki

using namespace pki;

int pki_add_ca(const char *label, const char *ca_pointer_url, EVP_PKEY *doc_key) {
  if (!label || !ca_pointer_url || !doc_key)
    return PKI_INVALID_ARGS;
  ca_info_ptr info;
  octets message;
  octets document;
  if (int error = make_ca(label, ca_pointer_url, doc_key, &info))
    return error;
  if (int error = download(ca_pointer_url, &message))
    return error;
  if (int error = open_document(message, doc_key, &document))
    return error;
  message.bytes.reset();  // a large one need not stay while it is read
  if (int error = read_document(document, info.get()))
    return error;
  return pki_add_ca_info(info.get());
}
