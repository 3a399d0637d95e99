// What a PKCS#10 request asks for, without its secrets.
#ifndef TOOLS_PKICTL_SCEP_REQUEST_REPORT_H
#define TOOLS_PKICTL_SCEP_REQUEST_REPORT_H

#include <openssl/x509.h>

#include "tools/pkictl/output.h"

namespace pkictl {

json request_json(X509_REQ *request);

}  // namespace pkictl

#endif
