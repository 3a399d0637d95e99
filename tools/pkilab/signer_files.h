// Whoever signs in the name of one of the lab's CAs has a key and a certificate in its folder.
#ifndef TOOLS_PKILAB_SIGNER_FILES_H
#define TOOLS_PKILAB_SIGNER_FILES_H

#include <string>

#include "tools/pkilab/ca.h"
#include "tools/pkilab/ca_certs.h"

namespace pkilab {

using name_ptr = std::unique_ptr<X509_NAME, tools::free_with<X509_NAME_free>>;

// "CN=common_name, O=pkilab", cut at the longest that X.520 allows. Throws tools::failure.
name_ptr signer_name(const std::string &common_name);

// What is kept as NAME.pem and NAME-key.pem in the lab's folder; where it is missing, a certificate
// that `issuer` issues, for a new key that takes the place of the one in `wishes`. NAME may have
// one folder in front. Throws tools::failure.
ca::pair load_or_issue(const ca &keys, const ca::pair &issuer, const std::string &name,
                       cert_wishes wishes);

// Eight hexadecimal digits that tell texts apart, for such a name. Throws tools::failure.
std::string short_digest(const std::string &text);

}  // namespace pkilab

#endif
