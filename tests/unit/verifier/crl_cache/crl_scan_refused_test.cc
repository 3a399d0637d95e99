// CRLs that pki_scan_crl cannot read, want of memory, and lists of a million entries.
#include <gtest/gtest.h>
#include <libpki/libpki.h>

#include "fakes/allocator.h"
#include "fakes/log_capture.h"
#include "unit/verifier/crl_cache/crl_scan_support.h"
#include "unit/verifier/own_log.h"

using namespace crl_scan_test;
using namespace support;

namespace {

class CrlScanRefused : public testing::Test {
 protected:
  void SetUp() override {
    libpki_init();
    clear_log();
  }
};

void expect_refused(int code, const scanned &result) {
  EXPECT_EQ(code, result.code);
  EXPECT_EQ(nullptr, result.report.crl);
  EXPECT_EQ(0u, result.report.entries);
  EXPECT_EQ(0u, result.report.critical_entries);
  EXPECT_EQ(0u, result.report.octets);
  EXPECT_EQ(PKI_CRL_NOT_CHECKED, result.report.signature);
  EXPECT_EQ(0u, ERR_peek_error());
}

TEST_F(CrlScanRefused, MissingArguments) {
  text_source text = {list_of(1)};
  pki_crl_source source = {text_source::read, &text, 0};
  EXPECT_EQ(63, pki_scan_crl(&source, nullptr, nullptr));
  EXPECT_EQ(0u, text.calls);
  expect_refused(63, scan({nullptr, &text, 0}));
  pki_crl_report report;
  memset(&report, 0xa5, sizeof report);
  EXPECT_EQ(63, pki_scan_crl(nullptr, nullptr, &report));
  EXPECT_EQ(nullptr, report.crl);
}

TEST_F(CrlScanRefused, WhatIsNoCrl) {
  for (const std::string &octets :
       {std::string("no CRL at all, but quite some text"), std::string("\x30\x80\x00\x00", 4),
        der_tlv(0x30, der_tlv(0x30, der_integer(1))), std::string("\x30\x00", 2),
        der_tlv(0x30, der_oid("1.2.3.4")), pkcs7_octets("")})
    for (bool announced : {true, false}) {
      scanned result = scan(octets, {}, announced);
      EXPECT_TRUE(result.code == 15 || result.code == 48) << result.code;
      expect_refused(result.code, result);
    }
}

TEST_F(CrlScanRefused, EveryTruncation) {
  for (const std::string &octets : {list_of(3), pkcs7_octets(list_of(3))}) {
    uint64_t needed = scan(octets).report.octets;
    ASSERT_GT(needed, 0u);
    for (size_t length = 0; length < needed; length++)
      expect_refused(48, scan(octets.substr(0, length), {}, false));
  }
}

TEST_F(CrlScanRefused, TruncationAgainstTheAnnouncedLength) {
  std::string octets = list_of(3);
  for (size_t length = 1; length < octets.size(); length++) {
    scanned result = scan(octets.substr(0, length));
    EXPECT_TRUE(result.code == 15 || result.code == 48) << length << ": " << result.code;
    expect_refused(result.code, result);
  }
}

ssize_t read_nothing(void *, void *, size_t) {
  return -1;
}

TEST_F(CrlScanRefused, FailingRead) {
  expect_refused(48, scan({read_nothing, nullptr, 0}));
}

ssize_t read_too_much(void *, void *, size_t size) {
  return static_cast<ssize_t>(size) + 1;
}

TEST_F(CrlScanRefused, ReadThatClaimsMoreThanItMay) {
  expect_refused(48, scan({read_too_much, nullptr, 0}));
}

TEST_F(CrlScanRefused, MoreThanFourGigabytes) {
  text_source text = {list_of(1)};
  expect_refused(15, scan({text_source::read, &text, uint64_t(1) << 32}));
  EXPECT_EQ(0u, text.calls);
  EXPECT_EQ(0, scan({text_source::read, &text, (uint64_t(1) << 32) - 1}).code);
}

TEST_F(CrlScanRefused, ElementAboveTheLimit) {
  crl_fields fields;
  fields.extensions = crl_extension("1.2.3.4", std::string(10000, 'x'));
  expect_refused(15, scan(crl_octets(fields)));
}

TEST_F(CrlScanRefused, UnknownDigest) {
  crl_fields fields;
  fields.algorithm = der_algorithm("1.2.3.4");
  expect_refused(84, scan(crl_octets(fields)));
}

TEST_F(CrlScanRefused, BrokenEntryLeavesOpensslsReasonInTheLog) {
  crl_fields fields;
  fields.entries = crl_entry(1) + der_tlv(0x30, der_oid("1.2.3.4"));
  expect_refused(15, scan(crl_octets(fields)));
  EXPECT_GT(openssl_lines(), 0u);
}

TEST_F(CrlScanRefused, MoreMatchesThanAreKept) {
  integer serial = make_serial(9);
  for (int matches : {64, 65}) {
    crl_fields fields;
    fields.entries = "";
    for (int i = 0; i < matches; i++)
      *fields.entries += crl_entry(9);
    scanned result = scan(crl_octets(fields), query_for(serial));
    if (matches == 64)
      EXPECT_EQ(64u, serials_of(result.crl).size());
    else
      expect_refused(15, result);
  }
}

// A list of `count` entries that is never held in memory.
class endless_source {
 public:
  explicit endless_source(uint64_t count) : left_(count), entry_(crl_entry(std::string(20, 0x11))) {
    std::string head = der_integer(1) + der_algorithm("sha256WithRSAEncryption") +
                       der_name("issuer") + der_utc_time(crl_der_now);
    std::string tail =
        der_algorithm("sha256WithRSAEncryption") + der_tlv(0x03, std::string(129, '\0'));
    uint64_t entries = count * entry_.size();
    std::string entries_header = "\x30" + der_length(entries);
    uint64_t tbs = head.size() + entries_header.size() + entries;
    std::string tbs_header = "\x30" + der_length(tbs);
    ready_ = "\x30" + der_length(tbs_header.size() + tbs + tail.size()) + tbs_header + head +
             entries_header;
    tail_ = tail;
  }

  static ssize_t read(void *context, void *buffer, size_t size) {
    auto *source = static_cast<endless_source *>(context);
    if (source->used_ == source->ready_.size())
      source->refill();
    size_t got = source->ready_.copy(static_cast<char *>(buffer), size, source->used_);
    source->used_ += got;
    return static_cast<ssize_t>(got);
  }

 private:
  void refill() {
    fake_allocator::pause not_counted;
    used_ = 0;
    ready_.clear();
    for (int i = 0; i < 1000 && left_ > 0; i++, left_--)
      ready_ += entry_;
    if (ready_.empty())
      ready_.swap(tail_);
  }

  uint64_t left_;
  std::string entry_, ready_, tail_;
  size_t used_ = 0;
};

TEST(CrlScanOfAMillion, AllocatesNoMoreThanOfAThousand) {
  libpki_init();
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be replaced";
  integer serial = make_serial(5);
  pki_crl_query query = query_for(serial);
  auto allocations = [&](uint64_t count) {
    endless_source source(count);
    pki_crl_source from = {endless_source::read, &source, 0};
    pki_crl_report report;
    fake_allocator::fail_at(0);
    int code = pki_scan_crl(&from, &query, &report);
    size_t made = fake_allocator::allocations();
    EXPECT_EQ(0, code);
    EXPECT_EQ(count, report.entries);
    X509_CRL_free(report.crl);
    return made;
  };
  allocations(10);  // fills OpenSSL's caches
  size_t few = allocations(1000);
  EXPECT_EQ(few, allocations(1000000));
  EXPECT_GT(few, 0u);
}

TEST(CrlScanAllocation, EveryFailureIsAnErrorOrTheWholeAnswer) {
  libpki_init();
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be replaced";
  cert_options options;
  options.subject = common_name("issuer");
  cert right = make_cert(options);
  integer serial = make_serial(6);
  name other = common_name("other");
  crl_fields fields;
  fields.entries = crl_entry(5, certificate_issuer("other", true)) + crl_entry(6);
  fields.extensions = crl_number(7);
  for (const std::string &octets : {crl_octets(fields), pkcs7_octets(crl_octets(fields))}) {
    pki_crl_query query = {serial.get(), other.get(), right.get()};
    text_source text = {octets};
    pki_crl_source source = {text_source::read, &text, octets.size()};
    pki_crl_report report;
    int code = -1;
    auto run = [&] {
      text.used = 0;
      code = pki_scan_crl(&source, &query, &report);
      fake_allocator::pause looking;
      if (code == 0) {
        EXPECT_EQ(PKI_CRL_SIGNED, report.signature);
        EXPECT_EQ(2u, report.entries);
        EXPECT_EQ(1, sk_X509_REVOKED_num(X509_CRL_get_REVOKED(report.crl)));
      }
      X509_CRL_free(report.crl);
    };
    run();
    ASSERT_EQ(0, code) << log_dump();
    for (bool stay_failed : {false, true}) {
      size_t failures = fake_allocator::sweep(
          run,
          [&](size_t n) {
            EXPECT_TRUE(code == 0 || code == PKI_OUT_OF_MEMORY) << n << ": " << code;
            EXPECT_EQ(0u, ERR_peek_error()) << n;
            ERR_clear_error();
            clear_log();
          },
          stay_failed);
      EXPECT_GT(failures, 50u);
    }
  }
}

}  // namespace
