// A message's first signature.
#ifndef TESTS_UNIT_COMMON_FIRST_SIGNER_H
#define TESTS_UNIT_COMMON_FIRST_SIGNER_H

#include <libpki/pkcs7.h>

#include "support/ca_info_doc.h"

inline PKCS7_SIGNER_INFO *first_signer(const support::pkcs7 &message) {
  return sk_PKCS7_SIGNER_INFO_value(PKCS7_get_signer_info(message.get()), 0);
}

#endif
