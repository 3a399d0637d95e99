// What test support cannot do without, and DER from OpenSSL.
#ifndef TESTS_SUPPORT_NEED_H
#define TESTS_SUPPORT_NEED_H

#include <openssl/err.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace support {

[[noreturn]] inline void give_up(const char *what) {
  fprintf(stderr, "test support: %s failed\n", what);
  ERR_print_errors_fp(stderr);
  abort();
}

inline void need(bool ok, const char *what) {
  if (!ok)
    give_up(what);
}

template <class T>
std::string encode(const T *object, int (*i2d)(const T *, unsigned char **)) {
  unsigned char *out = nullptr;
  int length = i2d(object, &out);
  need(length > 0, "i2d");
  std::string octets(reinterpret_cast<char *>(out), static_cast<size_t>(length));
  OPENSSL_free(out);
  return octets;
}

}  // namespace support

#endif
