// What a host calls at a certificate's end: in the thread that frees it, and in another one, for
// which that thread waits.
#ifndef TESTS_UNIT_VERIFIER_CERT_END_H
#define TESTS_UNIT_VERIFIER_CERT_END_H

#include <openssl/x509.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "support/certs.h"

namespace cert_end {

// The other thread did not come back in time.
constexpr int stuck = -1;

inline std::chrono::seconds patience() {
  const char *factor = std::getenv("TEST_PATIENCE");
  return std::chrono::seconds(5 * (factor ? std::atoi(factor) : 1));
}

class end_call {
 public:
  explicit end_call(std::function<int()> call) : call_(std::move(call)) {}
  end_call(const end_call &) = delete;
  end_call &operator=(const end_call &) = delete;
  // By now whoever held a lock has given it back.
  ~end_call() {
    for (std::thread &each : threads_)
      each.join();
  }

  // Hands out the certificate, at whose end the call is made.
  support::cert hang_on(support::cert cert) {
    static const int index = X509_get_ex_new_index(0, nullptr, nullptr, nullptr, cert_ended);
    X509_set_ex_data(cert.get(), index, this);
    return cert;
  }
  // What the calls gave: here, elsewhere, and so on.
  const std::vector<int> &results() const { return results_; }

 private:
  static void cert_ended(void *, void *carried, CRYPTO_EX_DATA *, int, long, void *) {
    auto *end = static_cast<end_call *>(carried);
    if (!end)
      return;
    end->results_.push_back(end->call_());
    // Having got stuck once is enough.
    if (std::find(end->results_.begin(), end->results_.end(), stuck) == end->results_.end())
      end->call_elsewhere();
  }
  void call_elsewhere() {
    auto done = std::make_shared<std::promise<int>>();
    std::future<int> result = done->get_future();
    threads_.emplace_back([done, call = call_] { done->set_value(call()); });
    bool in_time = result.wait_for(patience()) == std::future_status::ready;
    results_.push_back(in_time ? result.get() : stuck);
  }

  std::function<int()> call_;
  std::vector<int> results_;
  std::vector<std::thread> threads_;
};

}  // namespace cert_end

#endif
