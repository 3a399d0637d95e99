// Every allocation of provisioning a CA fails once, alone and with all that follow.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libpki/libpki.h>
#include <openssl/err.h>

#include <iterator>
#include <string>
#include <vector>

#include "fakes/allocator.h"
#include "fakes/log_capture.h"
#include "support/ca_info_doc.h"
#include "support/certs.h"
#include "support/descriptors.h"
#include "support/store_fixture.h"
#include "support/test_server.h"

namespace {

class ProvisionMemory : public support::store_test {
 protected:
  void sweep(bool stay_failed) {
    if (!fake_allocator::available())
      GTEST_SKIP() << "this build's allocator cannot be replaced";
    support::key doc_key = support::test_key(0);
    support::key stranger = support::test_key(1);
    support::test_server server({support::ok(support::sign_document(document(), doc_key))});
    std::string url = server.url();
    // OpenSSL and the resolver fill their caches, also the ones for logging errors.
    ASSERT_EQ(pki_add_ca("label", url.c_str(), doc_key.get()), PKI_OK);
    ASSERT_NE(pki_add_ca("label", url.c_str(), stranger.get()), PKI_OK);
    support::raise_openssl_error(ERR_R_MALLOC_FAILURE);
    log_openssl_errors(3);
    support::empty_store();

    const auto open_before = support::open_descriptors();
    int code = -1;
    size_t without_memory = 0, other_codes = 0;
    size_t failures =
        fake_allocator::sweep([&] { code = pki_add_ca("label", url.c_str(), doc_key.get()); },
                              [&](size_t n) {
                                check(code, n);
                                without_memory += code == PKI_OUT_OF_MEMORY;
                                other_codes += code != PKI_OUT_OF_MEMORY && code != PKI_OK;
                                support::empty_store();
                                support::clear_openssl_errors();
                                clear_log();
                              },
                              stay_failed);
    EXPECT_GT(failures, 100u);
    // OpenSSL does not report every failed allocation as one.
    EXPECT_GT(without_memory, other_codes);
    // The server may still be closing its end.
    EXPECT_LE(support::open_descriptors(), open_before + 1);
    EXPECT_EQ(code, PKI_OK);
    check(code, 0);
  }

  // One of each kind: text, attribute, certificate. Reading all that a document may hold has
  // tests of its own.
  static std::string document() {
    using support::element;
    return support::ca_info_doc(
        element("IssuerName", "CN=a") +
        element("CertReqMethod", element("SCEP", "", "url=\"http://ca.test/\"")) +
        element("AdditionalCerts", support::cert_element(support::simple_cert("i", "s", 1))));
  }

  static void check(int code, size_t n) {
    EXPECT_THAT(code,
                testing::AnyOf(PKI_OK, PKI_OUT_OF_MEMORY, PKI_BIO_CREAT_FAILED, PKI_P7_DECODE_ERROR,
                               PKI_CERT_CREATE_FAILED, PKI_SIG_VERIFY_FAILED))
        << n;
    EXPECT_EQ(OPENSSL_sk_num(pki_store->ca_infos), code == PKI_OK ? 1 : 0) << n;
    EXPECT_EQ(OPENSSL_sk_num(pki_store->key_store), 0) << n;
    EXPECT_EQ(OPENSSL_sk_num(pki_store->collected_certs), 0) << n;
    EXPECT_EQ(OPENSSL_sk_num(pki_store->global_status_rules), 0) << n;
    EXPECT_LE(OPENSSL_sk_num(pki_store->provisioned_certs), 1) << n;
    if (code != PKI_OK)
      return;
    // A CA is in the store only as a whole.
    auto *ca = support::at<ca_info>(pki_store->ca_infos, 0);
    EXPECT_STREQ(ca->label, "label") << n;
    EXPECT_EQ(support::oneline(ca->issuer_name), "/CN=a") << n;
    ASSERT_EQ(OPENSSL_sk_num(ca->cert_req_methods), 1) << n;
    auto *method = support::at<cert_req_info>(ca->cert_req_methods, 0);
    EXPECT_STREQ(static_cast<scep_req_info *>(method->data)->url, "http://ca.test/") << n;
    ASSERT_EQ(OPENSSL_sk_num(pki_store->provisioned_certs), 1) << n;
    EXPECT_NE(X509_get0_pubkey(support::at<X509>(pki_store->provisioned_certs, 0)), nullptr) << n;
  }
};

TEST_F(ProvisionMemory, OneFailedAllocationIsACodeAndNoHalfCa) {
  sweep(false);
}

// The last allocation that fails is the one of the URL's parts.
TEST_F(ProvisionMemory, UrlThatMemoryRunsOutForIsNotCalledInvalid) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be replaced";
  support::key doc_key = support::test_key(0);
  int code = -1;
  size_t failures =
      fake_allocator::sweep([&] { code = pki_add_ca("label", "no url", doc_key.get()); },
                            [&](size_t n) {
                              EXPECT_EQ(code, PKI_OUT_OF_MEMORY) << n;
                              EXPECT_FALSE(logged_containing(3, "ca-pointer url")) << log_dump();
                              support::clear_openssl_errors();
                              clear_log();
                            });
  EXPECT_GT(failures, 3u);
  EXPECT_EQ(code, PKI_INVALID_URL);
  EXPECT_TRUE(was_logged(3, "invalid ca-pointer url: no url")) << log_dump();
}

TEST_F(ProvisionMemory, MemoryThatStaysShortIsACodeAndNoHalfCa) {
  sweep(true);
}

}  // namespace
