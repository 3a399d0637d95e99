// Documents that nobody honest would write.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libpki/libpki.h>

#include <string>
#include <vector>

#include "fakes/log_capture.h"
#include "support/ca_info_doc.h"
#include "support/certs.h"

namespace {

using support::element;

class CaInfoHostileText : public support::ca_info_test {
 protected:
  // The codes that a document's content can end in.
  static bool documented(int code) {
    return code == PKI_OK ||
           (code >= PKI_XML_STATE_STACK_OVFL && code <= PKI_TIME_SECONDS_NOT_FOUND) ||
           (code >= PKI_DN_UNKNOWN_KEY && code <= PKI_DN_OPEN_QS);
  }
  // Small, so that every octet gets its turn.
  const std::string whole = support::ca_info_doc(
      element("IssuerName", "CN=a, C=US") +
      element("CertReqMethod",
              element("SCEP", element("Digest", "", "alg=\"SHA1\""), "url=\"http://a/?b&amp;c\"")) +
      element("AdditionalCerts", support::cert_element(support::simple_cert("i", "s", 1))));

  void start_again() {
    ca.reset(alloc_ca_info());
    support::empty_store();
    clear_log();
  }
};

TEST_F(CaInfoHostileText, EveryTruncationIsMalformed) {
  for (size_t length = 0; length < whole.size(); length++) {
    EXPECT_EQ(parse(whole.substr(0, length)), PKI_XML_CA_PTR_PARSE_ERROR) << length;
    EXPECT_LE(OPENSSL_sk_num(pki_store->provisioned_certs), 1);
    start_again();
  }
}

TEST_F(CaInfoHostileText, EveryChangedOctetEndsInADocumentedCode) {
  for (size_t at = 0; at < whole.size(); at++) {
    for (int mask : {0x01, 0x04, 0x20, 0x80, 0xff}) {
      std::string changed = whole;
      changed[at] = static_cast<char>(changed[at] ^ mask);
      int code = parse(changed);
      EXPECT_TRUE(documented(code)) << "octet " << at << " mask " << mask << " gave " << code;
      EXPECT_EQ(OPENSSL_sk_num(pki_store->ca_infos), 0);
      EXPECT_EQ(OPENSSL_sk_num(pki_store->collected_certs), 0);
      EXPECT_EQ(OPENSSL_sk_num(pki_store->global_status_rules), 0);
      start_again();
    }
  }
}

TEST_F(CaInfoHostileText, NulAnywhereIsMalformed) {
  for (size_t at = 0; at <= whole.size(); at++) {
    std::string changed = whole;
    changed.insert(at, 1, '\0');
    EXPECT_EQ(parse(changed), PKI_XML_CA_PTR_PARSE_ERROR) << at;
    start_again();
  }
}

TEST_F(CaInfoHostileText, NulInsteadOfAnyOctetIsMalformed) {
  for (size_t at = 0; at < whole.size(); at++) {
    std::string changed = whole;
    changed[at] = '\0';
    EXPECT_EQ(parse(changed), PKI_XML_CA_PTR_PARSE_ERROR) << at;
    start_again();
  }
}

TEST_F(CaInfoHostileText, NulBehindTheDocumentIsMalformed) {
  EXPECT_EQ(parse(support::ca_info_doc("") + std::string(1, '\0')), PKI_XML_CA_PTR_PARSE_ERROR);
  EXPECT_EQ(parse(support::ca_info_doc("") + std::string(1000, '\0')), PKI_XML_CA_PTR_PARSE_ERROR);
}

TEST_F(CaInfoHostileText, HundredThousandNestedElementsAreRefused) {
  int code = parse(support::nested_elements(100000));
  EXPECT_THAT(code, testing::AnyOf(PKI_XML_STATE_STACK_OVFL, PKI_XML_CA_PTR_PARSE_ERROR));
  // One line each up to the overflow, and none behind it.
  EXPECT_LE(captured_log().size(), 45u);
}

TEST_F(CaInfoHostileText, HundredThousandUnclosedElementsAreMalformed) {
  std::string open;
  for (int i = 0; i < 100000; i++)
    open += "<QRNPkiConfig>";
  EXPECT_EQ(parse(open), PKI_XML_CA_PTR_PARSE_ERROR);
}

TEST_F(CaInfoHostileText, HundredThousandElementsInARowAreRead) {
  std::string row;
  for (int i = 0; i < 100000; i++)
    row += "<TrustedRoots/>";
  EXPECT_EQ(parse_body(row + element("IssuerName", "CN=a")), PKI_OK);
  EXPECT_EQ(support::oneline(ca->issuer_name), "/CN=a");
}

TEST_F(CaInfoHostileText, DocumentAboveTenMillionOctetsIsRefused) {
  std::string padding(10000000, ' ');
  EXPECT_EQ(parse_body(padding + element("IssuerName", "CN=a")), PKI_XML_CA_PTR_PARSE_ERROR);
}

TEST_F(CaInfoHostileText, HundredMegabytesOfTextAreRefused) {
  std::string text(100 * 1024 * 1024, 'a');
  EXPECT_EQ(parse_body(element("IssuerName", text)), PKI_XML_CA_PTR_PARSE_ERROR);
  EXPECT_EQ(ca->issuer_name, nullptr);
}

TEST_F(CaInfoHostileText, OctetsThatAreNotUtf8AreMalformed) {
  EXPECT_EQ(parse_body(element("IssuerName", "CN=\xff\xfe")), PKI_XML_CA_PTR_PARSE_ERROR);
  EXPECT_EQ(parse_body(element("IssuerName", "CN=\xc0\x80")), PKI_XML_CA_PTR_PARSE_ERROR);
}

TEST_F(CaInfoHostileText, FormatCharactersInNamesAreLoggedAsTheyStand) {
  // XML allows no "%" in names, but in the texts that other messages carry.
  EXPECT_EQ(parse_body(element("IssuerName", "CN=a, %s%n%d")), PKI_DN_NO_VALUE);
  EXPECT_TRUE(was_logged(4, "no '=' found for key '%s%n%d' in string 'CN=a, %s%n%d'"))
      << log_dump();
}

TEST_F(CaInfoHostileText, ThousandsOfAttributesAreRead) {
  std::string attributes;
  for (int i = 0; i < 5000; i++)
    attributes += "a" + std::to_string(i) + "=\"1\" ";
  EXPECT_EQ(
      parse_body(element("CertReqMethod", element("SCEP", "", attributes + "url=\"http://a\""))),
      PKI_OK);
  EXPECT_STREQ(scep_method()->url, "http://a");
}

}  // namespace
