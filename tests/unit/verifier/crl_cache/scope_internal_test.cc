// May a CRL speak about a certificate?
#include "verifier/crl_cache/scope.h"

#include <openssl/err.h>

#include "fakes/log_capture.h"
#include "support/store_fixture.h"
#include "unit/verifier/crl_cache/crl_objects.h"
#include "verifier/crl_cache/general_names.h"

using namespace crl_objects;

namespace {

constexpr int bad_scope = 83;

const std::string here = "http://127.0.0.1/here.crl", there = "http://127.0.0.1/there.crl";

std::string full_point(const std::string &names, const std::string &issuer = "") {
  return extension_der::point(extension_der::full_name(names) + issuer);
}

class Scope : public support::store_test {
 protected:
  int verify(const idp &restrictions = nullptr) {
    return pki::cv_verify_issuer_scope(record.get(), cert.get(), crl.get(), restrictions.get());
  }
  int verify(const support::idp_fields &restrictions) { return verify(make_idp(restrictions)); }

  // The record comes from this point.
  void use_point(const std::string &encoding) {
    held = make_points(encoding);
    record->dist_point = sk_DIST_POINT_value(held.get(), 0);
  }
  void name_crl_issuer(const std::string &common_name) {
    record->crl_issuer = X509_NAME_dup(support::common_name(common_name).get());
  }
  void configure_signer(const support::cert &signer) {
    X509_up_ref(signer.get());
    record->crl_signer = signer.get();
  }
  void issue_crl_as(const std::string &common_name) {
    support::crl_fields fields;
    fields.issuer = support::der_name(common_name);
    crl = crl_object(fields);
  }
  // The only line of the log.
  static std::string only_line() {
    std::vector<log_entry> log = captured_log();
    return log.size() == 1 ? std::to_string(log[0].level) + ": " + log[0].text : log_dump();
  }

  source record = make_source();
  points held;
  support::cert cert = support::simple_cert("issuer", "device", 10);
  support::crl crl = crl_object();
};

constexpr char no_name_matched[] = "4: none of the names in the IDP matched a name in the CRL-DP";

// ---- the issuer ----

TEST_F(Scope, CrlOfTheCertificatesIssuerPasses) {
  EXPECT_EQ(0, verify());
  EXPECT_EQ("", log_dump());
}

TEST_F(Scope, CrlOfAnotherIssuerFails) {
  issue_crl_as("other");
  EXPECT_EQ(bad_scope, verify());
  EXPECT_EQ("4: cert-issuer (/CN=issuer) != crl-issuer (/CN=other)", only_line());
}

TEST_F(Scope, CrlOfAnotherIssuerFailsAlsoWhenItIsIndirect) {
  issue_crl_as("other");
  use_point(full_point(support::der_uri(here)));
  EXPECT_EQ(bad_scope, verify(support::idp_fields{.indirect = true}));
  EXPECT_EQ("4: cert-issuer (/CN=issuer) != crl-issuer (/CN=other)", only_line());
}

TEST_F(Scope, NamesThatDifferInCaseOnlyAreEqual) {
  issue_crl_as("ISSUER");
  EXPECT_EQ(0, verify());
}

TEST_F(Scope, NamedCrlIssuerMustBeTheCrlsIssuer) {
  name_crl_issuer("authority");
  EXPECT_EQ(bad_scope, verify(support::idp_fields{.indirect = true}));
  EXPECT_EQ("4: issuer in CRL-DP (/CN=authority) != crl-issuer (/CN=issuer)", only_line());
}

TEST_F(Scope, NamedCrlIssuerNeedsAnIndirectCrl) {
  name_crl_issuer("authority");
  issue_crl_as("authority");
  EXPECT_EQ(bad_scope, verify());
  EXPECT_EQ("4: indirectCRL flag not set in IDP in CRL", only_line());
  clear_log();
  EXPECT_EQ(bad_scope, verify(support::idp_fields{.uris = {here}}));
  EXPECT_EQ("4: indirectCRL flag not set in IDP in CRL", only_line());
  clear_log();
  EXPECT_EQ(0, verify(support::idp_fields{.indirect = true}));
  EXPECT_EQ("", log_dump());
}

TEST_F(Scope, NamedCrlIssuerThatIsTheCertificatesOwnStillNeedsAnIndirectCrl) {
  name_crl_issuer("issuer");
  EXPECT_EQ(bad_scope, verify());
  EXPECT_EQ("4: indirectCRL flag not set in IDP in CRL", only_line());
}

TEST_F(Scope, PointWithAnIssuerNeedsAnIndirectCrlOfThatIssuer) {
  use_point(full_point(support::der_uri(here), issued_by("authority")));
  name_crl_issuer("authority");
  issue_crl_as("authority");
  EXPECT_EQ(0, verify(support::idp_fields{.uris = {here}, .indirect = true}));
  EXPECT_EQ(bad_scope, verify(support::idp_fields{.uris = {here}}));
  EXPECT_EQ(bad_scope, verify());
  issue_crl_as("issuer");
  EXPECT_EQ(bad_scope, verify(support::idp_fields{.uris = {here}, .indirect = true}));
}

TEST_F(Scope, ConfiguredSignersSubjectMustBeTheCrlsIssuer) {
  configure_signer(support::simple_cert("root", "authority", 20));
  EXPECT_EQ(bad_scope, verify());
  EXPECT_EQ("4: issuer in CRL-DP (/CN=authority) != crl-issuer (/CN=issuer)", only_line());
}

TEST_F(Scope, ConfiguredSignerNeedsNoIndirectCrl) {
  configure_signer(support::simple_cert("root", "authority", 20));
  issue_crl_as("authority");
  EXPECT_EQ(0, verify());
  EXPECT_EQ(0, verify(support::idp_fields{.user_certs = true}));
  EXPECT_EQ("", log_dump());
}

TEST_F(Scope, SignerIsNoScopeNameBesideAPoint) {
  configure_signer(support::simple_cert("root", "authority", 20));
  use_point(full_point(support::der_uri(here)));
  EXPECT_EQ(0, verify());
  issue_crl_as("authority");
  EXPECT_EQ(bad_scope, verify());
  EXPECT_EQ("4: cert-issuer (/CN=issuer) != crl-issuer (/CN=authority)", only_line());
}

TEST_F(Scope, SignerIsNoScopeNameBesideAnIssuerName) {
  configure_signer(support::simple_cert("root", "issuer", 20));
  name_crl_issuer("authority");
  EXPECT_EQ(bad_scope, verify());
  EXPECT_EQ("4: issuer in CRL-DP (/CN=authority) != crl-issuer (/CN=issuer)", only_line());
}

TEST_F(Scope, LongNamesAreLoggedInAtMostHundredCharacters) {
  support::name name = support::make_name(
      {{"O", std::string(60, 'o')}, {"CN", std::string(60, 'c')}, {"OU", "unit"}});
  support::crl_fields fields;
  fields.issuer = support::der_name(name);
  crl = crl_object(fields);
  EXPECT_EQ(bad_scope, verify());
  ASSERT_EQ(1u, captured_log().size());
  const std::string before = "cert-issuer (/CN=issuer) != crl-issuer (",
                    text = captured_log()[0].text;
  ASSERT_EQ(0u, text.rfind(before, 0)) << text;
  EXPECT_LE(text.size(), before.size() + 100 + 1);
  EXPECT_EQ(before + "/O=" + std::string(60, 'o'), text.substr(0, before.size() + 63));
}

// ---- names of the point and of the CRL ----

TEST_F(Scope, PointWithoutRestrictionsOfTheCrlPasses) {
  use_point(full_point(support::der_uri(here)));
  EXPECT_EQ(0, verify());
}

TEST_F(Scope, CrlOfThePointsNamePasses) {
  use_point(full_point(support::der_uri("ldap://127.0.0.1/") + support::der_uri(here)));
  EXPECT_EQ(0, verify(support::idp_fields{.uris = {there, here}}));
  EXPECT_EQ("", log_dump());
}

TEST_F(Scope, CrlOfAnotherPlaceFails) {
  use_point(full_point(support::der_uri(here)));
  EXPECT_EQ(bad_scope, verify(support::idp_fields{.uris = {there}}));
  EXPECT_EQ(no_name_matched, only_line());
}

TEST_F(Scope, CrlWithoutPlacePasses) {
  use_point(full_point(support::der_uri(here)));
  EXPECT_EQ(0, verify(support::idp_fields{.user_certs = true}));
}

// It might be the list of another partition.
TEST_F(Scope, PlaceThatAConfiguredSourceIsNotAtDoesNotCover) {
  EXPECT_EQ(bad_scope, verify(support::idp_fields{.uris = {there}}));
  EXPECT_EQ(no_name_matched, only_line());
}

TEST_F(Scope, ConfiguredSourceCoversItsOwnUrl) {
  free(record->url);
  record->url = strdup(there.c_str());
  EXPECT_EQ(0, verify(support::idp_fields{.uris = {here, there}}));
}

TEST_F(Scope, ConfiguredSourceCoversThePointsOfTheCertificate) {
  support::cert_options options;
  options.issuer = support::common_name("issuer");
  options.extensions = {{"crlDistributionPoints", "URI:" + there}};
  cert = support::make_cert(options);
  EXPECT_EQ(0, verify(support::idp_fields{.uris = {there}}));
  EXPECT_EQ(bad_scope, verify(support::idp_fields{.uris = {here}}));
}

TEST_F(Scope, ConfiguredSourceCoversTheIssuersOwnName) {
  support::idp_fields restrictions;
  restrictions.dist_point =
      support::der_tlv(0xA0, support::der_tlv(0xA0, support::der_directory_name("issuer")));
  EXPECT_EQ(0, verify(restrictions));
}

TEST_F(Scope, PointWithoutNameIsComparedByItsIssuersNames) {
  use_point(extension_der::point(issued_by("authority")));
  name_crl_issuer("authority");
  issue_crl_as("authority");
  support::idp_fields restrictions;
  restrictions.indirect = true;
  restrictions.dist_point =
      extension_der::full_name(support::der_uri(there) + support::der_directory_name("authority"));
  EXPECT_EQ(0, verify(restrictions));
  restrictions.dist_point = extension_der::full_name(support::der_directory_name("somebody"));
  EXPECT_EQ(bad_scope, verify(restrictions));
  EXPECT_EQ(no_name_matched, only_line());
}

TEST_F(Scope, PointWithNameIsNotComparedByItsIssuersNames) {
  use_point(full_point(support::der_uri(here), issued_by("authority")));
  name_crl_issuer("authority");
  issue_crl_as("authority");
  support::idp_fields restrictions;
  restrictions.indirect = true;
  restrictions.dist_point = extension_der::full_name(support::der_directory_name("authority"));
  EXPECT_EQ(bad_scope, verify(restrictions));
  EXPECT_EQ(no_name_matched, only_line());
}

TEST_F(Scope, RelativeNameMatchesNothing) {
  support::idp_fields relative;
  relative.dist_point = extension_der::relative_name;
  use_point(full_point(support::der_uri(here)));
  EXPECT_EQ(bad_scope, verify(relative));
  EXPECT_EQ(no_name_matched, only_line());
  clear_log();
  use_point(extension_der::point(extension_der::relative_name));
  EXPECT_EQ(bad_scope, verify(relative));
  EXPECT_EQ(no_name_matched, only_line());
  clear_log();
  EXPECT_EQ(bad_scope, verify(support::idp_fields{.uris = {here}}));
  EXPECT_EQ(no_name_matched, only_line());
  EXPECT_EQ(0, verify(support::idp_fields{.user_certs = true}));
}

TEST_F(Scope, PointWithNothingMatchesNoPlace) {
  use_point(extension_der::point(extension_der::two_reasons));
  EXPECT_EQ(bad_scope, verify(support::idp_fields{.uris = {here}}));
  EXPECT_EQ(no_name_matched, only_line());
}

// ---- kinds of certificates ----

class ScopeKinds : public Scope, public testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    Scope::SetUp();
    if (GetParam())
      use_point(full_point(support::der_uri(here)));
  }
  void use_ca() {
    support::cert_options options;
    options.subject = support::common_name("sub-ca");
    options.issuer = support::common_name("issuer");
    options.ca = true;
    cert = support::make_cert(options);
  }
};
INSTANTIATE_TEST_SUITE_P(WithAndWithoutPoint, ScopeKinds, testing::Bool());

TEST_P(ScopeKinds, CrlForUsersIsNotForAuthorities) {
  EXPECT_EQ(0, verify(support::idp_fields{.user_certs = true}));
  use_ca();
  EXPECT_EQ(bad_scope, verify(support::idp_fields{.user_certs = true}));
  EXPECT_EQ("4: CRL is for user-certs only, but cert is CA-cert", only_line());
}

TEST_P(ScopeKinds, CrlForAuthoritiesIsNotForUsers) {
  EXPECT_EQ(bad_scope, verify(support::idp_fields{.ca_certs = true}));
  EXPECT_EQ("4: CRL is for ca-certs only, but cert is user-cert", only_line());
  use_ca();
  EXPECT_EQ(0, verify(support::idp_fields{.ca_certs = true}));
}

TEST_P(ScopeKinds, CrlForAttributeCertificatesIsForNobody) {
  EXPECT_EQ(bad_scope, verify(support::idp_fields{.attribute_certs = true}));
  EXPECT_EQ("4: CRL is for attribute-certs only", only_line());
  use_ca();
  EXPECT_EQ(bad_scope, verify(support::idp_fields{.attribute_certs = true}));
}

TEST_P(ScopeKinds, FirstReasonIsTheOneLogged) {
  use_ca();
  EXPECT_EQ(bad_scope, verify(support::idp_fields{.user_certs = true, .attribute_certs = true}));
  EXPECT_EQ("4: CRL is for user-certs only, but cert is CA-cert", only_line());
}

TEST_P(ScopeKinds, ReasonsDoNotMatter) {
  EXPECT_EQ(0, verify(support::idp_fields{.reasons = 2}));
  EXPECT_EQ("", log_dump());
}

// Whether it is an authority's is not known then.
TEST_P(ScopeKinds, CertificateWhoseExtensionsCannotBeReadIsOfNoKind) {
  for (const char *name : {"basicConstraints", "keyUsage"}) {
    support::cert_options options;
    options.subject = support::common_name("device");
    options.issuer = support::common_name("issuer");
    options.extensions = {extension_der::raw(name, "x")};
    cert = support::make_cert(options);
    for (const support::idp_fields &restrictions :
         {support::idp_fields{.user_certs = true}, support::idp_fields{.ca_certs = true},
          support::idp_fields{.reasons = 2}}) {
      clear_log();
      EXPECT_EQ(bad_scope, verify(restrictions));
      EXPECT_EQ("4: the cert's extensions cannot be read", only_line());
      EXPECT_EQ(0u, ERR_peek_error());
    }
    clear_log();
    EXPECT_EQ(0, verify()) << "nothing asks for its kind";
    EXPECT_EQ("", log_dump());
  }
}

// ---- looking for names ----

TEST(GeneralNames, FirstDirectoryNameIsFound) {
  general_names names =
      make_general_names(support::der_uri(here) + support::der_directory_name("first") +
                         support::der_directory_name("second"));
  X509_NAME *found = pki::cv_find_dn(names.get());
  ASSERT_NE(nullptr, found);
  EXPECT_EQ("/CN=first", one_line(found));
  EXPECT_EQ(sk_GENERAL_NAME_value(names.get(), 1)->d.directoryName, found);
}

TEST(GeneralNames, NoDirectoryNameIsNull) {
  EXPECT_EQ(nullptr, pki::cv_find_dn(make_general_names(support::der_uri(here)).get()));
  EXPECT_EQ(nullptr, pki::cv_find_dn(make_general_names("").get()));
  EXPECT_EQ(nullptr, pki::cv_find_dn(nullptr));
}

TEST(GeneralNames, FirstMatchIsTheFirstListsOwnAndEarliest) {
  general_names a =
      make_general_names(support::der_uri("a") + support::der_uri("b") + support::der_uri("c"));
  general_names b = make_general_names(support::der_uri("c") + support::der_uri("b"));
  EXPECT_EQ(sk_GENERAL_NAME_value(a.get(), 1), pki::cv_find_gn_match(a.get(), b.get()));
  EXPECT_EQ(sk_GENERAL_NAME_value(b.get(), 0), pki::cv_find_gn_match(b.get(), a.get()));
}

TEST(GeneralNames, NoMatchIsNull) {
  general_names uri = make_general_names(support::der_uri("a"));
  general_names dns = make_general_names(extension_der::tlv(0x82, "a"));
  EXPECT_EQ(nullptr, pki::cv_find_gn_match(uri.get(), dns.get()));
  EXPECT_EQ(nullptr, pki::cv_find_gn_match(uri.get(), make_general_names("").get()));
  EXPECT_EQ(nullptr, pki::cv_find_gn_match(uri.get(), nullptr));
  EXPECT_EQ(nullptr, pki::cv_find_gn_match(nullptr, uri.get()));
}

TEST(GeneralNames, EachKindOfNameEqualsItself) {
  for (int type = 0; type <= 8; type++) {
    general_names names = make_general_names(extension_der::general_name(type));
    general_names again = make_general_names(extension_der::general_name(type));
    EXPECT_EQ(sk_GENERAL_NAME_value(names.get(), 0),
              pki::cv_find_gn_match(names.get(), again.get()))
        << type;
  }
}

}  // namespace
