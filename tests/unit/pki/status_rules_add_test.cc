// Status rules that go into the store or a CA.
#include <gtest/gtest.h>
#include <libpki/libpki.h>

#include <cstring>
#include <utility>

#include "fakes/allocator.h"
#include "fakes/failures.h"
#include "fakes/log_capture.h"
#include "unit/pki/store_helpers.h"

namespace {

using support::cert;
using support::elements;
using support::fresh_store;
using support::last_status;
using support::pointers;
using support::rule_list;
using support::store_contents;
using support::watch;

class StatusRules : public support::store_test {
 protected:
  support::ca ca_ = support::make_ca_info("ca");
  support::rule subject_ = support::name_rule(PKI_MATCH_SUBJECT, support::common_name("a"));
  support::rule serial_ = support::serial_rule(support::make_serial(1), support::make_serial(2));
};

using StatusRulesAok = StatusRules;
using StatusRulesOcsp = StatusRules;

// A list of two CRL sources.
class StatusRulesCrl : public StatusRules {
 protected:
  void SetUp() override {
    StatusRules::SetUp();
    for (const char *url : {"http://crl.example/1", "http://crl.example/2"})
      OPENSSL_sk_push(sources_, create_crl_info(url, 0, 511, 0, nullptr, nullptr));
  }
  void TearDown() override {
    OPENSSL_sk_pop_free(sources_, [](void *each) { free_crl_info(static_cast<crl_info *>(each)); });
    StatusRules::TearDown();
  }
  int32_t references(int index) const {
    return static_cast<crl_info *>(OPENSSL_sk_value(sources_, index))->ref_count;
  }

  STACK *sources_ = OPENSSL_sk_new_null();
};

TEST_F(StatusRulesAok, FlagMakesThree) {
  rule_list rules{subject_};
  EXPECT_EQ(pki_add_aok_info(nullptr, rules, 0), 0);
  EXPECT_EQ(last_status(pki_store->global_status_rules)->flags, 2u);
  for (unsigned char flag : {1, 2, 0x80}) {
    EXPECT_EQ(pki_add_aok_info(nullptr, rules, flag), 0);
    EXPECT_EQ(last_status(pki_store->global_status_rules)->flags, 3u);
  }
}

TEST_F(StatusRulesAok, RecordIsOfMechanismThreeWithoutData) {
  rule_list rules{subject_};
  EXPECT_EQ(pki_add_aok_info(nullptr, rules, 1), 0);
  cert_status_info *added = last_status(pki_store->global_status_rules);
  EXPECT_EQ(added->mechanism, 3);
  EXPECT_EQ(added->data, nullptr);
  EXPECT_EQ(added->ref_count, 1);
}

TEST_F(StatusRulesAok, RulesAreSharedOneByOne) {
  rule_list rules{subject_, serial_};
  EXPECT_EQ(pki_add_aok_info(nullptr, rules, 0), 0);
  STACK *stored = last_status(pki_store->global_status_rules)->rules;
  EXPECT_NE(stored, static_cast<STACK *>(rules));
  EXPECT_EQ(elements(stored), (pointers{subject_.get(), serial_.get()}));
  EXPECT_EQ(subject_->ref_count, 3);
  support::empty_store();
  EXPECT_EQ(subject_->ref_count, 2);
  EXPECT_EQ(serial_->ref_count, 2);
}

TEST_F(StatusRulesAok, GoesToTheCaThatIsGiven) {
  rule_list rules{subject_};
  EXPECT_EQ(pki_add_aok_info(ca_.get(), rules, 0), 0);
  EXPECT_EQ(OPENSSL_sk_num(ca_->cert_status_methods), 1);
  EXPECT_EQ(OPENSSL_sk_num(pki_store->global_status_rules), 0);
}

TEST_F(StatusRulesAok, NewRulesGoBehindTheOldOnes) {
  rule_list rules{subject_};
  EXPECT_EQ(pki_add_aok_info(nullptr, rules, 0), 0);
  cert_status_info *first = last_status(pki_store->global_status_rules);
  EXPECT_EQ(pki_add_aok_info(nullptr, rules, 1), 0);
  EXPECT_EQ(OPENSSL_sk_num(pki_store->global_status_rules), 2);
  EXPECT_EQ(OPENSSL_sk_value(pki_store->global_status_rules, 0), first);
}

TEST_F(StatusRulesAok, EmptyRuleListIsAccepted) {
  rule_list none{};
  EXPECT_EQ(pki_add_aok_info(nullptr, none, 0), 0);
  EXPECT_EQ(OPENSSL_sk_num(last_status(pki_store->global_status_rules)->rules), 0);
}

TEST_F(StatusRulesAok, NullRulesAreRefused) {
  auto before = store_contents();
  EXPECT_EQ(pki_add_aok_info(nullptr, nullptr, 0), 63);
  EXPECT_EQ(pki_add_aok_info(ca_.get(), nullptr, 1), 63);
  EXPECT_EQ(store_contents(), before);
  EXPECT_EQ(OPENSSL_sk_num(ca_->cert_status_methods), 0);
}

TEST_F(StatusRulesCrl, RecordIsOfMechanismTwoAndSharesSourcesAndRules) {
  rule_list rules{subject_, serial_};
  EXPECT_EQ(pki_add_crl_info(nullptr, rules, sources_, 0, 0), 0);
  cert_status_info *added = last_status(pki_store->global_status_rules);
  EXPECT_EQ(added->mechanism, 2);
  EXPECT_NE(added->data, sources_);
  EXPECT_EQ(elements(added->data), elements(sources_));
  EXPECT_EQ(elements(added->rules), (pointers{subject_.get(), serial_.get()}));
  EXPECT_EQ(references(0), 2);
  EXPECT_EQ(references(1), 2);
  support::empty_store();
  EXPECT_EQ(references(0), 1);
}

TEST_F(StatusRulesCrl, FlagsAreTheFirstByteWithBitOneFromTheSecond) {
  struct {
    unsigned char flag0, flag1;
    uint32_t flags;
  } cases[] = {{0, 0, 0},    {1, 0, 1}, {0, 1, 2},       {1, 1, 3},      {2, 0, 2},
               {0, 0xff, 2}, {4, 1, 6}, {0xf5, 0, 0xf5}, {0xf5, 4, 0xf7}};
  rule_list rules{subject_};
  for (const auto &each : cases) {
    EXPECT_EQ(pki_add_crl_info(nullptr, rules, sources_, each.flag0, each.flag1), 0);
    EXPECT_EQ(last_status(pki_store->global_status_rules)->flags, each.flags);
  }
}

TEST_F(StatusRulesCrl, GoesToTheCaThatIsGiven) {
  rule_list rules{subject_};
  EXPECT_EQ(pki_add_crl_info(ca_.get(), rules, sources_, 0, 0), 0);
  EXPECT_EQ(OPENSSL_sk_num(ca_->cert_status_methods), 1);
  EXPECT_EQ(OPENSSL_sk_num(pki_store->global_status_rules), 0);
}

TEST_F(StatusRulesCrl, EmptyListsAreAccepted) {
  rule_list none{};
  STACK *no_sources = OPENSSL_sk_new_null();
  EXPECT_EQ(pki_add_crl_info(nullptr, none, no_sources, 0, 0), 0);
  EXPECT_EQ(elements(last_status(pki_store->global_status_rules)->data), pointers{});
  OPENSSL_sk_free(no_sources);
}

TEST_F(StatusRulesCrl, NullListsAreRefused) {
  rule_list rules{subject_};
  auto before = store_contents();
  EXPECT_EQ(pki_add_crl_info(nullptr, nullptr, sources_, 0, 0), 63);
  EXPECT_EQ(pki_add_crl_info(nullptr, rules, nullptr, 0, 0), 63);
  EXPECT_EQ(pki_add_crl_info(ca_.get(), rules, nullptr, 0, 0), 63);
  EXPECT_EQ(store_contents(), before);
  EXPECT_EQ(OPENSSL_sk_num(ca_->cert_status_methods), 0);
  EXPECT_EQ(subject_->ref_count, 2);
}

TEST_F(StatusRulesOcsp, RecordIsOfMechanismOneWithACopyOfTheUrl) {
  rule_list rules{subject_};
  char url[] = "http://ocsp.example/";
  EXPECT_EQ(pki_add_ocsp_info(nullptr, rules, url, nullptr, 5, 0, 0), 0);
  memset(url, 'x', strlen(url));
  cert_status_info *added = last_status(pki_store->global_status_rules);
  EXPECT_EQ(added->mechanism, 1);
  EXPECT_EQ(elements(added->rules), pointers{subject_.get()});
  auto *ocsp = static_cast<ocsp_info *>(added->data);
  EXPECT_STREQ(ocsp->url, "http://ocsp.example/");
  EXPECT_EQ(ocsp->responder_cert, nullptr);
  EXPECT_EQ(ocsp->option, 5u);
  EXPECT_EQ(ocsp->ref_count, 1);
}

TEST_F(StatusRulesOcsp, OptionIsTheWholeByte) {
  rule_list rules{subject_};
  EXPECT_EQ(pki_add_ocsp_info(nullptr, rules, "http://ocsp.example/", nullptr, 0xff, 0, 0), 0);
  cert_status_info *added = last_status(pki_store->global_status_rules);
  EXPECT_EQ(static_cast<ocsp_info *>(added->data)->option, 0xffu);
}

TEST_F(StatusRulesOcsp, HoldsOneReferenceToTheResponder) {
  cert responder = support::make_ca("responder");
  auto destroyed = watch(responder);
  rule_list rules{subject_};
  EXPECT_EQ(pki_add_ocsp_info(nullptr, rules, "http://ocsp.example/", responder.get(), 0, 0, 0), 0);
  cert_status_info *added = last_status(pki_store->global_status_rules);
  EXPECT_EQ(static_cast<ocsp_info *>(added->data)->responder_cert, responder.get());
  responder.reset();
  EXPECT_EQ(*destroyed, 0);
  support::empty_store();
  EXPECT_EQ(*destroyed, 1);
}

TEST_F(StatusRulesOcsp, FlagsAreMadeAsForCrls) {
  rule_list rules{subject_};
  struct {
    unsigned char flag0, flag1;
    uint32_t flags;
  } cases[] = {{0, 0, 0}, {1, 0, 1}, {0, 9, 2}, {1, 1, 3}, {0xf5, 0, 0xf5}, {0xf5, 1, 0xf7}};
  for (const auto &each : cases) {
    EXPECT_EQ(pki_add_ocsp_info(nullptr, rules, "http://ocsp.example/", nullptr, 0, each.flag0,
                                each.flag1),
              0);
    EXPECT_EQ(last_status(pki_store->global_status_rules)->flags, each.flags);
  }
}

TEST_F(StatusRulesOcsp, GoesToTheCaThatIsGiven) {
  rule_list rules{subject_};
  EXPECT_EQ(pki_add_ocsp_info(ca_.get(), rules, "http://ocsp.example/", nullptr, 0, 0, 0), 0);
  EXPECT_EQ(OPENSSL_sk_num(ca_->cert_status_methods), 1);
  EXPECT_EQ(OPENSSL_sk_num(pki_store->global_status_rules), 0);
}

TEST_F(StatusRulesOcsp, NullRulesOrUrlAreRefused) {
  rule_list rules{subject_};
  auto before = store_contents();
  EXPECT_EQ(pki_add_ocsp_info(nullptr, nullptr, "http://ocsp.example/", nullptr, 0, 0, 0), 63);
  EXPECT_EQ(pki_add_ocsp_info(nullptr, rules, nullptr, nullptr, 0, 0, 0), 63);
  EXPECT_EQ(store_contents(), before);
  EXPECT_EQ(subject_->ref_count, 2);
}

TEST_F(StatusRulesOcsp, ResponderThatCannotBeReferencedIsRefused) {
  cert responder = support::make_ca("responder");
  auto destroyed = watch(responder);
  rule_list rules{subject_};
  auto before = store_contents();
  fake_failures::fail_x509_up_ref();
  EXPECT_EQ(pki_add_ocsp_info(nullptr, rules, "http://ocsp.example/", responder.get(), 0, 0, 0),
            49);
  EXPECT_EQ(store_contents(), before);
  EXPECT_EQ(subject_->ref_count, 2);
  EXPECT_EQ(*destroyed, 0);
  responder.reset();
  EXPECT_EQ(*destroyed, 1);
}

TEST_F(StatusRulesOcsp, ResponderThatCannotBeReferencedEmptiesOpensslsQueueIntoTheLog) {
  cert responder = support::make_ca("responder");
  rule_list rules{subject_};
  support::raise_openssl_error(101);
  fake_failures::fail_x509_up_ref();
  EXPECT_EQ(pki_add_ocsp_info(nullptr, rules, "http://ocsp.example/", responder.get(), 0, 0, 0),
            49);
  EXPECT_TRUE(logged_containing(3, "OpenSSL error: ")) << log_dump();
  EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST_F(StatusRulesCrl, NoRuleOperationTakesTheStoreLock) {
  rule_list rules{subject_};
  cert responder = support::make_ca("responder");
  support::status_list found;
  fake_failures::reset();
  EXPECT_EQ(pki_add_aok_info(nullptr, rules, 0), 0);
  EXPECT_EQ(pki_add_crl_info(nullptr, rules, sources_, 0, 0), 0);
  EXPECT_EQ(pki_add_ocsp_info(nullptr, rules, "http://ocsp.example/", responder.get(), 0, 0, 0), 0);
  EXPECT_EQ(pki_find_sts_query_info(nullptr, responder.get(), found), 81);
  EXPECT_EQ(fake_failures::wrlock_calls(), 0);
  EXPECT_EQ(fake_failures::rdlock_calls(), 0);
}

// Runs `add` on fresh lists with each allocation failing in turn, alone or with all behind it.
template <class Add>
void sweep_add(const support::rule &shared, Add add) {
  int32_t references = shared->ref_count;
  for (auto [to_ca, stay_failed] : {std::pair(false, false), {true, false}, {false, true}}) {
    support::ca ca;
    int code = -1;
    size_t failures = fake_allocator::sweep(
        [&] {
          {
            fake_allocator::pause no_failures;
            fresh_store();
            ca = support::make_ca_info("ca");
          }
          code = add(to_ca ? ca.get() : nullptr);
        },
        [&](size_t n) {
          EXPECT_EQ(code, 2) << "allocation " << n;
          EXPECT_EQ(OPENSSL_sk_num(pki_store->global_status_rules), 0) << "allocation " << n;
          EXPECT_EQ(OPENSSL_sk_num(ca->cert_status_methods), 0) << "allocation " << n;
          EXPECT_EQ(shared->ref_count, references) << "allocation " << n;
          // What OpenSSL had to say of a failed call belongs into the log.
          EXPECT_EQ(ERR_peek_error(), 0u) << "allocation " << n;
          support::clear_openssl_errors();
        },
        stay_failed);
    EXPECT_EQ(code, 0);
    EXPECT_GE(failures, 4u);
    fresh_store();
  }
}

TEST_F(StatusRulesAok, OutOfMemoryAddsNothing) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "the allocator cannot be made to fail in this build";
  rule_list rules{subject_, serial_};
  sweep_add(subject_, [&](ca_info *ca) { return pki_add_aok_info(ca, rules, 0); });
}

TEST_F(StatusRulesCrl, OutOfMemoryAddsNothing) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "the allocator cannot be made to fail in this build";
  rule_list rules{subject_, serial_};
  sweep_add(subject_, [&](ca_info *ca) {
    int code = pki_add_crl_info(ca, rules, sources_, 0, 0);
    EXPECT_EQ(references(0), code == 0 ? 2 : 1);
    return code;
  });
}

TEST_F(StatusRulesOcsp, OutOfMemoryAddsNothing) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "the allocator cannot be made to fail in this build";
  cert responder = support::make_ca("responder");
  auto destroyed = watch(responder);
  rule_list rules{subject_, serial_};
  sweep_add(subject_, [&](ca_info *ca) {
    return pki_add_ocsp_info(ca, rules, "http://ocsp.example/", responder.get(), 1, 1, 1);
  });
  responder.reset();
  EXPECT_EQ(*destroyed, 1);
}

}  // namespace
