// Whoever signs CRLs: the lab's CAs, signers that they delegate to, and strangers.
#ifndef TOOLS_PKILAB_CRL_SIGNERS_H
#define TOOLS_PKILAB_CRL_SIGNERS_H

#include <map>
#include <mutex>
#include <string>

#include "tools/pkilab/ca.h"
#include "tools/pkilab/crl_options.h"

namespace pkilab {

/*
 * A delegated signer is made when it is first asked for, and kept as crl/NAME.pem and
 * crl/NAME-key.pem; NAME tells the CA and what is odd about it, such as "issuing-no-crl-sign". Each
 * has a key of its own, and a name of its own or the CA's. The lab can revoke them as all that it
 * issued.
 */
class crl_signers {
 public:
  // `keys` must outlive it.
  explicit crl_signers(const ca &keys) : keys_(keys) {}

  // The signer of CRLs of `issuer`, as long as the object lives. `authority` is our
  // "ADDRESS:PORT". Throws tools::failure. In several threads at once.
  const ca::pair &get(const ca::pair &issuer, const crl_options &options,
                      const std::string &authority);

 private:
  ca::pair load_or_make(const std::string &name, const ca::pair &issuer, const crl_options &options,
                        const std::string &crl_url) const;
  ca::pair make_stranger(const ca::pair &issuer) const;

  const ca &keys_;
  std::mutex mutex_;
  std::map<std::string, ca::pair> made_;
};

}  // namespace pkilab

#endif
