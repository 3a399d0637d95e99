// Serial numbers as people write them.
#ifndef TOOLS_COMMON_SERIAL_H
#define TOOLS_COMMON_SERIAL_H

#include <string>

#include "tools/common/ossl.h"

namespace tools {

using serial_ptr = std::unique_ptr<ASN1_INTEGER, free_with<ASN1_STRING_free>>;

// "10C4", "0x10C4" and "10:C4" are one number, and so is "dec:4292"; 128 digits at most. Null for
// anything else.
serial_ptr parse_serial(const std::string &text);

// The same; throws usage_failure for anything else.
serial_ptr require_serial(const std::string &text);

}  // namespace tools

#endif
