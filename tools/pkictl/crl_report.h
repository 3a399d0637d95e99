// A CRL as JSON, and that JSON as text for a person.
#ifndef TOOLS_PKICTL_CRL_REPORT_H
#define TOOLS_PKICTL_CRL_REPORT_H

#include <libpki/crl.h>

#include <string>

#include "tools/pkictl/output.h"

namespace pkictl {

// The CRL around its entries. What an extension says is null where it is absent, and "unreadable"
// where it cannot be read.
json crl_json(X509_CRL *crl);
std::string crl_text(const json &crl);

// The entries that were looked for: "serial", "revoked_at", "reason" (or null) and "issuer", the
// certificate's.
json entries_json(X509_CRL *crl);
std::string entry_text(const json &entry);

// Does it list certificates of other issuers than its own?
bool is_indirect(X509_CRL *crl);

}  // namespace pkictl

#endif
