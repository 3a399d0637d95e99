// A CRL of any number of entries, put together by hand.
#ifndef BENCH_BIG_CRL_H
#define BENCH_BIG_CRL_H

#include <string>

#include "support/certs.h"

namespace bench {

struct big_crl_options {
  long entries = 0;
  bool reason_in_each = false;  // a reasonCode extension in every entry
};

// DER of a CRL by CN=`issuer`, signed with SHA-256. Serial numbers have 20 octets and come in no
// order.
std::string make_big_crl(const std::string &issuer, const support::key &signing_key,
                         const big_crl_options &options);

}  // namespace bench

#endif
