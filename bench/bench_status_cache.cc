// Status cache: a hit in a full cache, on its oldest and on its newest record.
#include <benchmark/benchmark.h>
#include <libpki/libpki.h>

#include <ctime>
#include <vector>

#include "bench_support.h"

namespace {

constexpr int cache_records = 20;

// Fills the cache and gives the certificates, oldest record first.
std::vector<support::cert> fill_cache() {
  zv_cv_clear_cert_sts_info_cache();
  support::asn1_time tomorrow = support::make_time(time(nullptr) + 86400);
  std::vector<support::cert> certs;
  for (long serial = 1; serial <= cache_records; serial++) {
    certs.push_back(support::simple_cert("issuer", "subject", serial));
    cert_sts_info *info = cv_alloc_cert_sts_info(PKI_CERT_OK, certs.back().get(), tomorrow.get());
    zv_cv_add_cert_sts_info_cache(info);
    cv_free_cert_sts_info(info);
  }
  return certs;
}

void status_cache_hit(benchmark::State &state, bool newest) {
  std::vector<support::cert> certs = fill_cache();
  X509 *cert = newest ? certs.back().get() : certs.front().get();
  for (auto _ : state) {
    cert_sts_info *found = zv_cv_find_cert_sts_info_cache(cert);
    if (!found)
      state.SkipWithError("not found");
    cv_free_cert_sts_info(found);
  }
  zv_cv_clear_cert_sts_info_cache();
}
BENCHMARK_CAPTURE(status_cache_hit, oldest, false);
BENCHMARK_CAPTURE(status_cache_hit, newest, true);

}  // namespace
