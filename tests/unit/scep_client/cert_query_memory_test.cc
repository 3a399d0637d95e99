// scep_qry_cert, and the self-signed certificates of requesters, when memory runs short.
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <unistd.h>

#include <map>
#include <string>

#include "fakes/allocator.h"
#include "unit/scep_client/scep_fixture.h"

namespace {

using support::scep_ca;
using support::scep_info;
using support::scep_reply;

class ScepQueryMemory : public support::scep_client_test {
 protected:
  void SetUp() override {
    scep_client_test::SetUp();
    if (!fake_allocator::available())
      GTEST_SKIP() << "the allocator cannot be made to fail in this build";
  }
  // A key or certificate that OpenSSL used when memory was short is not used again.
  support::key fresh_key() const {
    return support::key(EVP_PKEY_dup(own_key.get()), EVP_PKEY_free);
  }
  static scep_info fresh_endpoint(const scep_ca &ca) {
    support::cert copy(X509_dup(ca.certificate().get()), X509_free);
    return support::make_scep_info(ca.url(), copy, "SHA256", "AES-128-CBC");
  }
};

TEST_F(ScepQueryMemory, FailedAllocationIsACodeAndTheOldCertificateStays) {
  scep_reply reply;
  reply.issued = support::simple_cert("issuer", "found", 5);
  scep_ca ca({reply});
  std::map<int, size_t> codes;
  bool completed = false;
  // All of them would take minutes.
  const size_t step = fake_allocator::sweep_step(17);
  for (size_t n = 1; n < 50000 && !completed; n += step) {
    std::shared_ptr<cert_info> query(alloc_cert_info(), free_cert_info);
    query->issuer = X509_NAME_dup(support::common_name("issuer").get());
    query->serial = ASN1_INTEGER_dup(support::make_serial(5).get());
    query->cert = X509_dup(support::simple_cert("old", "old", 1).get());
    X509 *before = query->cert;
    support::key key = fresh_key();
    scep_info info = fresh_endpoint(ca);
    fake_allocator::fail_at(n);
    int code = scep_qry_cert(query.get(), info.get(), key.get());
    completed = !fake_allocator::has_failed();
    fake_allocator::stop_failing();
    codes[code]++;
    if (code == PKI_OK) {
      EXPECT_EQ(X509_cmp(query->cert, reply.issued.get()), 0) << n;
    } else {
      EXPECT_EQ(query->cert, before) << n;
    }
    EXPECT_EQ(ERR_peek_error(), 0u) << n << ": code " << code;
    support::clear_openssl_errors();
    clear_log();
  }
  EXPECT_TRUE(completed);
  for (const auto &[code, count] : codes)
    EXPECT_TRUE(code == PKI_OK || code == PKI_OUT_OF_MEMORY || code == PKI_INVALID_SCEP_RSP ||
                code == PKI_FAILED_TO_GEN_GET_CERT)
        << code << " " << count << " times";
}

// In a process of its own: OpenSSL 3.0 does not survive all of it by itself.
TEST_F(ScepQueryMemory, RequestersCertificateSurvivesEveryFailedAllocation) {
  const std::string style = GTEST_FLAG_GET(death_test_style);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto sweep = [&] {
    support::integer serial = support::make_serial(5);
    bool completed = false;
    for (size_t n = 1; n < 5000 && !completed; n++) {
      support::key key = fresh_key();
      X509 *made = nullptr;
      fake_allocator::fail_at(n);
      int code =
          gen_ss_cert(key.get(), key.get(), subject.get(), serial.get(), EVP_sha256(), &made);
      completed = !fake_allocator::has_failed();
      fake_allocator::stop_failing();
      X509_free(made);
      if ((code == PKI_OK) != (made != nullptr))
        _exit(1);
      support::clear_openssl_errors();
    }
    _exit(completed ? 0 : 2);
  };
  EXPECT_EXIT(sweep(), testing::ExitedWithCode(0), "");
  GTEST_FLAG_SET(death_test_style, style);
}

TEST_F(ScepQueryMemory, RequestItselfSurvivesEveryFailedAllocation) {
  const std::string style = GTEST_FLAG_GET(death_test_style);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto sweep = [&] {
    support::cert ca_cert = support::make_ca("scep ca", 7, 70);
    bool completed = false;
    // The inner request and its signature come first.
    for (size_t n = 1; n < 1500 && !completed; n++) {
      support::key key = fresh_key();
      PKCS7 *made = nullptr;
      fake_allocator::fail_at(n);
      int code = gen_scep_cert_req(key.get(), key.get(), subject.get(), ca_cert.get(), nullptr, 0,
                                   EVP_sha256(), EVP_aes_128_cbc(), &made);
      completed = !fake_allocator::has_failed();
      fake_allocator::stop_failing();
      PKCS7_free(made);
      if ((code == PKI_OK) != (made != nullptr))
        _exit(1);
      support::clear_openssl_errors();
    }
    _exit(0);
  };
  EXPECT_EXIT(sweep(), testing::ExitedWithCode(0), "");
  GTEST_FLAG_SET(death_test_style, style);
}

}  // namespace
