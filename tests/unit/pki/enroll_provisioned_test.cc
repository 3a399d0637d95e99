// From a CA-info document to an enrolled key.
#include <gtest/gtest.h>

#include <string>

#include "unit/pki/enroll_fixture.h"

namespace {

using support::cert_element;
using support::element;
using support::lines;
using support::scep_ca;

class EnrollProvisioned : public support::enroll_test {
 protected:
  // Provisions `ca` under the label "provisioned" by a document with these algorithms.
  int provision(const scep_ca &ca, const std::string &algorithms) {
    std::string document = support::ca_info_doc(
        element("IssuerName", "CN=scep ca") +
        element("CertReqMethod", element("SCEP", cert_element(ca.certificate()) + algorithms,
                                         "url=\"" + ca.url("/cgi-bin/scep") + "\"")) +
        element("TrustedRoots", cert_element(ca.certificate())));
    support::key doc_key = support::test_key(3);
    support::test_server server({support::ok(support::sign_document(document, doc_key))});
    return pki_add_ca("provisioned", server.url("/info").c_str(), doc_key.get());
  }
  void expect_enrolled(const scep_ca &ca) {
    ASSERT_EQ(pki_get_certificate("provisioned", "made", "cert", "CN=device, O=Example"), PKI_OK)
        << log_dump();
    key_info *key = pki_find_key_info_by_label("made");
    ASSERT_NE(key, nullptr);
    cert_info *found = pki_find_cert_info_by_label("cert", key);
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(X509_cmp(found->cert, ca.issued().at(0).get()), 0);
    EXPECT_EQ(EVP_PKEY_eq(X509_get0_pubkey(found->cert), key->key), 1);
    EXPECT_EQ(support::oneline(found->subject), "/O=Example/CN=device");
    free_cert_info(found);
    free_key_info(key);
    EXPECT_EQ(captured_log(), lines());
    EXPECT_EQ(ca.requests().at(0).target.rfind("/cgi-bin/scep?operation=PKIOperation&message=", 0),
              0u);
  }
};

const char modern[] = "<Digest alg=\"SHA256\"/><Cipher alg=\"AES-128-CBC\"/>";

TEST_F(EnrollProvisioned, KeyOf1024BitsByTheDefaults) {
  scep_ca ca;
  ASSERT_EQ(provision(ca, ""), PKI_OK);
  ASSERT_EQ(pki_generate_key_pair("made", nullptr, 0), PKI_OK);
  expect_enrolled(ca);
}

TEST_F(EnrollProvisioned, KeyOf1024BitsBySha256AndAes) {
  scep_ca ca;
  ASSERT_EQ(provision(ca, modern), PKI_OK);
  ASSERT_EQ(pki_generate_key_pair("made", nullptr, 0), PKI_OK);
  expect_enrolled(ca);
}

TEST_F(EnrollProvisioned, KeyOf2048BitsByTheDefaults) {
  scep_ca ca;
  ASSERT_EQ(provision(ca, ""), PKI_OK);
  ASSERT_EQ(pki_generate_key_pair("made", "RSA", 2048), PKI_OK);
  expect_enrolled(ca);
}

TEST_F(EnrollProvisioned, KeyOf2048BitsBySha256AndAesAfterPolls) {
  scep_ca ca(support::pending_then(2));
  ASSERT_EQ(provision(ca, modern), PKI_OK);
  ASSERT_EQ(pki_generate_key_pair("made", "RSA", 2048), PKI_OK);
  fake_clock::frozen clock(1800000000);
  expect_enrolled(ca);
  EXPECT_EQ(fake_clock::sleeps(), (std::vector<unsigned>{600, 600}));
}

TEST_F(EnrollProvisioned, UnknownAlgorithmsOfTheDocumentFallToTheDefaults) {
  scep_ca ca;
  ASSERT_EQ(provision(ca, "<Digest alg=\"SHA-17\"/><Cipher alg=\"ROT-13\"/>"), PKI_OK);
  ASSERT_EQ(pki_generate_key_pair("made", nullptr, 0), PKI_OK);
  clear_log();
  ASSERT_EQ(pki_get_certificate("provisioned", "made", "cert", nullptr), PKI_OK) << log_dump();
  EXPECT_EQ(own_lines().size(), 2u) << log_dump();
  EXPECT_TRUE(logged_containing(4, "SHA-17"));
  EXPECT_TRUE(logged_containing(4, "ROT-13"));
}

TEST_F(EnrollProvisioned, MethodWithoutACertificateInTheDocumentIsRefused) {
  scep_ca ca;
  std::string document = support::ca_info_doc(
      element("CertReqMethod", element("SCEP", "", "url=\"" + ca.url() + "\"")));
  support::key doc_key = support::test_key(3);
  support::test_server server({support::ok(support::sign_document(document, doc_key))});
  ASSERT_EQ(pki_add_ca("provisioned", server.url().c_str(), doc_key.get()), PKI_OK);
  EXPECT_EQ(pki_get_certificate("provisioned", "key", "cert", nullptr), PKI_INVALID_ARGS);
  EXPECT_TRUE(ca.requests().empty());
  expect_nothing_filed();
}

}  // namespace
