#include "common/log.h"

#include <libpki/error.h>
#include <openssl/err.h>
#include <syslog.h>

namespace {

constexpr int openssl_queue_slots = ERR_NUM_ERRORS;
constexpr size_t openssl_text_size = 200;
constexpr int unknown_end = -1;

unsigned char error_strings_missing = 1;

bool malloc_failure_between(const ERR_STATE *queue, int slot) {
  while (slot != queue->top) {
    slot = (slot + 1) % openssl_queue_slots;
    if (ERR_GET_REASON(queue->err_buffer[slot]) == ERR_R_MALLOC_FAILURE)
      return true;
  }
  return false;
}

}  // namespace

unsigned long log_openssl_errors(int priority) {
  if (__atomic_load_n(&error_strings_missing, __ATOMIC_RELAXED)) {
    ERR_load_crypto_strings();
    __atomic_store_n(&error_strings_missing, 0, __ATOMIC_RELAXED);
  }
  unsigned long error;
  while ((error = ERR_get_error()) != 0) {
    char text[openssl_text_size];
    ERR_error_string_n(error, text, sizeof text);
    syslog(priority, "OpenSSL error: %s", text);
  }
  return error;
}

// There is no other way to look at the middle of the queue without emptying it.
int openssl_malloc_failure(void) {
  const ERR_STATE *queue = ERR_get_state();
  return queue && malloc_failure_between(queue, queue->bottom) ? 1 : 0;
}

namespace pki {

int openssl_failure(int own_code) {
  int code = openssl_malloc_failure() ? PKI_OUT_OF_MEMORY : own_code;
  log_openssl_errors(log_error);
  return code;
}

int openssl_queue_end() {
  const ERR_STATE *queue = ERR_get_state();
  return queue ? queue->top : unknown_end;
}

bool openssl_malloc_failure_behind(int queue_end) {
  const ERR_STATE *queue = ERR_get_state();
  if (queue_end == unknown_end || !queue)
    return openssl_malloc_failure() != 0;
  return malloc_failure_between(queue, queue_end);
}

int prepare_to_compare(const X509_NAME *name) {
  int queue_end = openssl_queue_end();
  bool encoded = i2d_X509_NAME(name, nullptr) > 0;
  // OpenSSL reports success when it could not order the members of an RDN.
  if (encoded && !openssl_malloc_failure_behind(queue_end))
    return PKI_OK;
  int error = openssl_malloc_failure_behind(queue_end) ? PKI_OUT_OF_MEMORY : PKI_OK;
  log_openssl_errors(log_error);
  return error;
}

int log_reasons(int error) {
  if (error)
    log_openssl_errors(log_error);
  return error;
}

}  // namespace pki
