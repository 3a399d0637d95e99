// pki_get_certificate and answers that were damaged on the way: an error and an unchanged store,
// or the very certificate that was issued.
#include <gtest/gtest.h>
#include <openssl/err.h>

#include <functional>
#include <string>

#include "unit/pki/enroll_fixture.h"

namespace {

using support::scep_ca;
using support::scep_reply;

class EnrollBadAnswers : public support::enroll_test {
 protected:
  using damage = std::function<std::string(std::string)>;

  // Enrolls with a CA whose answer is damaged so.
  int enroll(scep_ca &ca, const damage &how) {
    scep_reply reply;
    reply.change = how;
    ca.forget();
    ca.rewind({reply});
    clear_log();
    return pki_get_certificate("ca", "key", "cert", nullptr);
  }
  void expect_refused_or_whole(int code, const scep_ca &ca, size_t at) {
    if (code != PKI_OK) {
      EXPECT_EQ(code, PKI_INVALID_SCEP_RSP) << at;
      expect_nothing_filed();
    } else {
      ASSERT_EQ(filed(), 1) << at;
      EXPECT_EQ(support::ders(pki_store->provisioned_certs).at(0), support::der(ca.issued().at(0)))
          << at;
      pki_remove_certificate("key", "cert");
    }
    EXPECT_EQ(ERR_peek_error(), 0u) << at;
  }
  size_t answer_size(scep_ca &ca) {
    EXPECT_EQ(enroll(ca, nullptr), PKI_OK);
    pki_remove_certificate("key", "cert");
    return ca.answers().at(0).size();
  }
};

TEST_F(EnrollBadAnswers, CutAnswersAreRefused) {
  scep_ca ca;
  add_ca(ca);
  size_t size = answer_size(ca);
  for (size_t length = 0; length < size; length += 23) {
    int code = enroll(ca, [&](std::string der) { return der.substr(0, length); });
    EXPECT_EQ(code, PKI_INVALID_SCEP_RSP) << length;
    expect_nothing_filed();
  }
}

TEST_F(EnrollBadAnswers, ChangedOctetsAreRefusedOrHarmless) {
  scep_ca ca;
  add_ca(ca);
  size_t size = answer_size(ca);
  for (size_t at = 0; at < size; at += 11) {
    int code = enroll(ca, [&](std::string der) {
      if (at < der.size())
        der[at] = static_cast<char>(der[at] ^ (1 << (at % 8)));
      return der;
    });
    expect_refused_or_whole(code, ca, at);
  }
}

TEST_F(EnrollBadAnswers, OctetsTakenOutAreRefusedOrHarmless) {
  scep_ca ca;
  add_ca(ca);
  size_t size = answer_size(ca);
  for (size_t at = 0; at < size; at += 37) {
    int code = enroll(ca, [&](std::string der) {
      if (at < der.size())
        der.erase(at, 1);
      return der;
    });
    expect_refused_or_whole(code, ca, at);
  }
}

TEST_F(EnrollBadAnswers, AnswerToAnotherRequestIsRefused) {
  scep_ca ca;
  add_ca(ca);
  ASSERT_EQ(enroll(ca, nullptr), PKI_OK);
  std::string old = ca.answers().at(0);
  pki_remove_certificate("key", "cert");
  EXPECT_EQ(enroll(ca, [&](std::string) { return old; }), PKI_INVALID_SCEP_RSP);
  EXPECT_TRUE(logged_containing(
      3, "The sender-nonce in the request doesn't match the recipient-nonce in the response"))
      << log_dump();
  expect_nothing_filed();
}

}  // namespace
