// What the tests of both caches share: certificates and CRLs whose end can be seen, status
// records, and the log line of a queued OpenSSL error.
#ifndef TESTS_UNIT_VERIFIER_CACHE_SUPPORT_H
#define TESTS_UNIT_VERIFIER_CACHE_SUPPORT_H

#include <libpki/verify.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "fakes/clock.h"
#include "support/certs.h"
#include "support/store_fixture.h"

namespace cache_support {

// Where the tests freeze the clock.
constexpr time_t start = 1'700'000'000;

using flag = std::shared_ptr<std::atomic<bool>>;

inline flag make_flag() {
  return std::make_shared<std::atomic<bool>>(false);
}

// Raises and deletes the flag that an object carried.
inline void object_ended(void *carried) {
  auto *owner = static_cast<flag *>(carried);
  if (owner)
    **owner = true;
  delete owner;
}

// A certificate; `freed` turns true with its last reference.
struct watched_cert {
  support::cert cert;
  flag freed;
};

inline void cert_ended(void *, void *carried, CRYPTO_EX_DATA *, int, long, void *) {
  object_ended(carried);
}

inline watched_cert watch(support::cert cert) {
  static const int index = X509_get_ex_new_index(0, nullptr, nullptr, nullptr, cert_ended);
  flag freed = make_flag();
  X509_set_ex_data(cert.get(), index, new flag(freed));
  return {std::move(cert), freed};
}

inline watched_cert make_watched_cert(const std::string &subject = "device", long serial = 1) {
  return watch(support::simple_cert("issuer", subject, serial));
}

// A CRL; `freed` turns true with its last reference.
struct watched_crl {
  support::crl crl;
  flag freed;
};

inline int crl_started(X509_CRL *) {
  return 1;
}

inline int crl_ended(X509_CRL *crl) {
  object_ended(X509_CRL_get_meth_data(crl));
  X509_CRL_set_meth_data(crl, nullptr);
  return 1;
}

// A copy of `model`, as OpenSSL decodes it.
inline watched_crl watch(const support::crl &model) {
  static const std::unique_ptr<X509_CRL_METHOD, void (*)(X509_CRL_METHOD *)> method(
      X509_CRL_METHOD_new(crl_started, crl_ended, nullptr, nullptr), X509_CRL_METHOD_free);
  std::string octets = support::der(model);
  const auto *in = reinterpret_cast<const unsigned char *>(octets.data());
  X509_CRL_set_default_method(method.get());
  X509_CRL *made = d2i_X509_CRL(nullptr, &in, static_cast<long>(octets.size()));
  X509_CRL_set_default_method(nullptr);
  flag freed = make_flag();
  X509_CRL_set_meth_data(made, new flag(freed));
  return {support::crl(made, X509_CRL_free), freed};
}

inline support::crl make_crl(const std::string &issuer_cn,
                             const std::vector<int> &only_some_reasons = {}) {
  support::crl_options options;
  options.issuer = support::common_name(issuer_cn);
  options.only_some_reasons = only_some_reasons;
  return support::make_crl(options);
}

// A status record held by one reference of the test's own.
using record = std::unique_ptr<cert_sts_info, void (*)(cert_sts_info *)>;

inline record hold(cert_sts_info *info) {
  return record(info, cv_free_cert_sts_info);
}

// -1 without a record.
inline int status_of(const record &info) {
  return info ? info->status : -1;
}

inline record make_record(const support::cert &cert, time_t valid_until = start + 3600,
                          int status = PKI_CERT_OK) {
  support::asn1_time time = support::make_time(valid_until);
  return hold(cv_alloc_cert_sts_info(status, cert.get(), time.get()));
}

inline record make_record(long serial, time_t valid_until = start + 3600) {
  return make_record(support::simple_cert("issuer", "device", serial), valid_until);
}

// Has OpenSSL look at the record's certificate, which takes locks and memory at the first time.
inline void look_at_cert(const record &info) {
  X509_get_extension_flags(info->cert);
}

inline void make_unreadable(ASN1_TIME *time) {
  ASN1_STRING_set(time, "soon", 4);
}

inline bool is_cached(const record &info) {
  return info->link.previous != nullptr;
}

// Looks up the CRL and gives the reference back at once: for comparing only.
inline const X509_CRL *peek(const std::string &issuer_cn, uint32_t reasons = 0) {
  support::name issuer = support::common_name(issuer_cn);
  X509_CRL *found = zv_cv_find_crl_in_cache(issuer.get(), reasons, nullptr);
  X509_CRL_free(found);
  return found;
}

// Queues an OpenSSL error and returns the line that draining the queue logs.
inline std::string queue_error(int reason = ERR_R_INTERNAL_ERROR) {
  support::raise_openssl_error(reason);
  char text[200];
  ERR_error_string_n(ERR_peek_last_error(), text, sizeof text);
  return std::string("OpenSSL error: ") + text;
}

// Runs `work(0)` to `work(count - 1)`, each in a thread of its own.
template <class Work>
void in_threads(int count, const Work &work) {
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (int i = 0; i < count; i++)
    threads.emplace_back([&, i] {
      while (!go)
        std::this_thread::yield();
      work(i);
    });
  go = true;
  for (std::thread &thread : threads)
    thread.join();
}

// Empty caches and a clock that stands still.
class cache_test : public support::store_test {
 protected:
  void SetUp() override {
    store_test::SetUp();
    fake_clock::set(start);
  }
};

}  // namespace cache_support

#endif
