#include "verifier/http_address.h"

#include <libpki/error.h>
#include <libpki/http.h>

#include "common/text.h"

namespace pki {

url_fault split_http_url(const char *url, http_address *address) {
  if (!url || has_control_character(url))
    return url_fault::invalid;
  char *copy = nullptr;
  int error = parse_url(url, &copy, &address->host, &address->path);
  address->copy.reset(copy);
  if (error)
    return error == PKI_OUT_OF_MEMORY ? url_fault::no_memory : url_fault::invalid;
  return equal_ignoring_case(copy, "http") ? url_fault::none : url_fault::not_http;
}

}  // namespace pki
