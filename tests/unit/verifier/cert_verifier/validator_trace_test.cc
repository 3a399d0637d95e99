// What a listener is told about a verification.
#include <thread>

#include "../extension_der.h"
#include "support/test_server.h"
#include "validator_support.h"

using namespace validator_support;

namespace {

struct event {
  int kind, depth, verdict, error;
  std::string subject, text;
  bool has_text, has_time;
  time_t valid_until;
};

using events = std::vector<event>;

time_t seconds(const ASN1_TIME *time) {
  tm parts = {};
  ASN1_TIME_to_tm(time, &parts);
  return timegm(&parts);
}

void listen(void *arg, const cv_trace_event *told) {
  char subject[200] = "";
  if (told->cert)
    X509_NAME_oneline(X509_get_subject_name(told->cert), subject, sizeof subject);
  static_cast<events *>(arg)->push_back({told->kind, told->depth, told->verdict, told->error,
                                         subject, told->text ? told->text : "",
                                         told->text != nullptr, told->valid_until != nullptr,
                                         told->valid_until ? seconds(told->valid_until) : 0});
}

const char *kind_name(int kind) {
  static const char *const names[] = {"?",     "cert",   "rule",   "cert-end",  "status",
                                      "cache", "source", "answer", "status-end"};
  return names[kind >= 1 && kind <= 8 ? kind : 0];
}

class ValidatorTrace : public chain_test {
 protected:
  void SetUp() override {
    chain_test::SetUp();
    zv_cv_set_trace(listen, &heard_);
  }

  // "cert /CN=leaf 1", without the rules that passed.
  lines outline() const {
    lines found;
    for (const event &each : heard_)
      if (each.kind != PKI_TRACE_RULE || !each.verdict)
        found.push_back(std::string(kind_name(each.kind)) + " " + each.subject + " " +
                        std::to_string(each.verdict));
    return found;
  }
  events of(int kind) const {
    events found;
    for (const event &each : heard_)
      if (each.kind == kind)
        found.push_back(each);
    return found;
  }

  events heard_;
};

TEST_F(ValidatorTrace, GoodChainIsToldFromTheTopDown) {
  ASSERT_TRUE(accepts(chain(), local));
  EXPECT_EQ((lines{"cert /CN=root 1", "cert-end /CN=root 1", "cert /CN=inter 1",
                   "cert-end /CN=inter 1", "cert /CN=leaf 1", "cert-end /CN=leaf 1"}),
            outline());
  events begun = of(PKI_TRACE_CERT);
  ASSERT_EQ(3U, begun.size());
  for (size_t i = 0; i < 3; i++) {
    EXPECT_EQ(2 - static_cast<int>(i), begun[i].depth);
    EXPECT_EQ(0, begun[i].error);
  }
}

TEST_F(ValidatorTrace, RulesArePassedBetweenBeginningAndEnd) {
  ASSERT_TRUE(accepts(chain(), local));
  std::string open;
  size_t rules = 0;
  for (const event &each : heard_) {
    if (each.kind == PKI_TRACE_CERT) {
      EXPECT_EQ("", open);
      open = each.subject;
    } else {
      EXPECT_EQ(open, each.subject);
    }
    if (each.kind == PKI_TRACE_CERT_END)
      open = "";
    if (each.kind == PKI_TRACE_RULE) {
      rules++;
      EXPECT_EQ(1, each.verdict) << each.text;
      EXPECT_NE("", each.text);
      EXPECT_EQ(each.subject == "/CN=leaf" ? 0 : each.subject == "/CN=inter" ? 1 : 2, each.depth);
    } else {
      EXPECT_FALSE(each.has_text);
      EXPECT_FALSE(each.has_time);
    }
  }
  EXPECT_GT(rules, 0U);
}

TEST_F(ValidatorTrace, SourceAndAnswerAreToldWithinTheStatusCheck) {
  add_always_ok("leaf");
  ASSERT_TRUE(accepts(chain(), internet));
  EXPECT_EQ((lines{"cert /CN=root 1", "cert-end /CN=root 1", "cert /CN=inter 1",
                   "status /CN=inter 0", "status-end /CN=inter 1", "cert-end /CN=inter 1",
                   "cert /CN=leaf 1", "status /CN=leaf 0", "source /CN=leaf 0", "answer /CN=leaf 1",
                   "status-end /CN=leaf 1", "cert-end /CN=leaf 1"}),
            outline());
  for (int kind : {PKI_TRACE_STATUS, PKI_TRACE_SOURCE, PKI_TRACE_ANSWER, PKI_TRACE_STATUS_END})
    for (const event &each : of(kind)) {
      EXPECT_EQ(0, each.depth);
      EXPECT_EQ(0, each.error);
      EXPECT_EQ(kind == PKI_TRACE_SOURCE, each.has_text);
    }
  ASSERT_EQ(1U, of(PKI_TRACE_ANSWER).size());
  EXPECT_EQ(time(nullptr) + 86400, of(PKI_TRACE_ANSWER)[0].valid_until);
}

TEST_F(ValidatorTrace, CachedStatusIsToldWithItsTime) {
  cache_status(leaf_, PKI_CERT_OK, 1234);
  ASSERT_TRUE(accepts(chain(), internet));
  lines told = outline();
  ASSERT_GE(told.size(), 5U);
  EXPECT_EQ((lines{"cert /CN=leaf 1", "status /CN=leaf 0", "cache /CN=leaf 1",
                   "status-end /CN=leaf 1", "cert-end /CN=leaf 1"}),
            lines(told.end() - 5, told.end()));
  ASSERT_EQ(1U, of(PKI_TRACE_CACHE).size());
  EXPECT_EQ(time(nullptr) + 1234, of(PKI_TRACE_CACHE)[0].valid_until);
  EXPECT_EQ(0U, of(PKI_TRACE_SOURCE).size());
}

TEST_F(ValidatorTrace, RevokedCertificateEndsIt) {
  cache_status(inter_, PKI_CERT_REVOKED);
  ASSERT_FALSE(accepts(chain(), internet));
  lines told = outline();
  EXPECT_EQ("cert-end /CN=inter 0", told.back());
  EXPECT_EQ(X509_V_ERR_CERT_REVOKED, heard_.back().error);
  EXPECT_EQ(1U, std::count(told.begin(), told.end(), "cache /CN=inter 2"));
  EXPECT_EQ(1U, std::count(told.begin(), told.end(), "status-end /CN=inter 2"));
}

TEST_F(ValidatorTrace, SourcesWithoutAnswerAreToldByUrl) {
  support::test_server server({support::status(500)});
  cert leaf = make_leaf({extension_der::aia({server.url("/1"), server.url("/2")})});
  ASSERT_FALSE(accepts(chain_of(inter_, leaf), internet));
  lines leafs;
  for (const std::string &each : outline())
    if (each.find("leaf") != std::string::npos && !each.starts_with("rule"))
      leafs.push_back(each);
  EXPECT_EQ((lines{"cert /CN=leaf 1", "status /CN=leaf 0", "source /CN=leaf 0",
                   "answer /CN=leaf -1", "source /CN=leaf 0", "answer /CN=leaf -1",
                   "status-end /CN=leaf 0", "cert-end /CN=leaf 0"}),
            leafs);
  events asked = of(PKI_TRACE_SOURCE);
  ASSERT_EQ(2U, asked.size());
  EXPECT_NE(std::string::npos, asked[0].text.find(server.url("/1"))) << asked[0].text;
  EXPECT_NE(std::string::npos, asked[1].text.find(server.url("/2"))) << asked[1].text;
  for (const event &each : of(PKI_TRACE_ANSWER))
    EXPECT_FALSE(each.has_time);
  EXPECT_EQ(X509_V_ERR_UNABLE_TO_GET_CRL, heard_.back().error);
}

TEST_F(ValidatorTrace, FailedRuleIsTheLastOfItsCertificate) {
  cert leaf = make_leaf({{"certificatePolicies", critical_policies}});
  ASSERT_FALSE(accepts(chain_of(inter_, leaf), internet));
  ASSERT_GE(heard_.size(), 2U);
  const event &rule = heard_[heard_.size() - 2], &end = heard_.back();
  EXPECT_EQ(PKI_TRACE_RULE, rule.kind);
  EXPECT_EQ(0, rule.verdict);
  EXPECT_NE("", rule.text);
  EXPECT_EQ("/CN=leaf", rule.subject);
  EXPECT_EQ(PKI_TRACE_CERT_END, end.kind);
  EXPECT_EQ(0, end.verdict);
}

TEST_F(ValidatorTrace, OpenSslErrorIsToldWhetherForgivenOrNot) {
  time_t now = time(nullptr);
  cert expired = make({.subject = "leaf",
                       .issuer = "inter",
                       .key = 2,
                       .issuer_key = 1,
                       .not_before = now - 200,
                       .not_after = now - 100});
  for (const named_callback &each : all_callbacks) {
    heard_.clear();
    accepts(chain_of(inter_, expired), each.call);
    bool told = false;
    for (size_t i = 0; i < heard_.size(); i++) {
      if (heard_[i].kind != PKI_TRACE_CERT || heard_[i].verdict != 0)
        continue;
      told = true;
      EXPECT_EQ(X509_V_ERR_CERT_HAS_EXPIRED, heard_[i].error);
      while (i < heard_.size() && heard_[i].kind != PKI_TRACE_CERT_END)
        i++;
      ASSERT_LT(i, heard_.size());
      EXPECT_EQ(!each.is_internet, heard_[i].verdict == 1) << each.name;
    }
    EXPECT_TRUE(told) << each.name;
  }
}

TEST_F(ValidatorTrace, StatusCheckAloneIsToldToo) {
  add_always_ok();
  zv_cv_check_cert_status(leaf_.get(), inter_.get(), nullptr, 1, 3);
  EXPECT_EQ((lines{"status /CN=leaf 0", "source /CN=leaf 0", "answer /CN=leaf 1",
                   "status-end /CN=leaf 1"}),
            outline());
  for (const event &each : heard_)
    EXPECT_EQ(3, each.depth);
}

TEST_F(ValidatorTrace, TurnedOffStatusCheckHasABeginningAndAnEnd) {
  zv_cv_disable_crl_check(1);
  zv_cv_check_cert_status(leaf_.get(), inter_.get(), nullptr, 1, 0);
  EXPECT_EQ((lines{"status /CN=leaf 0", "status-end /CN=leaf 1"}), outline());
}

TEST_F(ValidatorTrace, DepthLimitHasABeginningAndAnEnd) {
  zv_cv_check_cert_status(leaf_.get(), inter_.get(), nullptr, 1, 10);
  EXPECT_EQ((lines{"status /CN=leaf 0", "status-end /CN=leaf 0"}), outline());
}

TEST_F(ValidatorTrace, NullEndsIt) {
  zv_cv_set_trace(nullptr, nullptr);
  EXPECT_TRUE(accepts(chain(), internet));
  EXPECT_EQ(lines{}, outline());
}

TEST_F(ValidatorTrace, LastListenerIsTheOnlyOne) {
  events others;
  zv_cv_set_trace(listen, &others);
  EXPECT_TRUE(accepts(chain(), internet));
  EXPECT_TRUE(heard_.empty());
  EXPECT_FALSE(others.empty());
}

TEST_F(ValidatorTrace, OtherThreadsAreNotHeard) {
  std::thread other([&] {
    EXPECT_TRUE(accepts(chain(), internet));
    EXPECT_EQ(PKI_CERT_OK, zv_cv_check_cert_status(leaf_.get(), inter_.get(), nullptr, 1, 0));
  });
  other.join();
  EXPECT_TRUE(heard_.empty());
}

TEST_F(ValidatorTrace, ListenerOfAnotherThreadIsNotCalledHere) {
  events others;
  std::thread other([&] {
    zv_cv_set_trace(listen, &others);
    EXPECT_TRUE(accepts(chain(), internet));
  });
  other.join();
  EXPECT_FALSE(others.empty());
  size_t before = others.size();
  EXPECT_TRUE(accepts(chain(), internet));
  EXPECT_EQ(before, others.size());
  EXPECT_FALSE(heard_.empty());
}

TEST_F(ValidatorTrace, ListenerChangesNoVerdict) {
  cert bad = make_leaf({{"certificatePolicies", critical_policies}});
  for (const cert &leaf : {leaf_, bad}) {
    bool heard = accepts(chain_of(inter_, leaf), internet);
    zv_cv_set_trace(nullptr, nullptr);
    EXPECT_EQ(heard, accepts(chain_of(inter_, leaf), internet));
    zv_cv_set_trace(listen, &heard_);
  }
}

}  // namespace
