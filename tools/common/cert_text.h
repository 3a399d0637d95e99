// Names, numbers and times of certificates as text.
#ifndef TOOLS_COMMON_CERT_TEXT_H
#define TOOLS_COMMON_CERT_TEXT_H

#include <string>

#include "tools/common/ossl.h"

namespace tools {

// Most specific part first, "CN=device, O=Example"; "" for null and for an empty name.
std::string name_text(const X509_NAME *name);

// Hexadecimal, with a minus sign in front of a negative number.
std::string serial_text(const ASN1_INTEGER *serial);

// "2031-05-06 07:08:09Z", or "unreadable".
std::string time_text(const ASN1_TIME *time);

// SHA-256 of the certificate's DER, octets separated by ":".
std::string fingerprint_text(const X509 *cert);

}  // namespace tools

#endif
