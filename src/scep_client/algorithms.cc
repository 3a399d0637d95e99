// What a CA-info document names, as OpenSSL knows it.
#include <openssl/evp.h>

#include "common/log.h"
#include "scep_client/internal.h"

namespace pki {

scep_algorithms find_algorithms(const scep_req_info &info) {
  scep_algorithms found = {info.digest ? EVP_get_digestbyname(info.digest) : nullptr,
                           info.cipher ? EVP_get_cipherbyname(info.cipher) : nullptr};
  if (info.digest && !found.md)
    syslog(log_warning, "unknown scep digest '%s', using the default", info.digest);
  if (info.cipher && !found.cipher)
    syslog(log_warning, "unknown scep cipher '%s', using the default", info.cipher);
  return found;
}

}  // namespace pki
