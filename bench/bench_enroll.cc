// Enrollment over real HTTP with a CA on the loopback: what it costs beside the cryptography that
// it contains, and whether memory stays flat.
//
//   bench_enroll [ROUNDS [SOAK]]   defaults: 600 timed rounds, 10000 enrollments for memory
#include <libpki/libpki.h>
#include <sched.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "bare_crypto.h"
#include "enroll_ca.h"

namespace {

constexpr double budget = 1.25;
constexpr long slack_kib = 512;
constexpr int batch = 25;

double clock_ms(clockid_t clock) {
  timespec now;
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

double own_cpu_ms() {
  return clock_ms(CLOCK_PROCESS_CPUTIME_ID);
}

long resident_kib() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.starts_with("VmRSS:"))
      return std::stol(line.substr(6));
  return -1;
}

// Device and CA wait for each other anyway; on one processor neither finds its caches cold.
void stay_on_one_processor() {
  cpu_set_t here;
  CPU_ZERO(&here);
  CPU_SET(static_cast<size_t>(sched_getcpu()), &here);
  sched_setaffinity(0, sizeof here, &here);
}

int fail(const char *what) {
  std::fprintf(stderr, "bench_enroll: %s\n", what);
  return 1;
}

// A board with a serial number and a secret, in a temporary folder.
class board {
 public:
  board() {
    if (!mkdtemp(folder_))
      return;
    std::ofstream(path("serialnumber")) << "BENCH-0001\n";
    std::ofstream(path("secret")) << "0123456789abcdef";
    setenv("BOARD_INFO_DIR", folder_, 1);
  }
  ~board() {
    std::remove(path("serialnumber").c_str());
    std::remove(path("secret").c_str());
    std::remove(folder_);
  }

 private:
  std::string path(const char *file) const { return std::string(folder_) + "/" + file; }

  char folder_[32] = "/tmp/bench-board-XXXXXX";
};

// The CA of this benchmark, as a CA-info document would describe it.
bool enter_ca(const bench::enroll_ca &server) {
  ca_info *info = alloc_ca_info();
  cert_req_info *method = alloc_cert_req_info_m(PKI_CERT_REQ_SCEP);
  if (!info || !method)
    return false;
  auto *scep = static_cast<scep_req_info *>(method->data);
  info->label = pki_strdup("bench");
  scep->url = pki_strdup(server.url().c_str());
  X509_up_ref(server.certificate().get());
  scep->ca_cert = server.certificate().get();
  bool entered = OPENSSL_sk_push(info->cert_req_methods, method) > 0 && pki_add_ca_info(info) == 0;
  free_ca_info(info);
  return entered;
}

std::string label_of(int key) {
  return "key" + std::to_string(key);
}

bool enroll(int key) {
  return pki_get_certificate("bench", label_of(key).c_str(), "cert", "CN=device, O=Example") == 0;
}

struct costs {
  double keys_ms;     // of the processor, a key: of both sides, as it varies from key to key
  double bare_ms;     // of the processor, the rest of the bare cryptography
  double device_ms;   // of the processor, the rest of an enrollment: the library's side
  double ca_ms;       // of the processor, the responder's side
  double elapsed_ms;  // the rest of an enrollment, as a clock on the wall sees it
};

bool bare_batch(bench::bare_crypto *bare, costs *sum) {
  double start = own_cpu_ms();
  std::vector<support::key> keys;
  for (int i = 0; i < batch; i++)
    keys.push_back(bench::bare_crypto::make_key());
  sum->keys_ms += (own_cpu_ms() - start) / 2;
  start = own_cpu_ms();
  for (const support::key &key : keys)
    if (!key || !bare->one_enrollment(key.get()))
      return false;
  sum->bare_ms += own_cpu_ms() - start;
  return true;
}

bool library_batch(const bench::enroll_ca &server, costs *sum) {
  double start = own_cpu_ms();
  for (int i = 0; i < batch; i++)
    if (pki_generate_key_pair(label_of(i).c_str(), "RSA", 1024))
      return false;
  sum->keys_ms += (own_cpu_ms() - start) / 2;
  double ca_start = server.cpu_ms(), begun = clock_ms(CLOCK_MONOTONIC);
  start = own_cpu_ms();
  for (int i = 0; i < batch; i++)
    if (!enroll(i))
      return false;
  sum->elapsed_ms += clock_ms(CLOCK_MONOTONIC) - begun;
  sum->device_ms += own_cpu_ms() - start;
  sum->ca_ms += server.cpu_ms() - ca_start;
  for (int i = 0; i < batch; i++)
    if (pki_remove_key(label_of(i).c_str()))
      return false;
  return true;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

// The median batch of each kind, a round.
costs median_of(const std::vector<costs> &batches) {
  auto of = [&](double costs::*member) {
    std::vector<double> values;
    for (const costs &one : batches)
      values.push_back(one.*member / batch);
    return median(values);
  };
  return {of(&costs::keys_ms), of(&costs::bare_ms), of(&costs::device_ms), of(&costs::ca_ms),
          of(&costs::elapsed_ms)};
}

// Batches of each by turns, so that what else the machine does meets both. Within a batch the keys
// come first: making a key drives everything else out of the processor's caches.
bool measure_cost(const bench::enroll_ca &server, int rounds, costs *found) {
  bench::bare_crypto bare;
  std::vector<costs> batches;
  for (int i = -batch; i < rounds; i += batch) {
    costs one = {};
    if (!bare_batch(&bare, &one) || !library_batch(server, &one))
      return false;
    if (i >= 0)  // the first one warms up
      batches.push_back(one);
  }
  *found = median_of(batches);
  return true;
}

bool measure_memory(int enrollments, long *after_warm_up, long *highest) {
  if (pki_generate_key_pair(label_of(0).c_str(), "RSA", 1024))
    return false;
  const int warm_up = enrollments / 10;
  *after_warm_up = *highest = 0;
  for (int i = 1; i <= enrollments; i++) {
    if (!enroll(0) || pki_remove_certificate(label_of(0).c_str(), "cert"))
      return false;
    if (i == warm_up)
      *after_warm_up = resident_kib();
    if (i >= warm_up)
      *highest = std::max(*highest, resident_kib());
  }
  return pki_remove_key(label_of(0).c_str()) == 0;
}

}  // namespace

int main(int argc, char **argv) {
  const int rounds = (argc > 1 ? std::atoi(argv[1]) : 600) / batch * batch;
  const int enrollments = argc > 2 ? std::atoi(argv[2]) : 10000;
  if (rounds < 1 || enrollments < 10)
    return fail("usage: bench_enroll [ROUNDS [SOAK]], ROUNDS at least 25, SOAK at least 10");
  stay_on_one_processor();
  board device;
  bench::enroll_ca server;
  if (server.url().empty())
    return fail("the CA could not be started");
  libpki_init();
  if (!enter_ca(server))
    return fail("the CA could not be entered");
  costs cost;
  if (!measure_cost(server, rounds, &cost))
    return fail("an enrollment failed; the system log says why");
  double whole_ms = cost.keys_ms + cost.device_ms + cost.ca_ms;
  double bare_ms = cost.keys_ms + cost.bare_ms;
  double ratio = whole_ms / bare_ms;
  bool cheap = ratio <= budget;
  std::printf(
      "enrollment, RSA-1024, median batch of %d, of the processor: key %.2f ms + device %.2f ms + "
      "CA "
      "%.2f ms = %.2f ms (%.2f ms elapsed behind the key); the bare cryptography in it: "
      "key %.2f ms + %.2f ms = %.2f ms; ratio %.2f; budget %.2f: %s\n",
      rounds, cost.keys_ms, cost.device_ms, cost.ca_ms, whole_ms, cost.elapsed_ms, cost.keys_ms,
      cost.bare_ms, bare_ms, ratio, budget, cheap ? "kept" : "MISSED");
  long before, highest;
  if (!measure_memory(enrollments, &before, &highest))
    return fail("an enrollment failed; the system log says why");
  bool flat = highest - before <= slack_kib;
  std::printf(
      "%d enrollments: resident %ld KiB after %d, highest %ld KiB later; slack %ld KiB: "
      "%s\n",
      enrollments, before, enrollments / 10, highest, slack_kib, flat ? "kept" : "MISSED");
  return cheap && flat ? 0 : 1;
}
