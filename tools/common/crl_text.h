// What stands in CRLs, as text.
#ifndef TOOLS_COMMON_CRL_TEXT_H
#define TOOLS_COMMON_CRL_TEXT_H

#include <string>
#include <vector>

#include "tools/common/ossl.h"

namespace tools {

// "unspecified", "keyCompromise", ...: by their numbers in CRLReason (RFC 5280, 5.3.1); "" where
// there is none.
std::vector<std::string> crl_reasons();

// Those that ReasonFlags (RFC 5280, 4.2.1.13) name.
std::vector<std::string> reason_flags(const ASN1_BIT_STRING *flags);

// A number as digits; one of more than 64 bits as hexadecimal digits behind "0x".
std::string number_text(const ASN1_INTEGER *number);

// "http://example.com/ca.crl", a directory name as cert_text.h prints it, and others in OpenSSL's
// way.
std::string general_name_text(const GENERAL_NAME *name);
std::vector<std::string> general_names_text(const GENERAL_NAMES *names);

// The short name that OpenSSL has for it, else its digits.
std::string object_text(const ASN1_OBJECT *object);
// Its digits.
std::string oid_text(const ASN1_OBJECT *object);

}  // namespace tools

#endif
