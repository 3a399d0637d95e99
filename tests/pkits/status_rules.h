// The status rules that stand for the suite's directory: its certificates name directory entries,
// never a URL, so it is the host's configuration that says where the CRLs are.
#ifndef TESTS_PKITS_STATUS_RULES_H
#define TESTS_PKITS_STATUS_RULES_H

#include <libpki/libpki.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "suite.h"

namespace pkits {

using url_of = std::function<std::string(const std::string &crl)>;
using dist_points = std::shared_ptr<STACK_OF(DIST_POINT)>;

enum class rule_kind {
  // A rule for each issuer, with the CRLs of that issuer and of those that its certificates name as
  // cRLIssuer.
  by_issuer,
  // A rule for each certificate, with the CRLs that the suite's directory has where the
  // certificate's distribution points say, and tied to these.
  by_directory,
};

// Adds global status rules for the case while it lives.
class status_rules {
 public:
  status_rules(const test_case &tested, rule_kind kind, url_of url);
  ~status_rules();
  status_rules(const status_rules &) = delete;
  status_rules &operator=(const status_rules &) = delete;

 private:
  struct source {
    std::string crl;
    support::name named_issuer;  // a cRLIssuer
    DIST_POINT *point;
  };

  void add_for_issuers();
  void add_for_certificates();
  std::vector<source> sources_of(const support::cert &cert);
  std::vector<source> sources_of_point(const support::cert &cert, DIST_POINT *point) const;
  std::vector<std::string> crls_at(const support::cert &cert, const DIST_POINT *point) const;
  std::vector<std::string> crls_of(const X509_NAME *issuer) const;
  void add_rule(const support::cert &matched, bool this_serial, const std::vector<source> &from);
  crl_info *make_source(const source &from) const;

  const test_case &tested_;
  rule_kind kind_;
  url_of url_;
  std::vector<support::cert> certs_;
  std::vector<dist_points> points_;  // the records borrow them
};

}  // namespace pkits

#endif
