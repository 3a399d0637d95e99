// CRL cache: a hit among as many small CRLs as fit, on the first and on the last entry.
#include <benchmark/benchmark.h>
#include <libpki/libpki.h>

#include <string>

#include "bench_support.h"

namespace {

constexpr int crl_octets = 1000;
constexpr int crl_count = 50;

void crl_cache_hit(benchmark::State &state, int which) {
  zv_cv_clear_crl_cache();
  for (int i = 0; i < crl_count; i++)
    zv_cv_add_crl_to_cache(support::crl_of_size(crl_octets, "CA " + std::to_string(i)).get(),
                           nullptr);
  support::name issuer = support::common_name("CA " + std::to_string(which));
  for (auto _ : state) {
    X509_CRL *found = zv_cv_find_crl_in_cache(issuer.get(), PKI_ALL_REASONS, nullptr);
    if (!found)
      state.SkipWithError("not found");
    X509_CRL_free(found);
  }
  zv_cv_clear_crl_cache();
}
BENCHMARK_CAPTURE(crl_cache_hit, first, 0);
BENCHMARK_CAPTURE(crl_cache_hit, last, crl_count - 1);

}  // namespace
