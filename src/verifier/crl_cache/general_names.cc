#include "verifier/crl_cache/general_names.h"

namespace pki {

X509_NAME *cv_find_dn(const GENERAL_NAMES *names) {
  for (int i = 0; i < sk_GENERAL_NAME_num(names); i++) {
    const GENERAL_NAME *name = sk_GENERAL_NAME_value(names, i);
    if (name->type == GEN_DIRNAME)
      return name->d.directoryName;
  }
  return nullptr;
}

GENERAL_NAME *cv_find_gn_match(const GENERAL_NAMES *a, const GENERAL_NAMES *b) {
  for (int i = 0; i < sk_GENERAL_NAME_num(a); i++)
    for (int j = 0; j < sk_GENERAL_NAME_num(b); j++)
      if (GENERAL_NAME_cmp(sk_GENERAL_NAME_value(a, i), sk_GENERAL_NAME_value(b, j)) == 0)
        return sk_GENERAL_NAME_value(a, i);
  return nullptr;
}

}  // namespace pki
