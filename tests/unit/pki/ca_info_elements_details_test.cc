// What a document's elements put into the CA, and details that their author may rely on.
#include <gtest/gtest.h>
#include <libpki/libpki.h>
#include <openssl/err.h>

#include <cstring>
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
  // Records and certificates of all lists.
  int stored() const {
    int count = 0;
    for (const STACK *list :
         {ca->cert_req_methods, ca->cert_lookup_methods, ca->cert_status_methods, ca->trusted_roots,
          pki_store->provisioned_certs})
      count += OPENSSL_sk_num(list);
    return count;
  }
  // A certificate with a key of a kind that nobody knows.
  static std::string der_with_unknown_key() {
    std::string octets = support::der(support::simple_cert("i", "unknown key", 5));
    const std::string rsa("\x2a\x86\x48\x86\xf7\x0d\x01\x01\x01", 9);
    size_t at = octets.find(rsa);
    EXPECT_NE(at, std::string::npos);
    octets[at + 8] = 0x7f;
    return octets;
  }
  // The expiry as far as it was read: day and month.
  void expect_expiry(int day, int month) {
    struct tm expected = {};
    expected.tm_mday = day;
    expected.tm_mon = month;
    EXPECT_EQ(memcmp(&ca->expires, &expected, sizeof expected), 0)
        << ca->expires.tm_mday << "." << ca->expires.tm_mon << "." << ca->expires.tm_year << " "
        << ca->expires.tm_hour << ":" << ca->expires.tm_min;
  }
  int parse_root_cert(const std::string &text) {
    return parse_body(element("TrustedRoots", element("X509Certificate", text)));
  }
};

TEST_F(CaInfoDetails, WholeDocumentFillsEveryField) {
  ASSERT_EQ(parse(support::sample().document), 0) << log_dump();
  EXPECT_EQ(support::sample_difference(ca.get()), "");
  EXPECT_EQ(support::ders(pki_store->provisioned_certs),
            std::vector<std::string>{support::der(support::sample().additional)});
  const struct tm zero = {};
  EXPECT_EQ(memcmp(&ca->expires, &zero, sizeof zero), 0);
  EXPECT_EQ(captured_log(), std::vector<log_entry>());
}

// OpenSSL wipes a whole buffer for each text, however short it is.
TEST_F(CaInfoDetails, ShortTextsBehindALongOneAreCheap) {
  std::string names;
  for (int i = 0; i < 120'000; i++)
    names += "<IssuerName>CN=" + std::to_string(i) + "</IssuerName>";
  auto seconds_to_parse = [&](const std::string &line_ends) {
    std::string text = support::base64_lines(support::der(cert)) + line_ends;
    timespec begin, end;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &begin);
    EXPECT_EQ(parse_body(element("TrustedRoots", element("X509Certificate", text)) + names), 0);
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &end);
    EXPECT_EQ(support::oneline(ca->issuer_name), "/CN=119999");
    return static_cast<double>(end.tv_sec - begin.tv_sec) +
           static_cast<double>(end.tv_nsec - begin.tv_nsec) / 1e9;
  };
  double behind_a_short_one = seconds_to_parse("");
  EXPECT_LT(seconds_to_parse(std::string(5'000'000, '\n')), 4 * behind_a_short_one + 1);
}

TEST_F(CaInfoDetails, MethodsHaveTheirMechanismNumbers) {
  ASSERT_EQ(parse(support::sample().document), 0);
  EXPECT_EQ(support::at<cert_req_info>(ca->cert_req_methods, 0)->mechanism, PKI_CERT_REQ_SCEP);
  EXPECT_EQ(support::at<cert_query_info>(ca->cert_lookup_methods, 0)->mechanism,
            PKI_CERT_QUERY_SCEP);
  EXPECT_EQ(support::at<cert_query_info>(ca->cert_lookup_methods, 1)->mechanism,
            PKI_CERT_QUERY_LDAP);
  EXPECT_EQ(support::at<cert_status_info>(ca->cert_status_methods, 0)->mechanism, PKI_STATUS_OCSP);
}

TEST_F(CaInfoDetails, EmptyRootStoresNothing) {
  EXPECT_EQ(parse_body(""), 0);
  EXPECT_EQ(stored(), 0);
  EXPECT_EQ(ca->issuer_name, nullptr);
}

TEST_F(CaInfoDetails, EveryUrlArrivesDecoded) {
  const std::string url = "url=\"x://h/?a=1&amp;b=&lt;2&gt;&quot;&#65;&#x42;&apos;\"";
  const char plain[] = "x://h/?a=1&b=<2>\"AB'";
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

TEST_F(CaInfoDetails, CharacterDataSectionsArePartOfTheText) {
  ASSERT_EQ(parse_body(element("IssuerName", "CN=a &amp; b&#33;<![CDATA[ <c>]]>")), 0);
  EXPECT_EQ(support::oneline(ca->issuer_name), "/CN=a & b! <c>");
}

TEST_F(CaInfoDetails, ChildOfATextElementDoesNotAddItsText) {
  ASSERT_EQ(parse_body(element("IssuerName", "CN=a<x>b</x>c")), 0);
  EXPECT_EQ(support::oneline(ca->issuer_name), "/CN=ac");
}

TEST_F(CaInfoDetails, ScepMethodsKeepDocumentOrderAndTheirOwnDetails) {
  auto scep = [](const std::string &url, const std::string &details) {
    return element("SCEP", details, "url=\"" + url + "\"");
  };
  support::cert second = support::simple_cert("i", "second", 2);
  ASSERT_EQ(parse_body(element("CertReqMethod",
                               scep("http://1", cert_element(cert)) +
                                   scep("http://2", cert_element(second) +
                                                        element("Digest", "", "alg=\"MD5\""))) +
                       element("CertReqMethod", scep("http://3", ""))),
            0);
  ASSERT_EQ(OPENSSL_sk_num(ca->cert_req_methods), 3);
  EXPECT_STREQ(scep_method(0)->url, "http://1");
  EXPECT_STREQ(scep_method(1)->url, "http://2");
  EXPECT_STREQ(scep_method(2)->url, "http://3");
  EXPECT_EQ(X509_cmp(scep_method(0)->ca_cert, cert.get()), 0);
  EXPECT_EQ(X509_cmp(scep_method(1)->ca_cert, second.get()), 0);
  EXPECT_EQ(scep_method(2)->ca_cert, nullptr);
  EXPECT_EQ(scep_method(0)->digest, nullptr);
  EXPECT_STREQ(scep_method(1)->digest, "MD5");
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

TEST_F(CaInfoDetails, CertificateInsideOcspIsReportedAndPassedOver) {
  ASSERT_EQ(parse_body(element("CertStatusQueryMethod",
                               element("OCSP", cert_element(cert), "url=\"http://a/\"")) +
                       element("IssuerName", "CN=a")),
            0);
  EXPECT_EQ(captured_log(),
            (std::vector<log_entry>{{3,
                                     "Internal error parsing ca-info document: unexpected state "
                                     "24, tag 'X509Certificate'"}}));
  EXPECT_EQ(ocsp_method()->responder_cert, nullptr);
  EXPECT_EQ(support::oneline(ca->issuer_name), "/CN=a");
}

TEST_F(CaInfoDetails, UnknownElementsAreSkippedWithALineEach) {
  auto ignoring = [](const std::string &tag) {
    return log_entry{4, "Parsing ca-info document: ignoring unexpected tag '" + tag + "'"};
  };
  ASSERT_EQ(
      parse_body("<x><y><IssuerName>CN=no</IssuerName></y></x>" + element("IssuerName", "CN=yes")),
      0);
  EXPECT_EQ(captured_log(),
            (std::vector<log_entry>{ignoring("x"), ignoring("y"), ignoring("IssuerName")}));
  EXPECT_EQ(support::oneline(ca->issuer_name), "/CN=yes");
}

TEST_F(CaInfoDetails, UnknownRootIsSkippedWhole) {
  ASSERT_EQ(parse(element("Other", element("IssuerName", "CN=no"))), 0);
  EXPECT_EQ(ca->issuer_name, nullptr);
  EXPECT_EQ(captured_log().size(), 2u) << log_dump();
}

TEST_F(CaInfoDetails, CrsIsAcceptedAndNotStored) {
  std::string details = cert_element(cert) + element("X509Certificate", "stray") +
                        element("Digest", "", "alg=\"SHA1\"") + element("Cipher");
  ASSERT_EQ(parse_body(element("CertReqMethod", element("CRS", details)) +
                       element("CertLookupMethod", element("CRSGetCert")) + " stray " +
                       element("IssuerName", "CN=a")),
            0);
  EXPECT_EQ(stored(), 0);
  EXPECT_EQ(captured_log(), std::vector<log_entry>());
  EXPECT_EQ(support::oneline(ca->issuer_name), "/CN=a");
}

TEST_F(CaInfoDetails, ChildrenOfCrsGetCertAreIgnored) {
  ASSERT_EQ(parse_body(element("CertLookupMethod", element("CRSGetCert", cert_element(cert)))), 0);
  EXPECT_EQ(captured_log(),
            (std::vector<log_entry>{
                {4, "Parsing ca-info document: ignoring unexpected tag 'X509Certificate'"}}));
  EXPECT_EQ(OPENSSL_sk_num(ca->cert_lookup_methods), 0);
}

TEST_F(CaInfoDetails, MissingAttributeEndsTheReadingWithItsLine) {
  const struct {
    std::string parent, tag, attribute;
  } cases[] = {
      {"CertReqMethod", "SCEP", "url"},
      {"CertLookupMethod", "SCEPGetCert", "url"},
      {"CertLookupMethod", "LDAPGetCert", "url"},
      {"CertStatusQueryMethod", "OCSP", "url"},
      {"SCEP", "Digest", "alg"},
      {"SCEP", "Cipher", "alg"},
  };
  for (const auto &it : cases) {
    SCOPED_TRACE(it.tag);
    clear_log();
    std::string content =
        element(it.parent, element(it.tag, "", "other=\"1\""), "url=\"http://a/\"");
    if (it.parent == "SCEP")
      content = element("CertReqMethod", content);
    EXPECT_EQ(parse_body(content + element("IssuerName", "CN=a")), PKI_XML_ATTR_NOT_FOUND);
    EXPECT_EQ(captured_log(),
              (std::vector<log_entry>{{3, "Error parsing ca-info document: attribute " +
                                              it.attribute + " not found for tag " + it.tag}}));
    EXPECT_EQ(ca->issuer_name, nullptr);
  }
}

TEST_F(CaInfoDetails, MethodWithoutItsUrlStaysInTheRecord) {
  EXPECT_EQ(parse_body(element("CertReqMethod", element("SCEP"))), PKI_XML_ATTR_NOT_FOUND);
  ASSERT_EQ(OPENSSL_sk_num(ca->cert_req_methods), 1);
  EXPECT_EQ(scep_method()->url, nullptr);
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
  EXPECT_TRUE(logged_containing(3, "OpenSSL error: ")) << log_dump();
  EXPECT_EQ(OPENSSL_sk_num(ca->trusted_roots), 0);
}

TEST_F(CaInfoDetails, CertificateWhoseKeyIsOfAnUnknownKindIsStored) {
  const std::string der = der_with_unknown_key();
  const std::string unknown = element("X509Certificate", "\n" + support::base64_lines(der));
  ASSERT_EQ(
      parse_body(element("CertReqMethod", element("SCEP", unknown, "url=\"http://a/\"")) +
                 element("CertLookupMethod", element("SCEPGetCert", unknown, "url=\"http://a/\"")) +
                 element("TrustedRoots", unknown) + element("AdditionalCerts", unknown)),
      0)
      << log_dump();
  const std::vector<std::string> stored_once{der};
  EXPECT_EQ(support::ders(ca->trusted_roots), stored_once);
  EXPECT_EQ(support::ders(pki_store->provisioned_certs), stored_once);
  ASSERT_NE(scep_method()->ca_cert, nullptr);
  ASSERT_NE(scep_query()->ca_cert, nullptr);
  EXPECT_EQ(X509_get0_pubkey(support::at<X509>(ca->trusted_roots, 0)), nullptr);
  support::clear_openssl_errors();
  EXPECT_EQ(captured_log(), std::vector<log_entry>());
}

TEST_F(CaInfoDetails, CertificateWhoseKeyIsOfAnUnknownKindLeavesNoErrorBehind) {
  ASSERT_EQ(parse_root_cert("\n" + support::base64_lines(der_with_unknown_key())), 0);
  EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST_F(CaInfoDetails, CertificatesOfMethodsMustDecodeToo) {
  const std::string bad = element("X509Certificate", "\nAAAA\n");
  EXPECT_EQ(parse_body(element("CertReqMethod", element("SCEP", bad, "url=\"http://a/\""))),
            PKI_XML_CERT_DEC_FAILED);
  EXPECT_EQ(scep_method()->ca_cert, nullptr);
  EXPECT_EQ(
      parse_body(element("CertLookupMethod", element("SCEPGetCert", bad, "url=\"http://a/\""))),
      PKI_XML_CERT_DEC_FAILED);
  EXPECT_EQ(scep_query()->ca_cert, nullptr);
  EXPECT_EQ(parse_body(element("AdditionalCerts", bad)), PKI_XML_CERT_DEC_FAILED);
  EXPECT_EQ(OPENSSL_sk_num(pki_store->provisioned_certs), 0);
}

TEST_F(CaInfoDetails, EmptyTextBehindOtherTextIsAText) {
  const std::string name = element("IssuerName", "CN=a");
  EXPECT_EQ(parse_body(name + element("TrustedRoots", element("X509Certificate"))),
            PKI_XML_CERT_DEC_FAILED);
  EXPECT_EQ(parse_body(name + element("IssuerName")), 0);
  EXPECT_EQ(support::oneline(ca->issuer_name), "");
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
  EXPECT_EQ(captured_log(),
            (std::vector<log_entry>{
                {4, "Parsing ca-info document: expiry not understood: TIME DAY NOT FOUND"}}));
}

TEST_F(CaInfoDetails, ExpiryThatIsPassedOverIsKeptAsFarAsItWasRead) {
  const struct {
    const char *text, *reason;
    int day, month;
  } cases[] = {
      {"never", "TIME DAY NOT FOUND", 0, 0},
      {"Sun, 06 Nov 2044 08:49:37 GMT", "TIME INVALID MONTH", 6, 0},
      {"1 Jan", "TIME YEAR NOT FOUND", 1, 0},
      {"Mon, 17 Mar", "TIME YEAR NOT FOUND", 17, 2},
  };
  for (const auto &it : cases) {
    SCOPED_TRACE(it.text);
    ca.reset(alloc_ca_info());
    clear_log();
    EXPECT_EQ(parse_body(element("IssuerName", "CN=a") + element("Expires", it.text)), 0);
    EXPECT_EQ(
        captured_log(),
        (std::vector<log_entry>{
            {4, std::string("Parsing ca-info document: expiry not understood: ") + it.reason}}));
    expect_expiry(it.day, it.month);
  }
}

TEST_F(CaInfoDetails, IssuerNameAboveSixtyFourKibibytesIsRefused) {
  const std::string fits = "CN=a" + std::string((64 << 10) - 4, ' ');
  EXPECT_EQ(parse_body(element("IssuerName", fits)), 0) << log_dump();
  EXPECT_EQ(support::oneline(ca->issuer_name), "/CN=a");
  ca.reset(alloc_ca_info());
  EXPECT_EQ(parse_body(element("IssuerName", fits + " ")), PKI_INVALID_ARGS);
  EXPECT_EQ(ca->issuer_name, nullptr);
  EXPECT_EQ(parse_body(element("IssuerName", "CN=" + std::string(1 << 20, 'x'))), PKI_INVALID_ARGS);
  EXPECT_EQ(ca->issuer_name, nullptr);
  EXPECT_EQ(captured_log(), std::vector<log_entry>());
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
