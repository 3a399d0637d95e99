#include "tools/pkilab/scep_room.h"

#include <atomic>
#include <cstdio>
#include <memory>

#include "tools/common/files.h"
#include "tools/common/keys.h"
#include "tools/common/scep_message.h"
#include "tools/common/text.h"
#include "tools/pkilab/crl_options.h"
#include "tools/pkilab/scep_answers.h"

namespace pkilab {

namespace {

constexpr const char *path = "/scep";
constexpr const char *capabilities =
    "AES\nDES3\nPOSTPKIOperation\nRenewal\nSCEPStandard\nSHA-1\nSHA-256\nSHA-512\n";

// Files 0001-PKCSReq.der, 0001-reply.der, 0002-... in a folder.
class message_recorder {
 public:
  explicit message_recorder(const std::string &folder) : folder_(folder) {
    if (!folder_.empty())
      tools::make_folders(folder_);
  }

  void record(const std::string &message, const scep_answer &answer) {
    if (folder_.empty())
      return;
    char number[16];
    snprintf(number, sizeof number, "%04u", ++count_);
    std::string start = folder_ + "/" + number + "-";
    tools::write_file(start + answer.name + ".der", message, 0600);
    tools::write_file(start + "reply.der", answer.der, 0600);
  }

 private:
  std::string folder_;
  std::atomic<unsigned> count_{0};
};

class scep_room {
 public:
  scep_room(const ca &keys, const scep_options &options)
      : keys_(keys), options_(options), responder_(keys, options), recorder_(options.save_folder) {}

  response respond(const request &asked) {
    if (options_.misdeeds.contains(misdeed::http_404))
      return text_response(404, "not found, as told");
    if (options_.misdeeds.contains(misdeed::http_500))
      return text_response(500, "failed, as told");
    std::string operation = tools::query_value(asked.query, "operation").value_or("");
    if (operation == "GetCACaps")
      return typed_response("text/plain", capabilities);
    if (operation == "GetCACert")
      return typed_response("application/x-x509-ca-cert",
                            tools::cert_der(keys_.issuing().cert.get()));
    if (operation == "PKIOperation")
      return answer_message(asked);
    return text_response(400, "operation is none of GetCACaps, GetCACert and PKIOperation");
  }

 private:
  static response typed_response(const std::string &type, const std::string &body) {
    response made;
    made.content_type = type;
    made.body = body;
    return made;
  }

  response answer_message(const request &asked) {
    std::optional<std::string> message = asked.body;
    if (asked.method != "POST")
      message = tools::decode_message_text(tools::query_value(asked.query, "message").value_or(""));
    if (!message)
      return text_response(400, "the query's message is no base64");
    scep_answer answer = responder_.answer(*message, asked.by_stranger, urls(asked));
    if (options_.misdeeds.contains(misdeed::no_message))
      answer.der = "these octets are no message";
    recorder_.record(*message, answer);
    response made = answer.der.empty() ? text_response(400, answer.note)
                                       : typed_response("application/x-pki-message", answer.der);
    made.note = answer.note;
    return made;
  }

  status_urls urls(const request &asked) const {
    status_urls urls;
    if (options_.ocsp_query)
      urls.ocsp = "http://" + asked.authority + "/ocsp" +
                  (options_.ocsp_query->empty() ? "" : "?" + *options_.ocsp_query);
    if (options_.crl_query)
      urls.crl = crl_url(asked.authority, keys_.name_of(keys_.issuing()), *options_.crl_query);
    return urls;
  }

  const ca &keys_;
  scep_options options_;
  scep_responder responder_;
  message_recorder recorder_;
};

}  // namespace

void add_scep_room(route_table *routes, const ca &keys, const scep_options &options) {
  auto room = std::make_shared<scep_room>(keys, options);
  auto handle = [room](const request &asked) { return room->respond(asked); };
  routes->add({"GET", path, "SCEP: ?operation=GetCACaps, GetCACert, PKIOperation", handle});
  routes->add({"POST", path, "SCEP: ?operation=PKIOperation, the message as DER", handle});
}

}  // namespace pkilab
