// pki_remove_key and pki_remove_certificate.
#include <gtest/gtest.h>

#include <string>

#include "unit/pki/enroll_fixture.h"
#include "unit/pki_store_alloc/destruction.h"

namespace {

using support::cert;
using support::der;
using support::ders;
using support::lines;

class EnrollRemove : public support::enroll_test {
 protected:
  // Files a certificate under a key, and puts it into every list where it may be.
  static cert file(const char *label, long serial, int key_index = 0) {
    cert made = support::simple_cert("issuer", "device", serial);
    cert_info *record = alloc_cert_info();
    record->label = pki_strdup(label);
    record->cert = support::reference(made);
    OPENSSL_sk_push(stored_key(key_index)->certs, record);
    spread(made);
    return made;
  }
  static void spread(const cert &made) {
    pki_add_untrusted_cert(made.get(), 1);
    pki_add_untrusted_cert(made.get(), 0);
    for (int i = 0; i < OPENSSL_sk_num(pki_store->ca_infos); i++)
      pki_add_trusted_cert(made.get(), support::at<ca_info>(pki_store->ca_infos, i));
  }
  // The certificates of the four lists, which ought to be the same in each.
  static void expect_everywhere(const std::vector<cert> &certs) {
    std::vector<std::string> expected;
    for (const cert &each : certs)
      expected.push_back(der(each));
    EXPECT_EQ(ders(pki_store->provisioned_certs), expected);
    EXPECT_EQ(ders(pki_store->collected_certs), expected);
    for (int i = 0; i < 2; i++)
      EXPECT_EQ(ders(support::at<ca_info>(pki_store->ca_infos, i)->trusted_roots), expected);
  }
  void SetUp() override {
    enroll_test::SetUp();
    support::cert unused = support::make_ca("scep ca", 7, 70);
    add_ca("first", {}, unused);
    add_ca("second", {}, unused);
  }
};

TEST_F(EnrollRemove, UnknownKeyIs50AndNot51) {
  EXPECT_EQ(pki_remove_key("nokey"), 50);
  EXPECT_EQ(pki_remove_key("KEY"), 50);
  EXPECT_EQ(OPENSSL_sk_num(pki_store->key_store), 1);
  EXPECT_EQ(captured_log(), lines());
}

TEST_F(EnrollRemove, KeyLeavesTheStoreAndIsDestroyed) {
  support::key held = support::key(EVP_PKEY_dup(support::test_key(2).get()), EVP_PKEY_free);
  auto destroyed = support::watch(held);
  add_key("other", support::test_key(2));
  EVP_PKEY_free(stored_key(1)->key);
  stored_key(1)->key = support::reference(held);
  held.reset();
  EXPECT_EQ(pki_remove_key("other"), PKI_OK);
  EXPECT_EQ(OPENSSL_sk_num(pki_store->key_store), 1);
  EXPECT_STREQ(stored_key()->label, "key");
  EXPECT_EQ(*destroyed, 1);
  EXPECT_EQ(pki_remove_key("other"), 50);
}

TEST_F(EnrollRemove, KeyTakesItsCertificatesOutOfEveryList) {
  cert stays = support::simple_cert("issuer", "other", 1);
  spread(stays);
  cert first = file("a", 2), second = file("b", 3);
  auto destroyed = support::watch(first);
  first.reset();
  EXPECT_EQ(pki_remove_key("key"), PKI_OK);
  expect_everywhere({stays});
  EXPECT_EQ(*destroyed, 1);
  EXPECT_EQ(captured_log(), lines());
}

TEST_F(EnrollRemove, FirstKeyOfALabelIsRemoved) {
  add_key("key", support::test_key(2));
  cert of_second = file("a", 2, 1);
  EXPECT_EQ(pki_remove_key("key"), PKI_OK);
  ASSERT_EQ(OPENSSL_sk_num(pki_store->key_store), 1);
  EXPECT_EQ(EVP_PKEY_eq(stored_key()->key, support::test_key(2).get()), 1);
  expect_everywhere({of_second});
}

TEST_F(EnrollRemove, KeyThatSomebodyHoldsStaysAlive) {
  key_info *held = pki_find_key_info_by_label("key");
  EXPECT_EQ(pki_remove_key("key"), PKI_OK);
  EXPECT_EQ(held->ref_count, 1);
  EXPECT_STREQ(held->label, "key");
  free_key_info(held);
}

TEST_F(EnrollRemove, KeyWithoutCertificatesIsRemoved) {
  EXPECT_EQ(pki_remove_key("key"), PKI_OK);
  EXPECT_EQ(OPENSSL_sk_num(pki_store->key_store), 0);
}

TEST_F(EnrollRemove, CertificateOfAnUnknownKeyIs51) {
  EXPECT_EQ(pki_remove_certificate("nokey", "a"), PKI_NO_SUCH_KEY);
}

TEST_F(EnrollRemove, UnknownCertificateIs52AndTheKeyIsReleased) {
  cert stays = file("a", 2);
  EXPECT_EQ(pki_remove_certificate("key", "b"), PKI_NO_SUCH_CERT);
  EXPECT_EQ(pki_remove_certificate("key", "A"), PKI_NO_SUCH_CERT);
  EXPECT_EQ(stored_key()->ref_count, 1);
  EXPECT_EQ(filed(), 1);
  expect_everywhere({stays});
}

TEST_F(EnrollRemove, CertificateLeavesTheKeyAndEveryList) {
  cert first = file("a", 2), second = file("b", 3);
  auto destroyed = support::watch(first);
  first.reset();
  EXPECT_EQ(pki_remove_certificate("key", "a"), PKI_OK);
  ASSERT_EQ(filed(), 1);
  EXPECT_STREQ(filed_cert()->label, "b");
  expect_everywhere({second});
  EXPECT_EQ(*destroyed, 1);
  EXPECT_EQ(stored_key()->ref_count, 1);
  EXPECT_EQ(captured_log(), lines());
}

TEST_F(EnrollRemove, FirstCertificateOfALabelIsRemoved) {
  cert first = file("a", 2), second = file("a", 3);
  EXPECT_EQ(pki_remove_certificate("key", "a"), PKI_OK);
  ASSERT_EQ(filed(), 1);
  EXPECT_EQ(X509_cmp(filed_cert()->cert, second.get()), 0);
  expect_everywhere({second});
}

TEST_F(EnrollRemove, CertificateThatIsInNoListIsRemovedFromTheKey) {
  cert made = file("a", 2);
  while (X509 *each = static_cast<X509 *>(OPENSSL_sk_pop(pki_store->provisioned_certs)))
    X509_free(each);
  EXPECT_EQ(pki_remove_certificate("key", "a"), PKI_OK);
  EXPECT_EQ(filed(), 0);
}

TEST_F(EnrollRemove, EnrolledCertificateIsRemovedWhole) {
  support::scep_ca ca;
  add_ca(ca);
  ASSERT_EQ(pki_get_certificate("ca", "key", "cert", nullptr), PKI_OK);
  EXPECT_EQ(pki_remove_certificate("key", "cert"), PKI_OK);
  expect_nothing_filed();
}

TEST_F(EnrollRemove, NullLabelIsTheLabelOfNothing) {
  EXPECT_EQ(pki_remove_key(nullptr), 50);
  EXPECT_EQ(pki_remove_certificate(nullptr, "a"), PKI_NO_SUCH_KEY);
  EXPECT_EQ(pki_remove_certificate("key", nullptr), PKI_NO_SUCH_CERT);
  EXPECT_EQ(OPENSSL_sk_num(pki_store->key_store), 1);
}

}  // namespace
