// Verifying threads search and collect while the management thread changes the store. A sanitizer
// build says more; in any build the lists must stay whole and every reference be accounted for.
#include <gtest/gtest.h>
#include <libpki/libpki.h>

#include <atomic>
#include <thread>
#include <vector>

#include "unit/pki/store_helpers.h"

namespace {

using support::cert;
using support::cert_list;
using support::simple_cert;
using support::watch;

constexpr int rounds = 400;

class StoreThreads : public support::store_test {
 protected:
  void SetUp() override {
    support::store_test::SetUp();
    permanent_ = simple_cert("issuer", "permanent", 1);
    root_ = simple_cert("issuer", "root", 2);
    for (long serial = 100; serial < 120; serial++)
      passing_.push_back(simple_cert("issuer", "passing", serial));
    ASSERT_EQ(pki_add_untrusted_cert(permanent_.get(), 1), 0);
    unsigned length = 0;
    X509_pubkey_digest(permanent_.get(), EVP_sha1(), hash_, &length);
  }

  // One round of a thread that validates certificates. Counts what it did not expect.
  void verify_something(int round) {
    int failures = 0;
    X509_NAME *issuer = X509_get_issuer_name(permanent_.get());
    {
      cert_list found;
      failures += pki_find_certs_by_subject(X509_get_subject_name(permanent_.get()),
                                            found.null_handle()) != 0;
      failures += OPENSSL_sk_num(found) < 1;
      failures += pki_find_certs_by_issuer_serial(issuer, X509_get0_serialNumber(root_.get()),
                                                  found.handle()) != 0;
      failures += pki_find_certs_by_key_hash(EVP_sha1(), hash_, 20, found.handle()) != 0;
      failures += pki_add_untrusted_certs(found, 0) != 0;
    }
    const cert &passing = passing_[static_cast<size_t>(round) % passing_.size()];
    failures += pki_add_untrusted_cert(passing.get(), 0) != 0;
    support::status_list rules;
    failures += pki_find_sts_query_info(nullptr, permanent_.get(), rules) != 81;
    ca_info *ca = pki_find_ca_info_by_issuer(issuer);
    if (ca) {
      failures += pki_find_sts_query_info(ca, permanent_.get(), rules) != 81;
      failures += OPENSSL_sk_num(rules) < 1;
    }
    free_ca_info(ca);
    STACK *all = pki_get_all_ca_infos();
    failures += !all;
    free_ca_infos(all);
    unexpected_ += failures;
  }

  // One round of the management thread: a CA comes and goes, certificates go.
  void manage_something(int round) {
    int failures = 0;
    support::ca made = support::make_ca_info("ca");
    made->issuer_name = X509_NAME_dup(X509_get_issuer_name(permanent_.get()));
    support::rule_list no_rules{};
    failures += pki_add_aok_info(made.get(), no_rules, 1) != 0;
    failures += pki_add_ca_info(made.get()) != 0;
    failures += pki_add_trusted_cert(root_.get(), made.get()) != 0;
    if (round % 20 == 0)
      failures += pki_add_aok_info(nullptr, no_rules, 0) != 0;
    failures += pki_add_aok_info(made.get(), no_rules, 0) != 0;
    (void)pki_delete_untrusted_cert(passing_[static_cast<size_t>(round) % passing_.size()].get());
    failures += pki_delete_trusted_cert(root_.get(), nullptr) != 0;
    ca_info *found = pki_find_ca_info_by_label("ca");
    failures += found != made.get();
    free_ca_info(found);
    failures += pki_remove_ca("ca") != 0;
    unexpected_ += failures;
  }

  cert permanent_, root_;
  std::vector<cert> passing_;
  unsigned char hash_[EVP_MAX_MD_SIZE];
  std::atomic<int> unexpected_{0};
};

TEST_F(StoreThreads, SearchWhileTheStoreChanges) {
  auto destroyed = watch(root_);
  std::vector<std::thread> verifying;
  for (int t = 0; t < 3; t++)
    verifying.emplace_back([this] {
      for (int round = 0; round < rounds; round++)
        verify_something(round);
    });
  for (int round = 0; round < rounds; round++)
    manage_something(round);
  for (std::thread &thread : verifying)
    thread.join();
  EXPECT_EQ(unexpected_, 0);
  EXPECT_EQ(OPENSSL_sk_num(pki_store->ca_infos), 0);
  EXPECT_EQ(OPENSSL_sk_num(pki_store->provisioned_certs), 1);
  EXPECT_EQ(OPENSSL_sk_num(pki_store->global_status_rules), rounds / 20);
  EXPECT_LE(OPENSSL_sk_num(pki_store->collected_certs), 22);
  support::empty_store();
  root_.reset();
  EXPECT_EQ(*destroyed, 1);
}

TEST_F(StoreThreads, AddTheSameCertificateOnce) {
  std::vector<std::thread> adding;
  for (int t = 0; t < 4; t++)
    adding.emplace_back([this] {
      for (int round = 0; round < 5; round++)
        for (const cert &each : passing_)
          unexpected_ += pki_add_untrusted_cert(each.get(), 0);
    });
  for (std::thread &thread : adding)
    thread.join();
  EXPECT_EQ(unexpected_, 0);
  EXPECT_EQ(static_cast<size_t>(OPENSSL_sk_num(pki_store->collected_certs)), passing_.size());
}

}  // namespace
