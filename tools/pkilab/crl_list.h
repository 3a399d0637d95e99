// Makes CRLs (RFC 5280, 5) of any length without holding one in memory.
#ifndef TOOLS_PKILAB_CRL_LIST_H
#define TOOLS_PKILAB_CRL_LIST_H

#include <ctime>
#include <string>
#include <vector>

#include "tools/common/ossl.h"
#include "tools/pkilab/crl_options.h"
#include "tools/pkilab/http_message.h"

namespace pkilab {

// What a CRL is made of.
struct crl_material {
  const X509_NAME *issuer = nullptr;  // as the CRL has it
  EVP_PKEY *key = nullptr;            // signs
  std::string entries;                // behind the generated ones
  std::string extensions;             // see crl_extensions
  time_t now = 0;
};

// A signed CRL, as odd as the options say. Its octets are made once here, for the signature, and
// again whenever the stream is asked for them; it needs nothing of `material` by then. Throws
// tools::failure, and tools::usage_failure for a digest that the key cannot use.
octet_stream make_crl(const crl_material &material, const crl_options &options);

// The same inside a PKCS#7 SignedData that nobody signed (RFC 2315, 9), with certificates or none.
octet_stream in_pkcs7(octet_stream crl, const std::vector<X509 *> &certs);

}  // namespace pkilab

#endif
