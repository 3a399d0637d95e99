// An input of the CRL fuzzers: choices, then the body that the server sends.
#ifndef FUZZ_CRL_CASE_H
#define FUZZ_CRL_CASE_H

#include <openssl/x509.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "scripted_server.h"
#include "support/certs.h"

namespace fuzz {

struct crl_case {
  int format = 0;
  bool has_target = true;
  bool long_serial = false;   // the target's has 20 octets
  bool other_issuer = false;  // the target's is CN=other
  bool start_at_target = false;
  server_script script;
};

// How an input is written down.
struct crl_choices {
  uint8_t format = 0;       // 0 any, 1 plain, 2 PKCS#7
  uint8_t length_kind = 0;  // 0 right, 1 none, 2 too long, 3 too short, 4 2^31 - 1
  uint8_t length_change = 0;
  uint8_t delivery = 0;
  uint8_t seed[2] = {0, 0};
  uint8_t end = 0;  // 0 behind the body, 1 in it, 2 in it with a reset, 3 long behind it
  uint8_t cut[2] = {0, 0};
  uint8_t repeated = 0;
  uint8_t target = 0;  // 2: long serial, 4: other issuer, 8: start at target; 0x11: none
  uint8_t content_type = 0;
};
constexpr size_t crl_choices_size = sizeof(crl_choices);

crl_case read_crl_case(const uint8_t *data, size_t size);
std::string write_crl_case(const crl_choices &choices, const std::string &body);

constexpr long short_serial = 5;
inline const std::string long_serial_octets =
    "\x35\x02\x03\x04\x05\x06\x07\x08\x09\x0a"
    "\x0b\x0c\x0d\x0e\x0f\x10\x11\x12\x13\x14";

// The certificate that is looked for.
X509 *target_of(const crl_case &now);

// Encodings that belong into CRLs.
const std::vector<std::string> &crl_elements();

}  // namespace fuzz

#endif
