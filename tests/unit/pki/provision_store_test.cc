// pki_add_ca from the document on: what enters the store, and what stays after a failure.
#include <gtest/gtest.h>
#include <libpki/libpki.h>

#include <iterator>
#include <string>
#include <vector>

#include "fakes/log_capture.h"
#include "support/ca_info_doc.h"
#include "support/certs.h"
#include "support/descriptors.h"
#include "support/store_fixture.h"
#include "support/test_server.h"

namespace {

using support::cert_element;
using support::der;
using support::ders;
using support::element;
using support::test_server;

class ProvisionStore : public support::store_test {
 protected:
  // Provisions from a server that gives this document, signed.
  int add(const std::string &document, const std::string &label = "label") {
    test_server server({support::ok(support::sign_document(document, doc_key))});
    last_url = server.url("/info");
    return pki_add_ca(label.c_str(), last_url.c_str(), doc_key.get());
  }
  int add_body(const std::string &content, const std::string &label = "label") {
    return add(support::ca_info_doc(content), label);
  }
  static ca_info *stored(int index = 0) { return support::at<ca_info>(pki_store->ca_infos, index); }
  static std::string additional(const std::vector<support::cert> &certs) {
    std::string elements;
    for (const support::cert &cert : certs)
      elements += cert_element(cert);
    return element("AdditionalCerts", elements);
  }
  static std::string roots(const std::vector<support::cert> &certs) {
    std::string elements;
    for (const support::cert &cert : certs)
      elements += cert_element(cert);
    return element("TrustedRoots", elements);
  }
  static int ca_count() { return OPENSSL_sk_num(pki_store->ca_infos); }
  static std::vector<std::string> provisioned() { return ders(pki_store->provisioned_certs); }

  support::key doc_key = support::public_part(support::test_key(3));
  std::string last_url;

 private:
  void SetUp() override {
    support::store_test::SetUp();
    doc_key = support::test_key(3);
  }
};

TEST_F(ProvisionStore, CaEntersTheStoreWithAllThatTheDocumentSays) {
  ASSERT_EQ(add(support::sample().document), PKI_OK) << log_dump();
  ASSERT_EQ(ca_count(), 1);
  EXPECT_EQ(support::sample_difference(stored()), "");
  EXPECT_EQ(provisioned(), std::vector<std::string>{der(support::sample().additional)});
  EXPECT_EQ(captured_log(), std::vector<log_entry>());
}

TEST_F(ProvisionStore, CaHasCopiesOfLabelAndUrl) {
  std::string label = "a label";
  test_server server({support::ok(support::sign_document(support::ca_info_doc(""), doc_key))});
  std::string url = server.url("/where");
  ASSERT_EQ(pki_add_ca(label.c_str(), url.c_str(), doc_key.get()), PKI_OK);
  label[0] = url[0] = 'X';
  EXPECT_STREQ(stored()->label, "a label");
  EXPECT_EQ(stored()->ca_pointer_url, server.url("/where"));
}

TEST_F(ProvisionStore, CaSharesTheDocumentKey) {
  ASSERT_EQ(add_body(""), PKI_OK);
  EXPECT_EQ(stored()->doc_key, doc_key.get());
  // The store's reference alone keeps the key.
  support::key expected = support::public_part(doc_key);
  support::key own(EVP_PKEY_dup(doc_key.get()), EVP_PKEY_free);
  test_server server({support::ok(support::sign_document(support::ca_info_doc(""), own))});
  ASSERT_EQ(pki_add_ca("second", server.url().c_str(), own.get()), PKI_OK);
  own.reset();
  EXPECT_EQ(EVP_PKEY_eq(stored(1)->doc_key, expected.get()), 1);
}

TEST_F(ProvisionStore, KeySurvivesTheCa) {
  ASSERT_EQ(add_body(""), PKI_OK);
  ASSERT_EQ(pki_remove_ca("label"), PKI_OK);
  EXPECT_EQ(verify_keys(doc_key.get(), doc_key.get()), PKI_OK);
}

TEST_F(ProvisionStore, StoreHoldsTheOnlyReference) {
  ASSERT_EQ(add_body(""), PKI_OK);
  EXPECT_EQ(stored()->ref_count, 1);
}

TEST_F(ProvisionStore, PublicKeyIsEnough) {
  test_server server({support::ok(support::sign_document(support::ca_info_doc(""), doc_key))});
  EXPECT_EQ(pki_add_ca("label", server.url().c_str(), support::public_part(doc_key).get()), PKI_OK);
}

TEST_F(ProvisionStore, SecondCaOfALabelStandsBehindTheFirst) {
  ASSERT_EQ(add_body(element("IssuerName", "CN=older")), PKI_OK);
  ASSERT_EQ(add_body(element("IssuerName", "CN=newer")), PKI_OK);
  EXPECT_EQ(ca_count(), 2);
  ca_info *found = pki_find_ca_info_by_label("label");
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(support::oneline(found->issuer_name), "/CN=older");
  free_ca_info(found);
  ASSERT_EQ(pki_remove_ca("label"), PKI_OK);
  ASSERT_EQ(ca_count(), 1);
  EXPECT_EQ(support::oneline(stored()->issuer_name), "/CN=newer");
}

TEST_F(ProvisionStore, DuplicateRootsOfADocumentAreDropped) {
  support::cert a = support::make_ca("a", 0, 1), b = support::make_ca("b", 0, 1);
  support::cert a2 = support::make_ca("a", 0, 2), other_a = support::make_ca("a", 1, 1);
  ASSERT_EQ(add_body(roots({a, b, a, a2, b, other_a, a})), PKI_OK);
  // Same issuer and serial number count as the same certificate; the first one stays.
  EXPECT_EQ(ders(stored()->trusted_roots), (std::vector<std::string>{der(a), der(b), der(a2)}));
}

TEST_F(ProvisionStore, DuplicateAdditionalCertificatesOfADocumentAreDropped) {
  support::cert a = support::simple_cert("i", "a", 1), b = support::simple_cert("i", "b", 2);
  ASSERT_EQ(add_body(additional({a, a, b, a, b})), PKI_OK);
  EXPECT_EQ(provisioned(), (std::vector<std::string>{der(a), der(b)}));
}

TEST_F(ProvisionStore, TwoDocumentsWithTheSameCertificateLeaveOneCopy) {
  support::cert a = support::simple_cert("i", "a", 1), b = support::simple_cert("i", "b", 2);
  ASSERT_EQ(add_body(additional({a})), PKI_OK);
  ASSERT_EQ(add_body(additional({b, a})), PKI_OK);
  EXPECT_EQ(provisioned(), (std::vector<std::string>{der(a), der(b)}));
}

TEST_F(ProvisionStore, RootAndAdditionalCertificateMayBeTheSame) {
  support::cert a = support::make_ca("a");
  ASSERT_EQ(add_body(roots({a}) + additional({a})), PKI_OK);
  EXPECT_EQ(OPENSSL_sk_num(stored()->trusted_roots), 1);
  EXPECT_EQ(provisioned().size(), 1u);
}

TEST_F(ProvisionStore, RootsOfTwoCasAreKeptApart) {
  support::cert a = support::make_ca("a");
  ASSERT_EQ(add_body(roots({a}), "one"), PKI_OK);
  ASSERT_EQ(add_body(roots({a}), "two"), PKI_OK);
  EXPECT_EQ(OPENSSL_sk_num(stored(0)->trusted_roots), 1);
  EXPECT_EQ(OPENSSL_sk_num(stored(1)->trusted_roots), 1);
}

TEST_F(ProvisionStore, CollectedCertificatesAreLeftAlone) {
  support::cert a = support::simple_cert("i", "a", 1);
  ASSERT_EQ(pki_add_untrusted_cert(a.get(), 0), PKI_OK);
  ASSERT_EQ(add_body(additional({a})), PKI_OK);
  EXPECT_EQ(OPENSSL_sk_num(pki_store->collected_certs), 1);
  EXPECT_EQ(provisioned().size(), 1u);
}

TEST_F(ProvisionStore, EachErrorOfTheDocumentIsTheResult) {
  const struct {
    std::string content;
    int code;
  } cases[] = {
      {support::nested_elements(39), PKI_XML_STATE_STACK_OVFL},
      {element("CertReqMethod", element("SCEP")), PKI_XML_ATTR_NOT_FOUND},
      {element("TrustedRoots", element("X509Certificate", "no\n")), PKI_XML_CERT_DEC_FAILED},
      {"<unclosed>", PKI_XML_CA_PTR_PARSE_ERROR},
      {element("IssuerName"), PKI_XML_INTERNAL_ERROR_NO_BUF},
      {element("Expires", "never") + "<x/>", PKI_TIME_DAY_NOT_FOUND},
      {element("Expires", "1 Xyz 2040") + "<x/>", PKI_TIME_INVALID_MONTH},
      {element("Expires", "1 Jan") + "<x/>", PKI_TIME_YEAR_NOT_FOUND},
      {element("IssuerName", "nosuchkey=a"), PKI_DN_UNKNOWN_KEY},
      {element("IssuerName", "CN"), PKI_DN_NO_VALUE},
      {element("IssuerName", "CN=\"a"), PKI_DN_OPEN_QS},
  };
  for (const auto &it : cases) {
    EXPECT_EQ(add_body(it.content), it.code) << it.content;
    EXPECT_EQ(ca_count(), 0);
  }
  EXPECT_EQ(add(""), PKI_XML_CA_PTR_PARSE_ERROR);
  EXPECT_EQ(ca_count(), 0);
}

TEST_F(ProvisionStore, ExpiryAsTheLastElementIsTaken) {
  ASSERT_EQ(
      add_body(element("IssuerName", "CN=a") + element("Expires", "Sun, 06 Nov 2044 08:49:37 GMT")),
      PKI_OK);
  EXPECT_EQ(support::oneline(stored()->issuer_name), "/CN=a");
  EXPECT_EQ(captured_log(),
            (std::vector<log_entry>{
                {4, "Parsing ca-info document: expiry not understood: TIME INVALID MONTH"}}));
  EXPECT_EQ(stored()->expires.tm_mday, 6);
  EXPECT_EQ(stored()->expires.tm_year, 0);
}

TEST_F(ProvisionStore, ExpiryOfADayAndAMonthIsKept) {
  ASSERT_EQ(add_body(element("IssuerName", "CN=a") + element("Expires", "2 Feb")), PKI_OK);
  EXPECT_EQ(captured_log(),
            (std::vector<log_entry>{
                {4, "Parsing ca-info document: expiry not understood: TIME YEAR NOT FOUND"}}));
  EXPECT_EQ(stored()->expires.tm_mday, 2);
  EXPECT_EQ(stored()->expires.tm_mon, 1);
  EXPECT_EQ(stored()->expires.tm_year, 0);
}

TEST_F(ProvisionStore, AdditionalCertificatesStayWhenTheDocumentFailsLater) {
  support::cert a = support::simple_cert("i", "a", 1);
  EXPECT_EQ(add_body(additional({a}) + element("CertReqMethod", element("SCEP"))),
            PKI_XML_ATTR_NOT_FOUND);
  EXPECT_EQ(ca_count(), 0);
  EXPECT_EQ(provisioned(), std::vector<std::string>{der(a)});
  // A good document of the same certificate leaves one copy again.
  EXPECT_EQ(add_body(additional({a})), PKI_OK);
  EXPECT_EQ(provisioned(), std::vector<std::string>{der(a)});
}

TEST_F(ProvisionStore, FailureLeavesEarlierCasAlone) {
  ASSERT_EQ(add(support::sample().document, "good"), PKI_OK);
  std::vector<const void *> cas = support::elements(pki_store->ca_infos);
  std::vector<const void *> certs = support::elements(pki_store->provisioned_certs);
  EXPECT_EQ(add_body("<unclosed>", "bad"), PKI_XML_CA_PTR_PARSE_ERROR);
  EXPECT_EQ(support::elements(pki_store->ca_infos), cas);
  EXPECT_EQ(support::elements(pki_store->provisioned_certs), certs);
  EXPECT_EQ(support::sample_difference(stored()), "");
}

TEST_F(ProvisionStore, NoDescriptorIsLeftBehind) {
  ASSERT_EQ(add(support::sample().document), PKI_OK);
  auto before = support::open_descriptors();
  for (int i = 0; i < 5; i++) {
    EXPECT_EQ(add(support::sample().document), PKI_OK);
    EXPECT_EQ(add_body("<unclosed>"), PKI_XML_CA_PTR_PARSE_ERROR);
  }
  EXPECT_EQ(support::open_descriptors(), before);
}

}  // namespace
