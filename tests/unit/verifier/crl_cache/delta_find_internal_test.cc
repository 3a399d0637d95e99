// Looking for the delta CRL that fits a base.
#include "fakes/allocator.h"
#include "unit/verifier/crl_cache/decide_support.h"
#include "verifier/crl_cache/delta.h"

using namespace decide_support;
using support::crl_number;
using support::delta_crl_indicator;
using support::issuing_dist_point;

namespace {

constexpr int no_entry = 81;
constexpr char looking[] = "got crl-number => looking for delta-crl's";
constexpr char found_one[] = "found valid delta-crl";
constexpr char found_none[] = "no (valid) delta-crls found";

std::string key_id(const std::string &octets) {
  return support::authority_key_id({.key_id = octets});
}

class DeltaFind : public decide_both_ways {
 protected:
  // A base of number 5 that names /delta, with these further extensions.
  void make_base(const std::string &more = "") {
    make_base_of(crl_number(5) + freshest("/delta") + more);
  }
  void make_base_of(const std::string &crl_extensions) {
    std::string octets = support::crl_octets(crl_of(crl_entry(9), crl_extensions));
    const auto *in = reinterpret_cast<const unsigned char *>(octets.data());
    base.got.crl.reset(d2i_X509_CRL(nullptr, &in, static_cast<long>(octets.size())));
    base.got.signers.reset(sk_X509_new_null());
    X509_up_ref(issuer.get());
    sk_X509_push(base.got.signers.get(), issuer.get());
    base.idp.reset(static_cast<ISSUING_DIST_POINT *>(X509_CRL_get_ext_d2i(
        base.got.crl.get(), NID_issuing_distribution_point, nullptr, nullptr)));
  }
  // A delta of number 6 upon number 5.
  static crl_fields delta_crl(const std::string &more = "") {
    return crl_of(crl_entry(8), crl_number(6) + delta_crl_indicator(5) + more);
  }

  int find() {
    clear_log();
    found = {};
    const std::vector<std::string> before = list.urls();
    int result = pki::cv_find_dcrl(list.get(), {device.get(), issuer.get(), nullptr, false, 0},
                                   base, &found);
    EXPECT_EQ(before, list.urls());
    EXPECT_EQ(result == 0, found.crl != nullptr);
    EXPECT_EQ(result == 0, found.signers != nullptr);
    EXPECT_EQ(result == 0, was_logged(7, found_one)) << log_dump();
    return result;
  }
  int find(const crl_fields &delta) {
    server.publish("/delta", delta);
    return find();
  }
  // That delta is rejected with this line.
  void expect_rejected(const crl_fields &delta, const std::string &line) {
    EXPECT_EQ(no_entry, find(delta));
    EXPECT_TRUE(was_logged(4, line)) << line << "\n" << log_dump();
    EXPECT_TRUE(was_logged(7, found_none)) << log_dump();
  }
  static bool openssl_error_logged() { return logged_containing(4, "OpenSSL error: "); }
  std::string at() const { return "'" + server.url("/delta") + "'"; }

  pki::judged_crl base;
  pki::fetched_crl found;
  crl_objects::source_list list;
};
INSTANTIATE_TEST_SUITE_P(Decoded, DeltaFind, testing::Bool(), way_name);

TEST_P(DeltaFind, DeltaOfFreshestCrlIsFound) {
  make_base();
  EXPECT_EQ(0, find(delta_crl())) << log_dump();
  EXPECT_TRUE(was_logged(7, looking));
  EXPECT_FALSE(was_logged(7, found_none));
  EXPECT_FALSE(found.from_cache);
  ASSERT_EQ(1, sk_X509_num(found.signers.get()));
  EXPECT_EQ(0, X509_cmp(issuer.get(), sk_X509_value(found.signers.get(), 0)));
  EXPECT_EQ(1, X509_CRL_get_ext_by_NID(found.crl.get(), NID_delta_crl, -1) >= 0);
}

// ---- the base ----

TEST_P(DeltaFind, BaseWithoutNumberAsksNobody) {
  make_base_of(freshest("/delta"));
  list.add(server.url("/delta"), 1);
  EXPECT_EQ(no_entry, find(delta_crl()));
  EXPECT_TRUE(
      was_logged(7, "CRL '/CN=issuer' does not have crl-number => not looking for delta-crl's"));
  EXPECT_FALSE(was_logged(7, looking));
  EXPECT_EQ("", server.asked());
}

TEST_P(DeltaFind, BaseWhoseNumberCannotBeReadAsksNobody) {
  const std::string broken = support::crl_extension("2.5.29.20", "x");
  for (const std::string &number : {broken, crl_number(5) + crl_number(5)}) {
    make_base_of(number + freshest("/delta"));
    EXPECT_EQ(no_entry, find(delta_crl()));
    EXPECT_TRUE(was_logged(4, "Error decoding CRLNumber extension from CRL '/CN=issuer':"))
        << log_dump();
    EXPECT_EQ("", server.asked());
    EXPECT_TRUE(number != broken || openssl_error_logged());
  }
}

TEST_P(DeltaFind, FreshestCrlThatCannotBeReadLeavesTheList) {
  make_base_of(crl_number(5) + support::crl_extension("2.5.29.46", "x"));
  list.add(server.url("/delta"), 1);
  EXPECT_EQ(0, find(delta_crl())) << log_dump();
  EXPECT_TRUE(was_logged(4, "Error decoding FreshestCRL extension in CRL '/CN=issuer':"))
      << log_dump();
  EXPECT_TRUE(openssl_error_logged());
}

TEST_P(DeltaFind, BaseWithoutPlacesFindsNone) {
  make_base_of(crl_number(5));
  EXPECT_EQ(no_entry, find());
  EXPECT_TRUE(was_logged(7, looking));
  EXPECT_TRUE(was_logged(7, found_none));
}

// ---- the places ----

TEST_P(DeltaFind, PlacesOfTheBaseComeBeforeTheLists) {
  make_base_of(crl_number(5) + support::freshest_crl({server.url("/a"), server.url("/b")}));
  list.add(server.url("/base"));
  list.add(server.url("/c"), 1);
  list.add(server.url("/d"), 3);
  list.add(server.url("/e"), 2);
  EXPECT_EQ(no_entry, find());
  // Each of the base's went to the front in its turn.
  EXPECT_EQ("/b /a /c /d ", server.asked());
}

TEST_P(DeltaFind, FirstThatFitsIsTaken) {
  make_base_of(crl_number(5));
  for (const char *path : {"/a", "/b", "/c", "/d"})
    list.add(server.url(path), 1);
  server.publish("/b", crl_of());
  server.publish("/c", delta_crl());
  server.publish("/d", delta_crl());
  EXPECT_EQ(0, find()) << log_dump();
  EXPECT_EQ("/a /b /c ", server.asked());
}

TEST_P(DeltaFind, SixteenPlacesAreTried) {
  make_base_of(crl_number(5));
  for (int i = 1; i <= 20; i++)
    list.add(server.url("/" + std::to_string(i)), 1);
  server.publish("/17", delta_crl());
  EXPECT_EQ(no_entry, find());
  EXPECT_EQ(16u, server.requests());
  server.publish("/16", delta_crl());
  EXPECT_EQ(0, find());
}

TEST_P(DeltaFind, SixteenPlacesOfTheBaseAreTried) {
  std::vector<std::string> urls;
  for (int i = 1; i <= 20; i++)
    urls.push_back(server.url("/" + std::to_string(i)));
  make_base_of(crl_number(5) + support::freshest_crl(urls));
  EXPECT_EQ(no_entry, find());
  EXPECT_EQ(16u, server.requests());
}

TEST_P(DeltaFind, CachedBaseIsNotTakenForItsDelta) {
  make_base();
  cache(crl_of(crl_entry(9), crl_number(5) + freshest("/delta")), issuer);
  EXPECT_EQ(0, find(delta_crl())) << log_dump();
  EXPECT_EQ("/delta ", server.asked());
}

// ---- the numbers ----

TEST_P(DeltaFind, CompleteCrlIsNoDelta) {
  make_base();
  expect_rejected(crl_of("", crl_number(6)),
                  "CRL from " + at() + " is not a delta-CRL as expected");
}

TEST_P(DeltaFind, IndicatorThatCannotBeReadIsRejected) {
  make_base();
  expect_rejected(crl_of("", crl_number(6) + support::crl_extension("2.5.29.27", "x", true)),
                  "Error decoding DeltaCRL extension in CRL from " + at() + ":");
  EXPECT_TRUE(openssl_error_logged());
}

TEST_P(DeltaFind, LaterBaseThanOursIsRejected) {
  make_base();
  expect_rejected(crl_of("", crl_number(7) + delta_crl_indicator(6)),
                  "Base-crl-number in delta-CRL (6) > current crl-number (5)");
}

TEST_P(DeltaFind, EarlierBaseThanOursIsAccepted) {
  make_base();
  EXPECT_EQ(0, find(crl_of("", crl_number(6) + delta_crl_indicator(2)))) << log_dump();
}

TEST_P(DeltaFind, DeltaWithoutNumberIsRejected) {
  make_base();
  expect_rejected(crl_of("", delta_crl_indicator(5)),
                  "No crl-number found in delta-CRL from " + at());
}

TEST_P(DeltaFind, DeltaWhoseNumberCannotBeReadIsRejected) {
  make_base();
  expect_rejected(crl_of("", support::crl_extension("2.5.29.20", "x") + delta_crl_indicator(5)),
                  "Error decoding CRLNumber extension in Delta-CRL from " + at() + ":");
  EXPECT_TRUE(openssl_error_logged());
}

TEST_P(DeltaFind, DeltaThatIsNotNewerIsRejected) {
  make_base();
  expect_rejected(crl_of("", crl_number(5) + delta_crl_indicator(5)),
                  "delta-crl-number (5) < current crl-number (5)");
  expect_rejected(crl_of("", crl_number(4) + delta_crl_indicator(3)),
                  "delta-crl-number (4) < current crl-number (5)");
}

TEST_P(DeltaFind, NumbersOfTwentyOctetsCompare) {
  const std::string twenty(19, '\x11');
  const auto number = [&](const char *oid, char last) {
    return support::crl_extension(oid, support::der_integer(twenty + last));
  };
  make_base_of(number("2.5.29.20", 5) + freshest("/delta"));
  EXPECT_EQ(0, find(crl_of("", number("2.5.29.20", 6) + number("2.5.29.27", 5)))) << log_dump();
  EXPECT_EQ(no_entry, find(crl_of("", number("2.5.29.20", 5) + number("2.5.29.27", 5))));
  EXPECT_EQ(no_entry, find(crl_of("", number("2.5.29.20", 7) + number("2.5.29.27", 6))));
}

TEST_P(DeltaFind, LongerNumberIsTheGreaterOne) {
  make_base_of(crl_number(255) + freshest("/delta"));
  EXPECT_EQ(0, find(crl_of("", crl_number(256) + delta_crl_indicator(255)))) << log_dump();
}

// ---- issuer, scope, key ----

TEST_P(DeltaFind, DeltaOfAnotherIssuerIsRejected) {
  make_base();
  know(make_issuer("authority", authority_key));
  crl_fields delta = delta_crl();
  delta.issuer = support::der_name("authority");
  delta.signing_key = support::test_key(authority_key);
  expect_rejected(delta, "crl issuer (/CN=issuer) != delta-crl issuer (/CN=authority)");
}

TEST_P(DeltaFind, SameScopeIsAccepted) {
  const std::string scope = issuing_dist_point({.uris = {"a"}, .user_certs = true});
  make_base(scope);
  EXPECT_EQ(0, find(delta_crl(scope))) << log_dump();
}

TEST_P(DeltaFind, OtherScopeIsRejected) {
  make_base(issuing_dist_point({.user_certs = true}));
  expect_rejected(delta_crl(), "crl IDP != delta-crl IDP");
  expect_rejected(delta_crl(issuing_dist_point({.ca_certs = true})), "crl IDP != delta-crl IDP");
  make_base();
  expect_rejected(delta_crl(issuing_dist_point({.user_certs = true})),
                  "crl contains no IDP, but delta-crl does");
}

TEST_P(DeltaFind, ScopeThatCannotBeReadCountsAsNone) {
  const std::string broken = support::crl_extension("2.5.29.28", "x", true);
  const std::string line =
      "Error decoding IssuingDistributionPoint extension in Delta-CRL from " + at() + ":";
  make_base();
  EXPECT_EQ(0, find(delta_crl(broken))) << log_dump();
  EXPECT_TRUE(was_logged(4, line));
  EXPECT_TRUE(openssl_error_logged());
  make_base(issuing_dist_point({.user_certs = true}));
  expect_rejected(delta_crl(broken), "crl IDP != delta-crl IDP");
  EXPECT_TRUE(was_logged(4, line));
}

TEST_P(DeltaFind, SameKeyIdentifierIsAccepted) {
  make_base(key_id("k1"));
  EXPECT_EQ(0, find(delta_crl(key_id("k1")))) << log_dump();
}

TEST_P(DeltaFind, OtherKeyIdentifierIsRejected) {
  make_base(key_id("k1"));
  expect_rejected(delta_crl(), "crl AKID != delta-crl AKID");
  expect_rejected(delta_crl(key_id("k2")), "crl AKID != delta-crl AKID");
  make_base();
  expect_rejected(delta_crl(key_id("k1")), "crl contains no AKID, but delta-crl does");
}

TEST_P(DeltaFind, KeyIdentifierThatCannotBeReadIsRejected) {
  make_base();
  for (const std::string &each :
       {support::crl_extension("2.5.29.35", "x"), key_id("k1") + key_id("k1")}) {
    expect_rejected(delta_crl(each),
                    "Error decoding AuthorityKeyIdentifier extension in CRL '/CN=issuer':");
    EXPECT_TRUE(was_logged(4, "discarding downloaded CRL (" + server.url("/delta") + ")"));
  }
}

// A cached delta's signers are not looked for, so nobody has read it before.
TEST_P(DeltaFind, KeyIdentifierOfACachedDeltaThatCannotBeReadIsRejected) {
  make_base();
  for (const std::string &each :
       {support::crl_extension("2.5.29.35", "x"), key_id("k1") + key_id("k1")}) {
    zv_cv_clear_crl_cache();
    cache(delta_crl(each), issuer);
    EXPECT_EQ(no_entry, find());
    EXPECT_TRUE(was_logged(7, "found CRL in cache"));
    EXPECT_TRUE(was_logged(4, "crl AKID != delta-crl AKID")) << log_dump();
    EXPECT_EQ(each.find("k1") == std::string::npos, openssl_error_logged()) << log_dump();
  }
  EXPECT_EQ("", server.asked());
}

TEST_P(DeltaFind, OutdatedDeltaIsRejected) {
  make_base();
  crl_fields delta = delta_crl();
  delta.next_update = support::der_utc_time(start - 301);
  EXPECT_EQ(no_entry, find(delta));
  EXPECT_TRUE(logged_containing(3, "The next-update in the crl (/CN=issuer) is in the past ("));
}

TEST_P(DeltaFind, DeltaWithoutNextUpdateIsCurrentWhileItIsYoung) {
  make_base();
  crl_fields delta = delta_crl();
  delta.next_update = "";
  EXPECT_EQ(0, find(delta)) << log_dump();
  delta.this_update = support::der_utc_time(start - 45792301);
  EXPECT_EQ(no_entry, find(delta));
  EXPECT_TRUE(logged_containing(3, "The crl (/CN=issuer) was updated too long ago ("));
}

TEST_P(DeltaFind, DeltaOfAnotherKeyIsRejected) {
  make_base();
  know(make_issuer("issuer", stranger_key, 30));
  crl_fields delta = delta_crl();
  delta.signing_key = support::test_key(stranger_key);
  expect_rejected(delta, "delta-crl signer-key != base-crl signer-key => delta-crl rejected");
}

TEST_P(DeltaFind, DeltaOfAnotherCertificateWithTheSameKeyIsAccepted) {
  make_base();
  support::empty_store();
  know(make_issuer("issuer", issuer_key, 31));
  EXPECT_EQ(0, find(delta_crl())) << log_dump();
}

TEST_P(DeltaFind, DeltaThatNobodySignedIsRejected) {
  make_base();
  crl_fields delta = delta_crl();
  delta.signing_key = support::test_key(stranger_key);
  EXPECT_EQ(no_entry, find(delta));
}

TEST_P(DeltaFind, FirstFailureIsTheOneLogged) {
  make_base();
  expect_rejected(crl_of("", crl_number(5) + delta_crl_indicator(6)),
                  "Base-crl-number in delta-CRL (6) > current crl-number (5)");
  EXPECT_FALSE(logged_containing(4, "delta-crl-number"));
  expect_rejected(
      crl_of("", crl_number(5) + delta_crl_indicator(5) + issuing_dist_point({.user_certs = true})),
      "delta-crl-number (5) < current crl-number (5)");
  EXPECT_FALSE(logged_containing(4, "IDP"));
}

TEST_P(DeltaFind, ExtensionsThatStandTwiceCannotBeRead) {
  make_base();
  expect_rejected(crl_of("", crl_number(6) + delta_crl_indicator(5) + delta_crl_indicator(5)),
                  "Error decoding DeltaCRL extension in CRL from " + at() + ":");
  expect_rejected(crl_of("", crl_number(6) + crl_number(6) + delta_crl_indicator(5)),
                  "Error decoding CRLNumber extension in Delta-CRL from " + at() + ":");
  make_base_of(crl_number(5) + freshest("/delta") + freshest("/delta"));
  server.publish("/delta", delta_crl());
  EXPECT_EQ(no_entry, find());
  EXPECT_TRUE(was_logged(4, "Error decoding FreshestCRL extension in CRL '/CN=issuer':"));
}

TEST_P(DeltaFind, WantOfMemoryLeavesTheList) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be replaced";
  make_base();
  list.add(server.url("/other"));
  server.publish("/delta", delta_crl());
  ASSERT_EQ(0, find());
  size_t reported = 0;  // the places could not be listed
  bool completed = false;
  for (size_t n = 1; n < 100000 && !completed; n++) {
    clear_log();
    found = {};
    fake_allocator::fail_at(n);
    int result = pki::cv_find_dcrl(list.get(), {device.get(), issuer.get(), nullptr, false, 0},
                                   base, &found);
    completed = !fake_allocator::has_failed();
    fake_allocator::stop_failing();
    EXPECT_TRUE(result == 0 || result == no_entry || result == 2) << n << ": " << result;
    EXPECT_EQ(result == 0, found.crl != nullptr) << n;
    EXPECT_EQ(1, list.size()) << n;
    reported += result == 2 && was_logged(7, found_none);
    support::clear_openssl_errors();
  }
  EXPECT_TRUE(completed);
  EXPECT_GT(reported, 0u);
}

}  // namespace
