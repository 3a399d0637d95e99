#include <gtest/gtest.h>
#include <libpki/records.h>

#include <string>
#include <vector>

#include "fakes/log_capture.h"
#include "support/certs.h"

namespace {

using lines = std::vector<log_entry>;

class MatchRuleRecord : public testing::Test {
 protected:
  void SetUp() override { clear_log(); }
};

ASN1_INTEGER *integer(long value) {
  return ASN1_INTEGER_dup(support::make_serial(value).get());
}

TEST_F(MatchRuleRecord, StartsEmpty) {
  cert_match_rule *rule = alloc_cert_match_rule();
  ASSERT_NE(rule, nullptr);
  EXPECT_EQ(rule->type, 0);
  EXPECT_EQ(rule->name_or_low, nullptr);
  EXPECT_EQ(rule->high, nullptr);
  EXPECT_EQ(rule->ref_count, 1);
  rule->type = PKI_MATCH_SERIAL;
  free_cert_match_rule(rule);
}

// That the parts are freed, and freed once, shows under the leak checker.
TEST_F(MatchRuleRecord, NameRulesFreeTheirName) {
  for (int type : {1, 2}) {
    cert_match_rule *rule = alloc_cert_match_rule();
    rule->type = type;
    rule->name_or_low = X509_NAME_dup(support::common_name("name").get());
    dup_cert_match_rule(rule);
    free_cert_match_rule(rule);
    EXPECT_EQ(X509_NAME_entry_count(static_cast<X509_NAME *>(rule->name_or_low)), 1);
    free_cert_match_rule(rule);
  }
  EXPECT_EQ(log_dump(), "");
}

TEST_F(MatchRuleRecord, SerialRuleFreesBothBounds) {
  cert_match_rule *rule = alloc_cert_match_rule();
  rule->type = 3;
  rule->name_or_low = integer(1);
  rule->high = integer(2);
  free_cert_match_rule(rule);
  EXPECT_EQ(log_dump(), "");
}

TEST_F(MatchRuleRecord, SerialRuleWithoutHighBoundFreesOnlyTheLowOne) {
  cert_match_rule *rule = alloc_cert_match_rule();
  rule->type = 3;
  rule->name_or_low = integer(1);
  free_cert_match_rule(rule);
  EXPECT_EQ(log_dump(), "");
}

TEST_F(MatchRuleRecord, RuleWithoutNameOrBoundIsReleased) {
  for (int type : {1, 2, 3}) {
    cert_match_rule *rule = alloc_cert_match_rule();
    rule->type = type;
    free_cert_match_rule(rule);
  }
  EXPECT_EQ(log_dump(), "");
}

TEST_F(MatchRuleRecord, ReleaseOfAnUnknownTypeIsLoggedAndFreesOnlyTheRecord) {
  for (int type : {0, 4, -1}) {
    clear_log();
    ASN1_INTEGER *low = integer(5), *high = integer(9);
    cert_match_rule *rule = alloc_cert_match_rule();
    rule->type = type;
    rule->name_or_low = low;
    rule->high = high;
    free_cert_match_rule(rule);
    EXPECT_EQ(captured_log(), (lines{{3, "unsupported rule type " + std::to_string(type)}}))
        << log_dump();
    EXPECT_EQ(ASN1_INTEGER_get(low), 5);
    EXPECT_EQ(ASN1_INTEGER_get(high), 9);
    ASN1_INTEGER_free(low);
    ASN1_INTEGER_free(high);
  }
}

}  // namespace
