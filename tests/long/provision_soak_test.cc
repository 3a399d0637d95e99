// A device that is provisioned again and again for years: one process, a real server, and nothing
// may pile up. PKI_SOAK_ROUNDS makes the run shorter.
#include <gtest/gtest.h>
#include <libpki/libpki.h>
#include <openssl/pem.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>

#include "fakes/log_capture.h"
#include "run_tool.h"
#include "support/descriptors.h"
#include "support/store_fixture.h"

namespace {

constexpr long default_rounds = 100000;
// The allocator, OpenSSL, libxml2 and the resolver have reached their working size after these.
constexpr long warm_up_rounds = 1000;
// What an allocator may still move its end by. A leak of 32 octets a round is three times as much
// in the whole run.
constexpr long slack_kib = 1024;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// A sanitizer keeps freed memory back and grows shadow memory; it finds leaks by itself.
constexpr bool memory_counts = false;
#else
constexpr bool memory_counts = true;
#endif

long rounds_to_run() {
  const char *text = getenv("PKI_SOAK_ROUNDS");
  return text ? std::stol(text) : default_rounds;
}

long resident_kib() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.starts_with("VmRSS:"))
      return std::stol(line.substr(6));
  return -1;
}

using key_ptr = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;

key_ptr read_public_key(const std::string &path) {
  std::unique_ptr<BIO, decltype(&BIO_free)> file(BIO_new_file(path.c_str(), "r"), BIO_free);
  return {PEM_read_bio_PUBKEY(file.get(), nullptr, nullptr, nullptr), EVP_PKEY_free};
}

class provision_soak : public support::store_test {
 protected:
  provision_soak() : lab_(home_ / "lab", {"--quiet"}), doc_key_(nullptr, EVP_PKEY_free) {}

  void SetUp() override {
    store_test::SetUp();
    doc_key_ = read_public_key(home_ / "lab/doc-key.pub.pem");
    ASSERT_NE(doc_key_, nullptr);
  }

  // Provisions the CA, looks at the store, and removes the CA.
  void one_round() {
    ASSERT_EQ(pki_add_ca("soak", (lab_.url() + "/ca-info").c_str(), doc_key_.get()), PKI_OK)
        << log_dump();
    ca_info *found = pki_find_ca_info_by_label("soak");
    ASSERT_NE(found, nullptr);
    int roots = OPENSSL_sk_num(found->trusted_roots);
    free_ca_info(found);
    ASSERT_GT(roots, 0);
    // The document brings its additional certificates again each time.
    int provisioned = OPENSSL_sk_num(pki_store->provisioned_certs);
    if (provisioned_ < 0)
      provisioned_ = provisioned;
    ASSERT_EQ(provisioned, provisioned_);
    ASSERT_EQ(pki_remove_ca("soak"), PKI_OK);
    ASSERT_EQ(OPENSSL_sk_num(pki_store->ca_infos), 0);
    ASSERT_EQ(OPENSSL_sk_num(pki_store->collected_certs), 0);
    // The library's lines are kept by the fake system log, not by the library.
    clear_log();
  }

  tool_test::folder home_;
  tool_test::lab_process lab_;
  key_ptr doc_key_;
  int provisioned_ = -1;
};

TEST_F(provision_soak, NothingPilesUp) {
  const long rounds = rounds_to_run();
  const long warm_up = std::min(warm_up_rounds, rounds / 2);
  for (long i = 0; i < warm_up; i++)
    ASSERT_NO_FATAL_FAILURE(one_round());
  ASSERT_GT(provisioned_, 0) << "the document must bring an additional certificate";
  const long descriptors = support::open_descriptors();
  const long memory = resident_kib();
  ASSERT_GT(memory, 0);
  long highest = memory;
  for (long i = warm_up; i < rounds; i++) {
    ASSERT_NO_FATAL_FAILURE(one_round()) << "round " << i;
    if (i % 1000 == 0)
      highest = std::max(highest, resident_kib());
  }
  highest = std::max(highest, resident_kib());
  std::cout << rounds << " rounds: resident " << memory << " KiB after " << warm_up << ", highest "
            << highest << " KiB later; " << support::open_descriptors() << " descriptors open, "
            << descriptors << " before\n";
  EXPECT_EQ(support::open_descriptors(), descriptors);
  if (memory_counts) {
    EXPECT_LE(highest - memory, slack_kib);
  }
}

}  // namespace
