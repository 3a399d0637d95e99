// Downloading CRLs when memory runs short: that error or the right CRL, and nothing left behind.
#include <functional>
#include <iterator>

#include "fakes/allocator.h"
#include "support/descriptors.h"
#include "unit/verifier/crl_cache/fetch_support.h"

using namespace crl_support;
using namespace support;

namespace {

class CrlFetchAllocation : public crl_fetch_test {
 protected:
  void SetUp() override {
    crl_fetch_test::SetUp();
    if (!fake_allocator::available())
      GTEST_SKIP() << "this build's allocator cannot be replaced";
  }

  // Want of memory is no property of the CRL.
  static bool is_right(int code, int expected) { return code == expected || code == 2; }
  static std::string list_of(int entries = 3) {
    std::string made;
    for (int i = 0; i < entries; i++)
      made += crl_entry(1000 + i, i % 2 ? reason_code(1) : "");
    return made + crl_entry(target_serial, reason_code(1));
  }
  static std::string body(const std::string &extensions = crl_number(1)) {
    crl_fields fields;
    fields.entries = list_of();
    fields.extensions = extensions;
    return crl_octets(fields);
  }

  // Lets each `step`th allocation of `run` fail in turn. `run` returns a code, 0 with a CRL that
  // lists the target; with all the memory it returns `expected`.
  template <class Run>
  void sweep(int expected, const Run &run, size_t step, bool stay_failed = false) {
    // OpenSSL and the resolver fill their caches, also the ones for logging errors.
    ASSERT_EQ(expected, run()) << log_dump();
    raise_openssl_error(ERR_R_MALLOC_FAILURE);
    log_openssl_errors(3);
    const auto open_before = support::open_descriptors();
    size_t failures = 0, reported = 0;
    bool completed = false;
    for (size_t n = 1; n < 100000 && !completed; n += step) {
      clear_log();
      clear_openssl_errors();
      fake_allocator::fail_at(n, stay_failed);
      int code = run();
      completed = !fake_allocator::has_failed();
      fake_allocator::stop_failing();
      failures += !completed;
      if (completed)
        EXPECT_EQ(expected, code) << n;
      else
        EXPECT_TRUE(is_right(code, expected)) << n << ": " << code << "\n" << log_dump();
      reported += code == 2;
      check_run(n, code);
    }
    EXPECT_TRUE(completed);
    EXPECT_GT(reported, failures / 2);
    EXPECT_GT(failures, 20u / step);
    // The server may still be closing its end.
    EXPECT_LE(support::open_descriptors(), open_before + 1);
  }

  // What else holds of the `n`th run.
  std::function<void(size_t n, int code)> check_run = [](size_t, int) {};

  // A CRL that does not list the target would let a revoked certificate pass.
  static void expect_target_listed(X509_CRL *crl) {
    fake_allocator::pause checking;
    bool listed = false;
    STACK_OF(X509_REVOKED) *list = X509_CRL_get_REVOKED(crl);
    for (int i = 0; i < sk_X509_REVOKED_num(list); i++)
      listed |= serial_text(sk_X509_REVOKED_value(list, i)) == std::to_string(target_serial);
    EXPECT_TRUE(listed);
  }

  void sweep_send(const std::string &served, bool announced, int format, size_t step = 1,
                  bool stay_failed = false, int expected = 0) {
    test_server server({serve(served, announced)});
    std::string url = server.url("/crl");
    std::string written = output_of([&] {
      sweep(
          expected,
          [&] {
            pki::crl_request request = {};
            {
              fake_allocator::pause preparing;
              request.tbs_digest = EVP_MD_CTX_new();
            }
            request.target_cert = target().get();
            int code = pki::cv_send_crl_request(&request, url.c_str(), format);
            EXPECT_EQ(code == 0, request.crl != nullptr) << code;
            if (request.crl)
              expect_target_listed(request.crl);
            X509_CRL_free(request.crl);
            EVP_MD_CTX_free(request.tbs_digest);
            return code;
          },
          step, stay_failed);
    });
    report_failures_in(written);
  }

  void sweep_get(const std::string &served, bool announced, size_t step = 1,
                 bool stay_failed = false, int expected = 0, const support::cert &issuer = {}) {
    test_server server({serve(served, announced)});
    std::string url = server.url("/crl");
    crl_info *record = create_crl_info(url.c_str(), 0, 0, 0, nullptr, nullptr);
    std::string written = output_of([&] {
      sweep(
          expected,
          [&] {
            pki::fetched_crl found;
            int code = pki::cv_get_crl(record, {target().get(), issuer.get(), nullptr, false, 0},
                                       {}, &found);
            EXPECT_EQ(code == 0, found.crl != nullptr) << code;
            EXPECT_EQ(code == 0, sk_X509_num(found.signers.get()) > 0) << code;
            if (found.crl) {
              expect_target_listed(found.crl.get());
              EXPECT_EQ(!announced, pki::is_marked_truncated(found.crl.get()));
            }
            return code;
          },
          step, stay_failed);
    });
    free_crl_info(record);
    report_failures_in(written);
  }

  // The stray lines are expected; what the assertions wrote is not.
  static void report_failures_in(std::string written) {
    for (size_t at; (at = written.find("c\n")) != std::string::npos && at == 0;)
      written.erase(0, 2);
    EXPECT_EQ("", written.substr(0, 2000));
  }
};

TEST_F(CrlFetchAllocation, PlainCrl) {
  sweep_send(body(), true, 1);
}

TEST_F(CrlFetchAllocation, PlainCrlWithoutLength) {
  sweep_send(body(), false, 1);
}

TEST_F(CrlFetchAllocation, CrlInPkcs7) {
  sweep_send(pkcs7_octets(body()), true, 2);
}

TEST_F(CrlFetchAllocation, CrlOfUnknownPacking) {
  sweep_send(pkcs7_octets(body()), true, 0);
}

// The walk over a PKCS#7 message would find something else that is wrong.
TEST_F(CrlFetchAllocation, WantOfMemoryIsNoReasonToLookForPkcs7) {
  size_t short_of_memory = 0;
  check_run = [&](size_t n, int code) {
    if (!logged_containing(3, "Failed to decode CRL from '"))
      return;
    EXPECT_FALSE(logged_containing(3, "Failed to decode PKCS7")) << n << "\n" << log_dump();
    EXPECT_EQ(2, code) << n;
    short_of_memory++;
  };
  for (bool announced : {true, false}) {
    short_of_memory = 0;
    sweep_send(body(), announced, 0);
    EXPECT_GT(short_of_memory, 50u);
  }
}

TEST_F(CrlFetchAllocation, MemoryThatStaysShort) {
  sweep_send(body(), true, 1, 1, true);
  sweep_send(body(), false, 0, 1, true);
}

TEST_F(CrlFetchAllocation, IndirectCrl) {
  crl_fields fields;
  fields.extensions = issuing_dist_point({.indirect = true});
  fields.entries = crl_entry(9, certificate_issuer("other")) + crl_entry(3) +
                   crl_entry(target_serial, certificate_issuer("issuer")) + crl_entry(2);
  sweep_send(crl_octets(fields), true, 1);
  sweep_send(crl_octets(fields), false, 1);
}

TEST_F(CrlFetchAllocation, AcceptedCrl) {
  trust(signer_cert());
  sweep_get(body(crl_number(1) +
                 authority_key_id({.issuer = der_directory_name("issuer"), .serial = "\x01"})),
            true, fake_allocator::sweep_step(1));
}

TEST_F(CrlFetchAllocation, AcceptedCrlWithoutLength) {
  trust(signer_cert());
  sweep_get(body(), false, fake_allocator::sweep_step(1));
}

TEST_F(CrlFetchAllocation, AcceptedCrlWhenMemoryStaysShort) {
  trust(signer_cert());
  sweep_get(body(), false, fake_allocator::sweep_step(1), true);
}

TEST_F(CrlFetchAllocation, CrlOfTheGivenIssuer) {
  support::cert issuer = signer_cert();
  sweep_get(body(), true, fake_allocator::sweep_step(1), false, 0, issuer);
}

TEST_F(CrlFetchAllocation, RefusedCrlStaysRefused) {
  trust(signer_cert("issuer", 1));
  sweep_get(body(), true, fake_allocator::sweep_step(1), false, 29);
}

TEST_F(CrlFetchAllocation, UnknownCriticalExtensionStaysRefused) {
  trust(signer_cert());
  sweep_get(body(unknown_extension(true)), true, fake_allocator::sweep_step(1), false, 86);
}

TEST_F(CrlFetchAllocation, CrlFromTheFutureStaysRefused) {
  trust(signer_cert());
  crl_fields fields;
  fields.entries = list_of();
  fields.this_update = der_utc_time(crl_der_now + 1000);
  sweep_get(crl_octets(fields), true, fake_allocator::sweep_step(1), false, 85);
}

TEST_F(CrlFetchAllocation, CachedCrl) {
  support::cert signer = signer_cert();
  trust(signer);
  support::crl cached = openssl_decoded(body());
  ASSERT_EQ(0, zv_cv_add_crl_to_cache(cached.get(), signer.get()));
  crl_info *record = create_crl_info("http://127.0.0.1:1/", 0, 0, 0, nullptr, nullptr);
  int code = -1;
  size_t failures = fake_allocator::sweep(
      [&] {
        pki::fetched_crl found;
        code = pki::cv_get_crl(record, {target().get(), nullptr, nullptr, false, 0}, {}, &found);
      },
      [&](size_t n) { EXPECT_TRUE(code == 0 || code == 2) << n << ": " << code; });
  EXPECT_GT(failures, 0u);
  EXPECT_EQ(0, code);
  free_crl_info(record);
}

}  // namespace
