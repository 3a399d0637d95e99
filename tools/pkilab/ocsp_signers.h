// Whoever signs OCSP responses: the lab's CAs, responders that they delegate to, and strangers.
#ifndef TOOLS_PKILAB_OCSP_SIGNERS_H
#define TOOLS_PKILAB_OCSP_SIGNERS_H

#include <map>
#include <mutex>
#include <string>

#include "tools/pkilab/ca.h"
#include "tools/pkilab/ocsp_options.h"

namespace pkilab {

/*
 * A delegated responder is made when it is first asked for, and kept as ocsp/NAME.pem and
 * ocsp/NAME-key.pem; NAME tells the CA and what is odd about it, such as "issuing-no-eku". Each
 * has a key and a name of its own, so that whoever knows one of them takes it for no other. The
 * lab knows their status and can revoke them as all that it issued.
 */
class ocsp_signers {
 public:
  // `keys` must outlive it.
  explicit ocsp_signers(const ca &keys) : keys_(keys) {}

  // The signer for certificates of `issuer`, as long as the object lives. `authority` is our
  // "ADDRESS:PORT". Throws tools::failure. In several threads at once.
  const ca::pair &get(const ca::pair &issuer, const ocsp_options &options,
                      const std::string &authority);

 private:
  ca::pair load_or_make(const std::string &name, const ca::pair &issuer,
                        const ocsp_options &options, const std::string &ocsp_url) const;
  ca::pair make_stranger(const std::string &name, const ocsp_options &options) const;
  ca::pair make_impostor(const ca::pair &issuer) const;

  const ca &keys_;
  std::mutex mutex_;
  std::map<std::string, ca::pair> made_;
};

// A CA of the lab that is not `issuer`.
const ca::pair &other_ca(const ca &keys, const ca::pair &issuer);

}  // namespace pkilab

#endif
