// scep_cert_req while the CA answers PENDING: when it polls, and with what.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fakes/clock.h"
#include "unit/scep_client/scep_fixture.h"

namespace {

using support::log_lines;
using support::octets_attribute;
using support::own_lines;
using support::pending_then;
using support::scep_ca;
using support::scep_reply;
using support::scep_request;

class ScepPoll : public support::scep_client_test {
 protected:
  // Enrolls with a CA that answers PENDING so often, and then `last`.
  int enroll_after(size_t times, const scep_reply &last = {}) {
    scep_ca ca(pending_then(times, last));
    int code = enroll(ca);
    requests = ca.requests();
    answers = ca.answers();
    expected = ca.issued().empty() ? nullptr : ca.issued().back();
    return code;
  }
  static std::vector<unsigned> sleeps_of_ten_minutes(size_t times) {
    return std::vector<unsigned>(times, 600u);
  }
  static const STACK_OF(X509) * sender(const scep_request &request) {
    return request.message->d.sign->cert;
  }

  fake_clock::frozen clock{1800000000};
  support::cert expected;
};

TEST_F(ScepPoll, PollsEvery600SecondsForAsLongAsItTakes) {
  for (size_t times : {0u, 1u, 3u, 100u}) {
    fake_clock::use_real();
    fake_clock::set(1800000000);
    clear_log();
    ASSERT_EQ(enroll_after(times), PKI_OK) << log_dump();
    EXPECT_EQ(support::der(issued), support::der(expected));
    EXPECT_EQ(fake_clock::sleeps(), sleeps_of_ten_minutes(times));
    ASSERT_EQ(requests.size(), times + 1);
    for (size_t i = 0; i < requests.size(); i++) {
      EXPECT_EQ(requests[i].at, static_cast<time_t>(1800000000 + 600 * i));
      EXPECT_EQ(requests[i].type, i ? SCEP_GET_CERT_INITIAL : SCEP_PKCS_REQ);
    }
    EXPECT_EQ(captured_log(), log_lines());
  }
}

TEST_F(ScepPoll, KeepsTheTransactionId) {
  ASSERT_EQ(enroll_after(4), PKI_OK);
  for (const scep_request &each : requests)
    EXPECT_EQ(each.tx_id, requests[0].tx_id);
  EXPECT_EQ(requests[0].tx_id.size(), 32u);
}

TEST_F(ScepPoll, EachPollAnswersTheNonceInTheLastResponse) {
  ASSERT_EQ(enroll_after(5), PKI_OK);
  for (size_t i = 1; i < requests.size(); i++) {
    std::string last = octets_attribute(answers[i - 1], PKI_OID_SCEP_SENDER_NONCE);
    EXPECT_EQ(last.size(), 16u);
    EXPECT_EQ(requests[i].recipient_nonce, last) << i;
  }
}

TEST_F(ScepPoll, EachPollHasItsOwnNonce) {
  ASSERT_EQ(enroll_after(3), PKI_OK);
  for (size_t i = 0; i < requests.size(); i++)
    for (size_t j = 0; j < i; j++)
      EXPECT_NE(requests[i].sender_nonce, requests[j].sender_nonce);
}

TEST_F(ScepPoll, AsksForTheNamesOfCaAndRequester) {
  ASSERT_EQ(enroll_after(1), PKI_OK);
  const auto *in = reinterpret_cast<const unsigned char *>(requests[1].payload.data());
  SCEP_ISSUER_AND_SUBJECT *names =
      d2i_SCEP_ISSUER_AND_SUBJECT(nullptr, &in, static_cast<long>(requests[1].payload.size()));
  ASSERT_NE(names, nullptr);
  EXPECT_EQ(support::oneline(names->issuer), "/CN=scep ca");
  EXPECT_EQ(support::oneline(names->subject), "/C=US/CN=device");
  SCEP_ISSUER_AND_SUBJECT_free(names);
}

TEST_F(ScepPoll, NullSubjectIsAskedForAsAnEmptyName) {
  subject = nullptr;
  ASSERT_EQ(enroll_after(1), PKI_OK) << log_dump();
  const auto *in = reinterpret_cast<const unsigned char *>(requests[1].payload.data());
  SCEP_ISSUER_AND_SUBJECT *names =
      d2i_SCEP_ISSUER_AND_SUBJECT(nullptr, &in, static_cast<long>(requests[1].payload.size()));
  ASSERT_NE(names, nullptr);
  EXPECT_EQ(X509_NAME_entry_count(names->subject), 0);
  SCEP_ISSUER_AND_SUBJECT_free(names);
}

TEST_F(ScepPoll, SignsEachMessageUnderTheSameCertificate) {
  ASSERT_EQ(enroll_after(2), PKI_OK);
  for (const scep_request &each : requests) {
    ASSERT_EQ(sk_X509_num(sender(each)), 1);
    EXPECT_EQ(X509_cmp(sk_X509_value(sender(each), 0), sk_X509_value(sender(requests[0]), 0)), 0);
  }
}

TEST_F(ScepPoll, GoesToTheSameTarget) {
  ASSERT_EQ(enroll_after(1), PKI_OK);
  EXPECT_EQ(requests[1].target,
            "/scep?operation=PKIOperation&message=" + support::base64_lines(requests[1].der));
}

TEST_F(ScepPoll, RefusalAfterPendingEndsIt) {
  EXPECT_EQ(enroll_after(2, support::refusal(2)), PKI_SCEP_REQ_REJ);
  EXPECT_EQ(fake_clock::sleeps(), sleeps_of_ten_minutes(2));
  EXPECT_EQ(own_lines(), (log_lines{{3, "cert-request rejected"}, {3, "rejection-reason: 2"}}));
  EXPECT_EQ(issued, nullptr);
}

TEST_F(ScepPoll, InvalidAnswerAfterPendingEndsIt) {
  scep_reply reply;
  reply.recipient_nonce = "0123456789abcdef";
  EXPECT_EQ(enroll_after(1, reply), PKI_INVALID_SCEP_RSP);
  EXPECT_EQ(requests.size(), 2u);
  EXPECT_EQ(issued, nullptr);
}

TEST_F(ScepPoll, HttpErrorAfterPendingEndsIt) {
  scep_reply reply;
  reply.http = support::status(500);
  EXPECT_EQ(enroll_after(2, reply), PKI_HTTP_ERROR);
  EXPECT_EQ(requests.size(), 3u);
  EXPECT_EQ(own_lines().size(), 1u);
  EXPECT_TRUE(logged_containing(4, " sts=500\n(null)"));
}

TEST_F(ScepPoll, PendingAnswerWithoutASenderNonceCannotBePolledFor) {
  scep_reply reply = support::pending();
  reply.sender_nonce = "";
  EXPECT_EQ(enroll_after(0, reply), PKI_ATTR_NOT_FOUND);
  EXPECT_EQ(own_lines(),
            (log_lines{{3, "failed to generate scep CertInit request: ATTR NOT FOUND"}}));
  EXPECT_EQ(requests.size(), 1u);
  EXPECT_EQ(issued, nullptr);
}

TEST_F(ScepPoll, PendingAnswerWhoseSenderNonceIsNoOctetStringCannotBePolledFor) {
  scep_reply reply = support::pending();
  reply.sender_nonce = "";
  reply.more = {{PKI_OID_SCEP_SENDER_NONCE, "0123456789abcdef"}};
  EXPECT_EQ(enroll_after(0, reply), PKI_ATTR_NOT_OCTET_STRING);
  EXPECT_EQ(own_lines(),
            (log_lines{{3, "failed to generate scep CertInit request: ATTR NOT OCTET STRING"}}));
}

TEST_F(ScepPoll, SenderNonceWithAnyLengthIsAnswered) {
  for (std::string nonce : {std::string("x"), std::string(1000, 'n')}) {
    scep_reply first = support::pending();
    first.sender_nonce = nonce;
    scep_ca ca({first, {}});
    ASSERT_EQ(enroll(ca), PKI_OK) << log_dump();
    EXPECT_EQ(ca.requests().at(1).recipient_nonce, nonce);
  }
}

TEST_F(ScepPoll, PendingAnswerOnWhichFailureInfoStandsIsStillPending) {
  scep_reply first = support::pending();
  first.fail_info = 2;
  scep_ca ca({first, {}});
  EXPECT_EQ(enroll(ca), PKI_OK);
  EXPECT_EQ(own_lines(), log_lines());
}

}  // namespace
