// Which certificates are revoked, kept in the folder "revoked" beside the lab's keys: a file a
// certificate, so that other processes can revoke while the lab serves.
#ifndef TOOLS_PKILAB_REVOCATIONS_H
#define TOOLS_PKILAB_REVOCATIONS_H

#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "tools/common/ossl.h"
#include "tools/common/serial.h"

namespace pkilab {

using tools::serial_ptr;

struct revocation {
  time_t at = 0;
  int reason = -1;  // a CRLReason (RFC 5280, 5.3.1); -1: none is given
};

// By their numbers; "" where there is none. removeFromCRL is no reason to revoke.
std::vector<std::string> revocation_reasons();

class revocations {
 public:
  explicit revocations(const std::string &lab_folder) : folder_(lab_folder + "/revoked") {}

  // Both say whether anything changed, and throw tools::failure.
  bool revoke(const ASN1_INTEGER *serial, const revocation &how) const;
  bool restore(const ASN1_INTEGER *serial) const;

  // All are read anew from the folder. Throw tools::failure.
  std::vector<serial_ptr> serials() const;  // of what is revoked, by their text
  std::optional<revocation> find(const ASN1_INTEGER *serial) const;

 private:
  std::string path(const ASN1_INTEGER *serial) const;

  std::string folder_;
};

}  // namespace pkilab

#endif
