// Details of the grammar that a document's author may rely on.
#include <gtest/gtest.h>
#include <libpki/libpki.h>
#include <openssl/err.h>

#include <string>
#include <vector>

#include "fakes/log_capture.h"
#include "support/ca_info_doc.h"
#include "support/certs.h"

namespace {

using support::cert_element;
using support::element;

class CaInfoDetails : public support::ca_info_test {
 protected:
  support::cert cert = support::simple_cert("i", "s", 1);

  // The certificate's base64 with `columns` characters a line.
  std::string columns(size_t columns, const std::string &line_end) {
    std::string lines = support::base64_lines(support::der(cert)), text, out;
    for (char c : lines)
      if (c != '\n')
        text += c;
    for (size_t i = 0; i < text.size(); i += columns)
      out += text.substr(i, columns) + line_end;
    return out;
  }
  int parse_root_cert(const std::string &text) {
    return parse_body(element("TrustedRoots", element("X509Certificate", text)));
  }
};

TEST_F(CaInfoDetails, EveryUrlArrivesDecoded) {
  const std::string url = "url=\"x://h/?a=1&amp;b=&lt;2&gt;\"";
  const char plain[] = "x://h/?a=1&b=<2>";
  ASSERT_EQ(parse_body(element("CertReqMethod", element("SCEP", "", url)) +
                       element("CertLookupMethod",
                               element("SCEPGetCert", "", url) + element("LDAPGetCert", "", url)) +
                       element("CertStatusQueryMethod", element("OCSP", "", url))),
            0);
  EXPECT_STREQ(scep_method()->url, plain);
  EXPECT_STREQ(scep_query(0)->url, plain);
  EXPECT_STREQ(ldap_query(1)->url, plain);
  EXPECT_STREQ(ocsp_method()->url, plain);
}

TEST_F(CaInfoDetails, AttributesAreDecodedOnce) {
  ASSERT_EQ(parse_body(element("CertReqMethod",
                               element("SCEP", "", "url=\"http://h/?a=&amp;amp;&#38;lt;\""))),
            0);
  EXPECT_STREQ(scep_method()->url, "http://h/?a=&amp;&lt;");
}

TEST_F(CaInfoDetails, LookupMethodsKeepDocumentOrder) {
  ASSERT_EQ(
      parse_body(element("CertLookupMethod", element("LDAPGetCert", "", "url=\"ldap://1\"") +
                                                 element("SCEPGetCert", "", "url=\"http://2\"") +
                                                 element("LDAPGetCert", "", "url=\"ldap://3\""))),
      0);
  ASSERT_EQ(OPENSSL_sk_num(ca->cert_lookup_methods), 3);
  EXPECT_STREQ(ldap_query(0)->url, "ldap://1");
  EXPECT_STREQ(scep_query(1)->url, "http://2");
  EXPECT_STREQ(ldap_query(2)->url, "ldap://3");
}

TEST_F(CaInfoDetails, OcspRuleAppliesToEveryCertificate) {
  ASSERT_EQ(
      parse_body(element("CertStatusQueryMethod", element("OCSP", "", "url=\"http://a\"") +
                                                      element("OCSP", "", "url=\"http://b\""))),
      0);
  ASSERT_EQ(OPENSSL_sk_num(ca->cert_status_methods), 2);
  auto *rule = support::at<cert_status_info>(ca->cert_status_methods, 0);
  EXPECT_EQ(OPENSSL_sk_num(rule->rules), 0);
  EXPECT_EQ(rule->flags, 0u);
  EXPECT_EQ(ocsp_method(0)->option, 0u);
  EXPECT_STREQ(ocsp_method(1)->url, "http://b");
}

TEST_F(CaInfoDetails, ChildrenOfCrsGetCertAreIgnored) {
  ASSERT_EQ(parse_body(element("CertLookupMethod", element("CRSGetCert", cert_element(cert)))), 0);
  EXPECT_EQ(captured_log(),
            (std::vector<log_entry>{
                {4, "Parsing ca-info document: ignoring unexpected tag 'X509Certificate'"}}));
  EXPECT_EQ(OPENSSL_sk_num(ca->cert_lookup_methods), 0);
}

TEST_F(CaInfoDetails, CertificateMayStandInLinesOfOtherLengths) {
  for (size_t width : {4u, 60u, 64u, 76u}) {
    EXPECT_EQ(parse_root_cert("\n" + columns(width, "\n")), 0) << width;
    EXPECT_EQ(parse_root_cert(columns(width, "\r\n")), 0) << width;
  }
  EXPECT_EQ(OPENSSL_sk_num(ca->trusted_roots), 8);
}

TEST_F(CaInfoDetails, CertificateInOneLongLineIsNotUnderstood) {
  EXPECT_EQ(parse_root_cert(columns(100000, "")), PKI_XML_CERT_DEC_FAILED);
}

TEST_F(CaInfoDetails, CertificateSplitByACommentIsOneText) {
  std::string text = columns(64, "\n");
  text.insert(65 * 3, "<!-- half -->");
  EXPECT_EQ(parse_root_cert(text), 0) << log_dump();
  EXPECT_EQ(support::ders(ca->trusted_roots), std::vector<std::string>{support::der(cert)});
}

TEST_F(CaInfoDetails, TruncatedCertificateIsRefused) {
  std::string der = support::der(cert);
  EXPECT_EQ(parse_root_cert("\n" + support::base64_lines(der.substr(0, der.size() - 1))),
            PKI_XML_CERT_DEC_FAILED);
  EXPECT_EQ(OPENSSL_sk_num(ca->trusted_roots), 0);
}

TEST_F(CaInfoDetails, AllocationFailureInTheQueueIsOutOfMemory) {
  support::raise_openssl_error(ERR_R_MALLOC_FAILURE);
  EXPECT_EQ(parse_root_cert("\nno certificate\n"), PKI_OUT_OF_MEMORY);
}

TEST_F(CaInfoDetails, RecordsBeforeAnErrorStay) {
  EXPECT_EQ(parse_body(element("TrustedRoots", cert_element(cert)) +
                       element("CertReqMethod", element("SCEP", "", "url=\"http://a\"")) +
                       element("IssuerName", "no name")),
            PKI_DN_NO_VALUE);
  EXPECT_EQ(OPENSSL_sk_num(ca->trusted_roots), 1);
  EXPECT_STREQ(scep_method()->url, "http://a");
}

TEST_F(CaInfoDetails, FirstErrorWins) {
  EXPECT_EQ(
      parse_body(element("TrustedRoots", element("X509Certificate", "no\n")) +
                 element("IssuerName", "no name") + element("CertReqMethod", element("SCEP"))),
      PKI_XML_CERT_DEC_FAILED);
  EXPECT_FALSE(logged_containing(4, "no '='")) << log_dump();
}

TEST_F(CaInfoDetails, ExpiryErrorBehindAnotherErrorIsNotRecorded) {
  EXPECT_EQ(parse_body(element("IssuerName", "no name") + element("Expires", "never")),
            PKI_DN_NO_VALUE);
}

TEST_F(CaInfoDetails, ExpiryInsideAnIgnoredElementDoesNoHarm) {
  EXPECT_EQ(parse_body(element("x", element("Expires", "never")) + element("IssuerName", "CN=a")),
            0);
  EXPECT_EQ(support::oneline(ca->issuer_name), "/CN=a");
}

TEST_F(CaInfoDetails, ExpiryBeforeClosingTagsAndInstructionsIsTheLastElement) {
  EXPECT_EQ(parse("<QRNPkiConfig>" + element("IssuerName", "CN=a") + element("Expires", "never") +
                  "\n <?app go?> <!-- c --> </QRNPkiConfig>\n<!-- c --><?app go?>\n"),
            0);
  EXPECT_EQ(captured_log().size(), 1u) << log_dump();
  EXPECT_EQ(captured_log()[0].level, 4) << log_dump();
}

TEST_F(CaInfoDetails, RefusedExpiryLeavesWhatFollowsUnread) {
  EXPECT_EQ(parse_body(element("TrustedRoots", cert_element(cert)) +
                       element("Expires", "Sun, 06 Nov 2044 08:49:37 GMT") +
                       element("AdditionalCerts", cert_element(cert))),
            PKI_TIME_INVALID_MONTH);
  EXPECT_EQ(OPENSSL_sk_num(ca->trusted_roots), 1);
  EXPECT_EQ(OPENSSL_sk_num(pki_store->provisioned_certs), 0);
}

TEST_F(CaInfoDetails, EmptyExpiryBehindOtherTextLacksItsDay) {
  EXPECT_EQ(parse_body(element("IssuerName", "CN=a") + element("Expires")), 0);
  EXPECT_EQ(parse_body(element("IssuerName", "CN=a") + element("Expires") + "<x/>"),
            PKI_TIME_DAY_NOT_FOUND);
}

TEST_F(CaInfoDetails, DocumentMayStartWithADeclarationAndAMark) {
  EXPECT_EQ(parse("\xef\xbb\xbf<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n" +
                  support::ca_info_doc(element("IssuerName", "CN=a"))),
            0);
  EXPECT_EQ(support::oneline(ca->issuer_name), "/CN=a");
}

TEST_F(CaInfoDetails, TextInAnotherEncodingArrivesAsUtf8) {
  EXPECT_EQ(parse("<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>" +
                  support::ca_info_doc(element("IssuerName", "CN=caf\xe9"))),
            0);
  EXPECT_EQ(support::oneline(ca->issuer_name), "/CN=caf\\xC3\\xA9");
}

}  // namespace
