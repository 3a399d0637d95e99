// scep_stop_polling and scep_limit_polls: a host's ways out of a pending enrollment.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fakes/clock.h"
#include "unit/scep_client/scep_fixture.h"

namespace {

using support::pending_then;
using support::scep_ca;
using support::scep_reply;

constexpr size_t for_ever = 1000;

class ScepStop : public support::scep_client_test {
 protected:
  int enroll_after(size_t times, const scep_reply &last = {}) {
    scep_ca ca(pending_then(times, last));
    int code = enroll(ca);
    sent = ca.requests().size();
    return code;
  }
  static size_t slept() { return fake_clock::sleeps().size(); }

  fake_clock::frozen clock{1800000000};
  size_t sent = 0;
};

TEST_F(ScepStop, SwitchIsOffAtFirstAndTellsItsOldValue) {
  EXPECT_EQ(scep_stop_polling(1), 0);
  EXPECT_NE(scep_stop_polling(0), 0);
  EXPECT_EQ(scep_stop_polling(0), 0);
}

TEST_F(ScepStop, LimitIsNoneAtFirstAndTellsItsOldValue) {
  EXPECT_EQ(scep_limit_polls(3), 0u);
  EXPECT_EQ(scep_limit_polls(0xffffffffu), 3u);
  EXPECT_EQ(scep_limit_polls(0), 0xffffffffu);
}

TEST_F(ScepStop, PendingAnswerEndsAStoppedEnrollmentWithoutASleep) {
  scep_stop_polling(1);
  EXPECT_EQ(enroll_after(for_ever), PKI_NO_SUCH_CERT);
  EXPECT_EQ(sent, 1u);
  EXPECT_EQ(slept(), 0u);
  EXPECT_EQ(count_logged(4, "gave up polling for a pending certificate"), 1u);
  EXPECT_EQ(issued, nullptr);
}

TEST_F(ScepStop, AnyNonZeroValueStops) {
  scep_stop_polling(-5);
  EXPECT_EQ(enroll_after(for_ever), PKI_NO_SUCH_CERT);
  EXPECT_EQ(slept(), 0u);
}

TEST_F(ScepStop, SwitchSetDuringASleepEndsItWithoutAnotherRequest) {
  fake_clock::on_sleep([](size_t count) {
    if (count == 3)
      scep_stop_polling(1);
  });
  EXPECT_EQ(enroll_after(for_ever), PKI_NO_SUCH_CERT);
  EXPECT_EQ(slept(), 3u);
  EXPECT_EQ(sent, 3u);
  EXPECT_EQ(count_logged(4, "gave up polling for a pending certificate"), 1u);
  EXPECT_EQ(issued, nullptr);
}

TEST_F(ScepStop, SwitchTakenBackDuringTheSleepDoesNotStop) {
  fake_clock::on_sleep([](size_t) {
    scep_stop_polling(1);
    scep_stop_polling(0);
  });
  EXPECT_EQ(enroll_after(2), PKI_OK);
  EXPECT_EQ(sent, 3u);
}

TEST_F(ScepStop, StoppedEnrollmentStillTakesACertificate) {
  scep_stop_polling(1);
  EXPECT_EQ(enroll_after(0), PKI_OK);
  EXPECT_NE(issued, nullptr);
}

TEST_F(ScepStop, StoppedEnrollmentStillTellsARefusalAndAnError) {
  scep_stop_polling(1);
  EXPECT_EQ(enroll_after(0, support::refusal(2)), PKI_SCEP_REQ_REJ);
  scep_reply garbage;
  garbage.http = support::ok("x");
  EXPECT_EQ(enroll_after(0, garbage), PKI_INVALID_SCEP_RSP);
}

TEST_F(ScepStop, StopHoldsForTheNextEnrollmentUntilTakenBack) {
  scep_stop_polling(1);
  EXPECT_EQ(enroll_after(1), PKI_NO_SUCH_CERT);
  EXPECT_EQ(enroll_after(1), PKI_NO_SUCH_CERT);
  scep_stop_polling(0);
  EXPECT_EQ(enroll_after(1), PKI_OK);
}

TEST_F(ScepStop, LimitEndsItAfterSoManyPolls) {
  for (unsigned limit : {1u, 3u}) {
    size_t before = slept();
    scep_limit_polls(limit);
    EXPECT_EQ(enroll_after(for_ever), PKI_NO_SUCH_CERT);
    EXPECT_EQ(sent, limit + 1);
    EXPECT_EQ(slept() - before, limit);
    EXPECT_EQ(issued, nullptr);
  }
}

TEST_F(ScepStop, CertificateAtTheLastPollAllowedIsTaken) {
  scep_limit_polls(3);
  EXPECT_EQ(enroll_after(3), PKI_OK);
  EXPECT_EQ(enroll_after(4), PKI_NO_SUCH_CERT);
}

TEST_F(ScepStop, LimitCountsEachEnrollmentAnew) {
  scep_limit_polls(2);
  for (int i = 0; i < 3; i++)
    EXPECT_EQ(enroll_after(2), PKI_OK);
}

TEST_F(ScepStop, LimitSetDuringASleepCounts) {
  fake_clock::on_sleep([](size_t count) {
    if (count == 2)
      scep_limit_polls(2);
  });
  EXPECT_EQ(enroll_after(for_ever), PKI_NO_SUCH_CERT);
  EXPECT_LE(sent, 3u);
}

TEST_F(ScepStop, LimitTakenAwayDuringASleepCounts) {
  scep_limit_polls(1);
  fake_clock::on_sleep([](size_t) { scep_limit_polls(0); });
  EXPECT_EQ(enroll_after(5), PKI_OK);
}

TEST_F(ScepStop, NeitherConcernsAQuery) {
  scep_stop_polling(1);
  scep_limit_polls(1);
  scep_ca ca({support::pending()});
  support::scep_info info = endpoint(ca);
  cert_info *query = alloc_cert_info();
  query->issuer = X509_NAME_dup(support::common_name("scep ca").get());
  query->serial = ASN1_INTEGER_dup(support::make_serial(5).get());
  EXPECT_EQ(scep_qry_cert(query, info.get(), own_key.get()), PKI_SCEP_REQ_REJ);
  free_cert_info(query);
}

}  // namespace
