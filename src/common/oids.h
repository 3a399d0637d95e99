// The registered object identifiers, for code that may run before or after their time.
#ifndef PKI_COMMON_OIDS_H
#define PKI_COMMON_OIDS_H

#include <libpki/oids.h>

namespace pki {

// OpenSSL's number of a row's object; NID_undef, which nothing has, while none are registered.
[[nodiscard]] int registered_nid(int row);

}  // namespace pki

#endif
