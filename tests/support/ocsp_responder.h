// OCSP responses (RFC 6960), honest and other ones, and a responder on a real loopback socket that
// gives them. They are put together octet by octet, since OpenSSL makes honest ones only.
#ifndef TESTS_SUPPORT_OCSP_RESPONDER_H
#define TESTS_SUPPORT_OCSP_RESPONDER_H

#include <openssl/ocsp.h>

#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "support/certs.h"
#include "support/test_server.h"

namespace support {

// One DER element.
std::string tlv(unsigned char tag, const std::string &content);
// A GeneralizedTime's text.
std::string generalized_time(time_t when);
// The DER of the CertID of `subject`.
std::string ocsp_cert_id(const cert &subject, const cert &issuer,
                         const EVP_MD *digest = EVP_sha1());

using ocsp_request = std::shared_ptr<OCSP_REQUEST>;
// The body of an HTTP request, decoded; null when it is no OCSP request.
ocsp_request decode_ocsp_request(const std::string &http_request);
// The octets of the nonce extension's value, with their own tag and length; "" without nonce.
std::string ocsp_nonce_of(const ocsp_request &request);

enum class ocsp_nonce { mirrored, none, changed, longer, shorter, critical };

// The DER of an extension whose value is NULL.
std::string ocsp_extension(const std::string &type, bool critical);

// A time of a response that is not there.
constexpr time_t ocsp_left_out = -1;

// The status of one certificate.
struct ocsp_single {
  std::string id = {};                  // DER of its CertID; default: that of the first request
  int status = V_OCSP_CERTSTATUS_GOOD;  // the tag of the CHOICE; beyond 2: as if it were NULL
  time_t this_update = 0;               // default: a minute ago
  time_t next_update = 0;               // default: in an hour; may be ocsp_left_out
  std::string this_update_text = {};    // instead
  std::string next_update_text = {};    // instead
  std::string extensions = {};          // concatenated; none leaves singleExtensions out
};

struct ocsp_options {
  cert signer = {};      // names the responder, unless there is a `responder_id`
  key signing_key = {};  // default: test_key(0)
  bool by_key = false;   // the responder's id is its key's hash instead of its name
  ocsp_single single = {};
  std::vector<cert> certs = {};  // sent along
  ocsp_nonce nonce = ocsp_nonce::mirrored;
  time_t produced_at = 0;             // default: now
  std::string produced_at_text = {};  // instead
  std::vector<ocsp_single> in_front = {};
  bool with_single = true;
  const EVP_MD *digest = nullptr;  // default: SHA-256
  bool damaged_signature = false;
  size_t padding = 0;           // adds a private extension of so many octets
  std::string extensions = {};  // concatenated; behind the nonce

  long response_status = 0;
  bool with_bytes = true;
  std::string type = "1.3.6.1.5.5.7.48.1.1";
  std::string responder_id = {};  // DER, instead
  std::string basic = {};         // DER of the basic response, instead of all above `type`
};

// The DER of the answer to `request`, which may be null when neither its nonce nor its CertID is
// needed.
std::string make_ocsp_response(const ocsp_options &options, const ocsp_request &request = nullptr);

// The 200 answer that carries `der`.
answer ocsp_answer(const std::string &der);

class ocsp_responder {
 public:
  // Answers each request like this.
  explicit ocsp_responder(const ocsp_options &options);
  // Answers each request with these octets.
  explicit ocsp_responder(const std::string &der);

  // From now on.
  void answer_with(const ocsp_options &options);
  void answer_with(const std::string &der);
  // A request for the certificate of that serial number.
  void answer_with(std::function<ocsp_options(long serial)> choose);

  std::string url(const std::string &path = "/") const { return server_.url(path); }
  // Every request so far, with its HTTP head.
  std::vector<std::string> requests() const { return server_.requests(); }

 private:
  answer respond(const std::string &http_request);

  std::mutex mutex_;
  std::function<std::string(const ocsp_request &)> make_;
  test_server server_;
};

}  // namespace support

#endif
