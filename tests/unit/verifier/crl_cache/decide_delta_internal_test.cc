// Decisions by a CRL and its delta.
#include "unit/verifier/crl_cache/decide_support.h"
#include "verifier/crl_cache/decoder.h"

using namespace decide_support;
using support::crl_number;
using support::delta_crl_indicator;
using support::reason_code;

namespace {

class DecideDelta : public decide_both_ways {
 protected:
  static constexpr time_t base_until = start + 7 * 86400, delta_until = start + 3600;

  crl_fields base_crl(const std::string &entries = "", const std::string &more = "") const {
    return crl_of(entries, crl_number(5) + freshest("/delta") + more);
  }
  static crl_fields delta_crl(const std::string &entries = "", const std::string &more = "") {
    crl_fields fields = crl_of(entries, crl_number(6) + delta_crl_indicator(5) + more);
    fields.this_update = support::der_utc_time(start - 60);
    fields.next_update = support::der_utc_time(delta_until);
    return fields;
  }
  record decide_with(const crl_fields &base, const crl_fields &delta) {
    server.publish("/delta", delta);
    return decide(base);
  }
  // The number of the cached CRL of that issuer; -1 without one.
  static long cached_number(const std::string &issuer_cn = "issuer") {
    X509_CRL *crl = zv_cv_find_crl_in_cache(support::common_name(issuer_cn).get(), 0, nullptr);
    if (!crl)
      return -1;
    auto *number =
        static_cast<ASN1_INTEGER *>(X509_CRL_get_ext_d2i(crl, NID_crl_number, nullptr, nullptr));
    long value = ASN1_INTEGER_get(number);
    ASN1_INTEGER_free(number);
    X509_CRL_free(crl);
    return value;
  }
  const std::string listed = crl_entry(device_serial);
  const std::string held = crl_entry(device_serial, reason_code(6));
  const std::string removed = crl_entry(device_serial, reason_code(8));
};
INSTANTIATE_TEST_SUITE_P(Decoded, DecideDelta, testing::Bool(), way_name);

// ---- a base from the network ----

TEST_P(DecideDelta, DeltaThatListsTheCertificateRevokes) {
  record info = decide_with(base_crl(crl_entry(9)), delta_crl(listed));
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(info)) << log_dump();
  EXPECT_TRUE(valid_until(info, delta_until));
  EXPECT_EQ("/crl /delta ", server.asked());
  EXPECT_EQ(in_full() ? 6 : -1, cached_number());
}

TEST_P(DecideDelta, NeitherListsTheCertificate) {
  record info = decide_with(base_crl(crl_entry(9)), delta_crl(crl_entry(8)));
  EXPECT_EQ(PKI_CERT_OK, status_of(info)) << log_dump();
  EXPECT_TRUE(valid_until(info, delta_until));
}

TEST_P(DecideDelta, BasesEntryHoldsWhereTheDeltaIsSilent) {
  record info = decide_with(base_crl(listed), delta_crl(crl_entry(8)));
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(info)) << log_dump();
  EXPECT_TRUE(valid_until(info, delta_until));
}

TEST_P(DecideDelta, DeltaTakesTheCertificateOffTheList) {
  EXPECT_EQ(PKI_CERT_OK, status_of(decide_with(base_crl(held), delta_crl(removed)))) << log_dump();
  EXPECT_TRUE(was_logged(7, removed_line));
}

TEST_P(DecideDelta, DeltasEntryIsTheNewest) {
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide_with(base_crl(removed), delta_crl(listed))))
      << log_dump();
}

TEST_P(DecideDelta, RejectedDeltaLeavesTheBaseAlone) {
  crl_fields stale = delta_crl(listed);
  stale.extensions = crl_number(5) + delta_crl_indicator(4);
  record info = decide_with(base_crl(), stale);
  EXPECT_EQ(PKI_CERT_OK, status_of(info)) << log_dump();
  EXPECT_TRUE(valid_until(info, base_until));
  EXPECT_EQ(in_full() ? 5 : -1, cached_number());
}

TEST_P(DecideDelta, DeltaThatCannotBeHadLeavesTheBaseAlone) {
  record info = decide(base_crl(listed));
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(info)) << log_dump();
  EXPECT_TRUE(valid_until(info, base_until));
  EXPECT_EQ("/crl /delta ", server.asked());
}

TEST_P(DecideDelta, DeltaMakesAnOutdatedBaseCurrent) {
  crl_fields base = base_crl(crl_entry(9));
  base.next_update = support::der_utc_time(start - 3600);
  base.this_update = support::der_utc_time(start - 7200);
  EXPECT_EQ(no_answer, status_of(decide(base)));
  EXPECT_EQ(PKI_CERT_OK, status_of(decide_with(base, delta_crl()))) << log_dump();
  zv_cv_clear_crl_cache();
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide_with(base, delta_crl(listed)))) << log_dump();
}

TEST_P(DecideDelta, FreshestCrlOfTheCertificateIsUsed) {
  server.publish("/crl", crl_of("", crl_number(5)));
  server.publish("/delta", delta_crl(listed));
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide_at({{"/crl"}}, {{"/delta"}}))) << log_dump();
  EXPECT_EQ("/crl /delta ", server.asked());
}

TEST_P(DecideDelta, ConfiguredDeltaIsUsed) {
  server.publish("/crl", crl_of("", crl_number(5)));
  server.publish("/delta", delta_crl(listed));
  crl_objects::source_list sources;
  sources.add(server.url("/delta"), 1);
  sources.add(server.url("/crl"));
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide(sources))) << log_dump();
  EXPECT_EQ("/crl /delta ", server.asked());
}

TEST_P(DecideDelta, WithoutNextUpdateTheAnswerHoldsHalfAMinute) {
  crl_fields delta = delta_crl(listed);
  delta.next_update = "";
  record info = decide_with(base_crl(), delta);
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(info)) << log_dump();
  EXPECT_TRUE(valid_until(info, start + 30));
  EXPECT_EQ(-1, cached_number());
}

TEST_P(DecideDelta, PartOfAListIsNotCachedWithTheOther) {
  server.hide_length_of("/delta");
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide_with(base_crl(), delta_crl(listed))));
  EXPECT_EQ(-1, cached_number());
}

TEST_P(DecideDelta, DeltaDoesNotCompleteAPart) {
  server.hide_length_of("/crl");
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide_with(base_crl(), delta_crl(listed))));
  EXPECT_EQ(-1, cached_number());
}

TEST_P(DecideDelta, SignerThatIsRejectedTakesTheDeltaAlong) {
  issuer_trusted = 0;
  trust = std::make_shared<trust_context>(certs{});
  EXPECT_EQ(no_answer, status_of(decide_with(base_crl(), delta_crl(listed))));
  EXPECT_TRUE(was_logged(6, nobody_trusted));
  EXPECT_EQ(-1, cached_number());
}

// ---- a cached base ----

class DecideCachedBase : public DecideDelta {
 protected:
  void SetUp() override {
    DecideDelta::SetUp();
    server.announce_length(true);
    ASSERT_EQ(PKI_CERT_OK, status_of(decide(base_crl(crl_entry(9)))));
    ASSERT_EQ(5, cached_number());
    server.announce_length(in_full());
    clear_log();
    before = server.asked();
  }
  // What was asked for since.
  std::string asked_since() const { return server.asked().substr(before.size()); }
  std::string before;
};
INSTANTIATE_TEST_SUITE_P(Decoded, DecideCachedBase, testing::Bool(), way_name);

TEST_P(DecideCachedBase, DeltaIsMergedIntoACopy) {
  const X509_CRL *base = cache_support::peek("issuer");
  server.publish("/delta", delta_crl(listed));
  record info = decide("/crl");
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(info)) << log_dump();
  EXPECT_TRUE(valid_until(info, delta_until));
  EXPECT_EQ("/delta ", asked_since());
  // A whole copy takes the base's place; a part of the list does not.
  EXPECT_EQ(in_full() ? 6 : 5, cached_number());
  EXPECT_EQ(in_full(), base != cache_support::peek("issuer"));
}

TEST_P(DecideCachedBase, MergedCopyAnswersTheNextTime) {
  server.publish("/delta", delta_crl(listed));
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide("/crl")));
  record info = decide("/crl");
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(info)) << log_dump();
  EXPECT_TRUE(valid_until(info, delta_until));
  EXPECT_EQ("/delta /delta ", asked_since());
  EXPECT_EQ(in_full(), was_logged(4, "delta-crl-number (6) < current crl-number (6)"));
  if (in_full()) {
    server.withdraw("/delta");
    EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide("/crl")));
  }
}

TEST_P(DecideCachedBase, SignerStaysWithTheCopy) {
  server.publish("/delta", delta_crl());
  EXPECT_EQ(PKI_CERT_OK, status_of(decide("/crl")));
  X509 *signer = nullptr;
  X509_CRL_free(zv_cv_find_crl_in_cache(support::common_name("issuer").get(), 0, &signer));
  ASSERT_NE(nullptr, signer);
  EXPECT_EQ(0, X509_cmp(issuer.get(), signer));
  X509_free(signer);
}

TEST_P(DecideCachedBase, CopyWithoutNextUpdateIsNotCached) {
  crl_fields delta = delta_crl(listed);
  delta.next_update = "";
  server.publish("/delta", delta);
  record info = decide("/crl");
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(info)) << log_dump();
  EXPECT_TRUE(valid_until(info, start + 30));
  EXPECT_EQ(in_full() ? -1 : 5, cached_number());
}

TEST_P(DecideCachedBase, OutdatedOneIsStillGoodWithADelta) {
  fake_clock::set(base_until + 3600);
  crl_fields delta = delta_crl(listed);
  delta.next_update = support::der_utc_time(base_until + 7200);
  server.publish("/delta", delta);
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide("/crl"))) << log_dump();
  EXPECT_EQ("/delta ", asked_since());
}

TEST_P(DecideCachedBase, ThreadsMergeIntoCopies) {
  server.publish("/delta", delta_crl(listed));
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

// ---- entries of several issuers ----

class DecideIndirectDelta : public DecideDelta {
 protected:
  void SetUp() override {
    DecideDelta::SetUp();
    know(issue("authority", 20, authority_key, {crl_sign}));
  }
  static std::string of(const std::string &cn, long serial, const std::string &more = "") {
    return crl_entry(serial, support::certificate_issuer(cn) + more);
  }
  int status_by(const std::string &base_entries, const std::string &delta_entries) {
    zv_cv_clear_crl_cache();
    clear_log();
    const std::string indirect = support::issuing_dist_point({.indirect = true});
    crl_fields base = base_crl(base_entries, indirect), delta = delta_crl(delta_entries, indirect);
    base.issuer = delta.issuer = support::der_name("authority");
    base.signing_key = delta.signing_key = support::test_key(authority_key);
    server.publish("/crl", base);
    server.publish("/delta", delta);
    int status = status_of(decide_at({{"/crl", {}, "authority"}}));
    EXPECT_TRUE(was_logged(7, "found valid delta-crl"));
    return status;
  }
};
INSTANTIATE_TEST_SUITE_P(Decoded, DecideIndirectDelta, testing::Bool(), way_name);

TEST_P(DecideIndirectDelta, DeltasLastIssuerDoesNotReachTheBase) {
  EXPECT_EQ(PKI_CERT_OK, status_by(listed, of("issuer", 7))) << log_dump();
  EXPECT_EQ(PKI_CERT_OK, status_by(listed + of("other", 8), of("issuer", 7) + crl_entry(6)))
      << log_dump();
}

TEST_P(DecideIndirectDelta, EntriesKeepTheirIssuers) {
  EXPECT_EQ(PKI_CERT_REVOKED, status_by(of("issuer", 5) + listed, of("other", 7))) << log_dump();
  EXPECT_EQ(PKI_CERT_REVOKED, status_by(of("other", 5) + listed, of("issuer", 7) + listed))
      << log_dump();
  EXPECT_EQ(PKI_CERT_OK, status_by(of("issuer", 5), of("other", 7) + listed)) << log_dump();
}

TEST_P(DecideIndirectDelta, DeltaTakesTheCertificateOffTheList) {
  EXPECT_EQ(PKI_CERT_OK, status_by(of("issuer", device_serial), of("issuer", 5) + removed))
      << log_dump();
  EXPECT_EQ(PKI_CERT_REVOKED, status_by(of("issuer", device_serial), removed)) << log_dump();
}

}  // namespace
