// What an X509_CRL says, as text that can be compared.
#ifndef FUZZ_CRL_ENTRIES_H
#define FUZZ_CRL_ENTRIES_H

#include <openssl/x509.h>

#include <string>
#include <vector>

namespace fuzz {

// Every entry, in its order.
std::vector<std::string> all_entries(const X509_CRL *crl);
// Those under the target's serial number and issuer, without the extension that names the issuer.
// `start_at_target`: entries start at the target's issuer instead of the CRL's.
std::vector<std::string> entries_about(const X509_CRL *crl, X509 *target, bool start_at_target);
// Does an entry name its issuer?
bool names_issuers(const X509_CRL *crl);
// Everything but the entries.
std::string frame_of(const X509_CRL *crl);
std::string encoding_of(const X509_CRL *crl);
// What the extensions of the entries end a decoding with: 0, 15, 86.
int code_of_entries(const X509_CRL *crl);

}  // namespace fuzz

#endif
