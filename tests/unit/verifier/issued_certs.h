// A CA and what it issued, for tests of status sources.
#ifndef TESTS_UNIT_VERIFIER_ISSUED_CERTS_H
#define TESTS_UNIT_VERIFIER_ISSUED_CERTS_H

#include <string>
#include <utility>
#include <vector>

#include "support/certs.h"
#include "unit/verifier/cache_support.h"

namespace issued_certs {

using cache_support::start;
using extensions = std::vector<std::pair<std::string, std::string>>;

// Which of the test keys belongs to whom.
enum key_owner {
  device_key = 0,
  issuer_key = 1,
  authority_key = 2,
  responder_key = 2,
  stranger_key = 3
};

constexpr long device_serial = 10;

// Valid from an hour before the clock stopped until a year later.
inline support::cert_options valid_options(const std::string &cn, long serial, int owner) {
  support::cert_options options;
  options.subject = support::common_name(cn);
  options.serial = serial;
  options.public_key = support::test_key(owner);
  options.not_before = start - 3600;
  options.not_after = start + 365 * 86400;
  return options;
}

// A self-signed CA.
inline support::cert make_issuer(const std::string &cn = "issuer", int owner = issuer_key,
                                 long serial = 1) {
  support::cert_options options = valid_options(cn, serial, owner);
  options.ca = true;
  return support::make_cert(options);
}

// A certificate that `by`, whose key is test_key(by_key), issued.
inline support::cert issue(const std::string &cn, long serial, int owner,
                           const extensions &more = {}, const std::string &by = "issuer",
                           int by_key = issuer_key) {
  support::cert_options options = valid_options(cn, serial, owner);
  options.issuer = support::common_name(by);
  options.signing_key = support::test_key(by_key);
  options.extensions = more;
  return support::make_cert(options);
}

// Certificates of that name, each with a key of its own that nobody knows.
inline std::vector<support::cert> make_namesakes(const std::string &cn, int count,
                                                 long first_serial = 1000) {
  std::vector<support::cert> made;
  for (int i = 0; i < count; i++) {
    support::cert_options options = valid_options(cn, first_serial + i, stranger_key);
    options.public_key = support::make_ec_key();
    options.signing_key = support::test_key(stranger_key);
    options.issuer = support::common_name("issuer");
    made.push_back(support::make_cert(options));
  }
  return made;
}

}  // namespace issued_certs

#endif
