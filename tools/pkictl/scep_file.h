// A SCEP message in a file.
#ifndef TOOLS_PKICTL_SCEP_FILE_H
#define TOOLS_PKICTL_SCEP_FILE_H

#include <string>

#include "tools/common/ossl.h"

namespace pkictl {

// Reads a message: DER, PEM, base64, or a query or request line with "message=" in it, as logs
// have it. Throws failure.
tools::pkcs7_ptr load_scep_message(const std::string &path);

}  // namespace pkictl

#endif
