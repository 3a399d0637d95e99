// In which order the places of a list are asked. One counter serves the walk over the places and
// the walk over a CRL's signers, so that places are visited again, or skipped.
#include "unit/verifier/crl_cache/decide_support.h"

using namespace decide_support;

namespace {

class DecideOrder : public decide_both_ways {
 protected:
  static constexpr unsigned a = 0x1E, b = 0x20, c = 0x40, d = 0x181;

  void SetUp() override {
    decide_both_ways::SetUp();
    publish("/a", a);
    publish("/b", b);
    publish("/c", c);
    publish("/d", d);
  }
  void publish(const std::string &path, unsigned reasons) {
    server.publish(path, crl_of("", some_reasons(reasons)));
  }
  void trust_nobody() {
    issuer_trusted = 0;
    trust = std::make_shared<trust_context>(certs{});
  }
  // CRLs that were decoded in full are in the cache when they are visited again.
  std::string order(const std::string &in_full_order, const std::string &truncated_order) const {
    return in_full() ? in_full_order : truncated_order;
  }
  const std::vector<place> three = {{"/a", a}, {"/b", b}, {"/c", c}};
  const std::vector<place> four = {{"/a", a}, {"/b", b}, {"/c", c}, {"/d", d}};
};
INSTANTIATE_TEST_SUITE_P(Decoded, DecideOrder, testing::Bool(), way_name);

TEST_P(DecideOrder, FirstSignerSendsTheWalkToTheSecondPlace) {
  EXPECT_EQ(PKI_CERT_OK, status_of(decide_at(four))) << log_dump();
  EXPECT_EQ(order("/a /b /c /d ", "/a /b /b /c /b /c /d "), server.asked());
}

TEST_P(DecideOrder, PlacesVisitedAgainAddNothing) {
  decide_at(four);
  std::vector<std::string> masks;
  for (const log_entry &entry : captured_log())
    if (entry.text.rfind("interim-reason-mask=", 0) == 0)
      masks.push_back(entry.text);
  EXPECT_EQ((std::vector<std::string>{"interim-reason-mask=1E => reason-mask=1E",
                                      "interim-reason-mask=20 => reason-mask=3E",
                                      "interim-reason-mask=40 => reason-mask=7E",
                                      "interim-reason-mask=181 => reason-mask=1FF"}),
            masks);
}

TEST_P(DecideOrder, SecondSignerSendsTheWalkToTheThirdPlace) {
  support::empty_store();
  know(issue("issuer", 22, issuer_key, {no_crl_sign}));
  know(issuer);
  EXPECT_EQ(no_answer, status_of(decide_at(three))) << log_dump();
  EXPECT_EQ(order("/a /c ", "/a /c /c "), server.asked());
  EXPECT_TRUE(was_logged(7, unknown_line("5e")));
}

TEST_P(DecideOrder, OneRejectedSignerSendsTheWalkToTheThirdPlace) {
  trust_nobody();
  EXPECT_EQ(no_answer, status_of(decide_at(three)));
  EXPECT_EQ("/a /c /c ", server.asked());
  EXPECT_TRUE(was_logged(7, unknown_line("5e")));
}

TEST_P(DecideOrder, TwoRejectedSignersSendTheWalkToTheFourthPlace) {
  know(make_issuer("issuer", issuer_key, 23));
  trust_nobody();
  EXPECT_EQ(no_answer, status_of(decide_at(four)));
  EXPECT_EQ("/a /d /d ", server.asked());
  EXPECT_EQ(2u, count_logged(6, nobody_trusted));
  EXPECT_TRUE(was_logged(7, unknown_line("19f")));
}

TEST_P(DecideOrder, CachedCrlSendsTheWalkToTheSecondPlace) {
  cache(crl_of("", some_reasons(c)), issuer);
  server.withdraw("/a");
  server.withdraw("/b");
  EXPECT_EQ(no_answer, status_of(decide_at(four)));
  EXPECT_EQ(order("/a /b /b /d /b ", "/a /b /b /d /b /d "), server.asked());
  EXPECT_TRUE(was_logged(7, unknown_line("1c1")));
}

TEST_P(DecideOrder, PlaceThatFailsLeadsToTheNext) {
  server.withdraw("/a");
  server.publish("/c", crl_of("", support::issuing_dist_point({.ca_certs = true})));
  EXPECT_EQ(no_answer, status_of(decide_at({{"/a", a}, {"/c", c}, {"/nothing", b}})));
  EXPECT_EQ("/a /c /nothing ", server.asked());
}

TEST_P(DecideOrder, DeltaPlacesHaveTheirPositions) {
  crl_objects::source_list sources;
  sources.add(server.url("/delta"), 1);
  sources.add(server.url("/a"), 0, a);
  sources.add(server.url("/b"), 0, b);
  EXPECT_EQ(no_answer, status_of(decide(sources)));
  EXPECT_EQ(order("/a /b ", "/a /a /b /a /b "), server.asked());
}

TEST_P(DecideOrder, RevokedPlaceThatIsSkippedIsNotSeen) {
  trust_nobody();
  server.publish("/b", revoking_crl(some_reasons(b)));
  EXPECT_EQ(no_answer, status_of(decide_at(three)));
  EXPECT_EQ("/a /c /c ", server.asked());
}

}  // namespace
