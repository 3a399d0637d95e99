// Times as the log has them.
#ifndef TESTS_UNIT_VERIFIER_PRINTED_TIME_H
#define TESTS_UNIT_VERIFIER_PRINTED_TIME_H

#include <openssl/asn1.h>

#include <ctime>
#include <string>

#include "support/certs.h"

constexpr time_t day = 86400;

inline std::string printed(time_t when) {
  support::asn1_time time = support::make_time(when);
  BIO *bio = BIO_new(BIO_s_mem());
  ASN1_TIME_print(bio, time.get());
  char *data = nullptr;
  long length = BIO_get_mem_data(bio, &data);
  std::string text(data, static_cast<size_t>(length));
  BIO_free(bio);
  return text;
}

#endif
