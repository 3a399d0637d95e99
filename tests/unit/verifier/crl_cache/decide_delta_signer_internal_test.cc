// Deltas of CRLs whose signer is configured: what is merged for one certificate is not everybody's.
#include "unit/verifier/crl_cache/decide_support.h"

using namespace decide_support;
using support::certificate_issuer;
using support::crl_number;
using support::delta_crl_indicator;

namespace {

class DecideDeltaSigner : public decide_both_ways {
 protected:
  static crl_fields signed_by(const std::string &cn, const std::string &entries,
                              const std::string &crl_extensions) {
    return crl_of(entries, crl_extensions, stranger_key, cn);
  }
  void publish_base(const std::string &entries, const std::string &scope = "") {
    server.publish("/crl",
                   signed_by(signer_cn, entries, crl_number(5) + freshest("/delta") + scope));
  }
  void publish_delta(const std::string &entries, const std::string &scope = "") {
    crl_fields delta =
        signed_by(signer_cn, entries, crl_number(6) + delta_crl_indicator(5) + scope);
    delta.this_update = support::der_utc_time(start - 60);
    server.publish("/delta", delta);
  }
  int status() {
    crl_objects::source_list sources;
    OPENSSL_sk_push(sources.get(),
                    create_crl_info(server.url("/crl").c_str(), 0, 0, 0, nullptr, signer().get()));
    return status_of(decide(sources));
  }
  support::cert signer() {
    if (!signer_)
      signer_ = make_issuer(signer_cn, stranger_key, 50);
    return signer_;
  }
  // From now on a certificate of another issuer, with the same number, is asked about.
  void ask_about_another() {
    issuer = make_issuer("second", authority_key, 60);
    know(issuer);
    device = issue("device", device_serial, device_key, {}, "second", authority_key);
  }
  // The number of the signer's CRL in the cache; -1 without one.
  long cached_number() const {
    support::crl found(zv_cv_find_crl_in_cache(support::common_name(signer_cn).get(), 0, nullptr),
                       X509_CRL_free);
    if (!found)
      return -1;
    support::integer number(static_cast<ASN1_INTEGER *>(X509_CRL_get_ext_d2i(
                                found.get(), NID_crl_number, nullptr, nullptr)),
                            ASN1_INTEGER_free);
    return ASN1_INTEGER_get(number.get());
  }

  std::string signer_cn = "deputy";
  const std::string listed = crl_entry(device_serial);
  const std::string delta_of_others = crl_entry(7, certificate_issuer("other"));

 private:
  support::cert signer_;
};
INSTANTIATE_TEST_SUITE_P(Decoded, DecideDeltaSigner, testing::Bool(), way_name);

TEST_P(DecideDeltaSigner, MergeForOneIssuerSaysNothingAboutAnother) {
  publish_base(listed);
  publish_delta(delta_of_others);
  EXPECT_EQ(PKI_CERT_REVOKED, status()) << log_dump();
  EXPECT_EQ(-1, cached_number());
  ask_about_another();
  EXPECT_EQ(PKI_CERT_REVOKED, status()) << log_dump();
  EXPECT_EQ("/crl /delta /crl /delta ", server.asked());
}

TEST_P(DecideDeltaSigner, SecondDecisionAboutTheSameGivesTheSame) {
  publish_base(crl_entry(4) + listed);
  publish_delta(delta_of_others);
  for (int i = 0; i < 3; i++)
    EXPECT_EQ(PKI_CERT_REVOKED, status()) << i << log_dump();
}

TEST_P(DecideDeltaSigner, CertificateThatIsOnlyInTheDeltaIsRevokedForEither) {
  publish_base(crl_entry(4));
  publish_delta(listed + delta_of_others);
  EXPECT_EQ(PKI_CERT_REVOKED, status()) << log_dump();
  ask_about_another();
  EXPECT_EQ(PKI_CERT_REVOKED, status()) << log_dump();
}

// ---- a cached base ----

class DecideCachedDeputy : public DecideDeltaSigner {
 protected:
  // The base comes in full, without a delta.
  void cache_base(const std::string &entries, const std::string &scope = "") {
    server.announce_length(true);
    publish_base(entries, scope);
    status();
    ASSERT_EQ(5, cached_number());
    server.announce_length(in_full());
    clear_log();
  }
};
INSTANTIATE_TEST_SUITE_P(Decoded, DecideCachedDeputy, testing::Bool(), way_name);

// It names nobody whose certificates it is about: at another place, or for another issuer, it would
// say what nobody meant.
TEST_P(DecideCachedDeputy, ListAboutAnotherNameIsNotCached) {
  server.announce_length(true);
  publish_base(listed);
  for (int i = 0; i < 2; i++) {
    EXPECT_EQ(PKI_CERT_REVOKED, status()) << log_dump();
    EXPECT_EQ(-1, cached_number());
  }
  EXPECT_EQ("/crl /delta /crl /delta ", server.asked());
}

TEST_P(DecideCachedDeputy, ListThatTheSignerMadeForHisOwnIsNotTakenOutOfTheCache) {
  server.announce_length(true);
  cache(signed_by(signer_cn, crl_entry(4), crl_number(9)), signer());
  publish_base(listed);
  EXPECT_EQ(PKI_CERT_REVOKED, status()) << log_dump();
  EXPECT_EQ(9, cached_number());
}

TEST_P(DecideCachedDeputy, SignerOfTheIssuersOwnNameSharesTheMerge) {
  signer_cn = "issuer";
  cache_base(listed);
  publish_delta(delta_of_others);
  EXPECT_EQ(PKI_CERT_REVOKED, status()) << log_dump();
  EXPECT_EQ(in_full() ? 6 : 5, cached_number());
  EXPECT_EQ(PKI_CERT_REVOKED, status()) << log_dump();
}

TEST_P(DecideCachedDeputy, IndirectCrlSharesTheMerge) {
  const std::string indirect = support::issuing_dist_point({.indirect = true});
  cache_base(crl_entry(4) + crl_entry(device_serial, certificate_issuer("issuer")), indirect);
  publish_delta(delta_of_others, indirect);
  EXPECT_EQ(PKI_CERT_REVOKED, status()) << log_dump();
  EXPECT_EQ(in_full() ? 6 : 5, cached_number());
  ask_about_another();
  EXPECT_EQ(PKI_CERT_OK, status()) << log_dump();
}

}  // namespace
