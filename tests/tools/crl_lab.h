// A lab of a test's own whose CRLs list only what that test revokes.
#ifndef TESTS_TOOLS_CRL_LAB_H
#define TESTS_TOOLS_CRL_LAB_H

#include <gtest/gtest.h>

#include "crl_client.h"
#include "run_tool.h"
#include "tools/pkilab/lab.h"

namespace tool_test {

class crl_lab {
 public:
  crl_lab();

  const pkilab::ca &keys() const { return lab_->keys(); }
  int port() const { return lab_->port(); }
  std::string file(const std::string &name) const { return home_ / ("lab/" + name); }
  const folder &home() const { return home_; }
  // "http://127.0.0.1:PORT/crl/issuing.crl" with a query.
  std::string crl_url(const std::string &query = "", const std::string &ca = "issuing") const;

  struct wishes {
    strings crls;                 // queries of the issuing CA's CRLs
    strings freshest = {};        // the same, or URLs
    std::string crl_issuer = {};  // a file
  };
  // A certificate that the issuing CA issues, as a file, and its serial number.
  struct issued {
    std::string file;
    std::string serial;
  };
  issued issue(const wishes &named) const;
  void revoke(const std::string &file, const std::string &reason = "keyCompromise") const;

  // Writes the body of the CRL at crl_url(query) as a file, as DER or as PEM, and returns its path.
  std::string save_der(const std::string &query = "") const;
  std::string save_pem(const std::string &query = "") const;

 private:
  folder home_;
  std::unique_ptr<pkilab::lab> lab_;
  mutable int files_ = 0;
};

}  // namespace tool_test

#endif
