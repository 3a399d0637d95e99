// DER by hand, for what is too long or too odd for OpenSSL's structures.
#ifndef TOOLS_PKILAB_CRL_DER_H
#define TOOLS_PKILAB_CRL_DER_H

#include <cstdint>
#include <ctime>
#include <string>

#include "tools/common/ossl.h"
#include "tools/pkilab/option_words.h"

namespace pkilab::der {

constexpr unsigned char boolean = 0x01, integer = 0x02, bit_string = 0x03, octet_string = 0x04,
                        null = 0x05, utf8_string = 0x0C, utc_time = 0x17, generalized_time = 0x18,
                        sequence = 0x30, set = 0x31;

// The context-specific tag with that number.
constexpr unsigned char context(int number, bool constructed = true) {
  return static_cast<unsigned char>((constructed ? 0xA0 : 0x80) | number);
}

// Tag and length.
std::string header(unsigned char tag, uint64_t length);
std::string wrap(unsigned char tag, const std::string &content);

// All throw tools::failure.
std::string oid(const std::string &text);
std::string number(const std::string &decimal);
std::string enumerated(int value);
std::string name(const X509_NAME *name);
std::string serial(const ASN1_INTEGER *serial);

// UTCTime up to 2049, GeneralizedTime from then on.
std::string time(time_t when);
// Seconds from `now`; a text of 13 characters is a UTCTime, any other a GeneralizedTime.
std::string time(const answer_time &when, time_t now);

// An Extension.
std::string extension(const std::string &oid_text, bool critical, const std::string &value);

}  // namespace pkilab::der

#endif
