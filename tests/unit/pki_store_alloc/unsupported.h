// What the log says of a mechanism that is none.
#ifndef TESTS_UNIT_PKI_STORE_ALLOC_UNSUPPORTED_H
#define TESTS_UNIT_PKI_STORE_ALLOC_UNSUPPORTED_H

#include <string>
#include <vector>

#include "fakes/log_capture.h"

namespace support {

inline std::vector<log_entry> unsupported(int mechanism) {
  return {{3, "unsupported mechanism " + std::to_string(mechanism)}};
}

}  // namespace support

#endif
