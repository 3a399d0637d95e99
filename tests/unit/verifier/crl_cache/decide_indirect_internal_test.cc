// CRLs that speak about certificates of several issuers.
#include "unit/verifier/crl_cache/decide_support.h"

using namespace decide_support;

namespace {

class DecideIndirect : public decide_both_ways {
 protected:
  void SetUp() override {
    decide_both_ways::SetUp();
    know(authority);
  }
  static crl_fields indirect_crl(const std::string &entries, const std::string &more = "") {
    return crl_of(entries, support::issuing_dist_point({.indirect = true}) + more, authority_key,
                  "authority");
  }
  record decide_indirect(const crl_fields &fields) {
    zv_cv_clear_crl_cache();
    clear_log();
    server.publish("/crl", fields);
    return decide_at({{"/crl", {}, "authority"}});
  }
  int status_by(const std::string &entries) {
    return status_of(decide_indirect(indirect_crl(entries)));
  }
  // An entry that names this issuer, for itself and those behind it.
  static std::string of(const std::string &cn, long serial, const std::string &more = "") {
    return crl_entry(serial, support::certificate_issuer(cn) + more);
  }

  support::cert authority = issue("authority", 20, authority_key, {crl_sign});
  const std::string plain = crl_entry(device_serial);
};
INSTANTIATE_TEST_SUITE_P(Decoded, DecideIndirect, testing::Bool(), way_name);

TEST_P(DecideIndirect, EntryOfTheCertificatesIssuerCounts) {
  EXPECT_EQ(PKI_CERT_REVOKED, status_by(of("issuer", device_serial))) << log_dump();
}

TEST_P(DecideIndirect, EntryWithoutIssuerBelongsToTheCrlsOwn) {
  EXPECT_EQ(PKI_CERT_OK, status_by(plain)) << log_dump();
  EXPECT_TRUE(was_logged(7, good_line));
}

TEST_P(DecideIndirect, EntryOfAnotherIssuerIsNotTheCertificates) {
  EXPECT_EQ(PKI_CERT_OK, status_by(of("other", device_serial))) << log_dump();
}

TEST_P(DecideIndirect, IssuerHoldsUntilTheNext) {
  EXPECT_EQ(PKI_CERT_REVOKED, status_by(of("issuer", 5) + crl_entry(6) + plain)) << log_dump();
  EXPECT_EQ(PKI_CERT_OK, status_by(of("issuer", 5) + of("other", 6) + plain)) << log_dump();
  EXPECT_EQ(PKI_CERT_OK, status_by(of("issuer", 5) + of("authority", 6) + plain)) << log_dump();
}

TEST_P(DecideIndirect, OrderOfTheSerialsDoesNotMatter) {
  EXPECT_EQ(PKI_CERT_REVOKED, status_by(of("issuer", 200) + crl_entry(300) + plain)) << log_dump();
  EXPECT_EQ(PKI_CERT_OK, status_by(plain + of("issuer", 5) + crl_entry(6))) << log_dump();
  EXPECT_EQ(PKI_CERT_OK, status_by(of("issuer", 300) + of("other", 200) + plain + of("issuer", 1)))
      << log_dump();
}

TEST_P(DecideIndirect, SameSerialOfTwoIssuersIsTwoCertificates) {
  EXPECT_EQ(PKI_CERT_REVOKED, status_by(of("other", device_serial) + of("issuer", device_serial)));
  EXPECT_EQ(PKI_CERT_REVOKED, status_by(of("other", device_serial) + of("issuer", 5) + plain));
  EXPECT_EQ(PKI_CERT_REVOKED, status_by(plain + of("issuer", 5) + plain));
  EXPECT_EQ(PKI_CERT_OK, status_by(plain + of("other", 5) + plain));
}

TEST_P(DecideIndirect, RemovalOfAnotherIssuersCertificateIsNotTheCertificates) {
  EXPECT_EQ(PKI_CERT_REVOKED, status_by(of("other", device_serial, support::reason_code(8)) +
                                        of("issuer", device_serial)));
}

TEST_P(DecideIndirect, RemovalOfTheCertificateCounts) {
  EXPECT_EQ(PKI_CERT_OK, status_by(of("issuer", device_serial, support::reason_code(8))));
  EXPECT_TRUE(was_logged(7, removed_line));
}

TEST_P(DecideIndirect, IssuerWithoutDirectoryNameKeepsTheOneBefore) {
  const std::string nameless =
      crl_entry(7, support::crl_extension(
                       "2.5.29.29", support::der_tlv(0x30, support::der_uri("http://127.0.0.1/"))));
  EXPECT_EQ(PKI_CERT_REVOKED, status_by(of("issuer", 5) + nameless + plain)) << log_dump();
  EXPECT_TRUE(was_logged(4, "No DN found in certificate-issuer crl-entry extension"));
  EXPECT_EQ(PKI_CERT_OK, status_by(nameless + plain)) << log_dump();
}

TEST_P(DecideIndirect, CriticalIssuerRefusesTheCrl) {
  const std::string refused = crl_entry(7, support::certificate_issuer("other", true));
  EXPECT_EQ(no_answer, status_by(of("issuer", device_serial) + refused));
  EXPECT_EQ(no_answer, status_by(refused));
  EXPECT_TRUE(
      was_logged(4, "Found unknown critical crl-entry extension: X509v3 Certificate Issuer"));
  EXPECT_FALSE(is_cached("authority"));
}

TEST_P(DecideIndirect, UnknownCriticalEntryExtensionRefusesTheCrl) {
  EXPECT_EQ(no_answer, status_by(of("issuer", device_serial) +
                                 crl_entry(7, support::unknown_extension(true))));
  EXPECT_FALSE(is_cached("authority"));
}

TEST_P(DecideIndirect, IssuerThatCannotBeDecodedRefusesTheCrl) {
  EXPECT_EQ(no_answer, status_by(of("issuer", device_serial) +
                                 crl_entry(7, support::crl_extension("2.5.29.29", "x"))));
  EXPECT_FALSE(is_cached("authority"));
}

TEST_P(DecideIndirect, DirectCrlOfTheNamedIssuerIsOutOfScope) {
  EXPECT_EQ(no_answer, status_of(decide_indirect(
                           crl_of(of("issuer", device_serial), "", authority_key, "authority"))));
  EXPECT_TRUE(was_logged(4, "indirectCRL flag not set in IDP in CRL"));
}

TEST_P(DecideIndirect, CrlOfAnotherIssuerThanNamedIsNotBelieved) {
  server.publish("/crl", indirect_crl(of("issuer", device_serial)));
  EXPECT_EQ(no_answer, status_of(decide_at({{"/crl", {}, "somebody"}})));
  EXPECT_TRUE(was_logged(4, "issuer in CRL-DP (/CN=somebody) != crl-issuer (/CN=authority)"));
}

TEST_P(DecideIndirect, SecondDecisionGivesTheSame) {
  // In full, the cached list answers the second time.
  for (const std::string &entries :
       {of("issuer", 200) + plain, plain + of("issuer", 5), of("other", 10) + of("issuer", 10)}) {
    int first = status_by(entries);
    size_t before = server.requests();
    EXPECT_EQ(first, status_of(decide_at({{"/crl", {}, "authority"}})));
    EXPECT_EQ(before + (in_full() ? 0 : 1), server.requests());
  }
}

// ---- a configured signer of another name ----

class DecideForIssuer : public DecideIndirect {
 protected:
  int status_by_signer(const std::string &entries, const std::string &crl_extensions = "") {
    zv_cv_clear_crl_cache();
    return status_of(decide_by(signer, crl_of(entries, crl_extensions, stranger_key, "deputy")));
  }
  support::cert signer = make_issuer("deputy", stranger_key, 50);
};
INSTANTIATE_TEST_SUITE_P(Decoded, DecideForIssuer, testing::Bool(), way_name);

TEST_P(DecideForIssuer, EntriesStartAtTheCertificatesIssuer) {
  EXPECT_EQ(PKI_CERT_REVOKED, status_by_signer(plain)) << log_dump();
  EXPECT_EQ(PKI_CERT_REVOKED, status_by_signer(crl_entry(300) + plain)) << log_dump();
  EXPECT_EQ(PKI_CERT_OK, status_by_signer(crl_entry(300))) << log_dump();
}

TEST_P(DecideForIssuer, EntriesMayNameOthers) {
  EXPECT_EQ(PKI_CERT_OK, status_by_signer(of("other", 300) + plain)) << log_dump();
  EXPECT_EQ(PKI_CERT_REVOKED, status_by_signer(plain + of("other", 300))) << log_dump();
}

TEST_P(DecideForIssuer, IndirectCrlStartsAtItsOwnIssuer) {
  const std::string indirect = support::issuing_dist_point({.indirect = true});
  EXPECT_EQ(PKI_CERT_OK, status_by_signer(plain, indirect)) << log_dump();
  EXPECT_EQ(PKI_CERT_REVOKED, status_by_signer(of("issuer", 300) + plain, indirect)) << log_dump();
}

TEST_P(DecideForIssuer, SecondDecisionGivesTheSame) {
  EXPECT_EQ(PKI_CERT_REVOKED, status_by_signer(plain));
  crl_objects::source_list sources;
  OPENSSL_sk_push(sources.get(),
                  create_crl_info(server.url("/crl").c_str(), 0, 0, 0, nullptr, signer.get()));
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide(sources))) << log_dump();
}

}  // namespace
