// pki_get_certificate when memory runs short anywhere in an enrollment.
#include <gtest/gtest.h>
#include <openssl/err.h>

#include <map>
#include <set>
#include <string>

#include "fakes/allocator.h"
#include "unit/pki/enroll_fixture.h"

namespace {

using support::scep_ca;

class EnrollMemory : public support::enroll_test {
 protected:
  void SetUp() override {
    enroll_test::SetUp();
    if (!fake_allocator::available())
      GTEST_SKIP() << "the allocator cannot be made to fail in this build";
  }

  // Enrolls again and again, with the n-th allocation failing for each `step`th n: all of them
  // would take minutes. Key and certificates are new objects each time, since OpenSSL may spoil
  // those that it used when memory was short.
  void sweep(const char *digest, const char *cipher, size_t first, size_t step, bool stay_failed) {
    scep_ca ca;
    start_afresh(ca, digest, cipher);
    ASSERT_EQ(enroll(), PKI_OK) << log_dump();
    bool completed = false;
    size_t rounds = 0;
    step = fake_allocator::sweep_step(step);
    for (size_t n = first; n < 100000 && !completed; n += step, rounds++) {
      start_afresh(ca, digest, cipher);
      fake_allocator::fail_at(n, stay_failed);
      int code = enroll();
      completed = !fake_allocator::has_failed();
      fake_allocator::stop_failing();
      check(code, n, ca);
      if (code != PKI_OK) {
        EXPECT_EQ(ERR_peek_error(), 0u) << n << ": code " << code;
      }
      ca.forget();
    }
    EXPECT_TRUE(completed);
    EXPECT_GT(rounds, 100u);
    EXPECT_GT(codes[PKI_OUT_OF_MEMORY], 10u);
  }

  static void start_afresh(const scep_ca &ca, const char *digest, const char *cipher) {
    support::empty_store();
    support::clear_openssl_errors();
    clear_log();
    add_key("key", support::test_key(1));
    add_ca("ca", {{ca.url()}}, ca.certificate(), digest, cipher);
  }
  static int enroll() { return pki_get_certificate("ca", "key", "cert", "CN=device, C=US"); }

  void check(int code, size_t n, const scep_ca &ca) {
    codes[code]++;
    // What OpenSSL does not report as a lack of memory has the code of its step, down to a key of
    // the new certificate that cannot be read or does not verify. None says that the CA refused.
    static const std::set<int> documented = {PKI_OK,
                                             PKI_OUT_OF_MEMORY,
                                             PKI_BIO_CREAT_FAILED,
                                             PKI_P7_ENCRYPT_FAILED,
                                             PKI_P7_SIGN_FAILED,
                                             PKI_P7_DATAINIT_FAILED,
                                             PKI_P7_DATAFINAL_FAILED,
                                             PKI_SIGN_FAILED,
                                             PKI_INVALID_SCEP_RSP,
                                             PKI_KEY_MISMATCH,
                                             PKI_INTERNAL_ERROR,
                                             PKI_INVALID_PUBLIC_KEY};
    EXPECT_EQ(documented.count(code), 1u) << n << ": " << code;
    EXPECT_EQ(support::at<ca_info>(pki_store->ca_infos, 0)->ref_count, 1) << n;
    EXPECT_EQ(stored_key()->ref_count, 1) << n;
    if (code != PKI_OK) {
      EXPECT_EQ(filed(), 0) << n;
      EXPECT_EQ(OPENSSL_sk_num(pki_store->provisioned_certs), 0) << n;
      return;
    }
    ASSERT_EQ(filed(), 1) << n;
    ASSERT_EQ(OPENSSL_sk_num(pki_store->provisioned_certs), 1) << n;
    EXPECT_EQ(X509_cmp(filed_cert()->cert, ca.issued().back().get()), 0) << n;
    EXPECT_STREQ(filed_cert()->label, "cert") << n;
    EXPECT_EQ(support::oneline(filed_cert()->subject), "/C=US/CN=device") << n;
  }

  std::map<int, size_t> codes;
};

TEST_F(EnrollMemory, OneFailedAllocationIsACodeAndNothingFiled) {
  sweep("SHA256", "AES-128-CBC", 1, 13, false);
}

TEST_F(EnrollMemory, OneFailedAllocationWithTheDefaultsIsACodeAndNothingFiled) {
  sweep(nullptr, nullptr, 13, 17, false);
}

TEST_F(EnrollMemory, MemoryThatStaysShortIsACodeAndNothingFiled) {
  sweep("SHA256", "AES-128-CBC", 3, 11, true);
}

TEST_F(EnrollMemory, EveryFailedAllocationBehindTheExchangeFilesNothing) {
  scep_ca ca;
  start_afresh(ca, "SHA256", "AES-128-CBC");
  ASSERT_EQ(enroll(), PKI_OK);
  start_afresh(ca, "SHA256", "AES-128-CBC");
  fake_allocator::fail_at(0);
  ASSERT_EQ(enroll(), PKI_OK);
  size_t all = fake_allocator::allocations();
  ASSERT_GT(all, 400u);
  for (size_t n = all - 400; n <= all + 20; n++) {
    start_afresh(ca, "SHA256", "AES-128-CBC");
    ca.forget();
    fake_allocator::fail_at(n);
    int code = enroll();
    fake_allocator::stop_failing();
    check(code, n, ca);
  }
  EXPECT_GT(codes[PKI_OUT_OF_MEMORY], 10u);
}

TEST_F(EnrollMemory, MemoryThatReturnsIsEnoughForTheSameObjects) {
  scep_ca ca;
  start_afresh(ca, "SHA256", "AES-128-CBC");
  fake_allocator::fail_at(50);
  EXPECT_EQ(enroll(), PKI_OUT_OF_MEMORY);
  fake_allocator::stop_failing();
  EXPECT_EQ(enroll(), PKI_OK) << log_dump();
}

}  // namespace
