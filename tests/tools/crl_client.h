// A client of the lab's CRL room.
#ifndef TESTS_TOOLS_CRL_CLIENT_H
#define TESTS_TOOLS_CRL_CLIENT_H

#include <memory>
#include <string>
#include <vector>

#include "run_tool.h"
#include "tools/common/ossl.h"

namespace tool_test {

using crl_ptr = std::unique_ptr<X509_CRL, tools::free_with<X509_CRL_free>>;

// A CRL that the server at `port` publishes.
class crl_query {
 public:
  explicit crl_query(int port, const std::string &query = "",
                     const std::string &ca_name = "issuing");

  // The answer as it came from the server.
  const std::string &http() const { return http_; }
  std::string body() const;
  // Null where the body is no CRL, or more than one.
  X509_CRL *crl() const { return crl_.get(); }

  bool is_signed_by(EVP_PKEY *key) const;
  // As an X509_REVOKED's: its number, or -1 where none is given.
  int reason_at(int index) const;
  // Who issued the certificate of an entry, where the entry says so; "" otherwise.
  std::string issuer_at(int index) const;
  std::string serial_at(int index) const;
  std::vector<std::string> serials() const;
  // A CRL extension's octets; "" where there is none.
  std::string extension(int nid) const;
  bool is_critical(int nid) const;
  // cRLNumber or deltaCRLIndicator, or -1.
  long number(int nid) const;
  std::unique_ptr<ISSUING_DIST_POINT, tools::free_with<ISSUING_DIST_POINT_free>> scope() const;

 private:
  std::string http_;
  crl_ptr crl_;
};

crl_ptr decode_crl(const std::string &der);

// The URL in a name.
std::string uri_of(const DIST_POINT_NAME *name, int index = 0);

}  // namespace tool_test

#endif
