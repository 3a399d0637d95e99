#include "tools/pkilab/scep_answers.h"

#include <libpki/error.h>
#include <libpki/scep_msg.h>
#include <openssl/err.h>

#include "tools/common/failure.h"
#include "tools/common/scep_message.h"

namespace pkilab {

namespace {

using req_ptr = std::unique_ptr<X509_REQ, tools::free_with<X509_REQ_free>>;
using issuer_and_subject_ptr =
    std::unique_ptr<SCEP_ISSUER_AND_SUBJECT, tools::free_with<SCEP_ISSUER_AND_SUBJECT_free>>;
using issuer_and_serial_ptr =
    std::unique_ptr<PKCS7_ISSUER_AND_SERIAL, tools::free_with<PKCS7_ISSUER_AND_SERIAL_free>>;
using parse_function = int(PKCS7 *, X509 **, EVP_PKEY *, X509 *, void **);

// A message is refused: what the answer and the log say.
struct refusal {
  int fail_info;
  std::string reason;
};

tools::cert_ptr share(X509 *cert) {
  if (X509_up_ref(cert) != 1)
    throw tools::failure("out of memory");
  return tools::cert_ptr(cert);
}

// Opens a message; `*signer` receives the certificate that it carries for its signer.
template <class Payload>
Payload open_message(parse_function *parse, const ca &keys, PKCS7 *message,
                     tools::cert_ptr *signer) {
  X509 *carried = nullptr;
  void *opened = nullptr;
  const ca::pair &own = keys.issuing();
  int code = parse(message, &carried, own.key.get(), own.cert.get(), &opened);
  Payload payload(static_cast<typename Payload::pointer>(opened));
  ERR_clear_error();
  if (code != PKI_OK)
    throw refusal{tools::bad_message_check, pki_strerror(static_cast<unsigned>(code))};
  if (!carried || !X509_get0_pubkey(carried))
    throw refusal{tools::bad_message_check, "the signer's certificate is missing or has no key"};
  *signer = share(carried);
  return payload;
}

std::string describe(int type, const std::string &transaction_id, const scep_reply &reply,
                     const std::string &reason) {
  std::string name = tools::scep_type_name(type);
  std::string text = (name.empty() ? "a message of unknown type" : name) + " " + transaction_id +
                     ": " + tools::scep_status_name(reply.status);
  if (reply.fail_info >= 0)
    text += " " + tools::scep_fail_info_name(reply.fail_info);
  return reason.empty() ? text : text + " (" + reason + ")";
}

}  // namespace

scep_answer scep_responder::answer(const std::string &der, bool by_stranger,
                                   const status_urls &urls) {
  tools::pkcs7_ptr message = tools::decode_pkcs7(der);
  if (!message)
    return {"", "the message is no PKCS#7", "unknown"};
  tools::scep_outside asked = tools::read_outside(message.get());
  if (!asked.transaction_id || !asked.sender_nonce)
    return {"", "the message has no transaction id or no sender nonce", "unknown"};
  int type = tools::scep_number(asked.type);
  decision made;
  try {
    made = decide({type, *asked.transaction_id, message.get(), urls});
  } catch (const refusal &refused) {
    made.reply = {SCEP_STATUS_FAILURE, refused.fail_info};
    made.reason = refused.reason;
  }
  std::set<misdeed> misdeeds = options_.misdeeds;
  if (by_stranger)
    misdeeds.insert(misdeed::stranger_signs);
  std::string name = tools::scep_type_name(type);
  return {seal_reply(keys_, misdeeds, made.reply, message.get()),
          describe(type, *asked.transaction_id, made.reply, made.reason),
          name.empty() ? "unknown" : name};
}

scep_responder::decision scep_responder::decide(const incoming &asked) {
  switch (asked.type) {
    case SCEP_PKCS_REQ:
    case tools::scep_renewal_req:
      return take_request(asked);
    case SCEP_GET_CERT_INITIAL:
      return take_poll(asked);
    case SCEP_GET_CERT:
      return look_up(asked.message);
    default:
      throw refusal{tools::bad_request, "no answer is known for this type"};
  }
}

scep_responder::decision scep_responder::take_request(const incoming &asked) {
  tools::cert_ptr requester;
  auto request = open_message<req_ptr>(parse_scep_cert_req, keys_, asked.message, &requester);
  tools::key_ptr public_key(X509_REQ_get_pubkey(request.get()));
  bool proven = public_key && X509_REQ_verify(request.get(), public_key.get()) == 1;
  ERR_clear_error();
  if (!proven)
    throw refusal{tools::bad_message_check, "the PKCS#10 request is not signed by its key"};
  std::lock_guard lock(mutex_);
  transaction &entry = transactions_[asked.transaction_id];
  entry.requester = std::move(requester);
  entry.public_key = std::move(public_key);
  entry.subject.reset(X509_NAME_dup(X509_REQ_get_subject_name(request.get())));
  return pending_or_issued(asked);
}

scep_responder::decision scep_responder::take_poll(const incoming &asked) {
  tools::cert_ptr poller;
  auto wanted =
      open_message<issuer_and_subject_ptr>(parse_scep_get_cert_init, keys_, asked.message, &poller);
  const X509_NAME *own_name = X509_get_subject_name(keys_.issuing().cert.get());
  std::lock_guard lock(mutex_);
  auto found = transactions_.find(asked.transaction_id);
  if (found == transactions_.end() || X509_NAME_cmp(wanted->issuer, own_name) != 0 ||
      X509_NAME_cmp(wanted->subject, found->second.subject.get()) != 0)
    throw refusal{tools::bad_cert_id, "no such request is pending"};
  if (EVP_PKEY_eq(X509_get0_pubkey(poller.get()),
                  X509_get0_pubkey(found->second.requester.get())) != 1)
    throw refusal{tools::bad_message_check, "another key made the request"};
  return pending_or_issued(asked);
}

scep_responder::decision scep_responder::look_up(PKCS7 *message) {
  tools::cert_ptr asker;
  auto wanted = open_message<issuer_and_serial_ptr>(parse_scep_get_cert, keys_, message, &asker);
  if (options_.refuse >= 0)
    throw refusal{options_.refuse, "as told"};
  tools::cert_ptr cert = certs_.find(wanted->issuer, wanted->serial);
  if (!cert)
    throw refusal{tools::bad_cert_id, "no such certificate"};
  return hand_out(std::move(cert), asker.get());
}

// The next answer to a transaction that is there.
scep_responder::decision scep_responder::pending_or_issued(const incoming &asked) {
  auto entry = transactions_.find(asked.transaction_id);
  if (entry->second.pending_answers < options_.pending) {
    entry->second.pending_answers++;
    decision wait;
    wait.reply.status = SCEP_STATUS_PENDING;
    return wait;
  }
  transaction decided = std::move(entry->second);
  transactions_.erase(entry);
  if (options_.refuse >= 0)
    throw refusal{options_.refuse, "as told"};
  EVP_PKEY *key = options_.misdeeds.contains(misdeed::wrong_key) ? keys_.stranger_key()
                                                                 : decided.public_key.get();
  cert_wishes wishes;
  wishes.subject = decided.subject.get();
  wishes.public_key = key;
  if (!asked.urls.ocsp.empty())
    wishes.ocsp_urls = {asked.urls.ocsp};
  if (!asked.urls.crl.empty())
    wishes.crl_urls = {asked.urls.crl};
  return hand_out(certs_.issue(wishes, keys_.issuing()), decided.requester.get());
}

scep_responder::decision scep_responder::hand_out(tools::cert_ptr cert, X509 *recipient) const {
  decision made;
  made.issued = std::move(cert);
  made.recipient = share(recipient);
  made.reply = {SCEP_STATUS_SUCCESS, -1, made.issued.get(), made.recipient.get()};
  return made;
}

}  // namespace pkilab
