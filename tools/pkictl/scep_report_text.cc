#include "tools/pkictl/report.h"
#include "tools/pkictl/scep_report.h"

namespace pkictl {

namespace {

std::string certs_text(const std::string &name, const json &certs) {
  std::string text = text_line(1, name, certs.empty() ? json("none") : json(certs.size()));
  for (const json &cert : certs)
    text += cert_text(2, "-", cert);
  return text;
}

std::string issuer_and_serial(const std::string &name, const json &cert) {
  return text_line(1, name, name_or_note(cert["issuer"])) + text_line(2, "serial", cert["serial"]);
}

std::string outside_text(const json &outside) {
  std::string text = "message\n";
  text += text_line(1, "type", outside["message_type"]);
  text += text_line(1, "status", outside["status"]);
  text += text_line(1, "failure info", outside["failure_info"]);
  text += text_line(1, "transaction id", outside["transaction_id"]);
  text += text_line(1, "sender nonce", outside["sender_nonce"]);
  return text + text_line(1, "recipient nonce", outside["recipient_nonce"]);
}

std::string signature_text(const json &signature) {
  std::string text = "signature\n";
  text += text_line(1, "verdict", signature["signature"]);
  text += text_line(1, "digest", signature["digest"]);
  if (!signature["signer"].is_null())
    text += issuer_and_serial("signer's issuer", signature["signer"]);
  return text + certs_text("certificates", signature["certificates"]);
}

std::string envelope_text(const json &envelope) {
  if (envelope.is_null())
    return "no envelope\n";
  std::string text = "envelope\n" + text_line(1, "cipher", envelope["cipher"]);
  for (const json &recipient : envelope["recipients"])
    text += issuer_and_serial("for issuer", recipient);
  return text;
}

// What fits into the column.
std::string words_of(const std::string &member) {
  return member == "signature_algorithm" ? "signed with" : member;
}

std::string payload_text(const json &payload) {
  std::string text = "payload\n";
  for (const auto &[name, value] : payload.items())
    if (!value.is_array())
      text += text_line(1, words_of(name), name_or_note(value));
  for (const json &attribute : payload.value("attributes", json::array()))
    text += text_line(1, attribute["name"].get<std::string>(), attribute["value"]);
  if (payload.contains("certificates"))
    text += certs_text("certificates", payload["certificates"]);
  return text;
}

}  // namespace

std::string scep_text(const json &layers) {
  std::string text = outside_text(layers["message"]) + signature_text(layers["signature"]) +
                     envelope_text(layers["envelope"]);
  return layers["payload"].is_null() ? text : text + payload_text(layers["payload"]);
}

}  // namespace pkictl
