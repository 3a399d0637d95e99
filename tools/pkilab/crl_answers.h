// The lab's publisher of CRLs. What a CRL says is decided here; how it is made, in crl_list.
#ifndef TOOLS_PKILAB_CRL_ANSWERS_H
#define TOOLS_PKILAB_CRL_ANSWERS_H

#include <string>

#include "tools/pkilab/crl_entries.h"
#include "tools/pkilab/crl_options.h"
#include "tools/pkilab/crl_signers.h"

namespace pkilab {

struct crl_answer {
  octet_stream octets;
  std::string content_type;
  std::string note;  // a line that says what was answered, without "\n"
};

class crl_publisher {
 public:
  // `keys` must outlive it, and what it answers must not outlive `keys`.
  explicit crl_publisher(const ca &keys) : keys_(keys), entries_(keys), signers_(keys) {}

  // The CRL of one of the lab's CAs; `authority` is our "ADDRESS:PORT". Throws tools::failure, and
  // tools::usage_failure for options that do not go together. In several threads at once.
  crl_answer answer(const ca::pair &issuer, const crl_options &options,
                    const std::string &authority);

 private:
  octet_stream wrapped(octet_stream crl, const ca::pair &issuer, const ca::pair &signer,
                       crl_body body) const;

  const ca &keys_;
  listed_entries entries_;
  crl_signers signers_;
};

}  // namespace pkilab

#endif
