// pki_get_certificate: each way to fail, its code, its lines, and that nothing is filed.
#include <gtest/gtest.h>
#include <openssl/err.h>

#include <string>
#include <vector>

#include "fakes/failures.h"
#include "support/descriptors.h"
#include "unit/pki/enroll_fixture.h"

namespace {

using support::lines;
using support::scep_ca;
using support::scep_reply;

class EnrollFailures : public support::enroll_test {
 protected:
  // A certificate for the key `which`, or one whose public key nobody can read.
  static support::cert cert_for(int which) {
    support::cert_options options;
    options.public_key = support::test_key(which);
    return support::make_cert(options);
  }
  static support::cert cert_with_unreadable_key() {
    std::string octets = support::der(cert_for(1));
    const std::string rsa("\x2a\x86\x48\x86\xf7\x0d\x01\x01\x01", 9);
    size_t at = octets.find(rsa);
    EXPECT_NE(at, std::string::npos);
    octets[at + 8] = 0x7f;
    const auto *in = reinterpret_cast<const unsigned char *>(octets.data());
    return support::cert(d2i_X509(nullptr, &in, static_cast<long>(octets.size())), X509_free);
  }
};

TEST_F(EnrollFailures, UnknownCaIs50) {
  EXPECT_EQ(pki_get_certificate("ca", "key", "cert", nullptr), PKI_NO_SUCH_CA);
  EXPECT_EQ(captured_log(), lines());
  expect_nothing_filed();
}

TEST_F(EnrollFailures, UnknownKeyIs51) {
  scep_ca ca;
  add_ca(ca);
  EXPECT_EQ(pki_get_certificate("ca", "KEY", "cert", nullptr), PKI_NO_SUCH_KEY);
  EXPECT_EQ(captured_log(), lines());
  EXPECT_EQ(support::at<ca_info>(pki_store->ca_infos, 0)->ref_count, 1);
  EXPECT_TRUE(ca.requests().empty());
}

TEST_F(EnrollFailures, CaIsLookedForBeforeTheKey) {
  EXPECT_EQ(pki_get_certificate("ca", "nokey", "cert", "bad"), PKI_NO_SUCH_CA);
}

TEST_F(EnrollFailures, KeyIsLookedForBeforeTheSubjectIsRead) {
  scep_ca ca;
  add_ca(ca);
  EXPECT_EQ(pki_get_certificate("ca", "nokey", "cert", "bad"), PKI_NO_SUCH_KEY);
}

TEST_F(EnrollFailures, BadSubjectIsTheParsersCodeAndNothingIsSent) {
  scep_ca ca;
  add_ca(ca);
  EXPECT_EQ(pki_get_certificate("ca", "key", "cert", "nokey=x"), PKI_DN_UNKNOWN_KEY);
  EXPECT_EQ(pki_get_certificate("ca", "key", "cert", "CN"), PKI_DN_NO_VALUE);
  EXPECT_EQ(pki_get_certificate("ca", "key", "cert", "CN=\"open"), PKI_DN_OPEN_QS);
  EXPECT_EQ(pki_get_certificate("ca", "key", "cert", ("CN=" + std::string(70000, 'x')).c_str()),
            PKI_INVALID_ARGS);
  EXPECT_TRUE(ca.requests().empty());
  expect_nothing_filed();
}

TEST_F(EnrollFailures, CaWithoutMethodsIs61) {
  scep_ca ca;
  add_ca("ca", {}, ca.certificate());
  EXPECT_EQ(pki_get_certificate("ca", "key", "cert", nullptr), PKI_NO_SUPP_CERT_REQ_METH);
  EXPECT_EQ(captured_log(), lines());
  expect_nothing_filed();
}

TEST_F(EnrollFailures, CaWithUnknownMechanismsOnlyIs61AfterALineEach) {
  scep_ca ca;
  add_ca("ca", {{"", 7}}, ca.certificate());
  EXPECT_EQ(pki_get_certificate("ca", "key", "cert", nullptr), PKI_NO_SUPP_CERT_REQ_METH);
  EXPECT_EQ(own_lines(), (lines{{4, "unsupported cert-request mechanism 7"}}));
  add_ca("more", {{"", 2}, {"", -1}}, ca.certificate());
  clear_log();
  EXPECT_EQ(pki_get_certificate("more", "key", "cert", nullptr), PKI_NO_SUPP_CERT_REQ_METH);
  EXPECT_EQ(own_lines(), (lines{{4, "unsupported cert-request mechanism 2"},
                                {4, "unsupported cert-request mechanism -1"}}));
  expect_nothing_filed();
}

TEST_F(EnrollFailures, ErrorOfTheFirstMethodEndsIt) {
  scep_ca refusing({support::refusal(2)}), willing;
  add_ca("ca", {{refusing.url()}, {willing.url()}}, refusing.certificate());
  EXPECT_EQ(pki_get_certificate("ca", "key", "cert", nullptr), PKI_SCEP_REQ_REJ);
  EXPECT_EQ(own_lines(), (lines{{3, "cert-request rejected"}, {3, "rejection-reason: 2"}}));
  EXPECT_TRUE(willing.requests().empty());
  expect_nothing_filed();
}

TEST_F(EnrollFailures, ErrorOfAMethodBehindASkippedOneEndsIt) {
  scep_ca willing;
  add_ca("ca", {{"", 7}, {"https://127.0.0.1/"}, {willing.url()}}, willing.certificate());
  EXPECT_EQ(pki_get_certificate("ca", "key", "cert", nullptr), PKI_INVALID_URL);
  EXPECT_TRUE(willing.requests().empty());
  expect_nothing_filed();
}

TEST_F(EnrollFailures, MethodWithoutUrlOrCertificateIsRefused) {
  scep_ca ca;
  add_ca(ca);
  auto *method =
      support::at<cert_req_info>(support::at<ca_info>(pki_store->ca_infos, 0)->cert_req_methods, 0);
  auto *info = static_cast<scep_req_info *>(method->data);
  X509_free(info->ca_cert);
  info->ca_cert = nullptr;
  EXPECT_EQ(pki_get_certificate("ca", "key", "cert", nullptr), PKI_INVALID_ARGS);
  EXPECT_TRUE(ca.requests().empty());
  expect_nothing_filed();
}

TEST_F(EnrollFailures, EachErrorOfTheExchangeIsTheResult) {
  scep_reply http, cut, garbage, none;
  http.http = support::status(500);
  cut.http = support::raw("");
  garbage.http = support::ok("garbage");
  none.payload = support::empty_certificate_list();
  EXPECT_EQ(enroll_with(http), PKI_HTTP_ERROR);
  EXPECT_EQ(enroll_with(cut), PKI_HTTP_READ_RESP_ERROR);
  EXPECT_EQ(enroll_with(garbage), PKI_INVALID_SCEP_RSP);
  EXPECT_EQ(enroll_with(none), PKI_INVALID_SCEP_RSP);
  fake_failures::fail_serialnumber(5);
  EXPECT_EQ(enroll_with({}), PKI_FLASH_ERROR);
  expect_nothing_filed();
}

TEST_F(EnrollFailures, StoppedWhilePendingIs52) {
  scep_stop_polling(1);
  EXPECT_EQ(enroll_with(support::pending()), PKI_NO_SUCH_CERT);
  expect_nothing_filed();
}

TEST_F(EnrollFailures, CertificateForAnotherKeyIs65AndLoggedWhole) {
  scep_reply reply;
  reply.issued = cert_for(2);
  EXPECT_EQ(enroll_with(reply), PKI_KEY_MISMATCH);
  EXPECT_EQ(own_lines(), (lines{{2, "wrong public key in new certificate: " +
                                        support::upper_hex(support::der(reply.issued))}}));
  expect_nothing_filed();
  EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST_F(EnrollFailures, WrongKeyOfTheFirstMethodEndsIt) {
  scep_reply reply;
  reply.issued = cert_for(2);
  scep_ca wrong({reply}), right;
  add_ca("ca", {{wrong.url()}, {right.url()}}, wrong.certificate());
  EXPECT_EQ(pki_get_certificate("ca", "key", "cert", nullptr), PKI_KEY_MISMATCH);
  EXPECT_TRUE(right.requests().empty());
}

TEST_F(EnrollFailures, CertificateOfTheCaItselfIs65) {
  scep_reply reply;
  reply.issued = support::make_ca("scep ca", 7, 70);
  EXPECT_EQ(enroll_with(reply), PKI_KEY_MISMATCH);
  expect_nothing_filed();
}

TEST_F(EnrollFailures, CertificateWhoseKeyCannotBeReadIs75) {
  scep_reply reply;
  reply.issued = cert_with_unreadable_key();
  EXPECT_EQ(enroll_with(reply), PKI_INVALID_PUBLIC_KEY);
  EXPECT_EQ(own_lines(), lines());
  EXPECT_EQ(ERR_peek_error(), 0u);
  expect_nothing_filed();
}

TEST_F(EnrollFailures, ReasonForAKeyThatCannotBeReadIsLoggedOnce) {
  scep_reply reply;
  reply.issued = cert_with_unreadable_key();
  ASSERT_EQ(enroll_with(reply), PKI_INVALID_PUBLIC_KEY);
  ASSERT_EQ(captured_log().size(), 1u) << log_dump();
  EXPECT_TRUE(logged_containing(3, "OpenSSL error: error:")) << log_dump();
}

TEST_F(EnrollFailures, NullCertLabelIs2AndNothingIsFiled) {
  EXPECT_EQ(enroll_with({}, nullptr), PKI_OUT_OF_MEMORY);
  expect_nothing_filed();
}

TEST_F(EnrollFailures, NullLabelIsTheLabelOfNoCaAndNoKey) {
  scep_ca ca;
  add_ca(ca);
  EXPECT_EQ(pki_get_certificate(nullptr, "key", "cert", nullptr), PKI_NO_SUCH_CA);
  EXPECT_EQ(pki_get_certificate("ca", nullptr, "cert", nullptr), PKI_NO_SUCH_KEY);
  EXPECT_TRUE(ca.requests().empty());
}

TEST_F(EnrollFailures, EachReferenceThatCannotBeTakenFilesNothing) {
  scep_ca ca;
  std::vector<int> codes;
  for (int after = 0; after < 20; after++) {
    add_ca(ca);
    fake_failures::fail_x509_up_ref(after);
    int code = pki_get_certificate("ca", "key", "cert", nullptr);
    fake_failures::reset();
    pki_remove_ca("ca");
    if (code == PKI_OK)
      break;
    codes.push_back(code);
    expect_nothing_filed();
  }
  // In the exchange, for the key's record, and for the provisioned list.
  ASSERT_GE(codes.size(), 3u);
  for (int code : codes)
    EXPECT_TRUE(code == PKI_CRYPTO_LOCK_FAILED || code == PKI_OUT_OF_MEMORY) << code;
  EXPECT_EQ(codes.front(), PKI_CRYPTO_LOCK_FAILED);
  EXPECT_EQ(codes[codes.size() - 2], PKI_OUT_OF_MEMORY);
  EXPECT_EQ(codes.back(), PKI_CRYPTO_LOCK_FAILED);
}

TEST_F(EnrollFailures, EarlierCertificatesStayAfterAFailure) {
  ASSERT_EQ(enroll_with({}), PKI_OK);
  std::vector<std::string> before = provisioned();
  cert_info *first = filed_cert();
  scep_reply wrong;
  wrong.issued = cert_for(2);
  for (const scep_reply &reply : {wrong, support::refusal(2)})
    EXPECT_NE(enroll_with(reply), PKI_OK);
  EXPECT_EQ(filed(), 1);
  EXPECT_EQ(filed_cert(), first);
  EXPECT_EQ(provisioned(), before);
}

TEST_F(EnrollFailures, NoDescriptorIsLeftOpen) {
  scep_reply http, garbage, wrong;
  http.http = support::status(500);
  garbage.http = support::ok("garbage");
  wrong.issued = cert_for(2);
  scep_ca ca({http, garbage, wrong, support::refusal(1), {}});
  add_ca(ca);
  auto before = support::open_descriptors();
  for (int i = 0; i < 10; i++)
    pki_get_certificate("ca", "key", "cert", nullptr);
  // The server may still be closing its end.
  EXPECT_LE(support::open_descriptors(), before + 1);
}

}  // namespace
