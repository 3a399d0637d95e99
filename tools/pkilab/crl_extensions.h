// The extensions of a CRL.
#ifndef TOOLS_PKILAB_CRL_EXTENSIONS_H
#define TOOLS_PKILAB_CRL_EXTENSIONS_H

#include <ctime>
#include <string>

#include "tools/common/ossl.h"
#include "tools/pkilab/crl_options.h"

namespace pkilab {

// The octets behind the entries: crlExtensions, or "" where there are none. `authority` is our
// "ADDRESS:PORT", for URLs. Throws tools::failure.
std::string crl_extensions(X509 *signer, const crl_options &options, const std::string &authority,
                           time_t now);

}  // namespace pkilab

#endif
