// How many CRLs are asked for about one certificate: each may cost a time-out.
#include "unit/verifier/crl_cache/decide_support.h"

using namespace decide_support;

namespace {

constexpr size_t most = 64;

class DecideFetches : public decide_both_ways {
 protected:
  static constexpr char ignored_line[] = "ignoring CRL's behind the first 64 for cert (/CN=device)";
  static std::string path(size_t number) { return "/" + std::to_string(number); }
  // Places "/1" and so on.
  static std::vector<place> places(size_t count) {
    std::vector<place> made;
    for (size_t number = 1; number <= count; number++)
      made.push_back({path(number)});
    return made;
  }
};
INSTANTIATE_TEST_SUITE_P(Decoded, DecideFetches, testing::Bool(), way_name);

TEST_P(DecideFetches, SixtyFourAreAskedFor) {
  EXPECT_EQ(no_answer, status_of(decide_at(places(70))));
  EXPECT_EQ(most, server.requests());
  EXPECT_EQ(1u, count_logged(4, ignored_line)) << log_dump();
  EXPECT_TRUE(was_logged(7, unknown_line("0")));
}

TEST_P(DecideFetches, LastOneIsBelieved) {
  server.publish(path(most), revoking_crl());
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide_at(places(70)))) << log_dump();
  EXPECT_EQ(most, server.requests());
  EXPECT_FALSE(was_logged(4, ignored_line));
}

TEST_P(DecideFetches, OneBehindThemIsNot) {
  server.publish(path(most + 1), revoking_crl());
  EXPECT_EQ(no_answer, status_of(decide_at(places(most + 1))));
  EXPECT_EQ(most, server.requests());
  EXPECT_TRUE(was_logged(4, ignored_line));
}

TEST_P(DecideFetches, SixtyFourWithNothingBehindThemAreNotWorthALine) {
  EXPECT_EQ(no_answer, status_of(decide_at(places(most))));
  EXPECT_EQ(most, server.requests());
  EXPECT_FALSE(was_logged(4, ignored_line)) << log_dump();
}

TEST_P(DecideFetches, ConfiguredOnesCountAlike) {
  crl_objects::source_list sources;
  for (const place &each : places(most + 1))
    sources.add(server.url(each.path));
  EXPECT_EQ(no_answer, status_of(decide(sources)));
  EXPECT_EQ(most, server.requests());
  EXPECT_EQ(1u, count_logged(4, ignored_line)) << log_dump();
}

TEST_P(DecideFetches, CountStartsAnewWithEachDecision) {
  decide_at(places(most + 1));
  clear_log();
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide(revoking_crl()))) << log_dump();
  EXPECT_FALSE(was_logged(4, ignored_line));
}

}  // namespace
