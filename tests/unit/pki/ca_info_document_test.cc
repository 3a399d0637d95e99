// Well-formed CA-info documents: what enters the record and the store, and with which code the
// first element that is wrong ends the reading.
#include <gtest/gtest.h>
#include <libpki/libpki.h>

#include <cstring>
#include <string>
#include <vector>

#include "fakes/log_capture.h"
#include "support/ca_info_doc.h"
#include "support/certs.h"

namespace {

using support::ca_info_doc;
using support::cert_element;
using support::der;
using support::ders;
using support::element;
using support::sample;
using support::sample_difference;
using support::simple_cert;

const char date[] = "Sun, 06 Nov 2044 08:49:37 GMT";

std::string method(const std::string &url, const std::string &content = "") {
  return element("CertReqMethod", element("SCEP", content, "url=\"" + url + "\""));
}

std::string issuer(const std::string &text) {
  return element("IssuerName", text);
}

std::string ignoring(const std::string &tag) {
  return "Parsing ca-info document: ignoring unexpected tag '" + tag + "'";
}

std::string no_attribute(const std::string &attribute, const std::string &tag) {
  return "Error parsing ca-info document: attribute " + attribute + " not found for tag " + tag;
}

size_t lines_at(int level) {
  size_t count = 0;
  for (const log_entry &line : captured_log())
    count += line.level == level;
  return count;
}

class CaInfoDocument : public support::ca_info_test {
 protected:
  static int count(const STACK *list) { return OPENSSL_sk_num(list); }
  std::vector<int> counts() const {
    return {count(ca->cert_req_methods), count(ca->cert_lookup_methods),
            count(ca->cert_status_methods), count(ca->trusted_roots),
            count(pki_store->provisioned_certs)};
  }
  bool expires_is_zero() const {
    struct tm zero = {};
    return memcmp(&ca->expires, &zero, sizeof zero) == 0;
  }
};

const std::vector<int> nothing = {0, 0, 0, 0, 0};

// ---- what is stored ----

TEST_F(CaInfoDocument, WholeDocumentFillsEveryField) {
  ASSERT_EQ(parse(sample().document), 0) << log_dump();
  EXPECT_EQ(sample_difference(ca.get()), "");
  EXPECT_EQ(ders(pki_store->provisioned_certs), std::vector<std::string>{der(sample().additional)});
  EXPECT_TRUE(expires_is_zero());
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(CaInfoDocument, MethodsHaveTheirMechanismNumbers) {
  ASSERT_EQ(parse(sample().document), 0);
  EXPECT_EQ(support::at<cert_req_info>(ca->cert_req_methods, 0)->mechanism, PKI_CERT_REQ_SCEP);
  EXPECT_EQ(support::at<cert_query_info>(ca->cert_lookup_methods, 0)->mechanism,
            PKI_CERT_QUERY_SCEP);
  EXPECT_EQ(support::at<cert_query_info>(ca->cert_lookup_methods, 1)->mechanism,
            PKI_CERT_QUERY_LDAP);
  auto *status = support::at<cert_status_info>(ca->cert_status_methods, 0);
  EXPECT_EQ(status->mechanism, PKI_STATUS_OCSP);
  EXPECT_EQ(count(status->rules), 0);
  EXPECT_EQ(ocsp_method()->responder_cert, nullptr);
}

TEST_F(CaInfoDocument, EmptyRootStoresNothing) {
  EXPECT_EQ(parse_body(""), 0);
  EXPECT_EQ(counts(), nothing);
  EXPECT_EQ(ca->issuer_name, nullptr);
}

TEST_F(CaInfoDocument, ScepMethodsKeepDocumentOrder) {
  ASSERT_EQ(parse_body(element("CertReqMethod", element("SCEP", "", "url=\"http://a/\"") +
                                                    element("SCEP", "", "url=\"http://b/\"")) +
                       method("http://c/")),
            0);
  ASSERT_EQ(count(ca->cert_req_methods), 3);
  EXPECT_STREQ(scep_method(0)->url, "http://a/");
  EXPECT_STREQ(scep_method(1)->url, "http://b/");
  EXPECT_STREQ(scep_method(2)->url, "http://c/");
}

TEST_F(CaInfoDocument, DetailsGoToTheScepMethodThatHoldsThem) {
  auto first = simple_cert("i", "first", 1);
  auto second = simple_cert("i", "second", 2);
  ASSERT_EQ(parse_body(method("http://a/", cert_element(first)) +
                       method("http://b/", element("Digest", "", "alg=\"MD5\"") +
                                               element("Cipher", "", "alg=\"DES-CBC\"") +
                                               cert_element(second))),
            0);
  EXPECT_EQ(scep_method(0)->digest, nullptr);
  EXPECT_EQ(scep_method(0)->cipher, nullptr);
  EXPECT_EQ(X509_cmp(scep_method(0)->ca_cert, first.get()), 0);
  EXPECT_STREQ(scep_method(1)->digest, "MD5");
  EXPECT_STREQ(scep_method(1)->cipher, "DES-CBC");
  EXPECT_EQ(X509_cmp(scep_method(1)->ca_cert, second.get()), 0);
}

TEST_F(CaInfoDocument, AttributeValuesArriveDecoded) {
  ASSERT_EQ(parse_body(method("http://a/?x=1&amp;y=&quot;&lt;&#65;&#x42;&gt;&apos;")), 0);
  EXPECT_STREQ(scep_method()->url, "http://a/?x=1&y=\"<AB>'");
}

TEST_F(CaInfoDocument, TextArrivesDecoded) {
  ASSERT_EQ(parse_body(issuer("CN=a &amp; b&#33;<![CDATA[ <c>]]>")), 0);
  EXPECT_EQ(support::oneline(ca->issuer_name), "/CN=a & b! <c>");
}

TEST_F(CaInfoDocument, AttributeNamesMayHaveAnyLetterCase) {
  ASSERT_EQ(
      parse_body(element("CertReqMethod", element("SCEP", element("Digest", "", "ALG=\"SHA1\""),
                                                  "other=\"1\" uRL=\"http://a/\""))),
      0);
  EXPECT_STREQ(scep_method()->url, "http://a/");
  EXPECT_STREQ(scep_method()->digest, "SHA1");
}

TEST_F(CaInfoDocument, ElementNamesMayHaveAnyLetterCase) {
  ASSERT_EQ(parse("<qrnpkiconfig><ISSUERNAME>CN=a</ISSUERNAME><certreqmethod>"
                  "<scep url=\"http://a/\"/></certreqmethod><CERTSTATUSQUERYMETHOD>"
                  "<ocsp url=\"http://b/\"/></CERTSTATUSQUERYMETHOD></qrnpkiconfig>"),
            0);
  EXPECT_EQ(support::oneline(ca->issuer_name), "/CN=a");
  EXPECT_STREQ(scep_method()->url, "http://a/");
  EXPECT_STREQ(ocsp_method()->url, "http://b/");
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(CaInfoDocument, RootsKeepDocumentOrder) {
  auto one = simple_cert("i", "one", 1);
  auto two = simple_cert("i", "two", 2);
  ASSERT_EQ(parse_body(element("TrustedRoots", cert_element(one) + cert_element(two))), 0);
  EXPECT_EQ(ders(ca->trusted_roots), (std::vector<std::string>{der(one), der(two)}));
}

TEST_F(CaInfoDocument, AdditionalCertificatesFollowThoseOfTheStore) {
  auto before = simple_cert("i", "before", 1);
  auto one = simple_cert("i", "one", 2);
  auto two = simple_cert("i", "two", 3);
  ASSERT_EQ(pki_add_untrusted_cert(before.get(), 1), 0);
  ASSERT_EQ(parse_body(element("AdditionalCerts", cert_element(one) + cert_element(two))), 0);
  EXPECT_EQ(ders(pki_store->provisioned_certs),
            (std::vector<std::string>{der(before), der(one), der(two)}));
}

TEST_F(CaInfoDocument, CrsIsAcceptedAndNotStored) {
  std::string crs = element("CRS", cert_element(simple_cert("i", "s", 1)) +
                                       element("Digest", "", "alg=\"SHA1\"") + element("Cipher"));
  ASSERT_EQ(parse_body(element("CertReqMethod", crs) +
                       element("CertLookupMethod", element("CRSGetCert"))),
            0);
  EXPECT_EQ(counts(), nothing);
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(CaInfoDocument, CrsTextDoesNotReachTheNextElement) {
  ASSERT_EQ(
      parse_body(element("CertReqMethod", element("CRS", element("X509Certificate", "stray"))) +
                 " stray " + issuer("CN=a")),
      0);
  EXPECT_EQ(support::oneline(ca->issuer_name), "/CN=a");
}

TEST_F(CaInfoDocument, CertificateInsideOcspIsReportedAndPassedOver) {
  ASSERT_EQ(parse_body(element("CertStatusQueryMethod",
                               element("OCSP", cert_element(simple_cert("i", "s", 1)),
                                       "url=\"http://a/\"")) +
                       issuer("CN=a")),
            0);
  EXPECT_EQ(captured_log(),
            (std::vector<log_entry>{{3,
                                     "Internal error parsing ca-info document: unexpected state "
                                     "24, tag 'X509Certificate'"}}))
      << log_dump();
  EXPECT_EQ(ocsp_method()->responder_cert, nullptr);
  EXPECT_EQ(support::oneline(ca->issuer_name), "/CN=a");
}

TEST_F(CaInfoDocument, SecondIssuerNameReplacesTheFirst) {
  ASSERT_EQ(parse_body(issuer("CN=a") + issuer("CN=b, C=US")), 0);
  EXPECT_EQ(support::oneline(ca->issuer_name), "/C=US/CN=b");
}

TEST_F(CaInfoDocument, EmptyIssuerNameBehindOtherTextIsTheEmptyName) {
  ASSERT_EQ(parse_body(issuer("CN=a") + issuer("")), 0);
  EXPECT_EQ(support::oneline(ca->issuer_name), "");
}

// ---- unknown elements ----

TEST_F(CaInfoDocument, UnknownElementsAreSkippedWithALineEach) {
  ASSERT_EQ(parse_body("<x><y><IssuerName>CN=no</IssuerName></y></x>" + issuer("CN=yes")), 0);
  EXPECT_EQ(
      captured_log(),
      (std::vector<log_entry>{{4, ignoring("x")}, {4, ignoring("y")}, {4, ignoring("IssuerName")}}))
      << log_dump();
  EXPECT_EQ(support::oneline(ca->issuer_name), "/CN=yes");
}

TEST_F(CaInfoDocument, KnownElementInTheWrongPlaceIsUnknown) {
  ASSERT_EQ(parse_body(element("SCEP", "", "url=\"http://a/\"") +
                       element("TrustedRoots", element("IssuerName", "CN=no"))),
            0);
  EXPECT_EQ(counts(), nothing);
  EXPECT_EQ(ca->issuer_name, nullptr);
  EXPECT_EQ(captured_log(),
            (std::vector<log_entry>{{4, ignoring("SCEP")}, {4, ignoring("IssuerName")}}))
      << log_dump();
}

TEST_F(CaInfoDocument, UnknownRootIsSkippedWhole) {
  ASSERT_EQ(parse(element("Other", issuer("CN=no"))), 0);
  EXPECT_EQ(ca->issuer_name, nullptr);
  EXPECT_EQ(lines_at(4), 2u) << log_dump();
}

TEST_F(CaInfoDocument, ChildOfATextElementDoesNotAddItsText) {
  ASSERT_EQ(parse_body(issuer("CN=a<x>b</x>c")), 0);
  EXPECT_EQ(support::oneline(ca->issuer_name), "/CN=ac");
}

// ---- attributes that are missing ----

struct missing {
  std::string parent, tag, attribute;
};

class CaInfoMissingAttribute : public CaInfoDocument,
                               public testing::WithParamInterface<missing> {};

TEST_P(CaInfoMissingAttribute, EndsTheReadingWithItsLine) {
  const auto &[parent, tag, attribute] = GetParam();
  EXPECT_EQ(parse_body(element(parent, element(tag, "", "other=\"1\"")) + issuer("CN=a")), 32);
  EXPECT_EQ(captured_log(), (std::vector<log_entry>{{3, no_attribute(attribute, tag)}}))
      << log_dump();
  EXPECT_EQ(ca->issuer_name, nullptr);
}

INSTANTIATE_TEST_SUITE_P(Elements, CaInfoMissingAttribute,
                         testing::Values(missing{"CertReqMethod", "SCEP", "url"},
                                         missing{"CertLookupMethod", "SCEPGetCert", "url"},
                                         missing{"CertLookupMethod", "LDAPGetCert", "url"},
                                         missing{"CertStatusQueryMethod", "OCSP", "url"}),
                         [](const auto &tested) { return tested.param.tag; });

TEST_F(CaInfoDocument, DigestAndCipherNeedTheirAlgorithm) {
  for (const char *tag : {"Digest", "Cipher"}) {
    clear_log();
    EXPECT_EQ(parse_body(method("http://a/", element(tag)) + issuer("CN=a")), 32);
    EXPECT_EQ(captured_log(), (std::vector<log_entry>{{3, no_attribute("alg", tag)}}))
        << log_dump();
    EXPECT_EQ(ca->issuer_name, nullptr);
  }
}

TEST_F(CaInfoDocument, MethodWithoutItsUrlStaysInTheRecord) {
  EXPECT_EQ(parse_body(element("CertReqMethod", element("SCEP"))), 32);
  ASSERT_EQ(count(ca->cert_req_methods), 1);
  EXPECT_EQ(scep_method()->url, nullptr);
}

// ---- texts that are wrong ----

TEST_F(CaInfoDocument, CertificateThatDoesNotDecodeGives33) {
  EXPECT_EQ(
      parse_body(element("TrustedRoots", element("X509Certificate", "\nAAAA\n")) + issuer("CN=a")),
      33);
  EXPECT_TRUE(logged_containing(3, "OpenSSL error: ")) << log_dump();
  EXPECT_EQ(counts(), nothing);
  EXPECT_EQ(ca->issuer_name, nullptr);
}

TEST_F(CaInfoDocument, CertificateInTheMethodsMustDecodeToo) {
  std::string bad = element("X509Certificate", "\nAAAA\n");
  EXPECT_EQ(parse_body(method("http://a/", bad)), 33);
  EXPECT_EQ(scep_method()->ca_cert, nullptr);
  EXPECT_EQ(
      parse_body(element("CertLookupMethod", element("SCEPGetCert", bad, "url=\"http://a/\""))),
      33);
  EXPECT_EQ(scep_query()->ca_cert, nullptr);
  EXPECT_EQ(parse_body(element("AdditionalCerts", bad)), 33);
  EXPECT_EQ(count(pki_store->provisioned_certs), 0);
}

TEST_F(CaInfoDocument, FirstTextElementWithoutTextGives35) {
  for (const std::string &first : {element("IssuerName"), element("Expires"),
                                   element("TrustedRoots", element("X509Certificate")),
                                   element("AdditionalCerts", element("X509Certificate")),
                                   method("http://a/", element("X509Certificate"))}) {
    EXPECT_EQ(parse_body(first), 35) << first;
    EXPECT_EQ(ca->issuer_name, nullptr);
  }
}

TEST_F(CaInfoDocument, EmptyCertificateBehindOtherTextGives33) {
  EXPECT_EQ(parse_body(issuer("CN=a") + element("TrustedRoots", element("X509Certificate"))), 33);
}

TEST_F(CaInfoDocument, IssuerNameWithUnknownKeyGives53) {
  EXPECT_EQ(parse_body(issuer("nosuchkey=a")), 53);
  EXPECT_TRUE(was_logged(3, "Unknown key `nosuchkey' in name 'nosuchkey=a'")) << log_dump();
  EXPECT_EQ(ca->issuer_name, nullptr);
}

TEST_F(CaInfoDocument, IssuerNameWithoutValueGives54) {
  EXPECT_EQ(parse_body(issuer("CN=a, rest")), 54);
  EXPECT_TRUE(was_logged(4, "no '=' found for key 'rest' in string 'CN=a, rest'")) << log_dump();
  EXPECT_EQ(ca->issuer_name, nullptr);
}

TEST_F(CaInfoDocument, IssuerNameWithOpenQuoteGives55) {
  EXPECT_EQ(parse_body(issuer("CN=\"a")), 55);
  EXPECT_EQ(ca->issuer_name, nullptr);
}

// ---- expiry ----

TEST_F(CaInfoDocument, ExpiryAtTheEndIsToleratedWithALine) {
  ASSERT_EQ(parse_body(issuer("CN=a") + element("Expires", date) + " <!-- end -->\n"), 0);
  EXPECT_EQ(lines_at(4), 1u) << log_dump();
  EXPECT_EQ(captured_log().size(), 1u) << log_dump();
  EXPECT_EQ(support::oneline(ca->issuer_name), "/CN=a");
  EXPECT_EQ(ca->expires.tm_mday, 6);
}

TEST_F(CaInfoDocument, ExpiryBeforeAnotherElementRefusesTheDocument) {
  EXPECT_EQ(parse_body(element("Expires", date) + issuer("CN=a")), 37);
  EXPECT_EQ(ca->issuer_name, nullptr);
}

TEST_F(CaInfoDocument, ExpiryBeforeAnUnknownElementRefusesTheDocument) {
  EXPECT_EQ(parse_body(element("Expires", date) + "<x/>"), 37);
}

TEST_F(CaInfoDocument, ExpiryThatEndsBehindTheMonthLacksItsYear) {
  EXPECT_EQ(parse_body(element("Expires", "06 Nov") + issuer("CN=a")), 38);
  EXPECT_EQ(parse_body(element("Expires", "06 Nov")), 0);
}

TEST_F(CaInfoDocument, ExpiryWithoutADayLacksIt) {
  EXPECT_EQ(parse_body(element("Expires", "never") + issuer("CN=a")), 36);
  EXPECT_EQ(parse_body(element("Expires", "never")), 0);
}

TEST_F(CaInfoDocument, SecondExpiryIsAnElementLeftUnread) {
  EXPECT_EQ(parse_body(element("Expires", date) + element("Expires", "07 Dec")), 37);
  EXPECT_EQ(ca->expires.tm_mday, 6);
}

TEST_F(CaInfoDocument, MalformedEndIsReportedBeforeTheExpiry) {
  EXPECT_EQ(parse("<QRNPkiConfig>" + element("Expires", date)), 34);
}

// ---- first error, depth, arguments ----

TEST_F(CaInfoDocument, AdditionalCertificatesStayWhenALaterElementFails) {
  auto extra = simple_cert("i", "extra", 1);
  EXPECT_EQ(parse_body(element("AdditionalCerts", cert_element(extra)) +
                       element("CertReqMethod", element("SCEP"))),
            32);
  EXPECT_EQ(ders(pki_store->provisioned_certs), std::vector<std::string>{der(extra)});
}

TEST_F(CaInfoDocument, NothingIsReadBehindTheFirstError) {
  EXPECT_EQ(parse_body(issuer("CN") + element("CertReqMethod", element("SCEP")) +
                       element("AdditionalCerts", cert_element(simple_cert("i", "s", 1))) + "<x/>"),
            54);
  EXPECT_EQ(counts(), nothing);
  EXPECT_EQ(captured_log().size(), 1u) << log_dump();
}

TEST_F(CaInfoDocument, ThirtyNineNestedElementsAreRead) {
  EXPECT_EQ(parse(support::nested_elements(39)), 0);
  EXPECT_EQ(count_logged(4, ignoring("x")), 39u);
}

TEST_F(CaInfoDocument, FortiethNestedElementGives30) {
  EXPECT_EQ(parse(support::nested_elements(40)), 30);
  EXPECT_EQ(count_logged(4, ignoring("x")), 40u);
}

TEST_F(CaInfoDocument, DepthCountsOpenElementsOnly) {
  std::string flat;
  for (int i = 0; i < 100; i++)
    flat += "<x/>";
  EXPECT_EQ(parse_body(flat + issuer("CN=a")), 0);
  EXPECT_EQ(support::oneline(ca->issuer_name), "/CN=a");
}

TEST_F(CaInfoDocument, MalformedDocumentGives34) {
  for (const char *text : {"", " ", "text", "<QRNPkiConfig>", "<QRNPkiConfig></Other>",
                           "<QRNPkiConfig/><QRNPkiConfig/>", "<QRNPkiConfig a=b/>",
                           "<QRNPkiConfig a=\"1\" a=\"2\"/>", "<QRNPkiConfig>&lt</QRNPkiConfig>"})
    EXPECT_EQ(parse(text), 34) << text;
}

TEST_F(CaInfoDocument, MalformedIsReportedBeforeWhatAnElementRecorded) {
  EXPECT_EQ(parse("<QRNPkiConfig>" + element("CertReqMethod", element("SCEP"))), 34);
}

TEST_F(CaInfoDocument, MissingArgumentsAndNegativeLengthGive63) {
  const auto *text = reinterpret_cast<const unsigned char *>("<QRNPkiConfig/>");
  EXPECT_EQ(parse_ca_info_doc(nullptr, 0, pki_store, ca.get()), 63);
  EXPECT_EQ(parse_ca_info_doc(text, 15, nullptr, ca.get()), 63);
  EXPECT_EQ(parse_ca_info_doc(text, 15, pki_store, nullptr), 63);
  EXPECT_EQ(parse_ca_info_doc(text, -1, pki_store, ca.get()), 63);
  EXPECT_EQ(parse_ca_info_doc(text, 15, pki_store, ca.get()), 0);
}

}  // namespace
