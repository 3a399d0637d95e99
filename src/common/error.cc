#include <libpki/error.h>

#include <cstdio>

namespace {

const char *const pki_err_strings[] = {
#define PKI_ERROR(code, name, text) text,
#include <libpki/error_list.inc>
#undef PKI_ERROR
};

constexpr size_t error_count = sizeof pki_err_strings / sizeof pki_err_strings[0];
static_assert(error_count == PKI_ERROR_COUNT);

// A thread's own, so that threads do not interleave their texts. The model keeps the library
// from needing the dynamic loader's TLS call.
[[gnu::tls_model("initial-exec")]] thread_local char unknown_text[30];
constexpr size_t unknown_text_limit = 29;

}  // namespace

const char *pki_strerror(unsigned int code) {
  if (code < error_count)
    return pki_err_strings[code];
  std::snprintf(unknown_text, unknown_text_limit, "unknown status %d\n", static_cast<int>(code));
  return unknown_text;
}
