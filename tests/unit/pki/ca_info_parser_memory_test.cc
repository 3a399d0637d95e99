// Every allocation of reading a document fails once, alone and with all that follow.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libpki/libpki.h>
#include <openssl/err.h>

#include <string>
#include <vector>

#include "fakes/allocator.h"
#include "fakes/log_capture.h"
#include "support/ca_info_doc.h"
#include "support/certs.h"

namespace {

class CaInfoMemory : public support::ca_info_test {
 protected:
  void SetUp() override {
    if (!fake_allocator::available())
      GTEST_SKIP() << "this build's allocator cannot be replaced";
    support::ca_info_test::SetUp();
    // OpenSSL fills its caches of algorithms and texts, also the ones for logging errors.
    ASSERT_EQ(parse(support::sample().document), PKI_OK);
    ASSERT_NE(parse("<x>"), PKI_OK);
    support::raise_openssl_error(ERR_R_MALLOC_FAILURE);
    log_openssl_errors(3);
    start_again();
  }
  void start_again() {
    ca.reset(alloc_ca_info());
    support::empty_store();
    support::clear_openssl_errors();
    clear_log();
  }
  // The rest of the store has nothing to do with a document.
  static void expect_store_untouched(size_t n) {
    EXPECT_EQ(OPENSSL_sk_num(pki_store->ca_infos), 0) << n;
    EXPECT_EQ(OPENSSL_sk_num(pki_store->key_store), 0) << n;
    EXPECT_EQ(OPENSSL_sk_num(pki_store->collected_certs), 0) << n;
    EXPECT_EQ(OPENSSL_sk_num(pki_store->global_status_rules), 0) << n;
    EXPECT_LE(OPENSSL_sk_num(pki_store->provisioned_certs), 1) << n;
  }

  void sweep(bool stay_failed) {
    const std::string document = support::sample().document;
    const auto *octets = reinterpret_cast<const unsigned char *>(document.data());
    int length = static_cast<int>(document.size());
    int code = -1;
    size_t failures = fake_allocator::sweep(
        [&] { code = parse_ca_info_doc(octets, length, pki_store, ca.get()); },
        [&](size_t n) {
          EXPECT_THAT(code, testing::AnyOf(PKI_OK, PKI_OUT_OF_MEMORY, PKI_BIO_WRITE_ERROR,
                                           PKI_BIO_CREAT_FAILED, PKI_BIO_BUF_GET_FAILED,
                                           PKI_XML_CERT_DEC_FAILED, PKI_XML_CA_PTR_PARSE_ERROR))
              << n;
          // A document counts as read only when nothing of it is missing.
          if (code == PKI_OK) {
            EXPECT_EQ(support::sample_difference(ca.get()), "") << n;
            EXPECT_EQ(OPENSSL_sk_num(pki_store->provisioned_certs), 1) << n;
          }
          expect_store_untouched(n);
          start_again();
        },
        stay_failed);
    EXPECT_GT(failures, 50u);
    EXPECT_EQ(code, PKI_OK);
    EXPECT_EQ(support::sample_difference(ca.get()), "");
  }
};

TEST_F(CaInfoMemory, OneFailedAllocationIsACodeAndNothingIsSilentlyMissing) {
  sweep(false);
}

TEST_F(CaInfoMemory, MemoryThatStaysShortIsACodeAndNothingIsSilentlyMissing) {
  sweep(true);
}

}  // namespace
