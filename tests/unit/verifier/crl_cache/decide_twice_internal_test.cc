// A serial number that stands twice in one list: the first entry decides, also behind the sorting.
#include "fakes/allocator.h"
#include "unit/verifier/crl_cache/decide_support.h"
#include "unit/verifier/crl_cache/decoder_support.h"

using namespace decide_support;
using support::crl_number;
using support::reason_code;

namespace {

class DecideTwice : public decide_both_ways {
 protected:
  // Others stand before, between and behind, so that sorting has something to do.
  static std::string around(const std::string &first, const std::string &second) {
    return crl_entry(99) + first + crl_entry(3) + second + crl_entry(7) + crl_entry(1);
  }
  void expect_revoked(const record &info) const {
    EXPECT_EQ(PKI_CERT_REVOKED, status_of(info)) << log_dump();
    EXPECT_TRUE(was_logged(7, revoked_line));
    EXPECT_FALSE(was_logged(7, removed_line));
  }
  void expect_removed(const record &info) const {
    EXPECT_EQ(PKI_CERT_OK, status_of(info)) << log_dump();
    EXPECT_TRUE(was_logged(7, removed_line));
    EXPECT_FALSE(was_logged(7, revoked_line));
  }
  record decide_again() {
    clear_log();
    return decide("/crl");
  }
  record decide_with_delta(const std::string &base_entries, const std::string &delta_entries) {
    clear_log();
    zv_cv_clear_crl_cache();
    server.publish("/delta",
                   crl_of(delta_entries, crl_number(6) + support::delta_crl_indicator(5)));
    return decide(crl_of(base_entries, crl_number(5) + freshest("/delta")));
  }
  const std::string listed = crl_entry(device_serial, reason_code(1));
  const std::string removed = crl_entry(device_serial, reason_code(8));
};
INSTANTIATE_TEST_SUITE_P(Decoded, DecideTwice, testing::Bool(), way_name);

TEST_P(DecideTwice, RevokedAndThenRemovedIsRevoked) {
  expect_revoked(decide(crl_of(around(listed, removed))));
  expect_revoked(decide_again());
}

TEST_P(DecideTwice, RemovedAndThenRevokedIsGood) {
  expect_removed(decide(crl_of(around(removed, listed))));
  expect_removed(decide_again());
}

TEST_P(DecideTwice, FirstOfADeltasTwoDecides) {
  const std::string both = around(listed, removed), turned = around(removed, listed);
  for (const std::string &base : {crl_entry(8), crl_entry(8) + listed, crl_entry(8) + removed}) {
    expect_revoked(decide_with_delta(base, both));
    expect_removed(decide_with_delta(base, turned));
  }
}

TEST_P(DecideTwice, FirstOfABasesTwoDecidesWhereTheDeltaIsSilent) {
  expect_revoked(decide_with_delta(around(listed, removed), crl_entry(8)));
  expect_removed(decide_with_delta(around(removed, listed), crl_entry(8)));
}

TEST_P(DecideTwice, DeltaDecidesBeforeABasesTwo) {
  expect_removed(decide_with_delta(around(listed, removed), removed));
  expect_revoked(decide_with_delta(around(removed, listed), listed));
}

TEST_P(DecideTwice, MergedListInTheCacheSaysTheSame) {
  expect_revoked(decide_with_delta(crl_entry(8) + removed, around(listed, removed)));
  expect_revoked(decide_again());
  expect_removed(decide_with_delta(crl_entry(8) + listed, around(removed, listed)));
  expect_removed(decide_again());
}

// ---- sorting ----

class SortedList : public support::store_test {
 protected:
  // So many entries that sorting them takes memory; the target's two stand far from each other.
  static std::string long_list(const std::string &first, const std::string &second) {
    std::string entries;
    for (long i = 0; i < 300; i++) {
      if (i == 40)
        entries += first;
      if (i == 260)
        entries += second;
      entries += crl_entry(20 + i * 37 % 300);
    }
    return entries;
  }
  static int reason_of(const X509_REVOKED *entry) {
    auto *reason = static_cast<ASN1_ENUMERATED *>(
        X509_REVOKED_get_ext_d2i(entry, NID_crl_reason, nullptr, nullptr));
    int number = reason ? static_cast<int>(ASN1_ENUMERATED_get(reason)) : -1;
    ASN1_ENUMERATED_free(reason);
    return number;
  }
  // The reasons of the target's entries in their order.
  static std::vector<int> reasons_in(const support::crl &crl) {
    std::vector<int> reasons;
    STACK_OF(X509_REVOKED) *entries = X509_CRL_get_REVOKED(crl.get());
    for (int i = 0; i < sk_X509_REVOKED_num(entries); i++) {
      const X509_REVOKED *entry = sk_X509_REVOKED_value(entries, i);
      if (crl_support::serial_text(entry) == std::to_string(crl_support::target_serial))
        reasons.push_back(reason_of(entry));
    }
    return reasons;
  }
  // Decodes with the `n`th allocation failing; null for an error. The number of allocations made.
  static size_t decode_failing(const std::string &octets, size_t n, support::crl *crl) {
    crl_support::feeder source(octets);
    crl_support::reader in(source.fd());
    EVP_MD_CTX *digest = EVP_MD_CTX_new();
    pki::crl_request request = {};
    request.tbs_digest = digest;
    request.target_cert = crl_support::target().get();
    fake_allocator::fail_at(n);
    int code =
        pki::cv_crl_decode_crl(&request, &in.stream, static_cast<uint32_t>(octets.size()), nullptr);
    const size_t made = fake_allocator::allocations();
    fake_allocator::stop_failing();
    EXPECT_TRUE(code == 0 || code == 2) << n << ": " << code;
    EVP_MD_CTX_free(digest);
    *crl = crl_support::hold(request.crl);
    return made;
  }
  static std::string entry_of(int reason) {
    return crl_entry(crl_support::target_serial, reason_code(reason));
  }
};

TEST_F(SortedList, EqualSerialNumbersKeepTheirOrder) {
  for (const auto &[first, second] : {std::pair(1, 8), std::pair(8, 1)}) {
    crl_support::decoded got = crl_support::decode(
        support::crl_octets(crl_of(long_list(entry_of(first), entry_of(second)))));
    ASSERT_EQ(0, got.code);
    EXPECT_EQ((std::vector<int>{first, second}), reasons_in(got.crl));
  }
}

// The C library sorts in another way when it gets no memory.
TEST_F(SortedList, EqualSerialNumbersKeepTheirOrderWhenMemoryIsShort) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be replaced";
  for (const auto &[first, second] : {std::pair(1, 8), std::pair(8, 1)}) {
    const std::string octets =
        support::crl_octets(crl_of(long_list(entry_of(first), entry_of(second))));
    ASSERT_LE(octets.size(), 10000u);
    support::crl crl;
    decode_failing(octets, 0, &crl);
    const size_t all = decode_failing(octets, 0, &crl);
    ASSERT_GT(all, 50u);
    size_t sorted = 0;
    for (size_t n = all - 50; n <= all; n++) {
      decode_failing(octets, n, &crl);
      support::clear_openssl_errors();
      sorted += crl != nullptr;
      EXPECT_TRUE(!crl || reasons_in(crl) == (std::vector<int>{first, second})) << n;
    }
    EXPECT_GT(sorted, 0u);
  }
}

}  // namespace
