// pki_get_certificate: what it asks for, and what it files.
#include <gtest/gtest.h>

#include <string>

#include "unit/pki/enroll_fixture.h"

namespace {

using support::der;
using support::enroll_method;
using support::lines;
using support::oneline;
using support::scep_ca;
using support::scep_reply;

class Enroll : public support::enroll_test {
 protected:
  static X509_REQ *payload(const support::scep_request &request) {
    const auto *in = reinterpret_cast<const unsigned char *>(request.payload.data());
    return d2i_X509_REQ(nullptr, &in, static_cast<long>(request.payload.size()));
  }
  static std::string asked_subject(const scep_ca &ca) {
    X509_REQ *asked = payload(ca.requests().at(0));
    std::string text = asked ? oneline(X509_REQ_get_subject_name(asked)) : "(no request)";
    X509_REQ_free(asked);
    return text;
  }
};

TEST_F(Enroll, CertificateIsFiledUnderTheKeyWithCopiesOfWhatItSays) {
  scep_ca ca;
  add_ca(ca);
  std::string label = "my cert";
  ASSERT_EQ(pki_get_certificate("ca", "key", label.c_str(), "CN=device, C=US"), PKI_OK)
      << log_dump();
  label[0] = 'X';
  ASSERT_EQ(filed(), 1);
  cert_info *record = filed_cert();
  EXPECT_STREQ(record->label, "my cert");
  EXPECT_EQ(X509_cmp(record->cert, ca.issued().at(0).get()), 0);
  EXPECT_EQ(oneline(record->issuer), "/CN=scep ca");
  EXPECT_EQ(oneline(record->subject), "/C=US/CN=device");
  EXPECT_EQ(ASN1_INTEGER_get(record->serial), 1001);
  EXPECT_NE(record->issuer, X509_get_issuer_name(record->cert));
  EXPECT_NE(record->subject, X509_get_subject_name(record->cert));
  EXPECT_NE(record->serial, X509_get0_serialNumber(record->cert));
  EXPECT_EQ(record->ref_count, 1);
  EXPECT_EQ(captured_log(), lines());
}

TEST_F(Enroll, CertificateIsFiledAmongTheProvisionedOnes) {
  scep_ca ca;
  add_ca(ca);
  ASSERT_EQ(pki_get_certificate("ca", "key", "cert", nullptr), PKI_OK);
  EXPECT_EQ(provisioned(), std::vector<std::string>{der(ca.issued().at(0))});
  EXPECT_EQ(OPENSSL_sk_num(pki_store->collected_certs), 0);
}

TEST_F(Enroll, KeyRecordIsTheStoresOwnAndReleasedAgain) {
  scep_ca ca;
  add_ca(ca);
  key_info *before = stored_key();
  ASSERT_EQ(pki_get_certificate("ca", "key", "cert", nullptr), PKI_OK);
  EXPECT_EQ(stored_key(), before);
  EXPECT_EQ(before->ref_count, 1);
  EXPECT_EQ(support::at<ca_info>(pki_store->ca_infos, 0)->ref_count, 1);
  cert_info *found = pki_find_cert_info_by_label("cert", before);
  EXPECT_EQ(found, filed_cert());
  free_cert_info(found);
}

TEST_F(Enroll, CertificateOutlivesTheKey) {
  scep_ca ca;
  add_ca(ca);
  ASSERT_EQ(pki_get_certificate("ca", "key", "cert", nullptr), PKI_OK);
  cert_info *held = dup_cert_info(filed_cert());
  ASSERT_EQ(pki_remove_key("key"), PKI_OK);
  EXPECT_EQ(X509_cmp(held->cert, ca.issued().at(0).get()), 0);
  free_cert_info(held);
}

TEST_F(Enroll, SubjectIsReadMostSpecificPartFirst) {
  scep_ca ca;
  add_ca(ca);
  ASSERT_EQ(pki_get_certificate("ca", "key", "cert", "CN=device, O=\"Example, Inc\", C=US"),
            PKI_OK);
  EXPECT_EQ(asked_subject(ca), "/C=US/O=Example, Inc/CN=device");
}

TEST_F(Enroll, NullSubjectIsAnEmptyName) {
  scep_ca ca;
  add_ca(ca);
  ASSERT_EQ(pki_get_certificate("ca", "key", "cert", nullptr), PKI_OK);
  EXPECT_EQ(asked_subject(ca), "");
}

TEST_F(Enroll, KeyOfTheLabelIsCertified) {
  add_key("other", support::test_key(2));
  scep_ca ca;
  add_ca(ca);
  ASSERT_EQ(pki_get_certificate("ca", "other", "cert", nullptr), PKI_OK);
  EXPECT_EQ(filed(0), 0);
  EXPECT_EQ(filed(1), 1);
  EXPECT_EQ(EVP_PKEY_eq(X509_get0_pubkey(ca.issued().at(0).get()), support::test_key(2).get()), 1);
}

TEST_F(Enroll, FirstKeyAndFirstCaOfALabelAreUsed) {
  add_key("key", support::test_key(2));
  scep_ca first, second;
  add_ca(first);
  add_ca(second);
  ASSERT_EQ(pki_get_certificate("ca", "key", "cert", nullptr), PKI_OK);
  EXPECT_EQ(filed(0), 1);
  EXPECT_EQ(filed(1), 0);
  EXPECT_TRUE(second.requests().empty());
}

TEST_F(Enroll, SecondCertificateStandsBehindTheFirst) {
  scep_ca ca;
  add_ca(ca);
  ASSERT_EQ(pki_get_certificate("ca", "key", "cert", nullptr), PKI_OK);
  ASSERT_EQ(pki_get_certificate("ca", "key", "cert", nullptr), PKI_OK);
  ASSERT_EQ(filed(), 2);
  EXPECT_EQ(ASN1_INTEGER_get(filed_cert(0)->serial), 1001);
  EXPECT_EQ(ASN1_INTEGER_get(filed_cert(1)->serial), 1002);
  EXPECT_EQ(provisioned().size(), 2u);
}

TEST_F(Enroll, CertificateThatTheStoreKnowsAlreadyIsProvisionedOnce) {
  scep_reply reply;
  support::cert_options options;
  options.public_key = support::test_key(1);
  reply.issued = support::make_cert(options);
  EXPECT_EQ(enroll_with(reply), PKI_OK);
  EXPECT_EQ(enroll_with(reply, "again"), PKI_OK);
  EXPECT_EQ(filed(), 2);
  EXPECT_EQ(provisioned().size(), 1u);
}

TEST_F(Enroll, UnknownMechanismsAreSkippedWithALineEach) {
  scep_ca ca;
  add_ca("ca", {{"", 7}, {"", 0}, {ca.url()}, {"", 9}}, ca.certificate());
  ASSERT_EQ(pki_get_certificate("ca", "key", "cert", nullptr), PKI_OK);
  EXPECT_EQ(own_lines(), (lines{{4, "unsupported cert-request mechanism 7"},
                                {4, "unsupported cert-request mechanism 0"}}));
  EXPECT_EQ(filed(), 1);
}

TEST_F(Enroll, FirstMethodThatWorksIsTheLast) {
  scep_ca first, second;
  add_ca("ca", {{first.url()}, {second.url()}}, first.certificate());
  ASSERT_EQ(pki_get_certificate("ca", "key", "cert", nullptr), PKI_OK);
  EXPECT_EQ(first.requests().size(), 1u);
  EXPECT_TRUE(second.requests().empty());
}

TEST_F(Enroll, PendingEnrollmentIsPolledFor) {
  fake_clock::frozen clock(1800000000);
  scep_ca ca(support::pending_then(3));
  add_ca(ca);
  ASSERT_EQ(pki_get_certificate("ca", "key", "cert", "CN=device"), PKI_OK) << log_dump();
  EXPECT_EQ(fake_clock::sleeps(), (std::vector<unsigned>{600, 600, 600}));
  EXPECT_EQ(filed(), 1);
  EXPECT_EQ(captured_log(), lines());
}

TEST_F(Enroll, CertificateCanBeFoundInTheStore) {
  scep_ca ca;
  add_ca(ca);
  ASSERT_EQ(pki_get_certificate("ca", "key", "cert", "CN=device"), PKI_OK);
  STACK *found = nullptr;
  ASSERT_EQ(pki_find_certs_by_subject(support::common_name("device").get(), &found), PKI_OK);
  ASSERT_EQ(OPENSSL_sk_num(found), 1);
  OPENSSL_sk_pop_free(found, [](void *each) { X509_free(static_cast<X509 *>(each)); });
}

}  // namespace
