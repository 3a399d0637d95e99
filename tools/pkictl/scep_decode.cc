// pkictl scep decode: a SCEP message, layer by layer.
#include <libpki/error.h>

#include <CLI/CLI.hpp>
#include <memory>

#include "tools/common/command_line.h"
#include "tools/common/failure.h"
#include "tools/common/keys.h"
#include "tools/common/scep_message.h"
#include "tools/pkictl/command.h"
#include "tools/pkictl/library.h"
#include "tools/pkictl/report.h"
#include "tools/pkictl/scep_file.h"
#include "tools/pkictl/scep_report.h"

namespace pkictl {

namespace {

struct scep_decode_options {
  std::string file;
  std::string key;
  std::string cert;
};

struct verdict {
  std::string what;
  int code = PKI_OK;
};

// Decodes every layer that can be; the first that cannot is the verdict.
json decode(const scep_decode_options &given, verdict *found) {
  tools::pkcs7_ptr message = load_scep_message(given.file);
  tools::pkcs7_ptr envelope = tools::read_envelope(message.get());
  int code = PKI_OK;
  json layers = {{"file", given.file}, {"message", scep_outside_json(message.get())}};
  layers["signature"] = scep_signature_json(message.get(), &code);
  if (code != PKI_OK)
    *found = {given.file + " has no good signature", code};
  layers["envelope"] = scep_envelope_json(envelope.get());
  layers["payload"] = nullptr;
  if (given.key.empty() || !envelope)
    return layers;
  tools::key_ptr key = tools::load_private_key(given.key);
  tools::cert_ptr cert = given.cert.empty() ? nullptr : tools::load_certificate(given.cert);
  layers["payload"] =
      scep_payload_json(message.get(), envelope.get(), key.get(), cert.get(), &code);
  if (code != PKI_OK && found->code == PKI_OK)
    *found = {"the envelope in " + given.file + " does not open", code};
  return layers;
}

// Whose key it is that opens the envelope.
std::string advice(int code, const json &envelope) {
  if (code != PKI_P7_DECRYPT_FAILED || envelope.is_null())
    return "";
  std::string owners;
  for (const json &recipient : envelope["recipients"])
    owners += (owners.empty() ? "; give the key of the certificate " : ", or of ") +
              recipient["serial"].get<std::string>() + " of " +
              name_or_note(recipient["issuer"]).get<std::string>();
  return owners;
}

int scep_decode(const context &where, const scep_decode_options &given) {
  if (given.key.empty() && !given.cert.empty())
    throw tools::usage_failure("--cert needs --key, the recipient's private key");
  start_library();
  verdict found;
  json layers = decode(given, &found);
  std::string message =
      found.what + ": " + code_text_and_number(found.code) + advice(found.code, layers["envelope"]);
  if (found.code != PKI_OK)
    layers["error"] = failure_json(found.code, message);
  if (where.json)
    where.out->write_json(layers);
  else
    where.out->write_text(scep_text(layers));
  if (found.code == PKI_OK)
    return tools::exit_done;
  tools::complain("pkictl", message);
  return tools::exit_failed;
}

}  // namespace

void add_scep_command(CLI::App &app, action *chosen) {
  CLI::App *scep = app.add_subcommand("scep", "Look into SCEP messages");
  scep->require_subcommand(1);
  scep->fallthrough();
  auto given = std::make_shared<scep_decode_options>();
  CLI::App *command = scep->add_subcommand("decode", "Print what a message says, layer by layer");
  command
      ->add_option("FILE", given->file,
                   "The message: DER, PEM, base64, or a query or request line as a log has it")
      ->required();
  command->add_option("--key", given->key,
                      "The recipient's private key (PEM or DER), to open the envelope");
  command->add_option("--cert", given->cert,
                      "The recipient's certificate (PEM or DER); without it the first recipient"
                      " is taken");
  command->footer(
      std::string("Examples:\n"
                  "  pkictl scep decode messages/0001-PKCSReq.der --key lab/issuing-key.pem\n\n"
                  "The signature is checked with the certificate that the message carries, which\n"
                  "says nothing about who that is. Secrets in a request are not shown. 1 says\n"
                  "that the signature is bad or that the envelope does not open.\n\n") +
      common_footer);
  command->callback(
      [=] { *chosen = [=](const context &where) { return scep_decode(where, *given); }; });
}

}  // namespace pkictl
