// pki_add_ca and pki_remove_ca: connect, download, verify, parse, enter, remove; the server runs in
// this process.
#include <benchmark/benchmark.h>
#include <libpki/libpki.h>

#include <cstdlib>

#include "bench_support.h"
#include "support/test_server.h"

namespace {

std::string signed_document() {
  const std::string &document = bench::document();
  unsigned char *der;
  int length;
  sign_bytes(document.data(), static_cast<int>(document.size()), bench::doc_key().get(), &der,
             &length);
  std::string message(reinterpret_cast<char *>(der), static_cast<size_t>(length));
  std::free(der);
  return message;
}

void provision_and_remove(benchmark::State &state) {
  support::test_server server({support::ok(signed_document(), "application/pkcs7-mime")});
  std::string url = server.url("/ca-info");
  for (auto _ : state) {
    int error = pki_add_ca("bench", url.c_str(), bench::doc_key().get());
    if (!error)
      error = pki_remove_ca("bench");
    if (error)
      state.SkipWithError(pki_strerror(static_cast<unsigned>(error)));
  }
}
BENCHMARK(provision_and_remove)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
