// What `crl show` and `crl find` share: a CRL that has gone by, as JSON and as text.
#ifndef TOOLS_PKICTL_CRL_SCAN_H
#define TOOLS_PKICTL_CRL_SCAN_H

#include <libpki/crl.h>

#include <memory>
#include <string>

#include "tools/common/ossl.h"
#include "tools/pkictl/output.h"

namespace CLI {
class App;
}

namespace pkictl {

struct crl_options {
  std::string source;  // a file or a URL
  std::string issuer;  // a file with the signer's certificate, or empty
  bool cost = false;
};

void add_crl_options(CLI::App *command, crl_options *given);

struct scanned_crl {
  std::unique_ptr<X509_CRL, tools::free_with<X509_CRL_free>> crl;
  json report;
};

// `query` without its signer. Throws tools::failure and tools::usage_failure.
scanned_crl scan_crl(const crl_options &given, pki_crl_query query);

// With "cost" where that was asked for.
std::string scan_text(const json &report);

// The reason not to believe the CRL, or "".
std::string disbelief(const crl_options &given, const json &report);

}  // namespace pkictl

#endif
