// What the benchmarks share.
#ifndef BENCH_BENCH_SUPPORT_H
#define BENCH_BENCH_SUPPORT_H

#include <string>

#include "support/certs.h"

namespace bench {

// The document-signing key of the usual size, made once.
inline const support::key &doc_key() {
  static const support::key key = support::make_key(2048);
  return key;
}

inline const unsigned char *octets(const std::string &text) {
  return reinterpret_cast<const unsigned char *>(text.data());
}

// A CA-info document of the usual size: two roots, one additional certificate, a method of each
// kind.
const std::string &document();

}  // namespace bench

#endif
