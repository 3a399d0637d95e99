// The four rules about the times of an answer, on both sides of each bound.
#include "unit/verifier/cert_verifier/ocsp_support.h"
#include "unit/verifier/printed_time.h"

using namespace ocsp_support;

namespace {

constexpr time_t tolerance = 300;
constexpr time_t oldest = 43200300;  // 500 days and the tolerance

class OcspTimes : public ocsp_query_test {
 protected:
  void expect_accepted(const ocsp_options &options) {
    clear_log();
    EXPECT_EQ(PKI_CERT_OK, status_of(ask(options)));
    EXPECT_EQ(accepted_from_issuer(), judgement());
  }
  void expect_refused(const ocsp_options &options, const std::string &line) {
    clear_log();
    EXPECT_EQ(nullptr, ask(options));
    EXPECT_EQ("3: " + line + "\n", judgement());
  }
  ocsp_options produced(time_t when) const {
    ocsp_options options = by_issuer();
    options.produced_at = when;
    return options;
  }
  ocsp_options updated(time_t when) const {
    ocsp_options options = by_issuer();
    options.single.this_update = when;
    return options;
  }
  ocsp_options next(time_t when) const {
    ocsp_options options = by_issuer();
    options.single.next_update = when;
    return options;
  }
};

TEST_F(OcspTimes, AnswerMayBeProducedUpTo300SecondsAhead) {
  expect_accepted(produced(start));
  expect_accepted(produced(start + 299));
  expect_accepted(produced(start + tolerance));
}

TEST_F(OcspTimes, AnswerProducedLaterIsRefused) {
  for (time_t when : {start + 301, start + 400 * day})
    expect_refused(produced(when),
                   "The ocsp response was produced in the future (" + printed(when) + ")!");
}

TEST_F(OcspTimes, AnswerMayHaveBeenProducedAnyTimeAgo) {
  expect_accepted(produced(start - 10 * 365 * day));
}

TEST_F(OcspTimes, UpdateMayBe500DaysOld) {
  expect_accepted(updated(start - 400 * day));
  expect_accepted(updated(start - 500 * day));
  expect_accepted(updated(start - oldest + 1));
}

TEST_F(OcspTimes, OlderUpdateIsRefused) {
  for (time_t when : {start - oldest, start - oldest - 1, start - 501 * day})
    expect_refused(updated(when), "The status in the ocsp response was updated too long ago (" +
                                      printed(when) + ")");
}

TEST_F(OcspTimes, UpdateMayBeUpTo300SecondsAhead) {
  expect_accepted(updated(start + 299));
  expect_accepted(updated(start + tolerance));
}

TEST_F(OcspTimes, LaterUpdateIsRefused) {
  for (time_t when : {start + 301, start + day})
    expect_refused(updated(when),
                   "The status in the ocsp response was in the future (" + printed(when) + ")!");
}

TEST_F(OcspTimes, NextUpdateMayBeLessThan300SecondsPast) {
  expect_accepted(next(start + 1));
  expect_accepted(next(start - 1));
  expect_accepted(next(start - 299));
}

TEST_F(OcspTimes, EarlierNextUpdateIsRefused) {
  for (time_t when : {start - tolerance, start - 301, start - 360, start - day})
    expect_refused(next(when),
                   "The next-update in ocsp response is in the past (" + printed(when) + ")");
}

TEST_F(OcspTimes, RecordOfAPastNextUpdateSaysSo) {
  record info = ask(next(start - 299));
  ASSERT_NE(nullptr, info);
  EXPECT_EQ(0, ASN1_TIME_cmp_time_t(info->valid_until, start - 299));
}

TEST_F(OcspTimes, MissingNextUpdatePasses) {
  EXPECT_EQ(nullptr, ask(next(support::ocsp_left_out)));
  EXPECT_EQ(accepted_from_issuer() + no_next_update_line, judgement());
}

TEST_F(OcspTimes, DistantNextUpdateIsAccepted) {
  ocsp_options options = by_issuer();
  options.single.next_update_text = "99991231235959Z";
  record info = ask(options);
  ASSERT_NE(nullptr, info);
  EXPECT_EQ("99991231235959Z", support::octets_of(info->valid_until));
}

TEST_F(OcspTimes, ClockThatMovesIsSeen) {
  ocsp_options options = next(start + 100);
  options.produced_at = start;
  options.single.this_update = start;
  fake_clock::set(start + 399);
  expect_accepted(options);
  fake_clock::set(start + 400);
  expect_refused(options,
                 "The next-update in ocsp response is in the past (" + printed(start + 100) + ")");
}

// ---- times that cannot be read ----

const char *const unreadable[] = {
    "soon",         "20231114221320", "20231114221320.5Z", "20231114221320+0100", "20231314221320Z",
    "202311142213Z"};

TEST_F(OcspTimes, UnreadableProducedAtIsRefused) {
  for (const char *text : unreadable) {
    ocsp_options options = by_issuer();
    options.produced_at_text = text;
    expect_refused(options, std::string("Error parsing the producedAt time: ") + text);
  }
}

TEST_F(OcspTimes, UnreadableThisUpdateIsRefused) {
  for (const char *text : unreadable) {
    ocsp_options options = by_issuer();
    options.single.this_update_text = text;
    expect_refused(options, std::string("Error parsing the thisUpdate time: ") + text);
  }
}

TEST_F(OcspTimes, UnreadableNextUpdateIsRefused) {
  for (const char *text : unreadable) {
    ocsp_options options = by_issuer();
    options.single.next_update_text = text;
    expect_refused(options, std::string("Error parsing the nextUpdate time: ") + text);
  }
}

TEST_F(OcspTimes, HostileTimeTextsAreRefused) {
  const std::string texts[] = {std::string(1, '\0'), std::string("2023\0x", 6),
                               std::string(100000, '9') + "Z", "%s%n%s%n%s%n%s%n%s",
                               "-0231114221320Z"};
  for (const std::string &text : texts) {
    ocsp_options options = by_issuer();
    options.produced_at_text = text;
    EXPECT_EQ(nullptr, ask(options));
    options = by_issuer();
    options.single.this_update_text = text;
    EXPECT_EQ(nullptr, ask(options));
    options = by_issuer();
    options.single.next_update_text = text;
    EXPECT_EQ(nullptr, ask(options));
  }
}

// ---- order ----

TEST_F(OcspTimes, ProducedAtIsCheckedFirst) {
  ocsp_options options = produced(start + 1000);
  options.single.this_update = start + 1000;
  options.single.next_update = start - 1000;
  expect_refused(options,
                 "The ocsp response was produced in the future (" + printed(start + 1000) + ")!");
}

TEST_F(OcspTimes, ThisUpdateIsCheckedBeforeNextUpdate) {
  ocsp_options options = updated(start + 1000);
  options.single.next_update = start - 1000;
  expect_refused(options, "The status in the ocsp response was in the future (" +
                              printed(start + 1000) + ")!");
  options = updated(start - oldest);
  options.single.next_update = start - 1000;
  expect_refused(options, "The status in the ocsp response was updated too long ago (" +
                              printed(start - oldest) + ")");
}

TEST_F(OcspTimes, RevokedAnswerThatIsTooOldIsNone) {
  ocsp_options options = by_issuer(V_OCSP_CERTSTATUS_REVOKED);
  options.single.next_update = start - 1000;
  expect_refused(options,
                 "The next-update in ocsp response is in the past (" + printed(start - 1000) + ")");
}

}  // namespace
