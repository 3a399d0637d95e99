// parse_url.
#include <benchmark/benchmark.h>
#include <libpki/libpki.h>

#include <cstdlib>

namespace {

void parse_url_usual(benchmark::State &state) {
  for (auto _ : state) {
    char *copy;
    char *host;
    char *path;
    int error =
        parse_url("http://ca.example.net:8080/gateways/ca-info?model=7", &copy, &host, &path);
    if (error)
      state.SkipWithError(pki_strerror(static_cast<unsigned>(error)));
    benchmark::DoNotOptimize(path);
    std::free(copy);
  }
}
BENCHMARK(parse_url_usual);

}  // namespace
