// A signature that verifies is no proof of who made it: somebody else can make a key of his own to
// which it fits as well. Such a signer of a base CRL stands in front of the real one here.
#include "support/second_key.h"
#include "unit/verifier/crl_cache/decide_support.h"

using namespace decide_support;
using support::crl_number;
using support::delta_crl_indicator;

namespace {

class DecideSecondKey : public decide_both_ways {
 protected:
  void SetUp() override {
    decide_both_ways::SetUp();
    support::empty_store();
    issuer = ca_of(support::crl_ec_key(), 1);
    device = device_of_issuer();
    trust = std::make_shared<trust_context>(certs{issuer});
  }

  static support::cert ca_of(const support::key &pair, long serial) {
    support::cert_options options = valid_options("issuer", serial, issuer_key);
    options.public_key = options.signing_key = pair;
    options.ca = true;
    return support::make_cert(options);
  }
  static support::cert device_of_issuer() {
    support::cert_options options = valid_options("device", device_serial, device_key);
    options.issuer = support::common_name("issuer");
    options.signing_key = support::crl_ec_key();
    return support::make_cert(options);
  }
  static crl_fields signed_by(const support::key &pair, crl_fields fields) {
    fields.signing = support::crl_signing::ecdsa_sha256;
    fields.signing_key = pair;
    return fields;
  }

  // The base, and the stranger whose key fits it, who came before the issuer.
  void publish_base(const std::string &entries) {
    const std::string base = support::crl_octets(
        signed_by(support::crl_ec_key(), crl_of(entries, crl_number(5) + freshest("/delta"))));
    server.publish("/crl", base);
    support::crl signed_crl = crl_objects::decode_crl(base);
    strangers_key = support::second_key_for(signed_crl.get(), support::crl_ec_key());
    stranger = ca_of(strangers_key, 666);
    ASSERT_EQ(1, X509_CRL_verify(signed_crl.get(), X509_get0_pubkey(stranger.get())));
    ASSERT_EQ(0, pki_add_untrusted_cert(stranger.get(), 0));
    ASSERT_EQ(0, pki_add_untrusted_cert(issuer.get(), 0));
  }
  void publish_delta(const support::key &pair, const std::string &entries) {
    crl_fields delta = signed_by(pair, crl_of(entries, crl_number(6) + delta_crl_indicator(5)));
    delta.this_update = support::der_utc_time(start - 60);
    server.publish("/delta", delta);
  }
  const std::string taken_back = crl_entry(device_serial, support::reason_code(8));
  support::key strangers_key;
  support::cert stranger;
};
INSTANTIATE_TEST_SUITE_P(Decoded, DecideSecondKey, testing::Bool(), way_name);

TEST_P(DecideSecondKey, DeltaOfTheIssuerCounts) {
  publish_base(crl_entry(4));
  publish_delta(support::crl_ec_key(), crl_entry(device_serial));
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide("/crl"))) << log_dump();
  EXPECT_TRUE(was_logged(7, "found valid delta-crl"));
}

TEST_P(DecideSecondKey, DeltaOfTheStrangerTakesNothingBack) {
  publish_base(crl_entry(device_serial));
  publish_delta(strangers_key, taken_back);
  EXPECT_EQ(nullptr, decide("/crl")) << log_dump();
  EXPECT_TRUE(was_logged(6, nobody_trusted));
  EXPECT_FALSE(is_cached());
}

TEST_P(DecideSecondKey, DeltaOfTheStrangerIsNotMergedIntoACachedBase) {
  publish_base(crl_entry(device_serial));
  server.announce_length(true);
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide("/crl"))) << log_dump();
  server.announce_length(in_full());
  ASSERT_TRUE(is_cached());
  publish_delta(strangers_key, taken_back);
  clear_log();
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide("/crl"))) << log_dump();
  EXPECT_TRUE(was_logged(4, "delta-crl signer-key != base-crl signer-key => delta-crl rejected"));
}

TEST_P(DecideSecondKey, BaseAloneIsBelievedBehindTheStranger) {
  publish_base(crl_entry(device_serial));
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide("/crl"))) << log_dump();
}

}  // namespace
