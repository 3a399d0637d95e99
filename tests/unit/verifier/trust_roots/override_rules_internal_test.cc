// Status rules from a table.
#include <set>

#include "roots_support.h"
#include "verifier/trust_roots/internal.h"

using namespace roots_support;
using pki::no_signer;
using pki::override_always_ok;
using pki::override_crl;
using pki::override_ocsp;
using pki::override_rule;

namespace {

class OverrideRules : public support::store_test {
 protected:
  void SetUp() override {
    store_test::SetUp();
    ca.reset(alloc_ca_info(), free_ca_info);
    ca->label = pki_strdup("some CA");
    for (int i = 0; i < 3; i++) {
      roots.push_back(device_root("root " + std::to_string(i), i + 1));
      certs.push_back(roots.back().get());
    }
  }
  void TearDown() override {
    ca.reset();
    store_test::TearDown();
  }
  int add(const std::vector<override_rule> &rules) {
    return pki::add_cert_sts_info(ca.get(), rules.data(), static_cast<int>(rules.size()),
                                  certs.data());
  }
  texts added() const { return describe(ca->cert_status_methods); }

  ca_ref ca;
  std::vector<support::cert> roots;
  std::vector<X509 *> certs;
};

// Rules compare names by their octets, so the type of each string counts.
support::name parsed_name(const char *text) {
  X509_NAME *parsed = nullptr;
  EXPECT_EQ(0, parse_rfc1779_str(text, &parsed));
  return support::name(parsed, X509_NAME_free);
}

// ---- the tables ----

TEST_F(OverrideRules, TheRootTableNamesIssuersUrlsAndSigners) {
  constexpr const char *urls[] = {
      "http://crl.verisign.com/pca3.crl", "http://crl.verisign.com/pca3.1.1.crl",
      "http://crl.verisign.com/pca3-g2.crl", "http://s.symcb.com/pca3-g3.crl",
      "http://crl.verisign.com/Class3InternationalServer.crl"};
  constexpr int signers[] = {0, 0, 1, 2, no_signer};
  ASSERT_EQ(5, pki::root_override_count);
  for (int i = 0; i < 5; i++) {
    const override_rule &rule = pki::root_override_rules[i];
    EXPECT_EQ(override_crl, rule.method) << i;
    EXPECT_STREQ(urls[i], rule.url);
    EXPECT_EQ(signers[i], rule.signer) << i;
  }
}

TEST_F(OverrideRules, TheRootTablesIssuersParseToTheSubjects) {
  const pki::built_in_cert *issuers[] = {&pki::root_certs[0], &pki::root_certs[0],
                                         &pki::root_certs[1], &pki::root_certs[2],
                                         &pki::chain_cert};
  for (int i = 0; i < 5; i++) {
    support::cert issuer(pki::decode_built_in(*issuers[i]), X509_free);
    EXPECT_EQ(0, X509_NAME_cmp(X509_get_subject_name(issuer.get()),
                               parsed_name(pki::root_override_rules[i].issuer).get()))
        << i;
  }
  EXPECT_EQ(0U, std::string(pki::root_override_rules[0].issuer)
                    .rfind("OU=Class 3 Public Primary Certification Authority,", 0));
}

TEST_F(OverrideRules, TheEngineeringRuleIsAlwaysOkWithoutDataAndSigner) {
  EXPECT_EQ(override_always_ok, pki::eng_override_rule.method);
  EXPECT_EQ(nullptr, pki::eng_override_rule.url);
  EXPECT_EQ(no_signer, pki::eng_override_rule.signer);
}

// ---- what is added ----

TEST_F(OverrideRules, ACrlRuleHasAllReasonsAndComesAfterTheCertificatesOwnSources) {
  EXPECT_EQ(0, add({{"CN=issuer", override_crl, "http://crl/", 1}}));
  EXPECT_EQ(texts{"crl http://crl/ format 0 reasons 511 flags 0 signer / 1"}, added());
  EXPECT_EQ(certs[1], crl_signer(ca->cert_status_methods, 0));
  EXPECT_EQ("", log_dump());
}

TEST_F(OverrideRules, ACrlRuleCanBeWithoutSigner) {
  EXPECT_EQ(0, add({{"CN=issuer", override_crl, "http://crl/", no_signer}}));
  EXPECT_EQ(texts{"crl http://crl/ format 0 reasons 511 flags 0 / 1"}, added());
}

TEST_F(OverrideRules, AnOcspRuleHasNoSigner) {
  EXPECT_EQ(0, add({{"CN=issuer", override_ocsp, "http://ocsp/", 0}}));
  ASSERT_EQ(1U, added().size());
  EXPECT_EQ(0U, added()[0].rfind("ocsp http://ocsp/ / ", 0)) << added()[0];
  EXPECT_EQ("", log_dump());
}

TEST_F(OverrideRules, AnAlwaysOkRuleIsFinalAndComesAfterTheCertificatesOwnSources) {
  EXPECT_EQ(0, add({{"CN=issuer", override_always_ok, nullptr, no_signer}}));
  EXPECT_EQ(texts{"always-ok / 3"}, added());
}

TEST_F(OverrideRules, AnotherMethodIsSkipped) {
  EXPECT_EQ(0, add({{"CN=issuer", 4, "http://x/", no_signer},
                    {"CN=issuer", 0, "http://x/", no_signer},
                    {"CN=issuer", -1, nullptr, no_signer},
                    {"CN=issuer", override_always_ok, nullptr, no_signer}}));
  EXPECT_EQ(texts{"always-ok / 3"}, added());
  EXPECT_EQ("", log_dump());
}

TEST_F(OverrideRules, EachRuleMatchesItsOwnIssuer) {
  EXPECT_EQ(0, add({{"CN=one", override_crl, "http://1/", no_signer},
                    {"CN=two, O=Example", override_crl, "http://2/", no_signer}}));
  support::cert one = issued_under(parsed_name("CN=one").get());
  support::cert two = issued_under(parsed_name("CN=two, O=Example").get());
  EXPECT_EQ(texts{"crl http://1/ format 0 reasons 511 flags 0 / 1"},
            describe(rules_for(ca.get(), one).get()));
  EXPECT_EQ(texts{"crl http://2/ format 0 reasons 511 flags 0 / 1"},
            describe(rules_for(ca.get(), two).get()));
}

TEST_F(OverrideRules, WithoutIssuerItIsTheSubjectOfTheFirstCertificate) {
  EXPECT_EQ(0, add({{nullptr, override_always_ok, nullptr, no_signer}}));
  EXPECT_EQ(1U, added().size());
  support::cert from_first = issued_under(X509_get_subject_name(certs[0]));
  support::cert from_second = issued_under(X509_get_subject_name(certs[1]));
  EXPECT_EQ(texts{"always-ok / 3"}, describe(rules_for(ca.get(), from_first).get()));
  EXPECT_EQ(texts{}, describe(rules_for(ca.get(), from_second).get()));
}

TEST_F(OverrideRules, NoRulesAreNoFailure) {
  EXPECT_EQ(0, pki::add_cert_sts_info(ca.get(), pki::root_override_rules, 0, certs.data()));
  EXPECT_EQ(texts{}, added());
}

// ---- failures ----

TEST_F(OverrideRules, WithoutCaTheyAreRefused) {
  override_rule rule = {"CN=issuer", override_always_ok, nullptr, no_signer};
  EXPECT_EQ(50, pki::add_cert_sts_info(nullptr, &rule, 1, certs.data()));
  EXPECT_EQ("3: add_cert_sts_info bad params\n", log_dump());
  EXPECT_EQ(0, OPENSSL_sk_num(pki_store->global_status_rules));
}

TEST_F(OverrideRules, AnIssuerWithoutValueEndsThem) {
  EXPECT_EQ(54, add({{"CN=issuer", override_always_ok, nullptr, no_signer},
                     {"CN", override_always_ok, nullptr, no_signer},
                     {"CN=issuer", override_always_ok, nullptr, no_signer}}));
  EXPECT_EQ(texts{"always-ok / 3"}, added());
  EXPECT_EQ(
      "4: no '=' found for key 'CN' in string 'CN'\n"
      "3: failed to parse issuer 'CN': DN NO VALUE\n",
      log_dump());
}

TEST_F(OverrideRules, AnIssuerOfAnUnknownAttributeEndsThem) {
  EXPECT_EQ(53, add({{"XYZ=1", override_crl, "http://crl/", 0}}));
  EXPECT_EQ(texts{}, added());
  EXPECT_TRUE(was_logged(3, "failed to parse issuer 'XYZ=1': DN UNKNOWN KEY")) << log_dump();
}

TEST_F(OverrideRules, AnIssuerWithAnOpenQuoteEndsThem) {
  EXPECT_EQ(55, add({{"CN=\"x", override_ocsp, "http://ocsp/", no_signer}}));
  EXPECT_EQ(texts{}, added());
  EXPECT_EQ("3: failed to parse issuer 'CN=\"x': DN OPEN QS\n", log_dump());
}

TEST_F(OverrideRules, AnEmptyIssuerWhichWouldMatchAllEndsThem) {
  EXPECT_EQ(54, add({{"CN=issuer", override_always_ok, nullptr, no_signer},
                     {"", override_always_ok, nullptr, no_signer}}));
  EXPECT_EQ(texts{"always-ok / 3"}, added());
  EXPECT_EQ("3: failed to parse issuer '': DN NO VALUE\n", log_dump());
  EXPECT_EQ(texts{}, describe(rules_for(ca.get(), device_root("stranger")).get()));
}

TEST_F(OverrideRules, ARootWithoutSubjectEndsThem) {
  support::cert_options options;
  options.subject = support::name(X509_NAME_new(), X509_NAME_free);
  support::cert nameless = support::make_cert(options);
  certs[0] = nameless.get();
  EXPECT_EQ(54, add({pki::eng_override_rule}));
  EXPECT_EQ(texts{}, added());
  EXPECT_EQ("3: failed to parse issuer '': DN NO VALUE\n", log_dump());
}

TEST_F(OverrideRules, AResponderWithoutUrlEndsThem) {
  EXPECT_EQ(63, add({{"CN=issuer", override_ocsp, nullptr, no_signer}}));
  EXPECT_EQ(texts{}, added());
  EXPECT_EQ("3: failed to add ocsp info to root 'some CA': INVALID ARGS\n", log_dump());
}

TEST_F(OverrideRules, ASignerWithoutReferenceEndsThem) {
  fake_failures::fail_x509_up_ref();
  int result = add({{"CN=issuer", override_crl, "http://crl/", 0}});
  EXPECT_TRUE(result == 2 || result == 49) << result;
  EXPECT_EQ(texts{}, added());
  EXPECT_TRUE(only_line_begins("3: failed to add crl info to root 'some CA': ")) << log_dump();
}

// Every line that a lack of memory may give, and the shared line's last word.
bool is_memory_line(const std::string &log) {
  for (const char *line :
       {"3: add_cert_sts_info: failed alloc match rule\n",
        "3: add_cert_sts_info: failed alloc rules or crls\n",
        "3: failed to parse issuer '/C=US/O=Example/CN=root 0': OUT OF MEMORY\n"})
    if (log == line)
      return true;
  const std::string reason = "': OUT OF MEMORY\n";
  bool reason_given = log.size() > reason.size() &&
                      log.compare(log.size() - reason.size(), reason.size(), reason) == 0;
  for (const char *start :
       {"3: failed to parse issuer 'CN=", "3: failed to add crl info to root 'some CA'",
        "3: failed to add ocsp info to root 'some CA'",
        "3: failed to add aok info to root 'some CA'"})
    if (reason_given && log.rfind(start, 0) == 0 && log.find('\n') == log.size() - 1)
      return true;
  return false;
}

TEST_F(OverrideRules, OutOfMemoryAtEachAllocationIsReportedAndLeavesWholeRulesOnly) {
  const override_rule rules[] = {{"CN=a, O=b", override_crl, "http://crl/", 2},
                                 {"CN=c", override_ocsp, "http://ocsp/", no_signer},
                                 {nullptr, override_always_ok, nullptr, no_signer}};
  EXPECT_EQ(0, pki::add_cert_sts_info(ca.get(), rules, 3, certs.data()));
  const texts all = added();
  std::set<std::string> kinds;
  int result = 0;
  auto start_again = [&] {
    fake_allocator::pause no_failures;
    ca.reset(alloc_ca_info(), free_ca_info);
    ca->label = pki_strdup("some CA");
    clear_log();
    support::clear_openssl_errors();
  };
  size_t failures = fake_allocator::sweep(
      [&] {
        start_again();
        result = pki::add_cert_sts_info(ca.get(), rules, 3, certs.data());
      },
      [&](size_t n) {
        EXPECT_EQ(2, result) << n;
        EXPECT_TRUE(is_memory_line(own_log())) << n << "\n" << log_dump();
        kinds.insert(own_log().substr(0, own_log().find_first_of("'\n", 3)));
        texts left = added();
        ASSERT_LT(left.size(), all.size()) << n;
        EXPECT_EQ(texts(all.begin(), all.begin() + static_cast<long>(left.size())), left) << n;
      });
  if (!fake_allocator::available())
    return;
  EXPECT_LT(20U, failures);
  // Each kind of failure was met.
  EXPECT_EQ(6U, kinds.size()) << testing::PrintToString(kinds);
}

}  // namespace
