// Which status rules apply to a certificate.
#include <gtest/gtest.h>
#include <libpki/libpki.h>

#include "fakes/allocator.h"
#include "fakes/log_capture.h"
#include "unit/pki/store_helpers.h"

namespace {

using support::cert;
using support::common_name;
using support::elements;
using support::last_status;
using support::make_name;
using support::make_serial;
using support::name_rule;
using support::pointers;
using support::rule;
using support::rule_list;
using support::serial_rule;
using support::simple_cert;

class StatusRulesFind : public support::store_test {
 protected:
  // Adds a global rule and returns its record.
  static cert_status_info *add(std::initializer_list<rule> rules, ca_info *ca = nullptr) {
    rule_list list(rules);
    EXPECT_EQ(pki_add_aok_info(ca, list, 0), 0);
    return last_status(ca ? ca->cert_status_methods : pki_store->global_status_rules);
  }
  // What of the global rules applies to `object`.
  static pointers applying(const cert &object) {
    support::status_list found;
    EXPECT_EQ(pki_find_sts_query_info(nullptr, object.get(), found), 81);
    return elements(static_cast<STACK *>(found));
  }
  // Whether a rule of these conditions applies to `object`.
  static bool applies(std::initializer_list<rule> rules, const cert &object) {
    support::empty_store();
    cert_status_info *added = add(rules);
    pointers found = applying(object);
    EXPECT_TRUE(found.empty() || found == pointers{added});
    return !found.empty();
  }

  cert cert_ = simple_cert("issuer", "subject", 100);
};

TEST_F(StatusRulesFind, NoRulesGiveNothingAndNoEntry) {
  EXPECT_EQ(applying(cert_), pointers{});
}

TEST_F(StatusRulesFind, RuleWithoutConditionsAppliesToEveryCertificate) {
  cert_status_info *added = add({});
  EXPECT_EQ(applying(cert_), pointers{added});
  EXPECT_EQ(applying(support::make_ca("other")), pointers{added});
}

TEST_F(StatusRulesFind, AppendsDuplicatesInOrderBehindWhatTheCallerHas) {
  cert_status_info *first = add({}), *second = add({});
  support::status_list found;
  cert_status_info *mine = alloc_cert_status_info_m(PKI_STATUS_AOK);
  OPENSSL_sk_push(found, mine);
  EXPECT_EQ(pki_find_sts_query_info(nullptr, cert_.get(), found), 81);
  EXPECT_EQ(elements(static_cast<STACK *>(found)), (pointers{mine, first, second}));
  EXPECT_EQ(first->ref_count, 2);
  EXPECT_EQ(second->ref_count, 2);
  found.clear();
  EXPECT_EQ(first->ref_count, 1);
}

TEST_F(StatusRulesFind, OnlyApplyingRulesAreAppended) {
  add({name_rule(PKI_MATCH_SUBJECT, common_name("other"))});
  cert_status_info *wanted = add({name_rule(PKI_MATCH_SUBJECT, common_name("subject"))});
  add({name_rule(PKI_MATCH_ISSUER, common_name("other"))});
  EXPECT_EQ(applying(cert_), pointers{wanted});
}

TEST_F(StatusRulesFind, RulesOfTheGivenCaAreUsedInsteadOfTheGlobalOnes) {
  support::ca ca = support::make_ca_info("ca");
  cert_status_info *global = add({}), *of_ca = add({}, ca.get());
  support::status_list found;
  EXPECT_EQ(pki_find_sts_query_info(ca.get(), cert_.get(), found), 81);
  EXPECT_EQ(elements(static_cast<STACK *>(found)), pointers{of_ca});
  EXPECT_EQ(applying(cert_), pointers{global});
}

TEST_F(StatusRulesFind, TypeOneLooksAtTheIssuer) {
  EXPECT_TRUE(applies({name_rule(1, common_name("issuer"))}, cert_));
  EXPECT_FALSE(applies({name_rule(1, common_name("subject"))}, cert_));
}

TEST_F(StatusRulesFind, TypeTwoLooksAtTheSubject) {
  EXPECT_TRUE(applies({name_rule(2, common_name("subject"))}, cert_));
  EXPECT_FALSE(applies({name_rule(2, common_name("issuer"))}, cert_));
}

TEST_F(StatusRulesFind, TypeThreeLooksAtTheSerialNumberWithItsBoundsIncluded) {
  struct {
    long low, high;
    bool applies;
  } cases[] = {{99, 101, true},  {100, 101, true},  {99, 100, true},
               {100, 100, true}, {101, 102, false}, {98, 99, false},
               {101, 99, false}, {1, 70000, true},  {300, 70000, false}};
  for (const auto &each : cases)
    EXPECT_EQ(applies({serial_rule(make_serial(each.low), make_serial(each.high))}, cert_),
              each.applies)
        << each.low << " to " << each.high;
}

TEST_F(StatusRulesFind, SerialNumbersCompareByValueWhateverTheirLength) {
  cert longer = simple_cert("issuer", "subject", 256);
  EXPECT_TRUE(applies({serial_rule(make_serial(200), make_serial(300))}, longer));
  EXPECT_FALSE(applies({serial_rule(make_serial(2), make_serial(255))}, longer));
  EXPECT_TRUE(
      applies({serial_rule(make_serial(255), make_serial(std::string(20, '\x01')))}, longer));
}

TEST_F(StatusRulesFind, WithoutHighBoundThereIsNone) {
  EXPECT_TRUE(applies({serial_rule(make_serial(100))}, cert_));
  EXPECT_FALSE(applies({serial_rule(make_serial(101))}, cert_));
}

TEST_F(StatusRulesFind, AllConditionsMustHold) {
  rule issuer = name_rule(1, common_name("issuer")), subject = name_rule(2, common_name("subject")),
       serial = serial_rule(make_serial(100), make_serial(100)),
       wrong_serial = serial_rule(make_serial(101));
  EXPECT_TRUE(applies({issuer, subject, serial}, cert_));
  EXPECT_FALSE(applies({issuer, subject, wrong_serial}, cert_));
  EXPECT_FALSE(applies({wrong_serial, issuer, subject}, cert_));
}

TEST_F(StatusRulesFind, ConditionOfAnotherTypeNeverHolds) {
  for (int type : {0, 4, -1}) {
    rule odd = name_rule(PKI_MATCH_ISSUER, common_name("issuer"));
    odd->type = type;
    EXPECT_FALSE(applies({odd}, cert_)) << type;
    odd->type = PKI_MATCH_ISSUER;
  }
}

TEST_F(StatusRulesFind, ConditionWithoutNameOrBoundNeverHolds) {
  EXPECT_FALSE(applies({name_rule(1, nullptr)}, cert_));
  EXPECT_FALSE(applies({name_rule(2, nullptr)}, cert_));
  EXPECT_FALSE(applies({serial_rule(nullptr)}, cert_));
  EXPECT_FALSE(applies({serial_rule(nullptr, make_serial(1000))}, cert_));
}

TEST_F(StatusRulesFind, NameOfSeveralEntriesMatchesInItsOrder) {
  support::cert_options options;
  options.subject = make_name({{"C", "US"}, {"L", "Town"}, {"O", "Example"}});
  cert object = support::make_cert(options);
  EXPECT_TRUE(applies({name_rule(2, make_name({{"C", "US"}, {"O", "Example"}}))}, object));
  EXPECT_FALSE(applies({name_rule(2, make_name({{"O", "Example"}, {"C", "US"}}))}, object));
}

TEST_F(StatusRulesFind, IssuerOfSeveralEntriesMatchesInItsOrder) {
  support::cert_options options;
  options.issuer = make_name({{"C", "US"}, {"L", "Town"}, {"O", "Example"}});
  cert object = support::make_cert(options);
  EXPECT_TRUE(applies({name_rule(1, make_name({{"C", "US"}, {"O", "Example"}}))}, object));
  EXPECT_FALSE(applies({name_rule(1, make_name({{"O", "Example"}, {"C", "US"}}))}, object));
}

TEST_F(StatusRulesFind, NullArgumentsAreRefused) {
  add({});
  support::status_list found;
  EXPECT_EQ(pki_find_sts_query_info(nullptr, nullptr, found), 63);
  EXPECT_EQ(pki_find_sts_query_info(nullptr, cert_.get(), nullptr), 63);
  EXPECT_EQ(OPENSSL_sk_num(found), 0);
}

// Every reference that was taken is in the caller's list, wherever the memory ran out.
TEST_F(StatusRulesFind, OutOfMemoryIsReportedAndLeaksNoReference) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "the allocator cannot be made to fail in this build";
  std::vector<cert_status_info *> rules;
  for (int i = 0; i < 9; i++)
    rules.push_back(add({name_rule(1, common_name("issuer"))}));
  support::status_list found;
  int code = -1;
  size_t failures = fake_allocator::sweep(
      [&] {
        found.renew();
        code = pki_find_sts_query_info(nullptr, cert_.get(), found);
      },
      [&](size_t n) {
        EXPECT_EQ(code, 2) << "allocation " << n;
        int length = OPENSSL_sk_num(found);
        EXPECT_LT(length, 9) << "allocation " << n;
        EXPECT_EQ(n == 1, length == 0) << "allocation " << n;
        EXPECT_TRUE(logged_containing(3, "OpenSSL error: ")) << "allocation " << n;
        EXPECT_EQ(ERR_peek_error(), 0u) << "allocation " << n;
        support::clear_openssl_errors();
        clear_log();
        for (int i = 0; i < 9; i++)
          EXPECT_EQ(rules[static_cast<size_t>(i)]->ref_count, i < length ? 2 : 1)
              << "allocation " << n << ", rule " << i;
      });
  EXPECT_EQ(code, 81);
  EXPECT_GE(failures, 2u);
  EXPECT_EQ(OPENSSL_sk_num(found), 9);
}

}  // namespace
