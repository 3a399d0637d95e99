// What a host's X509_verify_cert says of certificates that name CRLs.
#include "unit/verifier/cert_verifier/validator_support.h"
#include "unit/verifier/crl_cache/decide_support.h"

using namespace decide_support;

namespace {

class DecideVerify : public decide_both_ways {
 protected:
  void SetUp() override {
    decide_both_ways::SetUp();
    // The chain itself tells the store who signs.
    support::empty_store();
  }
  // The device's certificate names these places.
  void name_places(const std::vector<place> &places, const std::vector<place> &deltas = {}) {
    std::vector<extension_der::extension> more = {
        extension_der::crl_dp_of(encode_places(server, places))};
    if (!deltas.empty())
      more.push_back(extension_der::freshest_of(encode_places(server, deltas)));
    device = issue("device", device_serial, device_key, more);
  }
  validator_support::verdict verify(const certs &untrusted = {}) {
    validator_support::verification what = {.leaf = device, .trusted = {issuer}};
    what.untrusted = untrusted;
    return validator_support::verify(what, validator_support::internet);
  }
  // Judges twice: the second time, the status is cached.
  void expect_verdict(int accepted, int error) {
    for (int i = 0; i < 2; i++) {
      validator_support::verdict got = verify();
      EXPECT_EQ(accepted, got.accepted) << i << "\n" << log_dump();
      EXPECT_EQ(error, got.error) << i;
    }
    const size_t asked = server.requests();
    verify();
    EXPECT_EQ(asked, server.requests());
  }
  void expect_good() { expect_verdict(1, X509_V_OK); }
  void expect_revoked() { expect_verdict(0, X509_V_ERR_CERT_REVOKED); }
  void expect_unknown() { expect_verdict(0, X509_V_ERR_UNABLE_TO_GET_CRL); }

  const std::string listed = crl_entry(device_serial);
};
INSTANTIATE_TEST_SUITE_P(Decoded, DecideVerify, testing::Bool(), way_name);

TEST_P(DecideVerify, CertificateThatIsNotListedIsAccepted) {
  server.publish("/crl", crl_of(crl_entry(9)));
  name_places({{"/crl"}});
  expect_good();
}

TEST_P(DecideVerify, ListedCertificateIsRevoked) {
  server.publish("/crl", crl_of(crl_entry(9) + listed));
  name_places({{"/crl"}});
  expect_revoked();
}

TEST_P(DecideVerify, RemovedCertificateIsAccepted) {
  server.publish("/crl", crl_of(crl_entry(device_serial, support::reason_code(8))));
  name_places({{"/crl"}});
  expect_good();
}

TEST_P(DecideVerify, CrlThatCannotBeHadRejects) {
  name_places({{"/crl"}});
  expect_unknown();
}

TEST_P(DecideVerify, CrlThatSomebodyElseSignedRejects) {
  server.publish("/crl", crl_of("", "", stranger_key));
  name_places({{"/crl"}});
  expect_unknown();
}

TEST_P(DecideVerify, CrlWithoutNextUpdateIsAnAnswer) {
  crl_fields fields = crl_of(listed);
  fields.next_update = "";
  server.publish("/crl", fields);
  name_places({{"/crl"}});
  expect_revoked();
}

TEST_P(DecideVerify, ListOfAThousandIsSearched) {
  std::string entries;
  for (long serial = 1000; serial < 2000; serial++)
    entries += crl_entry(serial, support::reason_code(1));
  server.publish("/good", crl_of(entries));
  server.publish("/revoking", crl_of(entries + listed));
  name_places({{"/good"}});
  expect_good();
  zv_cv_clear_cert_sts_info_cache();
  name_places({{"/revoking"}});
  expect_revoked();
}

TEST_P(DecideVerify, AllReasonsTogetherAreNeeded) {
  server.publish("/a", crl_of("", some_reasons(0x1F)));
  name_places({{"/a", 0x1F}, {"/b", 0x1E0}});
  expect_unknown();
  zv_cv_clear_cert_sts_info_cache();
  server.publish("/b", crl_of("", some_reasons(0x1E0)));
  expect_good();
  zv_cv_clear_cert_sts_info_cache();
  zv_cv_clear_crl_cache();
  server.publish("/b", crl_of(listed, some_reasons(0x1E0)));
  expect_revoked();
}

TEST_P(DecideVerify, DeltaIsLookedAt) {
  server.publish("/crl", crl_of("", support::crl_number(5) + freshest("/delta")));
  server.publish("/delta",
                 crl_of(listed, support::crl_number(6) + support::delta_crl_indicator(5)));
  name_places({{"/crl"}});
  expect_revoked();
}

TEST_P(DecideVerify, DeltaOfTheCertificateIsLookedAt) {
  server.publish("/crl", crl_of(listed, support::crl_number(5)));
  server.publish("/delta", crl_of(crl_entry(device_serial, support::reason_code(8)),
                                  support::crl_number(6) + support::delta_crl_indicator(5)));
  name_places({{"/crl"}}, {{"/delta"}});
  expect_good();
}

TEST_P(DecideVerify, IndirectCrlIsLookedAt) {
  know(issue("authority", 20, authority_key, {crl_sign}));
  const std::string indirect = support::issuing_dist_point({.indirect = true});
  server.publish("/crl", crl_of(listed, indirect, authority_key, "authority"));
  name_places({{"/crl", {}, "authority"}});
  expect_good();
  zv_cv_clear_cert_sts_info_cache();
  zv_cv_clear_crl_cache();
  server.publish("/crl", crl_of(crl_entry(300, support::certificate_issuer("issuer")) + listed,
                                indirect, authority_key, "authority"));
  expect_revoked();
}

TEST_P(DecideVerify, ForgedIndirectCrlMakesNothingGood) {
  know(issue("authority", 20, authority_key, {crl_sign}, "issuer", stranger_key));
  server.publish("/crl", crl_of("", support::issuing_dist_point({.indirect = true}), authority_key,
                                "authority"));
  name_places({{"/crl", {}, "authority"}});
  expect_unknown();
}

TEST_P(DecideVerify, ConfiguredCrlComesFirst) {
  server.publish("/configured", crl_of(listed));
  server.publish("/crl", crl_of());
  crl_objects::source_list sources;
  sources.add(server.url("/configured"));
  validator_support::match_rules rules = validator_support::rules_for("device");
  ASSERT_EQ(0, pki_add_crl_info(nullptr, rules.get(), sources.get(), 0, 0));
  name_places({{"/crl"}});
  expect_revoked();
  EXPECT_EQ("/configured ", server.asked());
}

TEST_P(DecideVerify, ConfiguredSignerOfAnotherNameIsBelieved) {
  server.publish("/configured", crl_of(listed, "", stranger_key, "deputy"));
  support::cert deputy = make_issuer("deputy", stranger_key, 50);
  crl_objects::source_list sources;
  OPENSSL_sk_push(sources.get(), create_crl_info(server.url("/configured").c_str(), 0, 0, 0,
                                                 nullptr, deputy.get()));
  validator_support::match_rules rules = validator_support::rules_for("device");
  ASSERT_EQ(0, pki_add_crl_info(nullptr, rules.get(), sources.get(), 0, 0));
  expect_revoked();
}

// ---- a longer chain ----

TEST_P(DecideVerify, EachCertificateOfTheChainIsLookedUp) {
  support::cert_options options = valid_options("inter", 20, authority_key);
  options.issuer = support::common_name("issuer");
  options.signing_key = support::test_key(issuer_key);
  options.ca = true;
  options.extensions = {extension_der::crl_dp_of(encode_places(server, {{"/issuer"}}))};
  support::cert inter = support::make_cert(options);
  device = issue("device", device_serial, device_key,
                 {extension_der::crl_dp_of(encode_places(server, {{"/inter"}}))}, "inter",
                 authority_key);
  server.publish("/issuer", crl_of(listed));
  server.publish("/inter", crl_of(crl_entry(20), "", authority_key, "inter"));
  validator_support::verdict got = verify({inter});
  EXPECT_EQ(1, got.accepted) << log_dump();
  EXPECT_EQ("/issuer /inter ", server.asked());

  zv_cv_clear_cert_sts_info_cache();
  zv_cv_clear_crl_cache();
  server.publish("/issuer", crl_of(crl_entry(20)));
  got = verify({inter});
  EXPECT_EQ(0, got.accepted);
  EXPECT_EQ(X509_V_ERR_CERT_REVOKED, got.error);
  EXPECT_EQ(1, got.error_depth);
}

}  // namespace
