// Downloads of CRLs: whatever a server sends, however it cuts it and wherever it stops, the result
// is a CRL or an error that the interface names, in bounded memory, and does not depend on how the
// octets were cut.
#include <libpki/libpki.h>
#include <openssl/err.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>

#include "crl_case.h"
#include "crl_entries.h"
#include "der_mutator.h"
#include "invariant.h"
#include "memory_meter.h"
#include "verifier/crl_cache/fetch.h"

namespace {

using namespace fuzz;

// A list that is kept whole has at most 10000 octets, and so has each element; OpenSSL's objects
// take many times that. Nothing may grow with what the server sends.
constexpr long memory_budget = 1L << 20;
constexpr size_t most_kept = 64;
constexpr char url[] = "http://127.0.0.1/crl";

constexpr int codes[] = {PKI_OK,           PKI_ASN1_DECODE_ERROR,  PKI_HTTP_READ_RESP_ERROR,
                         PKI_INVALID_ARGS, PKI_UNKNOWN_DIGEST_ALG, PKI_UNKNOWN_CRITICAL_EXTENSION};

long highest_peak = 0;

struct outcome {
  int code = 0;
  bool truncated = false;
  std::string encoding;
  bool operator==(const outcome &) const = default;
};

void check_kept(const crl_case &now, const X509_CRL *crl) {
  std::vector<std::string> kept = all_entries(crl);
  require(kept.empty() || now.has_target, "entries for a target");
  require(kept.size() <= most_kept, "few entries kept", static_cast<long>(kept.size()));
  require(
      kept.empty() || kept.size() == entries_about(crl, target_of(now), now.start_at_target).size(),
      "only the target's entries are kept");
}

void check_encoding(const std::string &encoding) {
  const auto *in = reinterpret_cast<const unsigned char *>(encoding.data());
  X509_CRL *again = d2i_X509_CRL(nullptr, &in, static_cast<long>(encoding.size()));
  require(again != nullptr, "OpenSSL reads what was made");
  require(encoding_of(again) == encoding, "the encoding is OpenSSL's");
  X509_CRL_free(again);
}

// What is done with a CRL whose signature is good.
void use(X509_CRL *crl, bool truncated) {
  (void)pki::check_this_update(crl);
  (void)pki::cv_crl_check_update_dates(crl);
  require(!truncated || pki::cv_crl_mark_truncated(crl) == PKI_OK, "a CRL can be marked");
  require(!truncated || pki::is_marked_truncated(crl), "the mark is seen");
  check_encoding(encoding_of(crl));
  ERR_clear_error();
}

outcome download(const crl_case &now) {
  EVP_MD_CTX *digest = EVP_MD_CTX_new();
  pki::crl_request request = {};
  request.tbs_digest = digest;
  request.target_cert = target_of(now);
  request.entries_may_start_at_target = now.start_at_target;
  play(now.script);
  outcome result;
  {
    memory_meter meter;
    result.code = pki::cv_send_crl_request(&request, url, now.format);
    highest_peak = std::max(highest_peak, meter.peak());
    require(meter.peak() <= memory_budget, "bounded memory", meter.peak());
  }
  require(std::count(std::begin(codes), std::end(codes), result.code) == 1, "a known code",
          result.code);
  require(result.code != PKI_INVALID_ARGS || !now.has_target, "63 for want of a target");
  require((result.code == PKI_OK) == (request.crl != nullptr), "a CRL or an error", result.code);
  require(ERR_peek_error() == 0, "errors are logged, not left over", result.code);
  result.truncated = request.truncated;
  if (request.crl) {
    result.encoding = encoding_of(request.crl);
    check_encoding(result.encoding);
    if (request.truncated)
      check_kept(now, request.crl);
    use(request.crl, request.truncated);
  }
  X509_CRL_free(request.crl);
  EVP_MD_CTX_free(digest);
  return result;
}

const der_input form = {crl_choices_size, crl_elements()};

}  // namespace

extern "C" {

int LLVMFuzzerInitialize(int *, char ***) {
  // The decoder writes lines to standard output.
  if (!std::freopen("/dev/null", "w", stdout))
    return 1;
  libpki_init();
  install_memory_meter();
  std::atexit([] { std::fprintf(stderr, "fuzz: memory at most: %ld octets\n", highest_peak); });
  return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < crl_choices_size)
    return -1;
  crl_case now = read_crl_case(data, size);
  outcome first = download(now);
  if (now.script.delivery == server_script::pieces::whole)
    return 0;
  now.script.delivery = server_script::pieces::whole;
  require(download(now) == first, "the same, however it is cut", first.code);
  return 0;
}

size_t LLVMFuzzerCustomMutator(uint8_t *data, size_t size, size_t max_size, unsigned seed) {
  return mutate_der_input(form, data, size, max_size, seed);
}

size_t LLVMFuzzerCustomCrossOver(const uint8_t *one, size_t one_size, const uint8_t *other,
                                 size_t other_size, uint8_t *out, size_t max_size, unsigned seed) {
  return cross_der_inputs(form, one, one_size, other, other_size, out, max_size, seed);
}
}
