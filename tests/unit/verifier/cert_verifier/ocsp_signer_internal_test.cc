// Whose signature an answer carries: the candidates, and those that are believed as they are.
#include "common/limits.h"
#include "unit/verifier/cert_verifier/ocsp_support.h"
#include "unit/verifier/crl_cache/decide_support.h"

using namespace ocsp_support;

namespace {

class OcspSigner : public ocsp_query_test {
 protected:
  // Somebody whom the issuer did not certify.
  static support::cert make_stranger(const std::string &cn = "stranger") {
    return support::make_cert(valid_options(cn, 77, stranger_key));
  }
  ocsp_options by_stranger(const support::cert &stranger) const {
    ocsp_options options = by(stranger, stranger_key);
    options.certs.clear();
    return options;
  }
  // The certificate with a key that OpenSSL does not know.
  static support::cert with_unknown_key(const support::cert &cert) {
    std::string der = support::der(cert);
    const std::string rsa("\x2a\x86\x48\x86\xf7\x0d\x01\x01\x01", 9);
    size_t at = der.find(rsa);
    EXPECT_NE(std::string::npos, at);
    der[at + 8] = 0x7F;
    const auto *in = reinterpret_cast<const unsigned char *>(der.data());
    return support::cert(d2i_X509(nullptr, &in, static_cast<long>(der.size())), X509_free);
  }
};

// ---- the certificates that come along ----

TEST_F(OcspSigner, CertificatesOfTheAnswerAreCollected) {
  ocsp_options options = by_issuer();
  support::cert other = make_stranger("other");
  options.certs = {issuer, other};
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(options)));
  EXPECT_EQ(2, OPENSSL_sk_num(pki_store->collected_certs));
  EXPECT_TRUE(in_list(pki_store->collected_certs, issuer));
  EXPECT_TRUE(in_list(pki_store->collected_certs, other));
  EXPECT_EQ(0, OPENSSL_sk_num(pki_store->provisioned_certs));
}

TEST_F(OcspSigner, CertificatesAreCollectedAlsoWhenNobodyIsBelieved) {
  support::cert stranger = make_stranger();
  EXPECT_EQ(nullptr, ask(by(stranger, stranger_key)));
  EXPECT_TRUE(in_list(pki_store->collected_certs, stranger));
}

TEST_F(OcspSigner, CertificatesOfAnUntimelyAnswerAreNotCollected) {
  ocsp_options options = by_issuer();
  options.certs = {issuer};
  options.produced_at = start + 301;
  EXPECT_EQ(nullptr, ask(options));
  EXPECT_EQ(0, OPENSSL_sk_num(pki_store->collected_certs));
}

TEST_F(OcspSigner, WhatIsTooLargeToBeCollectedStillSigns) {
  const std::pair<std::string, std::string> padding = {"1.2.3.4",
                                                       "DER:" + std::string(32 * 1024, '0')};
  support::cert large = issue_responder({ocsp_signing, no_check, padding});
  support::cert other = make_stranger("other");
  ocsp_options options = by(large);
  options.certs = {large, other};
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(options)));
  EXPECT_EQ(1, OPENSSL_sk_num(pki_store->collected_certs));
  EXPECT_TRUE(in_list(pki_store->collected_certs, other));
}

TEST_F(OcspSigner, AnswerWithoutCertificatesLeavesTheStoreAlone) {
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(by_issuer())));
  EXPECT_EQ(0, OPENSSL_sk_num(pki_store->collected_certs));
}

// ---- candidates ----

TEST_F(OcspSigner, IssuerIsFoundByNameWithoutTheStore) {
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(by_issuer())));
  EXPECT_EQ(accepted_from_issuer(), judgement());
}

TEST_F(OcspSigner, IssuerIsFoundByKeyHashWithoutTheStore) {
  ocsp_options options = by_issuer();
  options.by_key = true;
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(options)));
  EXPECT_EQ(accepted_from_issuer(), judgement());
}

TEST_F(OcspSigner, IssuerInTheStoreIsOneCandidate) {
  pki_add_untrusted_cert(issuer.get(), 1);
  for (bool by_key : {false, true}) {
    clear_log();
    ocsp_options options = by_issuer();
    options.by_key = by_key;
    EXPECT_EQ(PKI_CERT_OK, status_of(ask(options)));
    EXPECT_EQ(accepted_from_issuer(), judgement());
  }
}

// Anybody can send certificates of any name: of their keys, few are tried.
TEST_F(OcspSigner, ResponderIsTriedWhereItCameLatelyOrWithTheAnswer) {
  support::cert responder = issue_responder();
  pki_add_untrusted_cert(responder.get(), 0);
  ocsp_options alone = by(responder);
  alone.certs.clear();
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(alone))) << log_dump();
  for (const support::cert &namesake : make_namesakes("responder", pki::max_signer_keys))
    pki_add_untrusted_cert(namesake.get(), 0);
  EXPECT_EQ(nullptr, ask(alone)) << log_dump();
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(by(responder)))) << log_dump();
  pki_add_untrusted_cert(responder.get(), 1);
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(alone))) << log_dump();
}

// A peer that is revoked would rather have the answer unread.
TEST_F(OcspSigner, NothingThatThePeerSendsShutsOutWhoCameWithTheAnswer) {
  support::cert responder = issue_responder();
  for (int count : {pki::max_signer_keys, pki::max_peer_signers + pki::max_signer_keys}) {
    std::vector<support::cert> sent = make_namesakes("responder", count);
    decide_support::trust_context trust({}, sent);
    context = trust.get();
    support::empty_store();
    for (const support::cert &each : sent)
      pki_add_untrusted_cert(each.get(), 0);
    ocsp_options options = by(responder);
    options.single.status = V_OCSP_CERTSTATUS_REVOKED;
    options.certs = make_namesakes("responder", pki::ocsp_max_certs - 1, 3000);
    options.certs.push_back(responder);
    EXPECT_EQ(PKI_CERT_REVOKED, status_of(ask(options))) << log_dump();
  }
}

// Nor by the hash of the responder's key, which others can have in their certificates.
TEST_F(OcspSigner, NeitherDoCertificatesWithHisKey) {
  support::cert responder = issue_responder();
  std::vector<support::cert> sent;
  for (int i = 0; i < 3 * pki::max_signer_keys; i++)
    sent.push_back(issue("other", 1000 + i, responder_key, {}, "other"));
  decide_support::trust_context trust({}, sent);
  context = trust.get();
  for (const support::cert &each : sent)
    pki_add_untrusted_cert(each.get(), 0);
  ocsp_options options = by(responder);
  options.by_key = true;
  options.single.status = V_OCSP_CERTSTATUS_REVOKED;
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(ask(options))) << log_dump();
}

TEST_F(OcspSigner, NeitherDoesTheAnswerShutOutWhoCameAlong) {
  support::cert responder = issue_responder();
  for (int others : {pki::max_signer_keys - 1, pki::max_signer_keys}) {
    std::vector<support::cert> sent = make_namesakes("responder", others);
    sent.push_back(responder);
    decide_support::trust_context trust({}, sent);
    context = trust.get();
    support::empty_store();
    ocsp_options options = by(responder);
    options.certs = make_namesakes("responder", pki::ocsp_max_certs, 3000);
    bool is_tried = others < pki::max_signer_keys;
    EXPECT_EQ(is_tried ? PKI_CERT_OK : -1, status_of(ask(options))) << log_dump();
  }
}

TEST_F(OcspSigner, EverySignatureAlgorithmOfOpensslsWillDo) {
  for (const EVP_MD *digest : {EVP_sha1(), EVP_sha256(), EVP_sha384(), EVP_sha512()}) {
    ocsp_options options = by_issuer();
    options.digest = digest;
    EXPECT_EQ(PKI_CERT_OK, status_of(ask(options))) << EVP_MD_get0_name(digest);
  }
}

TEST_F(OcspSigner, EllipticCurveSignerWillDo) {
  support::key pair = support::make_ec_key();
  support::cert_options made = valid_options("ec", 78, device_key);
  made.public_key = pair;
  made.signing_key = pair;
  configured = support::make_cert(made);
  ocsp_flag = 1;
  ocsp_options options;
  options.signer = configured;
  options.signing_key = pair;
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(options))) << log_dump();
}

TEST_F(OcspSigner, DamagedSignatureHasNoSigner) {
  ocsp_options options = by_issuer();
  options.damaged_signature = true;
  EXPECT_EQ(nullptr, ask(options));
  EXPECT_EQ(no_signer_line, judgement());
}

TEST_F(OcspSigner, IssuersNameOverAnotherKeyHasNoSigner) {
  ocsp_options options = by_issuer();
  options.signing_key = support::test_key(stranger_key);
  EXPECT_EQ(nullptr, ask(options));
  EXPECT_EQ(no_signer_line, judgement());
}

TEST_F(OcspSigner, IssuersSignatureUnderAnotherNameHasNoSigner) {
  ocsp_options options = by_issuer();
  options.signer = make_stranger();
  EXPECT_EQ(nullptr, ask(options));
  EXPECT_EQ(no_signer_line, judgement());
}

TEST_F(OcspSigner, KeyHashOfAnotherLengthHasNoSigner) {
  for (size_t length : {0, 19, 21, 1000}) {
    ocsp_options options = by_issuer();
    options.responder_id =
        support::tlv(0xA2, support::tlv(V_ASN1_OCTET_STRING, std::string(length, 'h')));
    EXPECT_EQ(nullptr, ask(options)) << length;
  }
}

TEST_F(OcspSigner, KeyHashPrefixHasNoSigner) {
  unsigned char hash[EVP_MAX_MD_SIZE];
  unsigned length = 0;
  X509_pubkey_digest(issuer.get(), EVP_sha1(), hash, &length);
  std::string octets(reinterpret_cast<char *>(hash), length);
  for (const std::string &wrong : {octets.substr(0, 19), octets + "x"}) {
    ocsp_options options = by_issuer();
    options.responder_id = support::tlv(0xA2, support::tlv(V_ASN1_OCTET_STRING, wrong));
    EXPECT_EQ(nullptr, ask(options));
  }
}

TEST_F(OcspSigner, EmptyNameHasNoSigner) {
  ocsp_options options = by_issuer();
  options.responder_id = support::tlv(0xA1, support::tlv(0x30, ""));
  EXPECT_EQ(nullptr, ask(options));
  EXPECT_EQ(no_signer_line, judgement());
}

TEST_F(OcspSigner, NamesakesWithOtherKeysAreLeftOut) {
  pki_add_untrusted_cert(make_issuer("issuer", stranger_key).get(), 1);
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(by_issuer())));
  EXPECT_EQ(accepted_from_issuer(), judgement());
}

TEST_F(OcspSigner, EveryCertificateOfTheKeyIsACandidate) {
  support::cert first = issue("responder", 21, responder_key, {ocsp_signing, no_check});
  support::cert second = issue("responder", 22, responder_key, {ocsp_signing, no_check});
  pki_add_untrusted_cert(first.get(), 1);
  pki_add_untrusted_cert(second.get(), 0);
  ocsp_options options = by(first);
  options.certs.clear();
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(options)));
  EXPECT_EQ(found_line(2) + no_check_line + accepted_lines(), judgement());
}

TEST_F(OcspSigner, StoresCandidatesComeBeforeTheIssuer) {
  // The same name and key, in another certificate.
  support::cert_options made = valid_options("issuer", 2, issuer_key);
  made.ca = true;
  pki_add_untrusted_cert(support::make_cert(made).get(), 1);
  for (bool by_key : {false, true}) {
    clear_log();
    ocsp_options options = by_issuer();
    options.by_key = by_key;
    EXPECT_EQ(PKI_CERT_OK, status_of(ask(options)));
    EXPECT_EQ(found_line(2) +
                  "4: ocsp-response signer (/CN=issuer) has no ocsp-signing extended key-usage - "
                  "discarding\n" +
                  by_issuer_line + accepted_lines(),
              judgement());
  }
}

TEST_F(OcspSigner, CandidateWithoutPublicKeyIsPassedOver) {
  pki_add_untrusted_cert(with_unknown_key(make_issuer("issuer", stranger_key)).get(), 1);
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(by_issuer())));
  EXPECT_EQ("3: failed to get public key from issuer cert\n" + accepted_from_issuer(), judgement());
  EXPECT_GT(openssl_lines(3), 0u) << log_dump();
}

TEST_F(OcspSigner, OnlyACandidateWithoutPublicKeyIsNone) {
  support::cert keyless = with_unknown_key(make_stranger());
  pki_add_untrusted_cert(keyless.get(), 1);
  EXPECT_EQ(nullptr, ask(by_stranger(keyless)));
  EXPECT_EQ(std::string("3: failed to get public key from issuer cert\n") + no_signer_line,
            judgement());
}

TEST_F(OcspSigner, StrangersSignatureIsNotTrusted) {
  support::cert stranger = make_stranger();
  EXPECT_EQ(nullptr, ask(by(stranger, stranger_key)));
  EXPECT_EQ(found_line(1) +
                "4: ocsp-response signer (/CN=stranger) has no ocsp-signing extended key-usage - "
                "discarding\n" +
                none_trusted_line,
            judgement());
}

// ---- the issuer ----

TEST_F(OcspSigner, IssuersOwnStatusIsNotChecked) {
  ocsp_responder elsewhere(by_issuer());
  support::cert_options made = valid_options("issuer", 1, issuer_key);
  made.ca = true;
  made.extensions = {ask_at(elsewhere.url())};
  issuer = support::make_cert(made);
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(by_issuer())));
  EXPECT_EQ(accepted_from_issuer(), judgement());
  EXPECT_EQ(0u, elsewhere.requests().size());
}

TEST_F(OcspSigner, WithoutTheFlagTheIssuerIsLikeAnyOther) {
  internet = 0;
  EXPECT_EQ(nullptr, ask(by_issuer()));
  EXPECT_EQ(found_line(1) +
                "4: ocsp-response signer (/CN=issuer) has no ocsp-signing extended key-usage - "
                "discarding\n" +
                none_trusted_line,
            judgement());
}

// ---- the configured responder ----

TEST_F(OcspSigner, ConfiguredSignerWithItsFlagIsBelieved) {
  configured = make_stranger();
  ocsp_flag = 1;
  for (bool by_key : {false, true}) {
    clear_log();
    ocsp_options options = by_stranger(configured);
    options.by_key = by_key;
    EXPECT_EQ(PKI_CERT_OK, status_of(ask(options)));
    EXPECT_EQ(found_line(1) + configured_line + accepted_lines(), judgement());
  }
}

TEST_F(OcspSigner, ConfiguredSignerMayComeWithTheAnswer) {
  configured = make_stranger();
  ocsp_flag = 1;
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(by(configured, stranger_key))));
  EXPECT_EQ(found_line(1) + configured_line + accepted_lines(), judgement());
}

TEST_F(OcspSigner, ConfiguredSignerWithItsFlagNeedsNoValidity) {
  support::cert_options made = valid_options("stranger", 77, stranger_key);
  made.not_before = start - 2000;
  made.not_after = start - 1000;
  configured = support::make_cert(made);
  ocsp_flag = 1;
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(by_stranger(configured))));
  EXPECT_EQ(found_line(1) + configured_line + accepted_lines(), judgement());
}

TEST_F(OcspSigner, ConfiguredSignerWithItsFlagIsNotAskedAbout) {
  ocsp_responder elsewhere(by_issuer());
  support::cert_options made = valid_options("stranger", 77, stranger_key);
  made.extensions = {ask_at(elsewhere.url())};
  configured = support::make_cert(made);
  ocsp_flag = 1;
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(by_stranger(configured))));
  EXPECT_EQ(0u, elsewhere.requests().size());
}

TEST_F(OcspSigner, ConfiguredIssuerIsTheConfiguredOneFirst) {
  configured = issuer;
  ocsp_flag = 1;
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(by_issuer())));
  EXPECT_NE(std::string::npos, judgement().find(configured_line)) << log_dump();
  EXPECT_EQ(std::string::npos, judgement().find(by_issuer_line)) << log_dump();
}

TEST_F(OcspSigner, ConfiguredIssuerWithoutItsFlagIsTheIssuer) {
  configured = issuer;
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(by_issuer())));
  EXPECT_NE(std::string::npos, judgement().find(by_issuer_line)) << log_dump();
}

TEST_F(OcspSigner, ConfiguredSignerMustHaveSigned) {
  configured = make_stranger();
  ocsp_flag = 1;
  ocsp_options options = by_stranger(configured);
  options.signing_key = support::test_key(responder_key);
  EXPECT_EQ(nullptr, ask(options));
  EXPECT_EQ(no_signer_line, judgement());
}

TEST_F(OcspSigner, ConfiguredSignersNamesakeIsNotBelieved) {
  configured = make_stranger();
  ocsp_flag = 1;
  support::cert_options made = valid_options("stranger", 99, responder_key);
  EXPECT_EQ(nullptr, ask(by(support::make_cert(made))));
  EXPECT_NE(std::string::npos, judgement().find(none_trusted_line)) << log_dump();
}

TEST_F(OcspSigner, ConfiguredSignerDoesNotShutTheIssuerOut) {
  configured = make_stranger();
  ocsp_flag = 1;
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(by_issuer())));
  EXPECT_EQ(accepted_from_issuer(), judgement());
}

TEST_F(OcspSigner, StoresCandidatesComeBeforeTheConfiguredOne) {
  // The same name and key, but nobody's business.
  support::cert twin = support::make_cert(valid_options("stranger", 88, stranger_key));
  pki_add_untrusted_cert(twin.get(), 1);
  configured = make_stranger();
  ocsp_flag = 1;
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(by_stranger(configured))));
  EXPECT_EQ(found_line(2) +
                "4: ocsp-response signer (/CN=stranger) has no ocsp-signing extended key-usage - "
                "discarding\n" +
                configured_line + accepted_lines(),
            judgement());
}

}  // namespace
