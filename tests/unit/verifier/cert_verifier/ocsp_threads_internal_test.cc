// Queries of several threads at once.
#include "unit/verifier/cert_verifier/ocsp_support.h"

using namespace ocsp_support;

namespace {

class OcspThreads : public ocsp_query_test {
 protected:
  static constexpr int threads = 8, queries = 10;

  // How many queries of all threads gave this status.
  int count(const std::string &url, int wanted) {
    std::atomic<int> found{0};
    cache_support::in_threads(threads, [&](int) {
      for (int i = 0; i < queries; i++) {
        std::string url_copy = url;
        pki::ocsp_locator locator = {pki::locator_ocsp_url, url_copy.data(), nullptr, 0};
        record info = cache_support::hold(
            pki::zv_cv_ocsp_get_sts_info(&locator, device.get(), issuer.get(), nullptr, 1, 0));
        found += status_of(info) == wanted;
      }
    });
    return found;
  }
};

TEST_F(OcspThreads, ShareTheStore) {
  ocsp_responder responder(by(issue_responder()));
  EXPECT_EQ(threads * queries, count(responder.url(), PKI_CERT_OK));
  EXPECT_EQ(1, OPENSSL_sk_num(pki_store->collected_certs));
}

TEST_F(OcspThreads, ShareTheStatusOfTheSigner) {
  ocsp_responder second(by_issuer());
  ocsp_responder first(by(issue_responder({ocsp_signing, ask_at(second.url())})));
  EXPECT_EQ(threads * queries, count(first.url(), PKI_CERT_OK));
  // Each thread asks once at most, before the first answer is cached.
  EXPECT_LE(second.requests().size(), static_cast<size_t>(threads));
}

}  // namespace
