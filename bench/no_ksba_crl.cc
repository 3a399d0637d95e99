// Built where libksba is missing.
#include "ksba_crl.h"

namespace bench {

bool have_libksba() {
  return false;
}

bool libksba_reads(std::FILE *, const std::string &, bool *) {
  return false;
}

bool libksba_reads(const std::string &, const std::string &, bool *) {
  return false;
}

}  // namespace bench
