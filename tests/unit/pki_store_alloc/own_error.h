// An error in OpenSSL's queue that is none of the library's business.
#ifndef TESTS_UNIT_PKI_STORE_ALLOC_OWN_ERROR_H
#define TESTS_UNIT_PKI_STORE_ALLOC_OWN_ERROR_H

#include <openssl/err.h>

#include "support/certs.h"

namespace support {

// The only error in the calling thread's queue, from now to the end of the scope.
class own_error {
 public:
  own_error() {
    clear_openssl_errors();
    raise_openssl_error(reason);
  }
  own_error(const own_error &) = delete;
  own_error &operator=(const own_error &) = delete;
  ~own_error() { clear_openssl_errors(); }

  // Neither gone nor joined by another.
  [[nodiscard]] bool is_alone() const {
    return is_own(ERR_peek_error()) && is_own(ERR_peek_last_error());
  }

 private:
  static constexpr int reason = 77;
  static bool is_own(unsigned long error) { return ERR_GET_REASON(error) == reason; }
};

}  // namespace support

#endif
