// A SCEP CA (RFC 8894) on a real loopback socket. What an honest CA says is made by the library's
// own responder side; what one should not say is put together here.
#ifndef TESTS_SUPPORT_SCEP_CA_H
#define TESTS_SUPPORT_SCEP_CA_H

#include <libpki/libpki.h>

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "support/ca_info_doc.h"
#include "support/certs.h"
#include "support/test_server.h"

namespace support {

// A request as it came in.
struct scep_request {
  std::string target;                                // of the GET, line feeds included
  std::string base64;                                // its part behind "message="
  std::string der;                                   // what that decodes to
  pkcs7 message;                                     // null when `der` is none
  int type = -1;                                     // message type
  std::string tx_id, sender_nonce, recipient_nonce;  // "" when absent
  std::string payload;                               // DER in the envelope; "" when it won't open
  time_t at = 0;                                     // when it came
};

// One attribute of a reply: a string of that universal type. Empty `octets` are a value too; `more`
// are further values of the same type.
struct scep_attribute {
  int row;  // of pki_nid_list
  std::string octets;
  int asn1_type = V_ASN1_PRINTABLESTRING;
  std::vector<std::string> more = {};
};

// What the CA does with a request. What is set below `issued` departs from an honest reply.
struct scep_reply {
  int status = SCEP_STATUS_SUCCESS;
  int fail_info = -1;  // left out when negative
  cert issued = {};    // handed out instead of a new certificate

  std::optional<std::string> type = {};             // text; "" leaves the attribute out
  std::optional<std::string> status_text = {};      // the same
  std::optional<std::string> fail_text = {};        // the same
  std::optional<std::string> tx_id = {};            // the same
  std::optional<std::string> recipient_nonce = {};  // the same
  std::optional<std::string> sender_nonce = {};     // the same
  std::vector<scep_attribute> more = {};            // added behind all others
  key signing_key = {};                             // with `signer_cert`: a stranger signs
  cert signer_cert = {};
  cert recipient = {};                      // who can open it, instead of the requester
  std::optional<std::string> payload = {};  // in the envelope, instead of the certificates
  std::optional<std::string> inner = {};    // in the place of the envelope
  std::function<std::string(const std::string &der)> change = {};  // the finished message's octets
  std::optional<answer> http = {};                                 // instead of all that
};

scep_reply pending();
scep_reply refusal(int fail_info = -1);
// `times` answers PENDING, then `last` for ever.
std::vector<scep_reply> pending_then(size_t times, const scep_reply &last = {});

// DER of a degenerate SignedData with these certificates.
std::string certificate_list(const std::vector<cert> &certs);
// The same with an empty list, and without one.
std::string empty_certificate_list();
std::string no_certificate_list();

class scep_ca {
 public:
  // Answers the first request with the first reply, and so on; the last repeats.
  explicit scep_ca(std::vector<scep_reply> script = std::vector<scep_reply>(1));

  std::string url(const std::string &path = "/scep") const { return server_.url(path); }
  // The CA's certificate, for a client.
  const cert &certificate() const { return certificate_; }
  // All requests so far; `heads` octet by octet as they were sent.
  std::vector<scep_request> requests() const;
  std::vector<std::string> heads() const { return server_.requests(); }
  // DER of the answers so far, "" where an answer was no message.
  std::vector<std::string> answers() const;
  // What it has issued so far.
  std::vector<cert> issued() const;
  void forget();  // requests, answers and issued certificates
  void rewind(std::vector<scep_reply> script);

 private:
  answer respond(const std::string &head);
  std::string reply_to(const scep_request &request, const scep_reply &reply);
  std::string library_reply(const scep_request &request, const scep_reply &reply,
                            const cert &recipient);
  std::string hand_made(const scep_request &request, const scep_reply &reply,
                        const cert &recipient);
  cert find_or_issue(const scep_request &request, const scep_reply &reply, const cert &requester);
  void read_message_of(scep_request &request);

  mutable std::mutex mutex_;
  std::vector<scep_reply> script_;
  size_t next_ = 0;
  long next_serial_ = 1001;
  key key_;
  cert certificate_, own_copy_;
  std::vector<scep_request> requests_;
  std::vector<std::string> answers_;
  std::vector<cert> issued_;
  test_server server_;  // last: it answers as soon as it is there
};

// An endpoint description, one that a test owns.
using scep_info = std::shared_ptr<scep_req_info>;
scep_info make_scep_info(const std::string &url, const cert &ca_cert, const char *digest = nullptr,
                         const char *cipher = nullptr);

// The base64 of a GET's message as octets; line feeds are dropped.
std::string decode_base64(const std::string &text);
// Upper-case hexadecimal text.
std::string upper_hex(const std::string &octets);

}  // namespace support

#endif
