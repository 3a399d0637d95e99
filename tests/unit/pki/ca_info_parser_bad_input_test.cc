// Documents that nobody honest would write.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libpki/libpki.h>

#include <cstring>
#include <memory>
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

  // Reads a copy that ends where its memory does.
  int parse_exactly(const std::string &document) {
    auto copy = std::make_unique<unsigned char[]>(document.size());
    memcpy(copy.get(), document.data(), document.size());
    return parse_ca_info_doc(copy.get(), static_cast<int>(document.size()), pki_store, ca.get());
  }
};

TEST_F(CaInfoHostileText, MissingArgumentsAndNegativeLengthsAreRefused) {
  const auto *text = reinterpret_cast<const unsigned char *>("<QRNPkiConfig/>");
  EXPECT_EQ(parse_ca_info_doc(nullptr, 0, pki_store, ca.get()), PKI_INVALID_ARGS);
  EXPECT_EQ(parse_ca_info_doc(text, 15, nullptr, ca.get()), PKI_INVALID_ARGS);
  EXPECT_EQ(parse_ca_info_doc(text, 15, pki_store, nullptr), PKI_INVALID_ARGS);
  EXPECT_EQ(parse_ca_info_doc(text, -1, pki_store, ca.get()), PKI_INVALID_ARGS);
  EXPECT_EQ(parse_ca_info_doc(text, 15, pki_store, ca.get()), PKI_OK);
}

TEST_F(CaInfoHostileText, WhatIsNotWellFormedIsMalformed) {
  for (const char *text : {"", " ", "text", "<QRNPkiConfig>", "<QRNPkiConfig></Other>",
                           "<QRNPkiConfig/><QRNPkiConfig/>", "<QRNPkiConfig a=b/>",
                           "<QRNPkiConfig a=\"1\" a=\"2\"/>", "<QRNPkiConfig>&lt</QRNPkiConfig>"})
    EXPECT_EQ(parse(text), PKI_XML_CA_PTR_PARSE_ERROR) << text;
}

TEST_F(CaInfoHostileText, MalformedIsToldBeforeWhatAnElementRecorded) {
  EXPECT_EQ(parse("<QRNPkiConfig>" + element("CertReqMethod", element("SCEP"))),
            PKI_XML_CA_PTR_PARSE_ERROR);
  EXPECT_EQ(parse("<QRNPkiConfig>" + element("Expires", "Sun, 06 Nov 2044 08:49:37 GMT")),
            PKI_XML_CA_PTR_PARSE_ERROR);
}

TEST_F(CaInfoHostileText, NothingIsPrinted) {
  testing::internal::CaptureStderr();
  testing::internal::CaptureStdout();
  parse("<QRNPkiConfig>&a;</Other>");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(CaInfoHostileText, EveryTruncationIsMalformed) {
  for (size_t length = 0; length < whole.size(); length++) {
    EXPECT_EQ(parse_exactly(whole.substr(0, length)), PKI_XML_CA_PTR_PARSE_ERROR) << length;
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

TEST_F(CaInfoHostileText, NulByReferenceIsMalformed) {
  EXPECT_EQ(parse_body(element("IssuerName", "CN=a&#0;b")), PKI_XML_CA_PTR_PARSE_ERROR);
}

TEST_F(CaInfoHostileText, HundredThousandNestedElementsAreRefused) {
  int code = parse(support::nested_elements(100000));
  EXPECT_THAT(code, testing::AnyOf(PKI_XML_STATE_STACK_OVFL, PKI_XML_CA_PTR_PARSE_ERROR));
  // One line each up to the overflow, and none behind it.
  EXPECT_LE(captured_log().size(), 41u);
}

TEST_F(CaInfoHostileText, HundredThousandUnclosedElementsAreMalformed) {
  for (const char *tag : {"<QRNPkiConfig>", "<x>"}) {
    clear_log();
    std::string open;
    for (int i = 0; i < 100000; i++)
      open += tag;
    EXPECT_EQ(parse(open), PKI_XML_CA_PTR_PARSE_ERROR);
    EXPECT_LE(captured_log().size(), 41u);
  }
}

TEST_F(CaInfoHostileText, HundredThousandElementsInARowAreRead) {
  std::string row;
  for (int i = 0; i < 100000; i++)
    row += "<TrustedRoots/>";
  EXPECT_EQ(parse_body(row + element("IssuerName", "CN=a")), PKI_OK);
  EXPECT_EQ(support::oneline(ca->issuer_name), "/CN=a");
}

// A document of exactly `size` octets: an issuer name behind comments.
std::string document_of_size(size_t size) {
  const std::string comment = "<!--" + std::string(1000, 'c') + "-->";
  const std::string end = element("IssuerName", "CN=a") + "</QRNPkiConfig>";
  std::string document = "<QRNPkiConfig>";
  while (document.size() + comment.size() + end.size() <= size)
    document += comment;
  document.append(size - document.size() - end.size(), ' ');
  return document + end;
}

TEST_F(CaInfoHostileText, DocumentOfTenMillionOctetsIsRead) {
  EXPECT_EQ(parse(document_of_size(10000000)), PKI_OK);
  EXPECT_EQ(support::oneline(ca->issuer_name), "/CN=a");
}

TEST_F(CaInfoHostileText, DocumentAboveTenMillionOctetsIsRefused) {
  EXPECT_EQ(parse(document_of_size(10000001)), PKI_XML_CA_PTR_PARSE_ERROR);
  EXPECT_EQ(parse(document_of_size(10100000)), PKI_XML_CA_PTR_PARSE_ERROR);
}

TEST_F(CaInfoHostileText, TenMillionBlanksAreRefused) {
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
