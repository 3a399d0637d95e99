// Locators from the status rules of the store.
#include <functional>

#include "../cache_support.h"
#include "locator_support.h"

using namespace locator_support;

namespace {

class LocatorConfig : public locator_test {
 protected:
  support::cert cert_ = make_cert();

  int run_pass(bool before_pass) {
    return pki::cv_csl_find_loc_in_config(cert_.get(), list_.get(), before_pass);
  }

  // The list where a "before" rule is lost because its signer cannot be shared; `add_more` adds the
  // rules behind it.
  static list_ptr find_behind_lost_rule(
      const support::cert &cert, ending ends = goes_on,
      const std::function<void()> &add_more = [] {}) {
    support::cert signer = support::make_ca("responder");
    add_ocsp(nullptr, "http://a/", before, ends, signer.get());
    add_more();
    fake_failures::fail_x509_up_ref();
    return find_locators(cert);
  }

  support::cert names_responder_ = make_cert({extension_der::aia({"http://own/"})});

  // An empty list, for single passes.
  list_ptr list_{nullptr, pki::zv_cv_free_csl_list};

  void SetUp() override {
    locator_test::SetUp();
    list_ = find_locators(cert_);
    ASSERT_TRUE(list_);
    ASSERT_EQ(0, list_->count);
    clear_log();
  }
};

TEST_F(LocatorConfig, OcspRuleCarriesItsSettings) {
  support::cert signer = support::make_ca("responder");
  add_ocsp(nullptr, "http://a/", before, goes_on, signer.get(), 1);
  list_ptr list = find_locators(cert_);
  ASSERT_EQ(lines{"ocsp http://a/"}, describe(list));
  const auto *data = data_of<pki::ocsp_locator>(list, 0);
  EXPECT_EQ(1, data->type);
  EXPECT_EQ(signer.get(), data->signer);
  EXPECT_EQ(1, data->ocsp_flag);
}

TEST_F(LocatorConfig, OnlyTheLowestBitOfTheOcspOptionCounts) {
  for (unsigned char option : {0, 1, 2, 3, 0x80, 0xFF}) {
    support::empty_store();
    add_ocsp(nullptr, "http://a/", before, goes_on, nullptr, option);
    list_ptr list = find_locators(cert_);
    ASSERT_EQ(1, list->count);
    EXPECT_EQ(option & 1, data_of<pki::ocsp_locator>(list, 0)->ocsp_flag) << int{option};
  }
}

TEST_F(LocatorConfig, OcspLocatorHasItsOwnUrlAndSignerReference) {
  cache_support::watched_cert signer = cache_support::make_watched_cert("responder");
  add_ocsp(nullptr, "http://a/", before, goes_on, signer.cert.get());
  list_ptr list = find_locators(cert_);
  signer.cert.reset();
  support::empty_store();
  EXPECT_FALSE(*signer.freed);
  EXPECT_EQ(lines{"ocsp http://a/"}, describe(list));
  list.reset();
  EXPECT_TRUE(*signer.freed);
}

TEST_F(LocatorConfig, CrlRuleSharesItsSources) {
  add_crls(nullptr, {"http://crl/1", "http://crl/2"}, before);
  auto *rule = static_cast<cert_status_info *>(OPENSSL_sk_value(pki_store->global_status_rules, 0));
  auto *source = static_cast<crl_info *>(OPENSSL_sk_value(static_cast<STACK *>(rule->data), 0));
  list_ptr list = find_locators(cert_);
  ASSERT_EQ(lines{"crls http://crl/1 http://crl/2"}, describe(list));
  const auto *data = data_of<pki::crls_locator>(list, 0);
  EXPECT_EQ(3, data->type);
  EXPECT_EQ(source, OPENSSL_sk_value(data->crls, 0));
  EXPECT_NE(rule->data, data->crls);
  support::empty_store();
  EXPECT_EQ(1, source->ref_count);
  EXPECT_STREQ("http://crl/1", source->url);
}

TEST_F(LocatorConfig, CrlRuleWithoutSourcesIsALocatorToo) {
  add_crls(nullptr, {}, before);
  list_ptr list = find_locators(cert_);
  ASSERT_EQ(lines{"crls"}, describe(list));
  EXPECT_NE(nullptr, data_of<pki::crls_locator>(list, 0)->crls);
}

TEST_F(LocatorConfig, AlwaysOkRuleHasNoData) {
  add_always_ok(nullptr, before);
  list_ptr list = find_locators(cert_);
  ASSERT_EQ(lines{"always-ok final"}, describe(list));
  EXPECT_EQ(nullptr, list->locators[0]->data);
  EXPECT_EQ(pki::zv_cv_cs_always_ok, list->locators[0]->get_sts);
}

TEST_F(LocatorConfig, AlwaysOkRuleNeedNotBeFinal) {
  add_always_ok(nullptr, before);
  static_cast<cert_status_info *>(OPENSSL_sk_value(pki_store->global_status_rules, 0))->flags = 0;
  EXPECT_EQ(lines{"always-ok"}, describe(find_locators(cert_)));
}

TEST_F(LocatorConfig, SecondFlagMakesItFinal) {
  add_ocsp(nullptr, "http://a/", before, is_final);
  add_ocsp(nullptr, "http://b/", before, goes_on);
  add_crls(nullptr, {"http://c/"}, before, is_final);
  add_crls(nullptr, {"http://d/"}, before, goes_on);
  list_ptr list = find_locators(cert_);
  EXPECT_EQ(
      (lines{"ocsp http://a/ final", "ocsp http://b/", "crls http://c/ final", "crls http://d/"}),
      describe(list));
  EXPECT_EQ(1, list->locators[0]->final);
}

TEST_F(LocatorConfig, PassTakesOnlyItsOwnEntries) {
  add_ocsp(nullptr, "http://before/", before);
  add_ocsp(nullptr, "http://after/", after);
  add_crls(nullptr, {"http://crl/"}, after);
  ASSERT_EQ(0, run_pass(true));
  EXPECT_EQ(lines{"ocsp http://before/"}, describe(list_));
  EXPECT_EQ((lines{"found 1 acceptable local-config entries (out of 3)",
                   "created 0 crl locators, 1 ocsp locators, and 0 always-ok locators"}),
            logged(7));
  clear_log();
  ASSERT_EQ(0, run_pass(false));
  EXPECT_EQ((lines{"ocsp http://before/", "ocsp http://after/", "crls http://crl/"}),
            describe(list_));
  EXPECT_EQ((lines{"found 2 acceptable local-config entries (out of 3)",
                   "created 1 crl locators, 1 ocsp locators, and 0 always-ok locators"}),
            logged(7));
}

TEST_F(LocatorConfig, OnlyTheLowestFlagBitChoosesThePass) {
  for (uint32_t flags : {0x2U, 0x4U, 0xFCU, 0xFFFFFFFEU}) {
    support::empty_store();
    add_always_ok(nullptr, before);
    auto *rule =
        static_cast<cert_status_info *>(OPENSSL_sk_value(pki_store->global_status_rules, 0));
    rule->flags = flags;
    clear_log();
    ASSERT_EQ(1, find_locators(cert_)->count);
    EXPECT_EQ((lines{"found 1 acceptable local-config entries (out of 1)",
                     "found 0 acceptable local-config entries (out of 1)"}),
              logged_about("local-config"));
  }
}

TEST_F(LocatorConfig, CountsOfEachKindAreLogged) {
  for (const char *url : {"http://a/", "http://b/"})
    add_ocsp(nullptr, url, before);
  for (int i = 0; i < 3; i++)
    add_crls(nullptr, {"http://c/", "http://d/"}, before);
  add_always_ok(nullptr, before);
  ASSERT_EQ(0, run_pass(true));
  EXPECT_TRUE(was_logged(7, "created 3 crl locators, 2 ocsp locators, and 1 always-ok locators"));
}

TEST_F(LocatorConfig, NoRulesAreNoFailure) {
  EXPECT_EQ(0, run_pass(true));
  EXPECT_EQ(0, run_pass(false));
  EXPECT_EQ(0, list_->count);
  EXPECT_FALSE(list_->incomplete);
  EXPECT_EQ(2U, count_logged(7, "found 0 acceptable local-config entries (out of 0)"));
  EXPECT_EQ(2U,
            count_logged(7, "created 0 crl locators, 0 ocsp locators, and 0 always-ok locators"));
}

TEST_F(LocatorConfig, RulesForOthersAreNotCounted) {
  add_always_ok(nullptr, before, "somebody else");
  add_ocsp(nullptr, "http://device/", before, goes_on, nullptr, 0, "device");
  list_ptr list = find_locators(cert_);
  EXPECT_EQ(lines{"ocsp http://device/"}, describe(list));
  EXPECT_TRUE(was_logged(7, "found 1 acceptable local-config entries (out of 1)"));
}

TEST_F(LocatorConfig, RulesOfEachCaComeInStoreOrderAndGlobalOnesLast) {
  add_ocsp(nullptr, "http://global/1", before);
  auto first = add_ca("first"), second = add_ca("second");
  add_ocsp(second.get(), "http://second/1", before);
  add_ocsp(first.get(), "http://first/1", before);
  add_crls(second.get(), {"http://second/2"}, before);
  add_ocsp(nullptr, "http://global/2", before);
  EXPECT_EQ((lines{"ocsp http://first/1", "ocsp http://second/1", "crls http://second/2",
                   "ocsp http://global/1", "ocsp http://global/2"}),
            describe(find_locators(cert_)));
  EXPECT_TRUE(was_logged(7, "found 5 acceptable local-config entries (out of 5)"));
}

class LocatorConfigMethods : public LocatorConfig, public testing::WithParamInterface<int> {};

TEST_P(LocatorConfigMethods, UnknownOneIsSkippedWithALine) {
  add_unknown_method(GetParam(), before);
  add_always_ok(nullptr, before);
  list_ptr list = find_locators(cert_);
  EXPECT_EQ(lines{"always-ok final"}, describe(list));
  EXPECT_EQ(1U, count_logged(4, "found unknown status-query method " + std::to_string(GetParam()) +
                                    " in local config"))
      << log_dump();
  EXPECT_TRUE(was_logged(7, "found 2 acceptable local-config entries (out of 2)"));
  EXPECT_TRUE(was_logged(7, "created 0 crl locators, 0 ocsp locators, and 1 always-ok locators"));
}

INSTANTIATE_TEST_SUITE_P(Numbers, LocatorConfigMethods,
                         testing::Values(0, 4, -1, 99, 2147483647, -2147483647 - 1));

TEST_F(LocatorConfig, SignerWithoutReferenceEndsThePass) {
  support::cert signer = support::make_ca("responder");
  add_crls(nullptr, {"http://crl/"}, before);
  add_ocsp(nullptr, "http://a/", before, goes_on, signer.get());
  add_always_ok(nullptr, before);
  fake_failures::fail_x509_up_ref();
  list_ptr list = find_locators(cert_);
  EXPECT_EQ(lines{"crls http://crl/"}, describe(list));
  EXPECT_TRUE(list->incomplete);
  EXPECT_EQ(1U, count_logged(3, "failed to add ocsp locator to list: CRYPTO LOCK FAILED"))
      << log_dump();
}

TEST_F(LocatorConfig, OtherSourcesStandBehindAFirstPassThatFailed) {
  add_always_ok(nullptr, after);
  list_ptr list = find_behind_lost_rule(
      make_cert({extension_der::aia({"http://own/"}),
                 extension_der::crl_dp_of(extension_der::point_at("http://crl/"))}));
  EXPECT_EQ((lines{"ocsp http://own/", "points 1 delta 0", "always-ok final"}), describe(list));
  EXPECT_TRUE(list->incomplete);
}

TEST_F(LocatorConfig, RuleWithoutDataEndsThePassOnly) {
  add_ocsp(nullptr, "http://a/", before);
  auto *rule = static_cast<cert_status_info *>(OPENSSL_sk_value(pki_store->global_status_rules, 0));
  free_ocsp_info(static_cast<ocsp_info *>(rule->data));
  rule->data = nullptr;
  list_ptr list = find_locators(names_responder_);
  EXPECT_EQ(lines{"ocsp http://own/"}, describe(list));
  EXPECT_TRUE(list->incomplete);
  EXPECT_EQ(1U, count_logged(3, "failed to add ocsp locator to list: INVALID ARGS")) << log_dump();
}

TEST_F(LocatorConfig, NothingStandsBehindAFinalRuleThatIsMissing) {
  add_always_ok(nullptr, after);
  list_ptr list = find_behind_lost_rule(names_responder_, is_final);
  EXPECT_EQ(lines{}, describe(list));
  EXPECT_TRUE(list->incomplete);
}

TEST_F(LocatorConfig, NothingStandsBehindAFinalRuleThatWasNotReached) {
  list_ptr list = find_behind_lost_rule(
      names_responder_, goes_on, [] { add_crls(nullptr, {"http://crl/"}, before, is_final); });
  EXPECT_EQ(lines{}, describe(list));
  EXPECT_TRUE(list->incomplete);
}

TEST_F(LocatorConfig, FinalRuleOfTheOtherPassDoesNotMatter) {
  add_crls(nullptr, {"http://crl/"}, after, is_final);
  list_ptr list = find_behind_lost_rule(names_responder_);
  EXPECT_EQ((lines{"ocsp http://own/", "crls http://crl/ final"}), describe(list));
}

TEST_F(LocatorConfig, FailureOfTheOnlySourceLeavesAnIncompleteList) {
  list_ptr list = find_behind_lost_rule(cert_);
  EXPECT_EQ(lines{}, describe(list));
  EXPECT_TRUE(list->incomplete);
}

TEST_F(LocatorConfig, FailedPassReturnsItsError) {
  support::cert signer = support::make_ca("responder");
  add_ocsp(nullptr, "http://a/", before, goes_on, signer.get());
  fake_failures::fail_x509_up_ref();
  EXPECT_EQ(49, run_pass(true));
  EXPECT_EQ(0, list_->count);
}

TEST_F(LocatorConfig, ThousandsOfRulesAreFoundInOrder) {
  lines wanted;
  for (int i = 0; i < 2000; i++) {
    std::string url = "http://responder/" + std::to_string(i);
    add_ocsp(nullptr, url.c_str(), before);
    wanted.push_back("ocsp " + url);
  }
  EXPECT_EQ(wanted, describe(find_locators(cert_)));
}

}  // namespace
