// A second reading of CertificateLists, by hand over octets in memory: what the streaming decoder
// makes of their outer structure. The elements are left to OpenSSL.
#ifndef FUZZ_CRL_MODEL_H
#define FUZZ_CRL_MODEL_H

#include <cstdint>
#include <optional>
#include <string>

namespace fuzz {

struct crl_reading {
  std::string strict;     // the same CRL in plain DER
  std::string algorithm;  // of tbsCertList
  std::string digested;   // what the signature is over
};

// None for what the decoder has to refuse. The outer length may say up to `announced` octets:
// those behind the signature need not be there.
std::optional<crl_reading> read_crl(const std::string &octets, uint32_t announced);

// Does OpenSSL take a form around the elements that the decoder does not: an indefinite length, or
// a list whose tag says that it is primitive?
bool has_ber_frame(const std::string &octets);

}  // namespace fuzz

#endif
