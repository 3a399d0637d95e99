// Decisions and the CRL cache.
#include "unit/verifier/crl_cache/decide_support.h"

using namespace decide_support;

namespace {

class DecideCache : public decide_test {
 protected:
  static crl_fields outdated(crl_fields fields) {
    fields.this_update = support::der_utc_time(start - 7200);
    fields.next_update = support::der_utc_time(start - 301);
    return fields;
  }
};

// ---- what is cached ----

TEST_F(DecideCache, BelievedCrlIsCachedWithItsSigner) {
  EXPECT_EQ(PKI_CERT_OK, status_of(decide(crl_of()))) << log_dump();
  support::name name = support::common_name("issuer");
  X509 *signer = nullptr;
  X509_CRL *crl = zv_cv_find_crl_in_cache(name.get(), 511, &signer);
  ASSERT_NE(nullptr, crl);
  ASSERT_NE(nullptr, signer);
  EXPECT_EQ(0, X509_cmp(issuer.get(), signer));
  X509_free(signer);
  X509_CRL_free(crl);
}

TEST_F(DecideCache, RevokingCrlIsCachedToo) {
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide(revoking_crl())));
  EXPECT_TRUE(is_cached());
}

TEST_F(DecideCache, AcceptedSignerIsTheOneKept) {
  support::empty_store();
  know(issue("issuer", 22, issuer_key, {no_crl_sign}));
  know(issuer);
  EXPECT_EQ(PKI_CERT_OK, status_of(decide(crl_of())));
  X509 *signer = nullptr;
  X509_CRL_free(zv_cv_find_crl_in_cache(support::common_name("issuer").get(), 0, &signer));
  EXPECT_EQ(0, X509_cmp(issuer.get(), signer));
  X509_free(signer);
}

TEST_F(DecideCache, SecondDecisionAsksNobody) {
  for (const crl_fields &fields : {crl_of(), revoking_crl()}) {
    zv_cv_clear_crl_cache();
    int first = status_of(decide(fields));
    clear_log();
    size_t before = server.requests();
    record again = decide("/crl");
    EXPECT_EQ(first, status_of(again));
    EXPECT_TRUE(valid_until(again, start + 7 * 86400));
    EXPECT_EQ(before, server.requests());
    EXPECT_TRUE(was_logged(7, "found CRL in cache"));
    // Its signer was accepted when it was cached.
    EXPECT_FALSE(was_logged(7, "crl signer == cert issuer => crl ok"));
  }
}

TEST_F(DecideCache, SignerOfACachedCrlIsNotJudgedAgain) {
  cache(revoking_crl(), make_issuer("somebody", stranger_key));
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide("/crl"))) << log_dump();
  zv_cv_clear_crl_cache();
  cache(crl_of(), make_issuer("somebody", stranger_key));
  EXPECT_EQ(PKI_CERT_OK, status_of(decide("/crl"))) << log_dump();
  EXPECT_EQ("", server.asked());
}

TEST_F(DecideCache, CrlWithoutNextUpdateIsNotCachedAndHoldsHalfAMinute) {
  crl_fields good = crl_of(), revoking = revoking_crl();
  good.next_update = revoking.next_update = "";
  for (bool announced : {true, false}) {
    server.announce_length(announced);
    record info = decide(good);
    EXPECT_EQ(PKI_CERT_OK, status_of(info)) << log_dump();
    EXPECT_TRUE(valid_until(info, start + 30));
    EXPECT_FALSE(is_cached());
    info = decide(revoking);
    EXPECT_EQ(PKI_CERT_REVOKED, status_of(info)) << log_dump();
    EXPECT_TRUE(valid_until(info, start + 30));
    EXPECT_FALSE(is_cached());
  }
  EXPECT_EQ(4u, server.requests());
}

TEST_F(DecideCache, RemovedEntryOfACrlWithoutNextUpdateHoldsHalfAMinute) {
  crl_fields fields = crl_of(crl_entry(device_serial, support::reason_code(8)));
  fields.next_update = "";
  record info = decide(fields);
  EXPECT_EQ(PKI_CERT_OK, status_of(info));
  EXPECT_TRUE(valid_until(info, start + 30));
}

TEST_F(DecideCache, TruncatedCrlIsUsedButNotCached) {
  server.announce_length(false);
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide(revoking_crl())));
  EXPECT_EQ(PKI_CERT_OK, status_of(decide(crl_of())));
  EXPECT_FALSE(is_cached());
  EXPECT_EQ("/crl /crl ", server.asked());
}

TEST_F(DecideCache, LongListIsTruncatedWhateverItsServerAnnounces) {
  std::string entries;
  for (long serial = 1000; serial < 1500; serial++)
    entries += crl_entry(serial);
  EXPECT_EQ(PKI_CERT_OK, status_of(decide(crl_of(entries)))) << log_dump();
  EXPECT_FALSE(is_cached());
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide(crl_of(entries + crl_entry(device_serial)))));
  EXPECT_FALSE(is_cached());
}

// ---- what is out of date ----

TEST_F(DecideCache, OutdatedCachedCrlIsFetchedAnew) {
  EXPECT_EQ(PKI_CERT_OK, status_of(decide(crl_of())));
  fake_clock::set(start + 7 * 86400 + 301);
  crl_fields renewed = revoking_crl();
  renewed.next_update = support::der_utc_time(start + 8 * 86400);
  record info = decide(renewed);
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(info)) << log_dump();
  EXPECT_TRUE(valid_until(info, start + 8 * 86400));
  EXPECT_EQ("/crl /crl ", server.asked());
  EXPECT_TRUE(logged_containing(3, "The next-update in the crl (/CN=issuer) is in the past ("));
  // The new one took its place.
  clear_log();
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide("/crl")));
  EXPECT_EQ(2u, server.requests());
}

TEST_F(DecideCache, FiveMinutesOfGraceHoldForACachedCrl) {
  cache(crl_of(), issuer);
  fake_clock::set(start + 7 * 86400 + 299);
  EXPECT_EQ(PKI_CERT_OK, status_of(decide("/crl"))) << log_dump();
  EXPECT_EQ("", server.asked());
}

TEST_F(DecideCache, OutdatedCachedCrlGoesAlsoWhenThereIsNoOther) {
  cache(outdated(crl_of()), issuer);
  EXPECT_EQ(no_answer, status_of(decide("/nothing")));
  EXPECT_EQ("/nothing ", server.asked());
  EXPECT_FALSE(is_cached());
}

TEST_F(DecideCache, PlaceThatStillHasTheOutdatedCrlIsAskedOnce) {
  cache(outdated(revoking_crl()), issuer);
  EXPECT_EQ(no_answer, status_of(decide(outdated(revoking_crl()))));
  EXPECT_EQ("/crl ", server.asked());
  EXPECT_FALSE(is_cached());
  EXPECT_TRUE(was_logged(7, unknown_line("0")));
}

TEST_F(DecideCache, SecondOutdatedCachedCrlIsNotTakenInstead) {
  cache(outdated(crl_of()), issuer);
  cache(outdated(crl_of()), issuer);
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide(revoking_crl()))) << log_dump();
  EXPECT_EQ("/crl ", server.asked());
}

TEST_F(DecideCache, OutdatedCrlItselfIsTheOneRemoved) {
  cache(crl_of("", some_reasons(0x1F)), issuer);
  cache(outdated(crl_of("", some_reasons(0x1E0))), issuer);
  const X509_CRL *kept = cache_support::peek("issuer", 0x1F);
  server.publish("/b", revoking_crl(some_reasons(0x1E0)));
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide_at({{"/b", 0x1E0}}))) << log_dump();
  EXPECT_EQ("/b ", server.asked());
  EXPECT_EQ(kept, cache_support::peek("issuer", 0x1F));
}

class DecideDates : public decide_both_ways {};
INSTANTIATE_TEST_SUITE_P(Decoded, DecideDates, testing::Bool(), way_name);

TEST_P(DecideDates, FreshCrlOutOfDateIsNoAnswer) {
  crl_fields old = revoking_crl();
  old.next_update = support::der_utc_time(start - 301);
  old.this_update = support::der_utc_time(start - 7200);
  EXPECT_EQ(no_answer, status_of(decide(old)));
  EXPECT_EQ("/crl ", server.asked());
  EXPECT_FALSE(is_cached());
  old.next_update = support::der_utc_time(start - 299);
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide(old)));
}

TEST_P(DecideDates, CrlWithoutNextUpdateAgesBySomeFiveHundredDays) {
  crl_fields old = revoking_crl();
  old.next_update = "";
  old.this_update = support::der_utc_time(start - 45792301);
  EXPECT_EQ(no_answer, status_of(decide(old)));
  EXPECT_TRUE(logged_containing(3, "The crl (/CN=issuer) was updated too long ago ("));
  old.this_update = support::der_utc_time(start - 45792299);
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide(old)));
}

TEST_P(DecideDates, CrlFromTheFutureIsNoAnswer) {
  crl_fields early = revoking_crl();
  early.this_update = support::der_utc_time(start + 301);
  EXPECT_EQ(no_answer, status_of(decide(early)));
  EXPECT_FALSE(is_cached());
}

// ---- partitions ----

class DecidePartitions : public decide_test {
 protected:
  crl_fields partition(const std::string &path, const std::string &entries = "") const {
    return crl_of(entries, support::issuing_dist_point({.uris = {server.url(path)}}));
  }
};

TEST_F(DecidePartitions, CachedOneOfAnotherPlaceIsAMiss) {
  server.publish("/a", partition("/a"));
  server.publish("/b", partition("/b", crl_entry(device_serial)));
  EXPECT_EQ(PKI_CERT_OK, status_of(decide("/a"))) << log_dump();
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide("/b"))) << log_dump();
  EXPECT_EQ("/a /b ", server.asked());
  // The first is as good as before.
  EXPECT_EQ(PKI_CERT_OK, status_of(decide("/a")));
  EXPECT_EQ("/a /b ", server.asked());
}

TEST_F(DecidePartitions, PlaceIsAskedOnceWhenItsCrlDoesNotFitEither) {
  server.publish("/a", partition("/a"));
  server.publish("/b", partition("/c", crl_entry(device_serial)));
  EXPECT_EQ(PKI_CERT_OK, status_of(decide("/a")));
  EXPECT_EQ(no_answer, status_of(decide("/b")));
  EXPECT_EQ("/a /b ", server.asked());
  EXPECT_TRUE(was_logged(4, "none of the names in the IDP matched a name in the CRL-DP"));
}

TEST_F(DecidePartitions, CachedCrlForAuthoritiesIsAMissForUsers) {
  cache(crl_of("", support::issuing_dist_point({.ca_certs = true})), issuer);
  EXPECT_EQ(PKI_CERT_REVOKED,
            status_of(decide(revoking_crl(support::issuing_dist_point({.user_certs = true})))))
      << log_dump();
  EXPECT_EQ("/crl ", server.asked());
}

// ---- threads ----

TEST_F(DecideCache, ThreadsShareACachedCrl) {
  cache(revoking_crl(), issuer);
  constexpr int threads = 8, decisions = 20;
  std::atomic<int> revoked{0};
  cache_support::in_threads(threads, [&](int) {
    points dps = make_list({{"/crl"}}), none = make_list({});
    for (int i = 0; i < decisions; i++) {
      pki::dist_points_locator locator = {pki::locator_dist_points, dps.get(), none.get()};
      record info = cache_support::hold(pki::zv_cv_crl_get_sts_info(
          &locator, device.get(), issuer.get(), nullptr, issuer_trusted, depth));
      revoked += status_of(info) == PKI_CERT_REVOKED;
    }
  });
  EXPECT_EQ(threads * decisions, revoked);
  EXPECT_EQ("", server.asked());
}

TEST_F(DecideCache, ThreadsReplaceAnOutdatedCrl) {
  cache(outdated(crl_of()), issuer);
  server.publish("/crl", revoking_crl());
  std::atomic<int> revoked{0};
  cache_support::in_threads(8, [&](int) {
    points dps = make_list({{"/crl"}}), none = make_list({});
    for (int i = 0; i < 5; i++) {
      pki::dist_points_locator locator = {pki::locator_dist_points, dps.get(), none.get()};
      record info = cache_support::hold(pki::zv_cv_crl_get_sts_info(
          &locator, device.get(), issuer.get(), nullptr, issuer_trusted, depth));
      revoked += status_of(info) == PKI_CERT_REVOKED;
    }
  });
  EXPECT_EQ(40, revoked);
}

}  // namespace
