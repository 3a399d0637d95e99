#include "tools/pkilab/crl_room.h"

#include <memory>

#include "tools/common/failure.h"
#include "tools/pkilab/crl_answers.h"

namespace pkilab {

namespace {

class crl_room {
 public:
  crl_room(const ca &keys, const crl_options &options) : options_(options), publisher_(keys) {}

  response respond(const request &asked, const ca::pair &issuer) {
    crl_options options = options_;
    try {
      set_crl_options(asked.query, &options);
      if (asked.by_stranger)
        options.signer = crl_signer::stranger;
      return publish(publisher_.answer(issuer, options, asked.authority), options);
    } catch (const tools::usage_failure &error) {
      return text_response(400, error.what());
    }
  }

 private:
  static response publish(crl_answer answer, const crl_options &options) {
    response made;
    made.status = options.http_status;
    made.content_type = options.content_type.value_or(answer.content_type);
    made.stream = std::move(answer.octets);
    made.announce_length = options.announce_length;
    made.note = std::move(answer.note);
    return made;
  }

  crl_options options_;
  crl_publisher publisher_;
};

}  // namespace

void add_crl_room(route_table *routes, const ca &keys, const crl_options &options) {
  auto room = std::make_shared<crl_room>(keys, options);
  for (const ca::pair *issuer : keys.pairs())
    routes->add({"GET", "/crl/" + keys.name_of(*issuer) + ".crl",
                 "its CRL as DER; ?NAME=VALUE&... chooses which",
                 [room, issuer](const request &asked) { return room->respond(asked, *issuer); }});
}

}  // namespace pkilab
