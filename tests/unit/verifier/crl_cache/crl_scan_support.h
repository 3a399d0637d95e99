// Octets for pki_scan_crl, and what it makes of them.
#ifndef TESTS_UNIT_VERIFIER_CRL_CACHE_CRL_SCAN_SUPPORT_H
#define TESTS_UNIT_VERIFIER_CRL_CACHE_CRL_SCAN_SUPPORT_H

#include <libpki/crl.h>
#include <openssl/err.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "support/crl_der.h"

namespace crl_scan_test {

struct text_source {
  std::string octets;
  size_t part = std::numeric_limits<size_t>::max();  // handed out at once
  size_t used = 0;
  size_t calls = 0;
  size_t largest = 0;  // that was asked for

  static ssize_t read(void *context, void *buffer, size_t size) {
    auto *source = static_cast<text_source *>(context);
    source->calls++;
    source->largest = std::max(source->largest, size);
    size_t got = std::min({size, source->part, source->octets.size() - source->used});
    memcpy(buffer, source->octets.data() + source->used, got);
    source->used += got;
    return static_cast<ssize_t>(got);
  }
};

struct scanned {
  int code = -1;
  support::crl crl;
  pki_crl_report report = {};
};

inline scanned scan(const pki_crl_source &source, const pki_crl_query *query = nullptr) {
  scanned result;
  memset(&result.report, 0xa5, sizeof result.report);
  result.code = pki_scan_crl(&source, query, &result.report);
  if (result.report.crl)
    result.crl = support::crl(result.report.crl, X509_CRL_free);
  return result;
}

inline scanned scan(const std::string &octets, const pki_crl_query &query = {},
                    bool announced = true) {
  text_source source = {octets};
  return scan({text_source::read, &source, announced ? octets.size() : 0}, &query);
}

// A query for a serial number and, perhaps, an issuer. Borrows from its arguments.
inline pki_crl_query query_for(const support::integer &serial,
                               const support::name &issuer = nullptr) {
  return {serial.get(), issuer.get(), nullptr};
}

inline std::vector<long> serials_of(const support::crl &crl) {
  std::vector<long> serials;
  STACK_OF(X509_REVOKED) *list = X509_CRL_get_REVOKED(crl.get());
  for (int i = 0; i < sk_X509_REVOKED_num(list); i++)
    serials.push_back(
        ASN1_INTEGER_get(X509_REVOKED_get0_serialNumber(sk_X509_REVOKED_value(list, i))));
  return serials;
}

// The list 1, 2, ..., count, with a reason in every other entry.
inline std::string list_of(long count, const std::string &extensions = support::crl_number(7)) {
  support::crl_fields fields;
  fields.entries = "";
  for (long i = 1; i <= count; i++)
    *fields.entries += support::crl_entry(i, i % 2 ? support::reason_code(1) : "");
  fields.extensions = extensions;
  return support::crl_octets(fields);
}

}  // namespace crl_scan_test

#endif
