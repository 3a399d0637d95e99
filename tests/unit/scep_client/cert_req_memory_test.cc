// scep_cert_req when memory runs short between the first request and its sending.
#include <gtest/gtest.h>
#include <openssl/err.h>

#include <string>

#include "fakes/allocator.h"
#include "unit/scep_client/scep_fixture.h"

namespace {

class ScepCertReqMemory : public support::scep_client_test {
 protected:
  void SetUp() override {
    scep_client_test::SetUp();
    if (!fake_allocator::available())
      GTEST_SKIP() << "the allocator cannot be made to fail in this build";
  }

  // Enrolls with the n-th allocation failing, at a CA whose URL is refused before anything is sent.
  // OpenSSL may spoil the objects that it used when memory was short, so they are new ones.
  int enroll_failing(size_t n) {
    own_key.reset(EVP_PKEY_dup(support::test_key(1).get()), EVP_PKEY_free);
    support::cert copy(X509_dup(ca_cert.get()), X509_free);
    support::scep_info info =
        support::make_scep_info("ftp://127.0.0.1/", copy, "SHA256", "AES-128-CBC");
    clear_log();
    X509 *made = nullptr;
    fake_allocator::fail_at(n);
    int code = scep_cert_req(own_key.get(), subject.get(), info.get(), &made);
    allocations = fake_allocator::allocations();
    fake_allocator::stop_failing();
    EXPECT_EQ(made, nullptr);
    return code;
  }

  support::cert ca_cert = support::make_ca("scep ca", 7, 70);
  size_t allocations = 0;
};

TEST_F(ScepCertReqMemory, FailureBehindTheFirstRequestLeavesNoErrorInTheQueue) {
  // OpenSSL fills its caches first.
  ASSERT_EQ(enroll_failing(0), PKI_INVALID_URL);
  // From the last one back into those that the request itself needs. Its number of allocations is
  // not quite the same each time, so each of those behind it is met in one of several passes.
  for (int pass = 0; pass < 3; pass++) {
    ASSERT_EQ(enroll_failing(0), PKI_INVALID_URL);
    size_t refused = 0;
    size_t in_request = 0;
    for (size_t n = allocations; n > 0 && in_request < 4; n--) {
      int code = enroll_failing(n);
      EXPECT_TRUE(code == PKI_OUT_OF_MEMORY || code == PKI_INVALID_URL) << n << ": " << code;
      // OpenSSL's base64 filter tries again and succeeds, but does not take back its error.
      if (code == PKI_OUT_OF_MEMORY) {
        EXPECT_EQ(ERR_peek_error(), 0u) << n;
      }
      support::clear_openssl_errors();
      in_request += logged_containing(3, "failed to generate scep CertReq request: ");
      refused += code == PKI_OUT_OF_MEMORY && in_request == 0;
    }
    EXPECT_EQ(in_request, 4u);
    EXPECT_GT(refused, 10u);
  }
}

}  // namespace
