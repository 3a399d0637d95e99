// Looks into CRLs: whatever the octets are and however they come, a report or an error that the
// interface names, in bounded memory; and as many entries as OpenSSL finds.
#include <libpki/crl.h>
#include <libpki/libpki.h>
#include <openssl/err.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "crl_case.h"
#include "crl_entries.h"
#include "crl_model.h"
#include "der_mutator.h"
#include "invariant.h"
#include "memory_meter.h"

namespace {

using namespace fuzz;

constexpr long memory_budget = 1L << 20;
constexpr size_t most_kept = 64;

long highest_peak = 0;

struct outcome {
  int code = 0;
  uint64_t entries = 0, critical = 0, octets = 0;
  std::string encoding;
  bool operator==(const outcome &) const = default;
};

ssize_t read_next(void *, void *buffer, size_t size) {
  return read_scripted(buffer, size);
}

bool is_known(int code) {
  return code == PKI_OK || code == PKI_ASN1_DECODE_ERROR || code == PKI_HTTP_READ_RESP_ERROR ||
         code == PKI_UNKNOWN_DIGEST_ALG;
}

pki_crl_query make_query(const crl_case &now) {
  pki_crl_query query = {};
  if (X509 *target = target_of(now)) {
    query.serial = X509_get0_serialNumber(target);
    query.issuer = now.start_at_target ? nullptr : X509_get_issuer_name(target);
    query.signer = target;
  }
  return query;
}

outcome look(const crl_case &now) {
  const int length = now.script.content_length;
  pki_crl_source source = {read_next, nullptr, length > 0 ? static_cast<uint64_t>(length) : 0};
  pki_crl_query query = make_query(now);
  pki_crl_report report;
  play(now.script);
  outcome result;
  {
    memory_meter meter;
    result.code = pki_scan_crl(&source, &query, &report);
    highest_peak = std::max(highest_peak, meter.peak());
    require(meter.peak() <= memory_budget, "bounded memory", meter.peak());
  }
  require(is_known(result.code), "a known code", result.code);
  require((result.code == PKI_OK) == (report.crl != nullptr), "a CRL or an error", result.code);
  require(ERR_peek_error() == 0, "errors are logged, not left over", result.code);
  require(report.octets <= now.script.size, "octets that came");
  require(report.critical_entries <= report.entries, "critical ones are some of them");
  if (report.crl) {
    size_t kept = all_entries(report.crl).size();
    require(kept <= most_kept && kept <= report.entries, "few entries kept");
    require(kept == 0 || query.serial, "entries that were looked for");
    require(report.signature == (query.signer ? PKI_CRL_NOT_SIGNED : PKI_CRL_NOT_CHECKED),
            "nobody signed it");
    result.encoding = encoding_of(report.crl);
  } else {
    require(!report.entries && !report.octets && !report.signature, "nothing from a failure");
  }
  result.entries = report.entries;
  result.critical = report.critical_entries;
  result.octets = report.octets;
  X509_CRL_free(report.crl);
  return result;
}

// The entries, where OpenSSL can read the list.
void count(const crl_case &now, const outcome &seen) {
  if (seen.code != PKI_OK || now.script.size != now.script.body.size())
    return;
  auto read = read_crl(now.script.body, UINT32_MAX);
  if (!read)
    return;
  const auto *in = reinterpret_cast<const unsigned char *>(read->strict.data());
  X509_CRL *crl = d2i_X509_CRL(nullptr, &in, static_cast<long>(read->strict.size()));
  require(!crl || all_entries(crl).size() == seen.entries, "the entries are counted",
          static_cast<long>(seen.entries));
  X509_CRL_free(crl);
  ERR_clear_error();
}

const der_input form = {crl_choices_size, crl_elements()};

}  // namespace

extern "C" {

int LLVMFuzzerInitialize(int *, char ***) {
  if (libpki_init() != 0)
    return 1;
  install_memory_meter();
  std::atexit([] { std::fprintf(stderr, "fuzz: memory at most: %ld octets\n", highest_peak); });
  return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < crl_choices_size)
    return -1;
  crl_case now = read_crl_case(data, size);
  outcome first = look(now);
  count(now, first);
  if (now.script.delivery == server_script::pieces::whole)
    return 0;
  now.script.delivery = server_script::pieces::whole;
  require(look(now) == first, "the same, however it is cut", first.code);
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
