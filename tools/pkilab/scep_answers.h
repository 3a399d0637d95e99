// The lab's SCEP responder: a message in, a message out. What it answers is decided here; how the
// answer is made, in scep_reply.
#ifndef TOOLS_PKILAB_SCEP_ANSWERS_H
#define TOOLS_PKILAB_SCEP_ANSWERS_H

#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "tools/pkilab/issued_certs.h"
#include "tools/pkilab/scep_options.h"
#include "tools/pkilab/scep_reply.h"

namespace pkilab {

struct scep_answer {
  std::string der;   // the answer; "" when the message is none that could be answered
  std::string note;  // a line that says what was asked and answered, without "\n"
  std::string name;  // the message's type, for file names
};

// Where the status of a certificate can be had.
struct status_urls {
  std::string ocsp;  // "": not by OCSP
  std::string crl;   // "": not by CRL
};

class scep_responder {
 public:
  // `keys` must outlive it.
  scep_responder(const ca &keys, const scep_options &options)
      : keys_(keys), options_(options), certs_(keys) {}

  // Answers a message; what is issued names the sources of its status. Throws tools::failure. In
  // several threads at once.
  scep_answer answer(const std::string &der, bool by_stranger, const status_urls &urls);

 private:
  // A message that came in.
  struct incoming {
    int type;
    std::string transaction_id;
    PKCS7 *message;
    status_urls urls;  // for what is issued
  };
  // A request that is not decided yet, or being decided.
  struct transaction {
    tools::cert_ptr requester;
    tools::key_ptr public_key;
    std::unique_ptr<X509_NAME, tools::free_with<X509_NAME_free>> subject;
    int pending_answers = 0;
  };
  // What became of a message; owns what the reply points at.
  struct decision {
    scep_reply reply;
    tools::cert_ptr issued;
    tools::cert_ptr recipient;
    std::string reason;  // why it was refused
  };

  decision decide(const incoming &asked);
  decision take_request(const incoming &asked);
  decision take_poll(const incoming &asked);
  decision look_up(PKCS7 *message);
  decision pending_or_issued(const incoming &asked);
  decision hand_out(tools::cert_ptr cert, X509 *recipient) const;

  const ca &keys_;
  scep_options options_;
  issued_certs certs_;
  std::mutex mutex_;
  std::map<std::string, transaction> transactions_;
};

}  // namespace pkilab

#endif
