// Verifying a chain of three certificates whose statuses are cached: what the callback costs beside
// OpenSSL's own work, and what threads gain that share the caches.
//
//   bench_verify [BATCHES]   default: 200 batches of each kind
#include <libpki/libpki.h>
#include <syslog.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <thread>
#include <vector>

#include "support/certs.h"

namespace {

constexpr double cost_budget = 1.15;
constexpr double throughput_budget = 1.6;
constexpr int batch = 50;
constexpr int many_threads = 8;

using verify_cb = int(int, X509_STORE_CTX *);

double clock_ms(clockid_t clock) {
  timespec now;
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

int fail(const char *what) {
  std::fprintf(stderr, "bench_verify: %s\n", what);
  return 1;
}

// Root, intermediate, end entity, each with a 2048-bit RSA key.
struct chain {
  chain() {
    support::key keys[3];
    for (support::key &key : keys)
      key = support::make_key(2048);
    support::cert_options options;
    options.ca = true;
    options.subject = support::common_name("Bench Root");
    options.public_key = keys[0];
    root = support::make_cert(options);
    options.issuer = options.subject;
    options.subject = support::common_name("Bench CA");
    options.public_key = keys[1];
    options.signing_key = keys[0];
    intermediate = support::make_cert(options);
    options.ca = false;
    options.issuer = options.subject;
    options.subject = support::common_name("gateway");
    options.public_key = keys[2];
    options.signing_key = keys[1];
    end_entity = support::make_cert(options);
    X509_STORE_add_cert(store.get(), root.get());
    X509_up_ref(intermediate.get());
    sk_X509_push(untrusted.get(), intermediate.get());
  }

  [[nodiscard]] bool verifies(verify_cb *callback) const {
    X509_STORE_CTX *ctx = X509_STORE_CTX_new();
    bool good =
        ctx && X509_STORE_CTX_init(ctx, store.get(), end_entity.get(), untrusted.get()) == 1;
    if (good && callback)
      X509_STORE_CTX_set_verify_cb(ctx, callback);
    good = good && X509_verify_cert(ctx) == 1;
    X509_STORE_CTX_free(ctx);
    return good;
  }

  support::cert root, intermediate, end_entity;
  std::shared_ptr<X509_STORE> store{X509_STORE_new(), X509_STORE_free};
  std::shared_ptr<STACK_OF(X509)> untrusted{
      sk_X509_new_null(), [](STACK_OF(X509) * certs) { sk_X509_pop_free(certs, X509_free); }};
};

// Microseconds of the processor a verification; negative when one fails.
double time_batch(const chain &certs, verify_cb *callback) {
  double start = clock_ms(CLOCK_PROCESS_CPUTIME_ID);
  for (int i = 0; i < batch; i++)
    if (!certs.verifies(callback))
      return -1;
  return (clock_ms(CLOCK_PROCESS_CPUTIME_ID) - start) * 1e3 / batch;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

struct costs {
  double bare_us;
  double internet_us;
};

// By turns, so that what else the machine does meets both.
bool measure_cost(const chain &certs, int batches, costs *found) {
  std::vector<double> bare, internet;
  for (int i = -1; i < batches; i++) {
    double one = time_batch(certs, nullptr);
    double other = time_batch(certs, zv_cv_cert_validator_internet);
    if (one < 0 || other < 0)
      return false;
    if (i < 0)  // warms up
      continue;
    bare.push_back(one);
    internet.push_back(other);
  }
  *found = {median(bare), median(internet)};
  return true;
}

// Verifications a second; 0 when one fails.
double throughput(const chain &certs, int threads, int milliseconds) {
  std::atomic<bool> stop = false, failed = false;
  std::atomic<long> done = 0;
  auto verify = [&] {
    long count = 0;
    while (!stop && !failed) {
      if (!certs.verifies(zv_cv_cert_validator_internet))
        failed = true;
      count++;
    }
    done += count;
  };
  double start = clock_ms(CLOCK_MONOTONIC);
  std::vector<std::thread> running;
  for (int i = 0; i < threads; i++)
    running.emplace_back(verify);
  timespec pause = {milliseconds / 1000, milliseconds % 1000 * 1000000L};
  nanosleep(&pause, nullptr);
  stop = true;
  for (std::thread &thread : running)
    thread.join();
  double seconds = (clock_ms(CLOCK_MONOTONIC) - start) / 1e3;
  return failed ? 0 : static_cast<double>(done) / seconds;
}

// One thread and many by turns; the median gain.
double measure_gain(const chain &certs, double *one, double *many) {
  std::vector<double> gains, ones, manies;
  for (int i = 0; i < 7; i++) {
    ones.push_back(throughput(certs, 1, 500));
    manies.push_back(throughput(certs, many_threads, 500));
    gains.push_back(ones.back() > 0 ? manies.back() / ones.back() : 0);
  }
  *one = median(ones);
  *many = median(manies);
  return median(gains);
}

// What a gateway has met after some time: the store's list of collected certificates is full.
bool fill_collected() {
  for (long serial = 1; serial <= 512; serial++) {
    support::cert met = support::simple_cert("issuer", "met", serial);
    if (pki_add_untrusted_cert(met.get(), 0) != 0)
      return false;
  }
  return true;
}

}  // namespace

int main(int argc, char **argv) {
  const int batches = argc > 1 ? std::atoi(argv[1]) : 200;
  if (batches < 1) {
    std::fprintf(stderr, "bench_verify: usage: bench_verify [BATCHES]\n");
    return 2;
  }
  setlogmask(LOG_UPTO(LOG_NOTICE));  // as a host does that runs for years
  libpki_init();
  STACK *every_cert = OPENSSL_sk_new_null();
  if (!every_cert || pki_add_aok_info(nullptr, every_cert, 0) != 0)
    return fail("no status rule");
  OPENSSL_sk_free(every_cert);
  if (!fill_collected())
    return fail("no certificates in the store");
  chain certs;
  if (!certs.verifies(zv_cv_cert_validator_internet))
    return fail("the chain does not verify");
  costs cost;
  if (!measure_cost(certs, batches, &cost))
    return fail("a verification failed");
  double one, many;
  double gain = measure_gain(certs, &one, &many);
  double ratio = cost.internet_us / cost.bare_us;
  std::printf(
      "verify, 3 certificates (RSA 2048), statuses cached, store full, debug lines masked:\n");
  std::printf("  X509_verify_cert alone        %8.1f us of the processor\n", cost.bare_us);
  std::printf("  with the internet callback    %8.1f us   ratio %.3f (budget %.2f)\n",
              cost.internet_us, ratio, cost_budget);
  std::printf("  1 thread                      %8.0f a second\n", one);
  std::printf("  %d threads, %u processors      %8.0f a second   gain %.2f (budget %.1f)\n",
              many_threads, std::thread::hardware_concurrency(), many, gain, throughput_budget);
  bool enough_processors = std::thread::hardware_concurrency() > 1;
  if (ratio > cost_budget)
    return fail("the callback costs more than its budget");
  if (enough_processors && gain < throughput_budget)
    return fail("threads gain less than their budget");
  return 0;
}
