// The extensions that name status sources, put together octet by octet, as values for
// cert_options.extensions.
#ifndef TESTS_UNIT_VERIFIER_EXTENSION_DER_H
#define TESTS_UNIT_VERIFIER_EXTENSION_DER_H

#include <string>
#include <utility>
#include <vector>

#include "support/ocsp_responder.h"

namespace extension_der {

using extension = std::pair<std::string, std::string>;

using support::tlv;

// An extension of these octets, whatever they are.
inline extension raw(const std::string &name, const std::string &octets, bool critical = false) {
  static const char digits[] = "0123456789abcdef";
  std::string hex;
  for (unsigned char octet : octets) {
    hex += digits[octet >> 4];
    hex += digits[octet & 15];
  }
  return {name, (critical ? "critical,DER:" : "DER:") + hex};
}

// ---- general names ----

inline std::string uri(const std::string &text) {
  return tlv(0x86, text);
}

inline const std::string cn_attribute =
    tlv(0x30, std::string("\x06\x03\x55\x04\x03") + "\x13\x01x");

// A sound name of that type: 0 otherName to 8 registeredID.
inline std::string general_name(int type) {
  switch (type) {
    case 0:
      return tlv(0xA0, tlv(0x06, "\x2A\x03\x04") + tlv(0xA0, tlv(0x0C, "http://other.example/")));
    case 1:
      return tlv(0x81, "http@example.com");
    case 2:
      return tlv(0x82, "example.com");
    case 3:
      return tlv(0xA3, tlv(0x0C, "x400"));
    case 4:
      return tlv(0xA4, tlv(0x30, tlv(0x31, cn_attribute)));
    case 5:
      return tlv(0xA5, tlv(0xA1, tlv(0x0C, "party")));
    case 6:
      return uri("http://127.0.0.1:1/");
    case 7:
      return tlv(0x87, "\x7F\x01\x01\x01");
    default:
      return tlv(0x88, "\x2A\x03\x04");
  }
}

// ---- authorityInfoAccess ----

inline const std::string ocsp_method = tlv(0x06, "\x2B\x06\x01\x05\x05\x07\x30\x01");
inline const std::string ca_issuers_method = tlv(0x06, "\x2B\x06\x01\x05\x05\x07\x30\x02");

inline std::string ocsp_at(const std::string &location) {
  return tlv(0x30, ocsp_method + location);
}
inline std::string ca_issuers_at(const std::string &location) {
  return tlv(0x30, ca_issuers_method + location);
}

inline extension aia_of(const std::string &descriptions) {
  return raw("authorityInfoAccess", tlv(0x30, descriptions));
}
// One OCSP responder for each URL.
inline extension aia(const std::vector<std::string> &urls) {
  std::string descriptions;
  for (const std::string &url : urls)
    descriptions += ocsp_at(uri(url));
  return aia_of(descriptions);
}

// ---- cRLDistributionPoints, freshestCRL ----

inline std::string point(const std::string &fields) {
  return tlv(0x30, fields);
}
inline std::string full_name(const std::string &names) {
  return tlv(0xA0, tlv(0xA0, names));
}
inline const std::string relative_name = tlv(0xA0, tlv(0xA1, cn_attribute));
inline const std::string two_reasons = tlv(0x81, "\x01\x60");
inline std::string crl_issuer(const std::string &names) {
  return tlv(0xA2, names);
}
inline std::string point_at(const std::string &url) {
  return point(full_name(uri(url)));
}

inline extension crl_dp_of(const std::string &points) {
  return raw("crlDistributionPoints", tlv(0x30, points));
}
inline extension freshest_of(const std::string &points) {
  return raw("freshestCRL", tlv(0x30, points));
}

// Octets that are none of these extensions.
inline std::vector<std::string> malformed_sequences() {
  return {std::string("\x30\x03", 2),                  // cut off
          std::string("\x05\x00", 2),                  // another type
          tlv(0x30, "\x04\x01x"),                      // elements of another type
          tlv(0x30, std::string("\x30\x05\xA0", 3)),   // cut off inside
          tlv(0x30, tlv(0x30, "\x06\x01")),            // a broken field
          std::string("\x30\x84\x7F\xFF\xFF\xFF", 6),  // a hostile length
          "x"};
}

}  // namespace extension_der

#endif
