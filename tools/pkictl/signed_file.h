// A signed CA-info document in a file.
#ifndef TOOLS_PKICTL_SIGNED_FILE_H
#define TOOLS_PKICTL_SIGNED_FILE_H

#include <openssl/evp.h>

#include <string>

namespace pkictl {

// Opens a message with verify_bytes. Returns its code; `*xml` receives the signed document.
int open_signed(const std::string &message, EVP_PKEY *key, std::string *xml);

// The document in a message without a look at its signature; a file that is no message but
// begins like XML is taken as the document itself. Throws failure. `*is_signed` says which.
std::string open_unchecked(const std::string &path, const std::string &bytes, bool *is_signed);

}  // namespace pkictl

#endif
