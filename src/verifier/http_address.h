// Where an http URL leads.
#ifndef PKI_VERIFIER_HTTP_ADDRESS_H
#define PKI_VERIFIER_HTTP_ADDRESS_H

#include "common/alloc.h"

namespace pki {

struct http_address {
  malloc_ptr<char> copy;  // starts with the scheme
  char *host = nullptr;
  char *path = nullptr;
};

enum class url_fault : unsigned char { none, no_memory, invalid, not_http };

// Refuses control characters too: they could end or garble a line of the request. `address->copy`
// is there for `not_http`. A null URL is invalid.
[[nodiscard]] url_fault split_http_url(const char *url, http_address *address);

}  // namespace pki

#endif
