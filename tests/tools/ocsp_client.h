// Clients of the lab's OCSP room: OpenSSL's program, and its functions for what that cannot show.
#ifndef TESTS_TOOLS_OCSP_CLIENT_H
#define TESTS_TOOLS_OCSP_CLIENT_H

#include <openssl/ocsp.h>

#include <memory>
#include <string>

#include "run_tool.h"
#include "tools/common/ossl.h"
#include "tools/pkilab/ca.h"

namespace tool_test {

using ocsp_request_ptr = std::unique_ptr<OCSP_REQUEST, tools::free_with<OCSP_REQUEST_free>>;
using ocsp_response_ptr = std::unique_ptr<OCSP_RESPONSE, tools::free_with<OCSP_RESPONSE_free>>;
using ocsp_basic_ptr = std::unique_ptr<OCSP_BASICRESP, tools::free_with<OCSP_BASICRESP_free>>;

// Runs the openssl program.
result openssl(const strings &arguments);

// A certificate that the lab issues for the test, under CN=tested.
tools::cert_ptr issue_cert(const pkilab::ca &keys, const pkilab::ca::pair &issuer);

// A request for a certificate's status, with a nonce, and the lab's answer to it.
class ocsp_query {
 public:
  ocsp_query(int port, X509 *cert, X509 *issuer, const std::string &query = "");

  // The answer as it came from the server.
  const std::string &http() const { return http_; }
  // Null where the body is no OCSP response.
  OCSP_RESPONSE *response() const { return response_.get(); }
  int response_status() const;
  // Null where there is no basic response.
  OCSP_BASICRESP *basic() const { return basic_.get(); }

  struct single {
    bool found = false;
    int status = -1;
    int reason = -1;
    std::string this_update;
    std::string next_update;  // "": none
  };
  // The first single response for the certificate that was asked for.
  single find() const;
  // As OCSP_check_nonce says.
  int nonce_check() const;
  // Does the certificate's key verify the signature?
  bool is_signed_by(X509 *signer) const;
  // The first certificate in the response, or null.
  X509 *carried_cert() const;

 private:
  ocsp_request_ptr request_;
  std::string http_;
  ocsp_response_ptr response_;
  ocsp_basic_ptr basic_;
};

// The request itself, as DER.
std::string ocsp_request_der(OCSP_REQUEST *request);
ocsp_request_ptr make_ocsp_request(X509 *cert, X509 *issuer);

// What the server at `port` sends back for a POST of these octets.
std::string post_ocsp(int port, const std::string &query, const std::string &body,
                      const std::string &type = "application/ocsp-request");

}  // namespace tool_test

#endif
