#include "common/log.h"

#include <libpki/error.h>
#include <openssl/err.h>
#include <syslog.h>

namespace {

constexpr int openssl_queue_slots = ERR_NUM_ERRORS;
constexpr size_t openssl_text_size = 200;

unsigned char error_strings_missing = 1;

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
  if (!queue || queue->top == queue->bottom)
    return 0;
  int slot = queue->bottom;
  do {
    slot = (slot + 1) % openssl_queue_slots;
    if (ERR_GET_REASON(queue->err_buffer[slot]) == ERR_R_MALLOC_FAILURE)
      return 1;
  } while (slot != queue->top);
  return 0;
}

namespace pki {

int openssl_failure(int own_code) {
  int code = openssl_malloc_failure() ? PKI_OUT_OF_MEMORY : own_code;
  log_openssl_errors(log_error);
  return code;
}

int log_reasons(int error) {
  if (error)
    log_openssl_errors(log_error);
  return error;
}

}  // namespace pki
