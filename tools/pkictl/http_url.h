// URLs that the library can ask.
#ifndef TOOLS_PKICTL_HTTP_URL_H
#define TOOLS_PKICTL_HTTP_URL_H

#include <string>

namespace pkictl {

// Can it be asked at all?
bool is_http_url(const char *url);

// Throws usage_failure that begins with `name`, the argument's or option's.
void require_http_url(const std::string &name, const std::string &url);

}  // namespace pkictl

#endif
