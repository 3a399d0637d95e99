// sign_bytes and verify_bytes: a CA-info document of the usual size, an RSA key of 2048 bits.
#include <benchmark/benchmark.h>
#include <libpki/libpki.h>

#include <cstdlib>

#include "bench_support.h"

namespace {

void sign_bytes_rsa_2048(benchmark::State &state) {
  const std::string &document = bench::document();
  EVP_PKEY *key = bench::doc_key().get();
  for (auto _ : state) {
    unsigned char *der;
    int length;
    int error = sign_bytes(document.data(), static_cast<int>(document.size()), key, &der, &length);
    if (error)
      state.SkipWithError(pki_strerror(static_cast<unsigned>(error)));
    std::free(der);
  }
}
BENCHMARK(sign_bytes_rsa_2048);

void verify_bytes_rsa_2048(benchmark::State &state) {
  const std::string &document = bench::document();
  EVP_PKEY *key = bench::doc_key().get();
  unsigned char *der;
  int length;
  sign_bytes(document.data(), static_cast<int>(document.size()), key, &der, &length);
  for (auto _ : state) {
    unsigned char *content;
    int content_length;
    int error = verify_bytes(der, length, key, &content, &content_length);
    if (error)
      state.SkipWithError(pki_strerror(static_cast<unsigned>(error)));
    std::free(content);
  }
  std::free(der);
}
BENCHMARK(verify_bytes_rsa_2048);

}  // namespace
