// Which downloaded CRLs are accepted: their critical extensions, and who signed them.
#include "unit/verifier/crl_cache/fetch_support.h"

using namespace crl_support;
using namespace support;

namespace {

class CrlSigners : public crl_fetch_test {
 protected:
  static std::string crl_with(const std::string &extensions, int key = 0) {
    crl_fields fields;
    fields.entries = crl_entry(target_serial);
    fields.extensions = extensions;
    fields.signing_key = test_key(key);
    return crl_octets(fields);
  }
  // Both ways, these certificates are the signers, and the log has the usual lines only.
  void expect_signers(const std::vector<support::cert> &expected, const std::string &body,
                      const get_options &options = {}) {
    for (bool announced : {true, false}) {
      got_crl got = get_body(body, options, announced);
      EXPECT_EQ(0, got.code);
      ASSERT_EQ(expected.size(), got.signers.size()) << log_dump();
      for (size_t i = 0; i < expected.size(); i++)
        EXPECT_EQ(0, X509_cmp(expected[i].get(), got.signers[i].get())) << i;
      EXPECT_FALSE(got.from_cache);
      EXPECT_EQ((announced ? full_line : truncated_line) +
                    ("7: downloaded a valid CRL (" + last_url + ")\n"),
                own_log());
      EXPECT_EQ(!announced, pki::is_marked_truncated(got.crl.get()));
      EXPECT_EQ("", got.out);
    }
  }
  // Both ways, the CRL is discarded with these lines.
  void expect_discarded(int code, const std::string &lines, const std::string &body,
                        const get_options &options = {}) {
    for (bool announced : {true, false}) {
      EXPECT_EQ(code, get_body(body, options, announced).code);
      EXPECT_EQ((announced ? full_line : truncated_line) + lines + discarded_line(), own_log());
      EXPECT_EQ(0u, ERR_peek_error());
    }
  }
  static constexpr char none_line[] = "3: No signer cert found for CRL (/CN=issuer)\n";
  static constexpr char no_match_line[] =
      "3: No signer cert found which could verify the crl (/CN=issuer)\n";
  static constexpr char identifier_line[] =
      "4: Error decoding AuthorityKeyIdentifier extension in CRL '/CN=issuer':\n";
  static constexpr char scope_line[] =
      "4: Error decoding IssuingDistributionPoint extension in CRL '/CN=issuer':\n";

  const std::string plain = crl_with(crl_number(1));
};

// ---- who signed ----

TEST_F(CrlSigners, CertificateOfTheStoreThatVerifiesIsTheSigner) {
  support::cert signer = signer_cert();
  trust(signer);
  expect_signers({signer}, plain);
}

TEST_F(CrlSigners, CollectedCertificatesAndTrustedRootsCount) {
  support::cert signer = signer_cert();
  ASSERT_EQ(0, pki_add_untrusted_cert(signer.get(), 0));
  expect_signers({signer}, plain);
}

TEST_F(CrlSigners, EveryKindOfKeySigns) {
  support::cert_options options;
  options.subject = common_name("issuer");
  options.public_key = crl_ec_key();
  options.serial = 2;
  support::cert ec = make_cert(options);
  trust(signer_cert());
  trust(ec);
  crl_fields fields;
  fields.entries = crl_entry(target_serial);
  for (crl_signing signing : {crl_signing::rsa_sha1, crl_signing::rsa_md5}) {
    fields.signing = signing;
    expect_signers({signer_cert()}, crl_octets(fields));
  }
  fields.signing = crl_signing::ecdsa_sha256;
  expect_signers({ec}, crl_octets(fields));
}

TEST_F(CrlSigners, NobodyOfThatNameIsAnError) {
  trust(signer_cert("other"));
  expect_discarded(67, none_line, plain);
}

TEST_F(CrlSigners, WrongKeyIsAnError) {
  trust(signer_cert("issuer", 1));
  expect_discarded(29, no_match_line, plain);
  EXPECT_GT(openssl_lines(), 0u) << log_dump();
}

TEST_F(CrlSigners, WhyNobodySignedStandsBehindTheLine) {
  trust(signer_cert("issuer", 1));
  for (bool announced : {true, false}) {
    get_body(plain, {}, announced);
    const std::vector<log_entry> log = captured_log();
    ASSERT_GE(log.size(), 4u) << log_dump();
    EXPECT_EQ(no_match_line, std::to_string(log[1].level) + ": " + log[1].text + "\n");
    for (size_t i = 2; i + 1 < log.size(); i++) {
      EXPECT_EQ(3, log[i].level);
      EXPECT_EQ(0u, log[i].text.rfind("OpenSSL error: ", 0)) << log[i].text;
    }
    EXPECT_EQ(discarded_line(), std::to_string(log.back().level) + ": " + log.back().text + "\n");
  }
}

TEST_F(CrlSigners, WhyAnotherDidNotSignIsNoErrorOfTheOneThatDid) {
  trust(signer_cert("issuer", 1, 7));
  trust(signer_cert("issuer", 0, 8));
  EXPECT_EQ(0, get_body(plain).code);
  EXPECT_EQ(0u, openssl_lines()) << log_dump();
  EXPECT_EQ(0u, ERR_peek_error());
}

TEST_F(CrlSigners, WrongSignatureIsAnError) {
  trust(signer_cert());
  std::string changed = plain;
  changed.back() = static_cast<char>(changed.back() ^ 1);
  expect_discarded(29, no_match_line, changed);
  crl_fields fields;
  fields.signature = der_tlv(0x03, std::string(1, '\0'));
  expect_discarded(29, no_match_line, crl_octets(fields));
}

TEST_F(CrlSigners, ChangedListIsAnErrorEvenWhereEntriesAreDropped) {
  trust(signer_cert());
  crl_fields fields;
  fields.entries = crl_entry(4) + crl_entry(77);
  std::string octets = crl_octets(fields);
  octets[octets.find(crl_entry(77)) + 4] = 78;
  expect_discarded(29, no_match_line, octets);
}

TEST_F(CrlSigners, OnlyTheOneOfTwoWithTheRightKeyIsTheSigner) {
  support::cert wrong = signer_cert("issuer", 1, 7), right = signer_cert("issuer", 0, 8);
  trust(wrong);
  trust(right);
  expect_signers({right}, plain);
}

TEST_F(CrlSigners, EveryCertificateThatVerifiesIsASignerInTheStoresOrder) {
  support::cert first = signer_cert("issuer", 0, 7), second = signer_cert("issuer", 0, 8);
  trust(first);
  trust(signer_cert("issuer", 1, 9));
  trust(second);
  expect_signers({first, second}, plain);
}

TEST_F(CrlSigners, GivenIssuerIsTriedBehindTheStores) {
  support::cert given = signer_cert("issuer", 0, 7), stored = signer_cert("issuer", 0, 8);
  expect_signers({given}, plain, {.issuer = given});
  trust(stored);
  expect_signers({stored, given}, plain, {.issuer = given});
}

TEST_F(CrlSigners, ConfiguredSignerIsTriedBehindTheStores) {
  support::cert configured = signer_cert("issuer", 0, 7), stored = signer_cert("issuer", 0, 8);
  expect_signers({configured}, plain, {.signer = configured});
  trust(stored);
  expect_signers({stored, configured}, plain, {.signer = configured});
}

TEST_F(CrlSigners, ConfiguredSignerIsHeldAgainstTheSignatureToo) {
  expect_discarded(29, no_match_line, plain, {.signer = signer_cert("issuer", 1)});
}

TEST_F(CrlSigners, ConfiguredSignerOfAnotherNameThanTheCrlsIsNoCandidate) {
  expect_discarded(67, none_line, plain, {.signer = signer_cert("other")});
}

TEST_F(CrlSigners, ConfiguredSignerSpeaksForTheCertificatesIssuer) {
  crl_fields fields;
  fields.issuer = der_name("signer");
  fields.entries = crl_entry(4) + crl_entry(target_serial);
  support::cert signer = signer_cert("signer");
  for (bool announced : {true, false}) {
    got_crl got = get_body(crl_octets(fields), {.signer = signer}, announced);
    ASSERT_EQ(0, got.code) << log_dump();
    // The target is found in it whichever way it came.
    EXPECT_EQ(announced ? 2 : 1, sk_X509_REVOKED_num(X509_CRL_get_REVOKED(got.crl.get())));
  }
}

// ---- authorityKeyIdentifier ----

TEST_F(CrlSigners, KeyIdentifierMustBeTheCandidates) {
  support::cert first = signer_cert("issuer", 0, 7, "0102"),
                second = signer_cert("issuer", 0, 8, "03");
  trust(first);
  trust(second);
  expect_signers({first}, crl_with(authority_key_id({.key_id = "\x01\x02"})));
  expect_signers({second}, crl_with(authority_key_id({.key_id = "\x03"})));
  expect_discarded(29, no_match_line, crl_with(authority_key_id({.key_id = "\x01"})));
  expect_discarded(29, no_match_line, crl_with(authority_key_id({.key_id = ""})));
}

TEST_F(CrlSigners, CandidateWithoutAKeyIdentifierPasses) {
  support::cert signer = signer_cert();
  trust(signer);
  expect_signers({signer}, crl_with(authority_key_id({.key_id = "\x01\x02"})));
}

TEST_F(CrlSigners, SerialNumberMustBeTheCandidates) {
  support::cert first = signer_cert("issuer", 0, 7), second = signer_cert("issuer", 0, 8);
  trust(first);
  trust(second);
  expect_signers({second}, crl_with(authority_key_id({.serial = "\x08"})));
  expect_discarded(29, no_match_line, crl_with(authority_key_id({.serial = "\x09"})));
}

TEST_F(CrlSigners, IssuerMustBeTheCandidates) {
  support::cert signer = signer_cert();
  trust(signer);
  expect_signers({signer}, crl_with(authority_key_id({.issuer = der_directory_name("issuer")})));
  expect_signers(
      {signer},
      crl_with(authority_key_id({.issuer = der_uri("http://a/") + der_directory_name("issuer")})));
  expect_discarded(29, no_match_line,
                   crl_with(authority_key_id({.issuer = der_directory_name("other")})));
  expect_discarded(29, no_match_line,
                   crl_with(authority_key_id(
                       {.issuer = der_directory_name("other") + der_directory_name("issuer")})));
  expect_discarded(29, no_match_line, crl_with(authority_key_id({.issuer = der_uri("http://a/")})));
}

TEST_F(CrlSigners, EveryPartOfTheIdentifierMustFit) {
  support::cert signer = signer_cert("issuer", 0, 7, "0102");
  trust(signer);
  expect_signers({signer}, crl_with(authority_key_id({.key_id = "\x01\x02",
                                                      .issuer = der_directory_name("issuer"),
                                                      .serial = "\x07"})));
  expect_discarded(
      29, no_match_line,
      crl_with(authority_key_id(
          {.key_id = "\x01\x02", .issuer = der_directory_name("issuer"), .serial = "\x08"})));
}

TEST_F(CrlSigners, EmptyIdentifierSaysNothing) {
  trust(signer_cert());
  expect_signers({signer_cert()}, crl_with(authority_key_id({})));
}

TEST_F(CrlSigners, UnreadableIdentifierRefusesTheCrl) {
  trust(signer_cert());
  for (const std::string &value : {der_tlv(0x04, "x"), std::string("x"), std::string()})
    for (bool critical : {false, true}) {
      expect_discarded(15, identifier_line, crl_with(crl_extension("2.5.29.35", value, critical)));
      EXPECT_GT(openssl_lines(), 0u) << log_dump();
    }
}

TEST_F(CrlSigners, RepeatedIdentifierRefusesTheCrl) {
  trust(signer_cert());
  expect_discarded(15, identifier_line, crl_with(authority_key_id({}) + authority_key_id({})));
}

// ---- issuingDistributionPoint ----

TEST_F(CrlSigners, UnreadableScopeRefusesTheCrl) {
  trust(signer_cert());
  for (const std::string &value : {der_tlv(0x04, "x"), std::string("x"), std::string()})
    for (bool critical : {false, true}) {
      expect_discarded(15, scope_line, crl_with(crl_extension("2.5.29.28", value, critical)));
      EXPECT_GT(openssl_lines(), 0u) << log_dump();
    }
}

TEST_F(CrlSigners, RepeatedScopeRefusesTheCrl) {
  trust(signer_cert());
  expect_discarded(15, scope_line,
                   crl_with(issuing_dist_point({.user_certs = true}) +
                            issuing_dist_point({.user_certs = true})));
}

TEST_F(CrlSigners, ScopeIsReadBeforeSignersAreLookedFor) {
  expect_discarded(15, scope_line, crl_with(crl_extension("2.5.29.28", "x")));
  expect_discarded(15, scope_line,
                   crl_with(crl_extension("2.5.29.28", "x") + crl_extension("2.5.29.35", "x")));
}

// ---- critical extensions ----

TEST_F(CrlSigners, KnownCriticalExtensionsAreAccepted) {
  trust(signer_cert());
  std::string alt_name = crl_extension("2.5.29.18", der_tlv(0x30, der_uri("http://a/")), true);
  std::string freshest = crl_extension(
      "2.5.29.46", der_tlv(0x30, der_tlv(0x30, der_tlv(0xA0, der_tlv(0xA0, der_uri("http://a/"))))),
      true);
  for (const std::string &extensions :
       {crl_number(1, true), alt_name, freshest, issuing_dist_point({.user_certs = true}, true),
        authority_key_id({}, true)})
    expect_signers({signer_cert()}, crl_with(extensions));
}

TEST_F(CrlSigners, UnknownCriticalExtensionIsRefused) {
  trust(signer_cert());
  std::string line =
      std::string("4: Found unknown critical crl extension: ") + unknown_extension_oid + "\n";
  expect_discarded(86, line, crl_with(unknown_extension(true)));
  expect_discarded(86, line, crl_with(crl_number(1, true) + unknown_extension(true)));
  expect_discarded(86, "4: Found unknown critical crl extension: X509v3 Key Usage\n",
                   crl_with(crl_extension("2.5.29.15", "\x03\x02\x01\x06", true)));
  std::string oid = "1.3.6.1.4.1.32473.123456789.123456789.123456789.123456789";
  expect_discarded(86, "4: Found unknown critical crl extension: " + oid.substr(0, 50) + "\n",
                   crl_with(crl_extension(oid, "x", true)));
}

TEST_F(CrlSigners, UnknownUncriticalExtensionIsPassedOver) {
  trust(signer_cert());
  expect_signers({signer_cert()}, crl_with(unknown_extension(false)));
}

TEST_F(CrlSigners, FirstProblemDecides) {
  crl_fields fields;
  fields.extensions = unknown_extension(true);
  fields.this_update = der_utc_time(crl_der_now + 1000);
  EXPECT_EQ(85, get_body(crl_octets(fields)).code);
  EXPECT_EQ(86, get_body(crl_with(unknown_extension(true))).code);
}

TEST_F(CrlSigners, DeltaIsAcceptedForADeltaRecordOnly) {
  trust(signer_cert());
  std::string delta = crl_with(crl_number(2) + delta_crl_indicator(1));
  EXPECT_EQ(0, get_body(delta, {.use = {0, true}}).code) << log_dump();
}

// ---- failures on the way ----

TEST_F(CrlSigners, DownloadErrorIsReturnedWithoutMoreWords) {
  trust(signer_cert());
  test_server server({status(404)});
  EXPECT_EQ(47, get(server.url("/crl")).code);
  EXPECT_EQ("3: CRL server at '" + server.url("/crl") + "' returned 404\n", own_log());
  clear_log();
  EXPECT_EQ(45, get("nonsense").code);
  EXPECT_EQ("3: CRL url 'nonsense' is invalid\n", own_log());
}

}  // namespace
