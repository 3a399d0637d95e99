// Whose entries they are, before and behind a merge of a base and its delta.
#include "unit/verifier/crl_cache/decide_support.h"
#include "unit/verifier/crl_cache/decoder_support.h"
#include "verifier/crl_cache/delta.h"

using namespace decide_support;
using crl_support::by_issuer;
using crl_support::by_other;
using crl_support::by_third;
using crl_support::entry_list;
using support::certificate_issuer;
using support::crl_number;
using support::delta_crl_indicator;
using support::reason_code;

namespace {

const std::string nameless = support::crl_extension(
    "2.5.29.29", support::der_tlv(0x30, support::der_uri("http://127.0.0.1/")));
class MergeIssuers : public support::store_test {
 protected:
  void merge(const std::string &base_entries, const std::string &delta_entries,
             const support::name &first_issuer = nullptr) {
    support::crl base = crl_objects::crl_object(crl_of(base_entries, crl_number(5)));
    support::crl delta =
        crl_objects::crl_object(crl_of(delta_entries, crl_number(6) + delta_crl_indicator(5)));
    pki::x509_crl_ptr made;
    ASSERT_EQ(0, pki::cv_merge_crl_dcrl(base.get(), delta.get(), &made, first_issuer.get()));
    merged = crl_support::hold(made.release());
  }
  entry_list merged_entries(const std::string &base_entries, const std::string &delta_entries,
                            const support::name &first_issuer = nullptr) {
    merge(base_entries, delta_entries, first_issuer);
    return merged ? crl_support::entries_of(merged) : entry_list();
  }
  X509_REVOKED *merged_entry(int i) const {
    return sk_X509_REVOKED_value(X509_CRL_get_REVOKED(merged.get()), i);
  }

  support::crl merged;
};

TEST_F(MergeIssuers, TwoIssuersInADeltasEntryDoNotReachTheBase) {
  EXPECT_EQ(
      (entry_list{{"9", by_third}, {"3", by_issuer}, {"1", by_issuer}}),
      merged_entries(crl_entry(3) + crl_entry(1),
                     crl_entry(9, certificate_issuer("other") + certificate_issuer("third"))));
}

TEST_F(MergeIssuers, IssuerBesideANamelessOneInADeltasEntryDoesNotReachTheBase) {
  for (const std::string &both :
       {certificate_issuer("other") + nameless, nameless + certificate_issuer("other")})
    EXPECT_EQ((entry_list{{"9", by_other}, {"8", by_other}, {"3", by_issuer}}),
              merged_entries(crl_entry(3), crl_entry(9, both) + crl_entry(8)));
}

TEST_F(MergeIssuers, OnlyLaterEntriesOfTheDeltaNameTwo) {
  EXPECT_EQ(
      (entry_list{{"9", by_issuer}, {"8", by_third}, {"3", by_issuer}}),
      merged_entries(crl_entry(3), crl_entry(9) + crl_entry(8, certificate_issuer("other") +
                                                                   certificate_issuer("third"))));
}

TEST_F(MergeIssuers, GivenFirstIssuerOwnsTheBaseBehindTwoIssuers) {
  EXPECT_EQ((entry_list{{"9", by_third}, {"3", "/CN=given"}, {"1", "/CN=given"}}),
            merged_entries(crl_entry(3) + crl_entry(1),
                           crl_entry(9, certificate_issuer("other") + certificate_issuer("third")),
                           support::common_name("given")));
}

TEST_F(MergeIssuers, BasesIssuerBesideANamelessOneStays) {
  for (const std::string &both :
       {certificate_issuer("other") + nameless, nameless + certificate_issuer("other")})
    EXPECT_EQ((entry_list{{"9", by_third}, {"3", by_other}, {"1", by_other}}),
              merged_entries(crl_entry(3, both) + crl_entry(1),
                             crl_entry(9, certificate_issuer("third"))));
}

TEST_F(MergeIssuers, LastOfTheBasesTwoIssuersStays) {
  EXPECT_EQ((entry_list{{"9", by_issuer}, {"3", by_third}, {"1", by_third}}),
            merged_entries(crl_entry(3, certificate_issuer("other") + certificate_issuer("third")) +
                               crl_entry(1),
                           crl_entry(9, certificate_issuer("issuer"))));
}

TEST_F(MergeIssuers, NamelessExtensionsOfTheBaseGiveWayToTheCrlsIssuer) {
  EXPECT_EQ((entry_list{{"9", by_other}, {"3", by_issuer}, {"1", by_issuer}}),
            merged_entries(crl_entry(3, nameless + reason_code(6) + nameless) + crl_entry(1),
                           crl_entry(9, certificate_issuer("other"))));
  ASSERT_TRUE(merged);
  X509_REVOKED *named = merged_entry(1);
  ASSERT_EQ(2, X509_REVOKED_get_ext_count(named));
  EXPECT_GE(X509_REVOKED_get_ext_by_NID(named, NID_crl_reason, -1), 0);
  int issuer_at = X509_REVOKED_get_ext_by_NID(named, NID_certificate_issuer, -1);
  ASSERT_GE(issuer_at, 0);
  EXPECT_EQ(0, X509_EXTENSION_get_critical(X509_REVOKED_get_ext(named, issuer_at)));
}

TEST_F(MergeIssuers, NamelessExtensionsOfTheDeltaNameNobody) {
  EXPECT_EQ((entry_list{{"9", by_issuer}, {"3", by_issuer}}),
            merged_entries(crl_entry(3), crl_entry(9, nameless + nameless)));
  ASSERT_TRUE(merged);
  EXPECT_EQ(0, X509_REVOKED_get_ext_count(merged_entry(1)));
}

// ---- decisions ----

struct way {
  const char *name;
  bool base_in_full;
  bool delta_in_full;
};
void PrintTo(const way &which, std::ostream *out) {
  *out << which.name;
}

class DecideMergedIssuers : public decide_test, public testing::WithParamInterface<way> {
 protected:
  int status_by(const std::string &base_entries, const std::string &delta_entries) {
    zv_cv_clear_crl_cache();
    clear_log();
    crl_fields base = crl_of(base_entries, crl_number(5) + freshest("/delta"));
    crl_fields delta = crl_of(delta_entries, crl_number(6) + delta_crl_indicator(5));
    server.publish("/delta", delta);
    if (!GetParam().base_in_full)
      server.hide_length_of("/crl");
    if (!GetParam().delta_in_full)
      server.hide_length_of("/delta");
    int status = status_of(decide(base));
    EXPECT_TRUE(was_logged(7, "found valid delta-crl"));
    return status;
  }
  const std::string listed = crl_entry(device_serial);
  const std::string two = certificate_issuer("other") + certificate_issuer("third");
};
INSTANTIATE_TEST_SUITE_P(Decoded, DecideMergedIssuers,
                         testing::Values(way{"InFull", true, true}, way{"Truncated", false, false},
                                         way{"BaseTruncated", false, true},
                                         way{"DeltaTruncated", true, false}),
                         [](const auto &each) { return std::string(each.param.name); });

TEST_P(DecideMergedIssuers, CertificateInTheBaseIsRevokedBehindTwoIssuers) {
  EXPECT_EQ(PKI_CERT_REVOKED, status_by(listed, crl_entry(7, two))) << log_dump();
  EXPECT_EQ(PKI_CERT_REVOKED, status_by(crl_entry(4) + listed, crl_entry(7, two) + crl_entry(8)))
      << log_dump();
  EXPECT_TRUE(was_logged(7, revoked_line));
}

TEST_P(DecideMergedIssuers, CertificateInTheBaseIsRevokedBehindAnIssuerAndANamelessOne) {
  EXPECT_EQ(PKI_CERT_REVOKED,
            status_by(listed, crl_entry(7, certificate_issuer("other") + nameless)))
      << log_dump();
}

TEST_P(DecideMergedIssuers, CertificateOfAnotherIssuerInTheBaseIsNotTheCertificate) {
  const std::string others = crl_entry(4, certificate_issuer("other") + nameless) + listed;
  EXPECT_EQ(PKI_CERT_OK, status_by(others, crl_entry(7, certificate_issuer("issuer"))))
      << log_dump();
}

TEST_P(DecideMergedIssuers, EntriesBehindTheBasesIssuerAndANamelessOneKeepIt) {
  const std::string own = crl_entry(4, certificate_issuer("issuer") + nameless) + listed;
  EXPECT_EQ(PKI_CERT_REVOKED, status_by(own, crl_entry(7, two))) << log_dump();
}

}  // namespace
