// The status of a certificate from a CRL of a million entries over real HTTP: beside OpenSSL's
// decoder and libksba's streaming parser on the same octets, beside a program that only reads and
// digests them, and in how little memory.
//
//   bench_crl [ENTRIES [ROUNDS]]   default: 1000000 entries, 5 rounds of each kind
#include <libpki/libpki.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "big_crl.h"
#include "ksba_crl.h"

namespace {

constexpr double openssl_budget = 10;   // times faster than OpenSSL
constexpr double libksba_budget = 3;    // times faster than libksba
constexpr double reading_budget = 0.6;  // of the speed of reading and digesting
constexpr double entry_budget = 1.05;   // cost an entry of ten times as many
constexpr long memory_budget_kib = 64;

double now_ms() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

double least(const std::vector<double> &values) {
  return *std::min_element(values.begin(), values.end());
}

long peak_kib() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.starts_with("VmHWM:"))
      return std::stol(line.substr(6));
  return -1;
}

void reset_peak() {
  std::ofstream("/proc/self/clear_refs") << "5";
}

[[noreturn]] void give_up(const char *what) {
  std::fprintf(stderr, "bench_crl: %s\n", what);
  std::exit(1);
}

void send_all(int fd, const std::string &octets) {
  for (size_t sent = 0; sent < octets.size();) {
    ssize_t count = send(fd, octets.data() + sent, octets.size() - sent, MSG_NOSIGNAL);
    if (count < 1)
      return;
    sent += static_cast<size_t>(count);
  }
}

// A server in a process of its own, so that what it holds does not count as ours.
class crl_server {
 public:
  explicit crl_server(const std::string &body) {
    int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (bind(listener, reinterpret_cast<sockaddr *>(&address), size) != 0 ||
        listen(listener, 8) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr *>(&address), &size) != 0)
      give_up("no server");
    port_ = ntohs(address.sin_port);
    process_ = fork();
    if (process_ == 0)
      serve(listener, body);
    close(listener);
  }
  ~crl_server() {
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
  }
  crl_server(const crl_server &) = delete;
  crl_server &operator=(const crl_server &) = delete;

  [[nodiscard]] int port() const { return port_; }

 private:
  [[noreturn]] static void serve(int listener, const std::string &body) {
    std::string head =
        "HTTP/1.0 200 OK\r\nContent-Type: application/pkix-crl\r\n"
        "Content-Length: " +
        std::to_string(body.size()) + "\r\n\r\n";
    while (true) {
      int fd = accept(listener, nullptr, nullptr);
      char request[2000];
      if (recv(fd, request, sizeof request, 0) > 0) {
        send_all(fd, head);
        send_all(fd, body);
      }
      close(fd);
    }
  }

  int port_;
  pid_t process_;
};

// A connection on which the answer is awaited.
int ask_for_crl(int port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
    give_up("no connection");
  send_all(fd, "GET / HTTP/1.0\r\n\r\n");
  return fd;
}

// What everybody has to do: read 2000 octets at a time, and digest them.
double read_and_digest_ms(int port) {
  double start = now_ms();
  int fd = ask_for_crl(port);
  EVP_MD_CTX *digest = EVP_MD_CTX_new();
  EVP_DigestInit_ex(digest, EVP_sha256(), nullptr);
  char buffer[2000];
  ssize_t count;
  while ((count = read(fd, buffer, sizeof buffer)) > 0)
    EVP_DigestUpdate(digest, buffer, static_cast<size_t>(count));
  unsigned char value[EVP_MAX_MD_SIZE];
  EVP_DigestFinal_ex(digest, value, nullptr);
  EVP_MD_CTX_free(digest);
  close(fd);
  return now_ms() - start;
}

// The octets are in memory already.
double openssl_ms(const std::string &der, EVP_PKEY *key, X509 *cert) {
  double start = now_ms();
  const auto *in = reinterpret_cast<const unsigned char *>(der.data());
  X509_CRL *crl = d2i_X509_CRL(nullptr, &in, static_cast<long>(der.size()));
  X509_REVOKED *found = nullptr;
  if (!crl || X509_CRL_verify(crl, key) != 1 || X509_CRL_get0_by_cert(crl, &found, cert) != 0)
    give_up("OpenSSL refuses the CRL");
  X509_CRL_free(crl);
  return now_ms() - start;
}

void skip_head(std::FILE *answer) {
  char line[200];
  while (std::fgets(line, sizeof line, answer) && std::strcmp(line, "\r\n") != 0)
    continue;
}

// libksba's streaming parser on what comes over the same connection, through its reader of files.
// Nobody checks the signature.
double libksba_ms(int port) {
  if (!bench::have_libksba())
    return 0;
  double start = now_ms();
  std::FILE *answer = fdopen(ask_for_crl(port), "r");
  skip_head(answer);
  bool listed;
  if (!bench::libksba_reads(answer, "\x4d", &listed) || listed)
    give_up("libksba refuses the CRL");
  std::fclose(answer);
  return now_ms() - start;
}

// The same without its input: the octets are in memory already.
double libksba_in_memory_ms(const std::string &der) {
  if (!bench::have_libksba())
    return 0;
  double start = now_ms();
  bool listed;
  if (!bench::libksba_reads(der, "\x4d", &listed) || listed)
    give_up("libksba refuses the CRL");
  return now_ms() - start;
}

struct world {
  support::key key = support::make_key(2048);
  support::cert issuer;
  support::cert cert;

  explicit world(int port) {
    support::cert_options options;
    options.subject = support::common_name("Bench CA");
    options.public_key = key;
    options.ca = true;
    issuer = support::make_cert(options);
    cert = cert_for(port);
    pki_add_untrusted_cert(issuer.get(), 1);
  }
  [[nodiscard]] support::cert cert_for(int port) const {
    support::cert_options options;
    options.subject = support::common_name("gateway");
    options.issuer = support::common_name("Bench CA");
    options.signing_key = key;
    options.serial = 77;
    options.extensions = {
        {"crlDistributionPoints", "URI:http://127.0.0.1:" + std::to_string(port) + "/"}};
    return support::make_cert(options);
  }
};

double library_ms(X509 *cert, X509 *issuer) {
  zv_cv_clear_cert_sts_info_cache();
  double start = now_ms();
  if (zv_cv_check_cert_status(cert, issuer, nullptr, 1, 0) != PKI_CERT_OK)
    give_up("the certificate is not good");
  return now_ms() - start;
}

struct times {
  double library, openssl, libksba, libksba_in_memory, reading;
};

times compare(const world &here, const std::string &der, int rounds) {
  crl_server server(der);
  support::cert cert = here.cert_for(server.port());
  std::vector<double> library, openssl, libksba, libksba_in_memory, reading;
  for (int i = -1; i < rounds; i++) {
    double one = library_ms(cert.get(), here.issuer.get());
    double other = openssl_ms(der, here.key.get(), cert.get());
    double third = libksba_ms(server.port());
    double fourth = libksba_in_memory_ms(der);
    double limit = read_and_digest_ms(server.port());
    if (i < 0)
      continue;
    library.push_back(one);
    openssl.push_back(other);
    libksba.push_back(third);
    libksba_in_memory.push_back(fourth);
    reading.push_back(limit);
  }
  return {median(library), median(openssl), median(libksba), median(libksba_in_memory),
          median(reading)};
}

bool print_libksba(const times &took) {
  if (!bench::have_libksba()) {
    std::printf("  %-22s               libksba is not installed: not compared\n", "");
    return true;
  }
  double faster = took.libksba / took.library;
  std::printf("  %-22s               libksba's parser  %8.1f ms: %.1f times faster (budget %.0f)\n",
              "", took.libksba, faster, libksba_budget);
  std::printf("  %-22s               (without its input %7.1f ms: %.1f times)\n", "",
              took.libksba_in_memory, took.libksba_in_memory / took.library);
  return faster >= libksba_budget;
}

bool print_comparison(const char *what, const times &took) {
  double faster = took.openssl / took.library;
  double speed = took.reading / took.library;
  std::printf("  %-22s %8.1f ms   OpenSSL's decoder %8.1f ms: %.1f times faster (budget %.0f)\n",
              what, took.library, took.openssl, faster, openssl_budget);
  bool beats_libksba = print_libksba(took);
  std::printf(
      "  %-22s               reading and digesting %5.1f ms: %.0f %% of its speed "
      "(budget %.0f %%)\n",
      "", took.reading, speed * 100, reading_budget * 100);
  return faster >= openssl_budget && beats_libksba && speed >= reading_budget;
}

// A server with a CRL of that many entries, and a certificate whose status it tells.
struct crl_of {
  long entries;
  crl_server server;
  support::cert cert;

  crl_of(const world &here, long how_many)
      : entries(how_many),
        server(bench::make_big_crl("Bench CA", here.key, {how_many, false})),
        cert(here.cert_for(server.port())) {}
};

// Nanoseconds an entry, of as many runs as make `entries` of them; the highest resident memory
// meanwhile.
double entry_ns(const world &here, const crl_of &crl, long entries, long *peak) {
  reset_peak();
  double took = 0;
  for (long done = 0; done < entries; done += crl.entries)
    took += library_ms(crl.cert.get(), here.issuer.get());
  *peak = std::max(*peak, peak_kib());
  return took * 1e6 / static_cast<double>(entries);
}

struct growth {
  double few_ns, many_ns;
  long tiny_peak, many_peak;
};

// What a hundred times as many entries take each, in turns, at the least: what else the machine
// does only adds to it; and how much memory ten thousand times as many take.
growth grow(const world &here, long entries, int rounds) {
  crl_of tiny(here, entries / 1000), few(here, entries / 10), many(here, entries * 10);
  growth result = {};
  entry_ns(here, tiny, few.entries, &result.tiny_peak);
  std::vector<double> few_ns, many_ns;
  for (int i = 0; i < rounds; i++) {
    long ignored = 0;
    few_ns.push_back(entry_ns(here, few, many.entries, &ignored));
    many_ns.push_back(entry_ns(here, many, many.entries, &result.many_peak));
  }
  result.few_ns = least(few_ns);
  result.many_ns = least(many_ns);
  return result;
}

}  // namespace

int main(int argc, char **argv) {
  const long entries = argc > 1 ? std::atol(argv[1]) : 1000000;
  const int rounds = argc > 2 ? std::atoi(argv[2]) : 5;
  if (entries < 1000 || rounds < 1) {
    std::fprintf(stderr, "bench_crl: usage: bench_crl [ENTRIES (1000 or more) [ROUNDS]]\n");
    return 2;
  }
  setlogmask(LOG_UPTO(LOG_NOTICE));
  libpki_init();
  world here(1);
  growth grown = grow(here, entries, rounds);
  std::printf("status from a CRL of %ld entries over HTTP (RSA 2048, SHA-256):\n", entries);
  times plain = compare(here, bench::make_big_crl("Bench CA", here.key, {entries, false}), rounds);
  bool good = print_comparison("without reasons", plain);
  times reasons = compare(here, bench::make_big_crl("Bench CA", here.key, {entries, true}), rounds);
  good = print_comparison("a reason in each", reasons) && good;
  double ratio = grown.many_ns / grown.few_ns;
  long more_kib = grown.many_peak - grown.tiny_peak;
  std::printf("  an entry: %.1f ns of %ld, %.1f ns of %ld: ratio %.3f (budget %.2f)\n",
              grown.few_ns, entries / 10, grown.many_ns, entries * 10, ratio, entry_budget);
  std::printf(
      "  resident at most: %ld KiB with %ld entries, %ld KiB with %ld: %ld KiB more (budget %ld)\n",
      grown.tiny_peak, entries / 1000, grown.many_peak, entries * 10, more_kib, memory_budget_kib);
  if (good && ratio <= entry_budget && more_kib <= memory_budget_kib)
    return 0;
  std::fprintf(stderr, "bench_crl: over budget\n");
  return 1;
}
