// The status check: which sources are asked, and what their answers come to.
#include "../extension_der.h"
#include "fakes/failures.h"
#include "support/ocsp_responder.h"
#include "support/test_server.h"
#include "validator_support.h"

using namespace validator_support;
using namespace extension_der;

namespace {

class StatusSources : public chain_test {
 protected:
  int check(const cert &subject) {
    context ctx = prepare({subject, inter_, root_}, 0);
    return zv_cv_check_cert_status(subject.get(), inter_.get(), ctx.get(), 1, 0);
  }
  int check() { return check(leaf_); }

  // Forgets the answers, so that the next check asks again.
  static void forget() {
    zv_cv_clear_cert_sts_info_cache();
    clear_log();
  }

  // What the intermediate says about its certificates; the store has to know it.
  support::ocsp_options signed_by_issuer(int status) const {
    support::ocsp_options options;
    options.signer = inter_;
    options.signing_key = support::test_key(1);
    options.single.status = status;
    return options;
  }
  void know_issuer() { ASSERT_EQ(0, pki_add_untrusted_cert(inter_.get(), 1)); }

  support::test_server broken_{{support::status(500)}};
};

const std::string nothing_found = "No cert-status information found for cert '/CN=leaf'";
const std::string nothing_line = "4 " + nothing_found;

// ---- always good ----

TEST_F(StatusSources, AlwaysOkRuleIsCachedForOneDay) {
  add_always_ok("leaf");
  EXPECT_EQ(PKI_CERT_OK, check());
  EXPECT_EQ(1U, count_logged(7, "Cert-status for cert '/CN=leaf' is: ok")) << log_dump();
  EXPECT_EQ(lines{}, complaints());
  record info = cached(leaf_);
  ASSERT_TRUE(info);
  EXPECT_EQ(PKI_CERT_OK, info->status);
  EXPECT_EQ(0, ASN1_TIME_cmp_time_t(info->valid_until, time(nullptr) + 86400));
  EXPECT_EQ(2U, info->ref_count);
}

TEST_F(StatusSources, AlwaysOkRuleOfACaCountsToo) {
  ca_info *ca = alloc_ca_info();
  ca->label = pki_strdup("ca");
  ASSERT_EQ(0, pki_add_aok_info(ca, rules_for("leaf").get(), 1));
  ASSERT_EQ(0, pki_add_ca_info(ca));
  free_ca_info(ca);
  EXPECT_EQ(PKI_CERT_OK, check());
  EXPECT_TRUE(cached(leaf_));
}

TEST_F(StatusSources, RuleForAnotherIsNoSource) {
  add_always_ok("somebody else");
  EXPECT_EQ(PKI_CERT_OK, check());
  EXPECT_FALSE(cached(leaf_));
}

TEST_F(StatusSources, AlwaysOkIsAskedAgainAfterADay) {
  add_always_ok("leaf");
  check();
  fake_clock::advance(86399);
  clear_log();
  EXPECT_EQ(PKI_CERT_OK, check());
  EXPECT_TRUE(logged_containing(7, "in cache"));
  fake_clock::advance(2);
  clear_log();
  EXPECT_EQ(PKI_CERT_OK, check());
  EXPECT_FALSE(logged_containing(7, "in cache"));
}

// ---- nobody knows ----

TEST_F(StatusSources, SourceWithoutAnswerLeavesItUnknown) {
  add_ocsp(broken_.url(), false, false);
  EXPECT_EQ(PKI_CERT_UNKNOWN, check());
  EXPECT_EQ(1U, count_logged(4, nothing_found)) << log_dump();
  EXPECT_EQ(nothing_line, complaints().back());
  EXPECT_FALSE(logged_containing(7, "Cert-status for cert"));
}

// Its issuer wanted somebody to be asked.
TEST_F(StatusSources, OneThatCannotBeReadIsNotTakenForNone) {
  using namespace std::string_literals;
  const std::string url = "http://a/\0b"s;
  const extension ocsp = aia({url}), crls = crl_dp_of(point_at(url));
  for (const std::vector<extension> &extensions :
       {std::vector{ocsp}, std::vector{crls}, std::vector{ocsp, crls}}) {
    forget();
    EXPECT_EQ(PKI_CERT_UNKNOWN, check(make_leaf(extensions)));
    EXPECT_EQ(nothing_line, complaints().back()) << log_dump();
  }
}

TEST_F(StatusSources, OneThatCannotBeReadLeavesTheOthers) {
  using namespace std::string_literals;
  support::ocsp_responder good(signed_by_issuer(V_OCSP_CERTSTATUS_GOOD));
  know_issuer();
  EXPECT_EQ(PKI_CERT_OK, check(make_leaf({aia({"http://a/\0b"s, good.url()})}))) << log_dump();
}

TEST_F(StatusSources, UnknownIsCachedForThirtySeconds) {
  add_ocsp(broken_.url(), false, false);
  check();
  record info = cached(leaf_);
  ASSERT_TRUE(info);
  EXPECT_EQ(PKI_CERT_UNKNOWN, info->status);
  EXPECT_EQ(0, ASN1_TIME_cmp_time_t(info->valid_until, time(nullptr) + 30));
  EXPECT_EQ(2U, info->ref_count);
}

TEST_F(StatusSources, UnknownIsAskedAgainAfterThirtySeconds) {
  add_ocsp(broken_.url(), false, false);
  EXPECT_EQ(PKI_CERT_UNKNOWN, check());
  ASSERT_EQ(1U, broken_.requests().size());
  fake_clock::advance(29);
  clear_log();
  EXPECT_EQ(PKI_CERT_UNKNOWN, check());
  EXPECT_TRUE(was_logged(7, "Found cert-status for cert '/CN=leaf' in cache - status is: unknown"));
  EXPECT_EQ(1U, broken_.requests().size());
  fake_clock::advance(2);
  EXPECT_EQ(PKI_CERT_UNKNOWN, check());
  EXPECT_EQ(2U, broken_.requests().size());
  EXPECT_TRUE(cached(leaf_));
}

TEST_F(StatusSources, AllThatAnswerNothingAreAskedOnceInOrder) {
  support::test_server before({support::status(404)}), after({support::status(503)});
  add_ocsp(after.url(), true, false);
  add_ocsp(before.url(), false, false);
  cert leaf = make_leaf({aia({broken_.url("/1"), broken_.url("/2")})});
  EXPECT_EQ(PKI_CERT_UNKNOWN, check(leaf));
  EXPECT_EQ(1U, before.requests().size());
  EXPECT_EQ(2U, broken_.requests().size());
  EXPECT_EQ(1U, after.requests().size());
  lines failures;
  for (const log_entry &entry : captured_log())
    if (entry.level == 3)
      failures.push_back(entry.text);
  EXPECT_EQ((lines{"OCSP responder (" + before.url() + ") returned 404",
                   "OCSP responder (" + broken_.url("/1") + ") returned 500",
                   "OCSP responder (" + broken_.url("/2") + ") returned 500",
                   "OCSP responder (" + after.url() + ") returned 503"}),
            failures);
}

TEST_F(StatusSources, NobodyListeningLeavesItUnknown) {
  std::string nobody = "http://127.0.0.1:" + std::to_string(support::unused_port()) + "/";
  EXPECT_EQ(PKI_CERT_UNKNOWN, check(make_leaf({aia({nobody})})));
  EXPECT_TRUE(was_logged(4, nothing_found));
}

TEST_F(StatusSources, DistributionPointsAreASource) {
  cert leaf = make_leaf({crl_dp_of(point(relative_name))});
  EXPECT_EQ(PKI_CERT_UNKNOWN, check(leaf));
  EXPECT_TRUE(was_logged(4, nothing_found)) << log_dump();
  EXPECT_TRUE(cached(leaf));
}

// ---- the end of the search ----

TEST_F(StatusSources, DefiniteAnswerEndsTheSearch) {
  add_always_ok("leaf", false);
  add_ocsp(broken_.url(), true, false);
  EXPECT_EQ(PKI_CERT_OK, check(make_leaf({aia({broken_.url()})})));
  EXPECT_EQ(0U, broken_.requests().size());
}

TEST_F(StatusSources, NextOneIsAskedAfterOneWithoutAnswer) {
  add_ocsp(broken_.url(), false, false);
  add_always_ok("leaf", true);
  EXPECT_EQ(PKI_CERT_OK, check());
  EXPECT_EQ(1U, broken_.requests().size());
  EXPECT_FALSE(was_logged(4, nothing_found));
}

TEST_F(StatusSources, FinalOneEndsTheSearchWithoutAnswer) {
  support::test_server own({support::status(500)});
  add_ocsp(broken_.url(), false, true);
  add_always_ok("leaf", true);
  EXPECT_EQ(PKI_CERT_UNKNOWN, check(make_leaf({aia({own.url()})})));
  EXPECT_EQ(1U, broken_.requests().size());
  EXPECT_EQ(0U, own.requests().size());
  EXPECT_TRUE(was_logged(4, nothing_found));
}

TEST_F(StatusSources, FinalOneWithAnAnswerIsBelieved) {
  know_issuer();
  support::ocsp_responder good(signed_by_issuer(V_OCSP_CERTSTATUS_GOOD));
  add_ocsp(good.url(), false, true);
  EXPECT_EQ(PKI_CERT_OK, check()) << log_dump();
}

TEST_F(StatusSources, UnknownAnswerIsNoAnswer) {
  know_issuer();
  support::ocsp_responder unknown(signed_by_issuer(V_OCSP_CERTSTATUS_UNKNOWN));
  support::ocsp_responder revoked(signed_by_issuer(V_OCSP_CERTSTATUS_REVOKED));
  add_ocsp(unknown.url(), false, false);
  add_ocsp(revoked.url(), true, false);
  EXPECT_EQ(PKI_CERT_REVOKED, check()) << log_dump();
  EXPECT_EQ(1U, unknown.requests().size());
}

TEST_F(StatusSources, UnknownAnswerOfAFinalOneEndsTheSearch) {
  know_issuer();
  support::ocsp_responder unknown(signed_by_issuer(V_OCSP_CERTSTATUS_UNKNOWN));
  add_ocsp(unknown.url(), false, true);
  add_always_ok("leaf", true);
  EXPECT_EQ(PKI_CERT_UNKNOWN, check());
  // What is remembered is that nothing was found, not the answer with its own time.
  record info = cached(leaf_);
  ASSERT_TRUE(info);
  EXPECT_EQ(0, ASN1_TIME_cmp_time_t(info->valid_until, time(nullptr) + 30));
}

TEST_F(StatusSources, RevokedAnswerIsCachedUntilItsNextUpdate) {
  know_issuer();
  support::ocsp_options options = signed_by_issuer(V_OCSP_CERTSTATUS_REVOKED);
  options.single.next_update = time(nullptr) + 500;
  support::ocsp_responder revoked(options);
  add_ocsp(revoked.url(), false, false);
  add_always_ok("leaf", true);
  EXPECT_EQ(PKI_CERT_REVOKED, check());
  EXPECT_EQ(1U, count_logged(7, "Cert-status for cert '/CN=leaf' is: revoked")) << log_dump();
  record info = cached(leaf_);
  ASSERT_TRUE(info);
  EXPECT_EQ(PKI_CERT_REVOKED, info->status);
  EXPECT_EQ(0, ASN1_TIME_cmp_time_t(info->valid_until, time(nullptr) + 500));
}

// ---- sources that cannot be read ----

TEST_F(StatusSources, MalformedAccessDescriptionsAreNoReasonToTrust) {
  for (const std::string &octets : malformed_sequences()) {
    forget();
    EXPECT_EQ(PKI_CERT_UNKNOWN, check(make_leaf({raw("authorityInfoAccess", octets)})));
  }
}

TEST_F(StatusSources, SourcesThatCannotBeListedAreListedAgainAtTheNextCheck) {
  cert leaf = make_leaf({raw("authorityInfoAccess", "x")});
  for (int i = 0; i < 2; i++) {
    clear_log();
    EXPECT_EQ(PKI_CERT_UNKNOWN, check(leaf));
    EXPECT_EQ(1U, count_logged(3, "the authority-info-access extension cannot be read"));
    EXPECT_EQ(1U, count_logged(4, nothing_found)) << log_dump();
    EXPECT_FALSE(cached(leaf));
  }
}

TEST_F(StatusSources, SourceThatCannotBeListedIsAskedOnceItCan) {
  cert signer = support::make_ca("responder");
  ASSERT_EQ(0, pki_add_ocsp_info(nullptr, rules_for("leaf").get(), broken_.url().c_str(),
                                 signer.get(), 0, 0, 0));
  X509_get_extension_flags(leaf_.get());
  fake_failures::fail_x509_up_ref();
  EXPECT_EQ(PKI_CERT_UNKNOWN, zv_cv_check_cert_status(leaf_.get(), inter_.get(), nullptr, 1, 0));
  EXPECT_EQ(1U, count_logged(3, "failed to add ocsp locator to list: CRYPTO LOCK FAILED"));
  EXPECT_EQ(1U, count_logged(4, nothing_found)) << log_dump();
  EXPECT_FALSE(cached(leaf_));
  EXPECT_EQ(0U, broken_.requests().size());
  EXPECT_EQ(PKI_CERT_UNKNOWN, check());
  EXPECT_EQ(1U, broken_.requests().size());
}

TEST_F(StatusSources, MalformedDistributionPointsAreNoReasonToTrust) {
  for (const std::string &octets : malformed_sequences()) {
    forget();
    EXPECT_EQ(PKI_CERT_UNKNOWN, check(make_leaf({raw("crlDistributionPoints", octets)})));
  }
}

TEST_F(StatusSources, ExtensionThatIsThereTwiceIsNoReasonToTrust) {
  extension once = aia({"http://127.0.0.1:1/"});
  EXPECT_EQ(PKI_CERT_UNKNOWN, check(make_leaf({once, once})));
}

TEST_F(StatusSources, MalformedExtensionLeavesTheConfiguredOnes) {
  add_always_ok("leaf", true);
  EXPECT_EQ(PKI_CERT_OK, check(make_leaf({raw("authorityInfoAccess", "x")})));
}

TEST_F(StatusSources, EmptyAccessDescriptionsAreNoSource) {
  cert leaf = make_leaf({aia_of("")});
  EXPECT_EQ(PKI_CERT_OK, check(leaf));
  EXPECT_FALSE(cached(leaf));
}

TEST_F(StatusSources, OfThousandsOfRespondersEightAreAsked) {
  std::vector<std::string> urls(3000, "ldap://nobody/");
  EXPECT_EQ(PKI_CERT_UNKNOWN, check(make_leaf({aia(urls)})));
  EXPECT_EQ(8U, count_logged(3, "OCSP transport 'ldap' not supported - must be http"))
      << log_dump().substr(0, 2000);
}

}  // namespace
