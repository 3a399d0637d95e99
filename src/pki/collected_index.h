// Every verification asks whether the list of collected certificates, which may be full, holds
// what it met: most often it does, and at the same place as last time.
#ifndef PKI_PKI_COLLECTED_INDEX_H
#define PKI_PKI_COLLECTED_INDEX_H

#include <libpki/types.h>

namespace pki {

// Does the store's collected list hold a certificate of that issuer and serial number? The caller
// holds list_mutex.
[[nodiscard]] bool is_collected_locked(const X509 *cert);

}  // namespace pki

#endif
