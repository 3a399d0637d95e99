// The status check: its depth limit, the cache, and checking turned off.
#include <climits>

#include "../extension_der.h"
#include "validator_support.h"

using namespace validator_support;

namespace {

const char *const checking = "Checking status for cert '/CN=leaf'";

class StatusCheck : public chain_test {
 protected:
  void SetUp() override {
    chain_test::SetUp();
    ctx_ = prepare({leaf_, inter_, root_}, 0);
  }
  int check(const cert &subject, int depth = 0) {
    return zv_cv_check_cert_status(subject.get(), inter_.get(), ctx_.get(), 1, depth);
  }
  int check(int depth = 0) { return check(leaf_, depth); }

  context ctx_;
};

TEST_F(StatusCheck, WithoutASourceIsOkAndNothingIsCached) {
  EXPECT_EQ(PKI_CERT_OK, check());
  EXPECT_EQ(1U, count_logged(7, checking));
  EXPECT_EQ(lines{}, complaints());
  EXPECT_FALSE(cached(leaf_));
}

TEST_F(StatusCheck, NeedsNoContext) {
  EXPECT_EQ(PKI_CERT_OK, zv_cv_check_cert_status(leaf_.get(), inter_.get(), nullptr, 1, 0));
}

TEST_F(StatusCheck, NoCertificateIsUnknown) {
  EXPECT_EQ(PKI_CERT_UNKNOWN, zv_cv_check_cert_status(nullptr, inter_.get(), ctx_.get(), 1, 0));
}

TEST_F(StatusCheck, BeginsWithALineWhateverComesOfIt) {
  cache_status(leaf_, PKI_CERT_OK);
  clear_log();
  check();
  ASSERT_FALSE(captured_log().empty());
  EXPECT_EQ((log_entry{7, checking}), captured_log()[0]);
  clear_log();
  check(10);
  ASSERT_FALSE(captured_log().empty());
  EXPECT_EQ((log_entry{7, checking}), captured_log()[0]);
}

// ---- depth ----

class StatusCheckDepth : public StatusCheck, public testing::WithParamInterface<int> {};

TEST_P(StatusCheckDepth, OfTenOrMoreIsUnknownWithoutTouchingTheCache) {
  record info = cache_status(leaf_, PKI_CERT_OK);
  add_always_ok();
  clear_log();
  EXPECT_EQ(PKI_CERT_UNKNOWN, check(GetParam()));
  EXPECT_EQ(0U, info->hits);
  EXPECT_EQ(
      (std::vector<log_entry>{
          {7, checking},
          {3, "Maximum recursion depth reached - aborting  verification of cert (/CN=leaf)"}}),
      captured_log())
      << log_dump();
}

TEST_P(StatusCheckDepth, OfTenOrMoreIsUnknownAlsoWhenCheckingIsOff) {
  zv_cv_disable_crl_check(1);
  EXPECT_EQ(PKI_CERT_UNKNOWN, check(GetParam()));
  EXPECT_FALSE(cached(leaf_));
}

INSTANTIATE_TEST_SUITE_P(Depths, StatusCheckDepth, testing::Values(10, 11, 64, 1000, INT_MAX));

TEST_F(StatusCheck, DepthOfNineIsChecked) {
  add_always_ok();
  for (int depth : {1, 5, 9}) {
    zv_cv_clear_cert_sts_info_cache();
    EXPECT_EQ(PKI_CERT_OK, check(depth)) << depth;
    EXPECT_TRUE(cached(leaf_));
  }
}

// ---- the cache ----

TEST_F(StatusCheck, CachedStatusIsTheAnswer) {
  for (int status : {PKI_CERT_UNKNOWN, PKI_CERT_OK, PKI_CERT_REVOKED}) {
    zv_cv_clear_cert_sts_info_cache();
    record info = cache_status(leaf_, status);
    clear_log();
    EXPECT_EQ(status, check());
    EXPECT_EQ((std::vector<log_entry>{
                  {7, checking},
                  {7, std::string("Found cert-status for cert '/CN=leaf' in cache - status is: ") +
                          zv_cv_cert_sts_to_str(status)}}),
              captured_log())
        << log_dump();
    EXPECT_EQ(1U, info->hits);
    EXPECT_EQ(2U, info->ref_count);
  }
}

TEST_F(StatusCheck, CachedStatusComesBeforeEveryRule) {
  cache_status(leaf_, PKI_CERT_REVOKED);
  add_always_ok();
  EXPECT_EQ(PKI_CERT_REVOKED, check());
}

TEST_F(StatusCheck, CachedStatusOfAnotherCertificateIsNotTheAnswer) {
  cache_status(make_leaf({}, 99), PKI_CERT_REVOKED);
  EXPECT_EQ(PKI_CERT_OK, check());
}

// Another certificate of the issuer's name may vouch for somebody else.
class StatusCheckIssuers : public StatusCheck {
 protected:
  bool finds_cached(const cert &issuer) {
    clear_log();
    EXPECT_EQ(PKI_CERT_OK, zv_cv_check_cert_status(leaf_.get(), issuer.get(), ctx_.get(), 1, 0));
    return was_logged(7, "Found cert-status for cert '/CN=leaf' in cache - status is: ok");
  }
  // The issuer's certificate with another name.
  cert named(const support::name &name) const {
    cert made(X509_dup(inter_.get()), X509_free);
    X509_set_subject_name(made.get(), name.get());
    X509_sign(made.get(), support::test_key(0).get(), EVP_sha256());
    EXPECT_NE(0, X509_cmp(made.get(), inter_.get()));
    return made;
  }

  // Certificates of the issuer's name: of his key, and of somebody else's.
  const cert renewed_inter_ = make_inter({}, 22);
  const cert other_inter_ = make(
      {.subject = "inter", .issuer = "root", .key = 3, .issuer_key = 0, .serial = 2, .ca = true});
};

TEST_F(StatusCheckIssuers, StatusThatWasFoundCountsForItsIssuer) {
  add_always_ok();
  EXPECT_FALSE(finds_cached(inter_));
  EXPECT_TRUE(finds_cached(inter_));
  EXPECT_FALSE(finds_cached(other_inter_));
  EXPECT_FALSE(finds_cached(nullptr));
  for (const cert &issuer : {inter_, renewed_inter_, other_inter_, cert()})
    EXPECT_TRUE(finds_cached(issuer));
}

TEST_F(StatusCheckIssuers, StatusThatWasFoundCountsForHisOtherCertificates) {
  add_always_ok();
  EXPECT_FALSE(finds_cached(inter_));
  EXPECT_TRUE(finds_cached(renewed_inter_));
}

// The same text as another type: OpenSSL finds the names equal.
TEST_F(StatusCheckIssuers, AlsoWhereHisNameIsEncodedOtherwise) {
  support::name name(X509_NAME_new(), X509_NAME_free);
  X509_NAME_add_entry_by_txt(name.get(), "CN", V_ASN1_PRINTABLESTRING,
                             reinterpret_cast<const unsigned char *>("inter"), -1, -1, 0);
  ASSERT_EQ(0, X509_NAME_cmp(name.get(), X509_get_subject_name(inter_.get())));
  add_always_ok();
  EXPECT_FALSE(finds_cached(inter_));
  EXPECT_TRUE(finds_cached(named(name)));
}

TEST_F(StatusCheckIssuers, KeyUnderAnotherNameIsAnother) {
  add_always_ok();
  EXPECT_FALSE(finds_cached(inter_));
  EXPECT_FALSE(finds_cached(named(support::common_name("other"))));
}

TEST_F(StatusCheckIssuers, RevocationIsKnownBelowHisRenewal) {
  support::ocsp_options options;
  options.signer = inter_;
  options.signing_key = support::test_key(1);
  options.single.status = V_OCSP_CERTSTATUS_REVOKED;
  const cert leaf = [&] {
    support::ocsp_responder responder(options);
    cert made = make_leaf({{"authorityInfoAccess", "OCSP;URI:" + responder.url("/ocsp")}});
    EXPECT_EQ(PKI_CERT_REVOKED,
              zv_cv_check_cert_status(made.get(), inter_.get(), ctx_.get(), 1, 0));
    return made;
  }();
  EXPECT_EQ(PKI_CERT_REVOKED,
            zv_cv_check_cert_status(leaf.get(), renewed_inter_.get(), ctx_.get(), 1, 0));
}

TEST_F(StatusCheckIssuers, StatusThatTheHostAddsCountsForAll) {
  cache_status(leaf_, PKI_CERT_OK);
  for (const cert &issuer : {inter_, renewed_inter_, other_inter_, cert()})
    EXPECT_TRUE(finds_cached(issuer));
}

TEST_F(StatusCheckIssuers, RecordThatWasTakenOutIsTheHosts) {
  add_always_ok();
  EXPECT_FALSE(finds_cached(inter_));
  cert_sts_info *info = zv_cv_find_cert_sts_info_cache(leaf_.get());
  ASSERT_NE(nullptr, info);
  ASSERT_EQ(0, zv_cv_remove_cert_sts_info_cache(info));
  cv_free_cert_sts_info(info);
  ASSERT_EQ(0, zv_cv_add_cert_sts_info_cache(info));
  EXPECT_TRUE(finds_cached(other_inter_));
  cv_free_cert_sts_info(info);
}

TEST_F(StatusCheckIssuers, ManyRecordsLaterItIsTheSame) {
  add_always_ok();
  for (long serial = 100; serial < 150; serial++)
    check(make_leaf({}, serial));
  EXPECT_FALSE(finds_cached(inter_));
  EXPECT_TRUE(finds_cached(inter_));
  EXPECT_FALSE(finds_cached(other_inter_));
}

TEST_F(StatusCheck, CachedStatusHoldsUntilItExpires) {
  record info = cache_status(leaf_, PKI_CERT_REVOKED, 100);
  fake_clock::advance(99);
  EXPECT_EQ(PKI_CERT_REVOKED, check());
  fake_clock::advance(2);
  EXPECT_EQ(PKI_CERT_OK, check());
}

TEST_F(StatusCheck, ExpiredStatusIsRemovedAndReleased) {
  record info = cache_status(leaf_, PKI_CERT_REVOKED, 100);
  fake_clock::advance(101);
  clear_log();
  EXPECT_EQ(PKI_CERT_OK, check());
  EXPECT_FALSE(cached(leaf_));
  EXPECT_EQ(1U, info->ref_count);
  EXPECT_EQ(nullptr, info->link.previous);
  EXPECT_FALSE(logged_containing(7, "in cache"));
}

TEST_F(StatusCheck, ExpiredStatusIsReplacedByAFreshOne) {
  record old = cache_status(leaf_, PKI_CERT_REVOKED, 100);
  fake_clock::advance(101);
  add_always_ok();
  EXPECT_EQ(PKI_CERT_OK, check());
  record fresh = cached(leaf_);
  ASSERT_TRUE(fresh);
  EXPECT_NE(old.get(), fresh.get());
  EXPECT_EQ(PKI_CERT_OK, fresh->status);
}

TEST_F(StatusCheck, StatusOutOfRangeIsHandedOnAndRejected) {
  cache_status(leaf_, 7);
  EXPECT_EQ(7, check());
  EXPECT_TRUE(was_logged(
      7, "Found cert-status for cert '/CN=leaf' in cache - status is: <invalid cert status>"));
  EXPECT_FALSE(accepts(chain(), internet));
}

// ---- checking turned off ----

TEST_F(StatusCheck, TurnedOffIsOkAndNothingIsCached) {
  add_ocsp("http://127.0.0.1:1/", false, true);
  zv_cv_disable_crl_check(1);
  EXPECT_EQ(PKI_CERT_OK, check());
  EXPECT_FALSE(cached(leaf_));
  EXPECT_EQ(std::vector<log_entry>({{7, checking}}), captured_log()) << log_dump();
}

TEST_F(StatusCheck, TurnedOffStillAsksTheCache) {
  zv_cv_disable_crl_check(1);
  cache_status(leaf_, PKI_CERT_REVOKED);
  EXPECT_EQ(PKI_CERT_REVOKED, check());
  verdict result = verify(chain(), internet);
  EXPECT_EQ(0, result.accepted);
  EXPECT_EQ(X509_V_ERR_CERT_REVOKED, result.error);
}

TEST_F(StatusCheck, TurnedOffStillRemovesAnExpiredStatus) {
  record info = cache_status(leaf_, PKI_CERT_REVOKED, 100);
  fake_clock::advance(101);
  zv_cv_disable_crl_check(1);
  EXPECT_EQ(PKI_CERT_OK, check());
  EXPECT_EQ(1U, info->ref_count);
  EXPECT_FALSE(cached(leaf_));
}

TEST_F(StatusCheck, TurnedOffPassesSourcesThatCannotBeRead) {
  zv_cv_disable_crl_check(1);
  EXPECT_EQ(PKI_CERT_OK, check(make_leaf({extension_der::raw("authorityInfoAccess", "x")})));
}

}  // namespace
