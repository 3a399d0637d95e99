#include <gtest/gtest.h>

#include "pki/internal.h"
#include "support/certs.h"

namespace {

using support::make_name;
using entries = std::vector<std::pair<std::string, std::string>>;

bool matches(const entries &name, const entries &rule) {
  return pki::pki_name_rule_match(make_name(name).get(), make_name(rule).get());
}

const entries full = {{"C", "US"}, {"L", "Town"}, {"O", "Example"}};

TEST(NameRuleMatch, EntriesMayBeLeftOut) {
  EXPECT_TRUE(matches(full, {{"C", "US"}, {"O", "Example"}}));
  EXPECT_TRUE(matches(full, {{"L", "Town"}}));
  EXPECT_TRUE(matches(full, {{"O", "Example"}}));
  EXPECT_TRUE(matches(full, full));
}

TEST(NameRuleMatch, OrderCounts) {
  EXPECT_FALSE(matches(full, {{"O", "Example"}, {"C", "US"}}));
  EXPECT_FALSE(matches(full, {{"C", "US"}, {"O", "Example"}, {"L", "Town"}}));
}

TEST(NameRuleMatch, RuleWithoutEntriesMatchesEveryName) {
  EXPECT_TRUE(matches(full, {}));
  EXPECT_TRUE(matches({}, {}));
}

TEST(NameRuleMatch, RuleLongerThanTheNameDoesNotMatch) {
  EXPECT_FALSE(matches({}, {{"C", "US"}}));
  EXPECT_FALSE(matches({{"C", "US"}}, {{"C", "US"}, {"O", "Example"}}));
}

TEST(NameRuleMatch, AttributeAndValueMustBeEqual) {
  EXPECT_FALSE(matches(full, {{"C", "DE"}}));
  EXPECT_FALSE(matches(full, {{"OU", "Example"}}));
  EXPECT_FALSE(matches(full, {{"O", "Exampl"}}));
  EXPECT_FALSE(matches(full, {{"O", "Example2"}}));
}

TEST(NameRuleMatch, LetterCaseAndBlanksOfValuesCount) {
  EXPECT_FALSE(matches(full, {{"O", "EXAMPLE"}}));
  EXPECT_FALSE(matches({{"O", "An  Example"}}, {{"O", "An Example"}}));
}

TEST(NameRuleMatch, StringTypeOfTheValueCounts) {
  support::name utf8 = make_name({{"O", "Example"}});
  support::name printable(X509_NAME_new(), X509_NAME_free);
  X509_NAME_add_entry_by_txt(printable.get(), "O", V_ASN1_PRINTABLESTRING,
                             reinterpret_cast<const unsigned char *>("Example"), -1, -1, 0);
  EXPECT_TRUE(pki::pki_name_rule_match(printable.get(), printable.get()));
  EXPECT_FALSE(pki::pki_name_rule_match(utf8.get(), printable.get()));
}

TEST(NameRuleMatch, LaterEntryOfTheSameAttributeIsTried) {
  entries units = {{"OU", "a"}, {"OU", "b"}, {"CN", "device"}};
  EXPECT_TRUE(matches(units, {{"OU", "b"}}));
  EXPECT_TRUE(matches(units, {{"OU", "a"}, {"OU", "b"}}));
  EXPECT_FALSE(matches(units, {{"OU", "b"}, {"OU", "a"}}));
}

// The cursor stays on a matching entry, so a repeated rule entry finds it again.
TEST(NameRuleMatch, RepeatedRuleEntryMatchesOneEntryAgain) {
  EXPECT_TRUE(matches(full, {{"O", "Example"}, {"O", "Example"}}));
  EXPECT_TRUE(matches(full, {{"L", "Town"}, {"L", "Town"}, {"O", "Example"}}));
  EXPECT_FALSE(matches({{"O", "Example"}}, {{"O", "Example"}, {"O", "Example"}}));
}

}  // namespace
