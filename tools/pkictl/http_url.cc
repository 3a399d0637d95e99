#include "tools/pkictl/http_url.h"

#include <libpki/http.h>
#include <strings.h>

#include <cstdlib>
#include <memory>

#include "tools/common/failure.h"
#include "tools/common/ossl.h"

namespace pkictl {

bool is_http_url(const char *url) {
  char *copy = nullptr;
  char *host = nullptr;
  char *path = nullptr;
  if (!url || parse_url(url, &copy, &host, &path) != 0)
    return false;
  std::unique_ptr<char, tools::free_with<free>> owner(copy);
  return strcasecmp(copy, "http") == 0 && *host;
}

void require_http_url(const std::string &name, const std::string &url) {
  if (!is_http_url(url.c_str()))
    throw tools::usage_failure(name + " \"" + url +
                               "\" is no URL that can be asked; give one that begins with http://");
}

}  // namespace pkictl
