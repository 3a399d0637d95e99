#include "tools/pkilab/ocsp_room.h"

#include <strings.h>

#include <memory>

#include "tools/common/failure.h"
#include "tools/common/scep_message.h"
#include "tools/pkilab/ocsp_answers.h"

namespace pkilab {

namespace {

constexpr const char *path = "/ocsp";
constexpr const char *request_type = "application/ocsp-request";

class ocsp_room {
 public:
  ocsp_room(const ca &keys, const ocsp_options &options) : options_(options), responder_(keys) {}

  response take_post(const request &asked) {
    if (strcasecmp(asked.header("Content-Type").c_str(), request_type) != 0)
      return text_response(415, std::string("the Content-Type is not ") + request_type);
    return answer(asked, asked.body);
  }

  response take_get(const request &asked) {
    std::string base64 = asked.path.substr(std::string(path).size() + 1);
    std::optional<std::string> der = tools::decode_message_text(base64);
    return der ? answer(asked, *der) : text_response(400, "the path's request is no base64");
  }

 private:
  response answer(const request &asked, const std::string &der) {
    ocsp_options options = options_;
    try {
      set_ocsp_options(asked.query, &options);
    } catch (const tools::usage_failure &error) {
      return text_response(400, error.what());
    }
    if (asked.by_stranger)
      options.signer = ocsp_signer::stranger;
    ocsp_answer answered = responder_.answer(der, options, asked.authority);
    response made;
    made.status = options.http_status;
    made.content_type = options.content_type;
    made.body = std::move(answered.der);
    made.note = std::move(answered.note);
    return made;
  }

  ocsp_options options_;
  ocsp_responder responder_;
};

}  // namespace

void add_ocsp_room(route_table *routes, const ca &keys, const ocsp_options &options) {
  auto room = std::make_shared<ocsp_room>(keys, options);
  routes->add({"POST", path, "OCSP: the request as DER; ?NAME=VALUE&... chooses the answer",
               [room](const request &asked) { return room->take_post(asked); }});
  routes->add({"GET", std::string(path) + "/", "OCSP: the request as base64 in the path",
               [room](const request &asked) { return room->take_get(asked); }});
}

}  // namespace pkilab
