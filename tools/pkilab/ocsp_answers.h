// The lab's OCSP responder: a request in, a response out. What it answers is decided here; how the
// answer is made, in ocsp_response.
#ifndef TOOLS_PKILAB_OCSP_ANSWERS_H
#define TOOLS_PKILAB_OCSP_ANSWERS_H

#include <string>

#include "tools/pkilab/issued_certs.h"
#include "tools/pkilab/ocsp_options.h"
#include "tools/pkilab/ocsp_response.h"
#include "tools/pkilab/ocsp_signers.h"
#include "tools/pkilab/revocations.h"

namespace pkilab {

struct ocsp_answer {
  std::string der;
  std::string note;  // a line that says what was answered, without "\n"
};

class ocsp_responder {
 public:
  // `keys` must outlive it.
  explicit ocsp_responder(const ca &keys)
      : keys_(keys), certs_(keys), revoked_(keys.folder()), signers_(keys) {}

  // Answers a request that arrived at `authority`, our "ADDRESS:PORT". Throws tools::failure. In
  // several threads at once.
  ocsp_answer answer(const std::string &der, const ocsp_options &options,
                     const std::string &authority);

 private:
  const ca::pair *find_issuer(OCSP_CERTID *id) const;
  ocsp_finding find_status(OCSP_CERTID *asked, const ca::pair *issuer) const;
  cert_id_ptr id_to_answer(OCSP_CERTID *asked, const ca::pair &issuer, ocsp_cert_id how) const;

  const ca &keys_;
  issued_certs certs_;
  revocations revoked_;
  ocsp_signers signers_;
};

}  // namespace pkilab

#endif
