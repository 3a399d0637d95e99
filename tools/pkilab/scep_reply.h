// Makes CertRep messages: good ones with the library's responder functions, bad ones by hand.
#ifndef TOOLS_PKILAB_SCEP_REPLY_H
#define TOOLS_PKILAB_SCEP_REPLY_H

#include <set>
#include <string>

#include "tools/pkilab/ca.h"
#include "tools/pkilab/scep_options.h"

namespace pkilab {

struct scep_reply {
  int status = 0;             // SCEP_STATUS_*
  int fail_info = -1;         // with FAILURE
  X509 *issued = nullptr;     // with SUCCESS: the certificate,
  X509 *recipient = nullptr;  // and for whom it is encrypted
};

// The answer's DER. `request` has a transaction id and a sender nonce. Throws tools::failure.
std::string seal_reply(const ca &keys, const std::set<misdeed> &misdeeds, const scep_reply &reply,
                       PKCS7 *request);

}  // namespace pkilab

#endif
