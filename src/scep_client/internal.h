// The SCEP client's private parts.
#ifndef PKI_SCEP_CLIENT_INTERNAL_H
#define PKI_SCEP_CLIENT_INTERNAL_H

#include <libpki/scep_client.h>
#include <libpki/scep_msg.h>

#include "common/ossl_ptr.h"

namespace pki {

// A message's DER as text for a log line; "(null)" where there is none.
class message_text {
 public:
  explicit message_text(PKCS7 *message);
  [[nodiscard]] const char *get() const;

 private:
  malloc_ptr<char> text_;
};

// The algorithms that the CA asks for; null where the default is meant. A name that OpenSSL does
// not know means it too, with a line at level 4.
struct scep_algorithms {
  const EVP_MD *md;
  const EVP_CIPHER *cipher;
};
[[nodiscard]] scep_algorithms find_algorithms(const scep_req_info &info);

// One answer of the CA.
struct scep_answer {
  pkcs7_ptr message;
  pkcs7_ptr content;  // on SUCCESS: the certificates
  int status;
};

// Sends `request` and takes the answer. Returns 0 or the codes of send_scep_msg; what
// parse_scep_rsp said is in `*parse_error`.
[[nodiscard]] int exchange_scep(PKCS7 *request, const scep_req_info &info, EVP_PKEY *key,
                                X509 *own_cert, scep_answer *answer, int *parse_error);

// The requester's certificate: the first in the request's own list, which keeps it. May be null.
[[nodiscard]] X509 *requester_cert(PKCS7 *request);

// The first certificate of a SUCCESS answer, with a reference of the caller's.
// Returns 0; 49; 59 with a line at level 3.
[[nodiscard]] int take_issued_cert(PKCS7 *content, X509 **cert);

// The CA's refusal in the log. Always PKI_SCEP_REQ_REJ.
[[nodiscard]] int report_rejection(PKCS7 *response);

// Waits for the next poll. Returns 0, or PKI_NO_SUCH_CERT when the host has given up or `polls`
// polls were all it wants.
[[nodiscard]] int wait_for_poll(unsigned int polls);

}  // namespace pki

#endif
