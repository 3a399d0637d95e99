// What every shared record has in common: one reference from the allocator, one more from a
// duplicate, one less from a release.
#include <gtest/gtest.h>
#include <libpki/records.h>

#include <barrier>
#include <thread>
#include <vector>

#include "fakes/allocator.h"
#include "fakes/log_capture.h"
#include "unit/pki_store_alloc/own_error.h"

namespace {

// One kind of record behind one face. `fresh` makes a record that is released without a word.
template <class Record, Record *Fresh(), Record *Dup(Record *), void Free(Record *)>
struct kind {
  using record = Record;
  static Record *fresh() { return Fresh(); }
  static Record *dup(Record *info) { return Dup(info); }
  static void free(Record *info) { Free(info); }
};

cert_req_info *fresh_cert_req_info() {
  return alloc_cert_req_info_m(PKI_CERT_REQ_SCEP);
}
cert_query_info *fresh_cert_query_info() {
  return alloc_cert_query_info_m(PKI_CERT_QUERY_LDAP);
}
cert_status_info *fresh_cert_status_info() {
  return alloc_cert_status_info_m(PKI_STATUS_AOK);
}
cert_match_rule *fresh_cert_match_rule() {
  cert_match_rule *rule = alloc_cert_match_rule();
  if (rule)
    rule->type = PKI_MATCH_ISSUER;
  return rule;
}

using kinds = testing::Types<
    kind<ca_info, alloc_ca_info, dup_ca_info, free_ca_info>,
    kind<key_info, alloc_key_info, dup_key_info, free_key_info>,
    kind<cert_info, alloc_cert_info, dup_cert_info, free_cert_info>,
    kind<cert_req_info, fresh_cert_req_info, dup_cert_req_info, free_cert_req_info>,
    kind<cert_query_info, fresh_cert_query_info, dup_cert_query_info, free_cert_query_info>,
    kind<cert_match_rule, fresh_cert_match_rule, dup_cert_match_rule, free_cert_match_rule>,
    kind<cert_status_info, fresh_cert_status_info, dup_cert_status_info, free_cert_status_info>,
    kind<ocsp_info, alloc_ocsp_info, dup_ocsp_info, free_ocsp_info>,
    kind<crl_info, alloc_crl_info, dup_crl_info, free_crl_info>>;

template <class Kind>
class ReferenceCounts : public testing::Test {};

TYPED_TEST_SUITE(ReferenceCounts, kinds);

TYPED_TEST(ReferenceCounts, StartAtOne) {
  auto *record = TypeParam::fresh();
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->ref_count, 1);
  TypeParam::free(record);
}

TYPED_TEST(ReferenceCounts, DuplicateIsTheSameRecordWithOneMoreReference) {
  auto *record = TypeParam::fresh();
  EXPECT_EQ(TypeParam::dup(record), record);
  EXPECT_EQ(record->ref_count, 2);
  TypeParam::free(record);
  TypeParam::free(record);
}

TYPED_TEST(ReferenceCounts, RecordOutlivesTheFirstOfTwoReleases) {
  auto *record = TypeParam::fresh();
  TypeParam::dup(record);
  TypeParam::free(record);
  EXPECT_EQ(record->ref_count, 1);
  TypeParam::free(record);
}

TYPED_TEST(ReferenceCounts, NothingIsDuplicatedFromNothing) {
  EXPECT_EQ(TypeParam::dup(nullptr), nullptr);
}

TYPED_TEST(ReferenceCounts, ReleasingNothingIsSilent) {
  clear_log();
  TypeParam::free(nullptr);
  EXPECT_EQ(log_dump(), "");
}

TYPED_TEST(ReferenceCounts, ReleasingAWholeRecordIsSilent) {
  clear_log();
  TypeParam::free(TypeParam::fresh());
  EXPECT_EQ(log_dump(), "");
}

// Records are shared between threads that validate certificates: no change may get lost.
TYPED_TEST(ReferenceCounts, StayExactWhenThreadsShareTheRecord) {
  constexpr int threads = 4;
  constexpr int kept = 50000;
  std::barrier start(threads);
  auto *record = TypeParam::fresh();
  std::vector<std::thread> running;
  for (int t = 0; t < threads; t++)
    running.emplace_back([record, &start] {
      start.arrive_and_wait();
      for (int i = 0; i < kept; i++) {
        TypeParam::dup(record);
        TypeParam::dup(record);
        TypeParam::free(record);
      }
    });
  for (std::thread &thread : running)
    thread.join();
  EXPECT_EQ(record->ref_count, 1 + threads * kept);
  record->ref_count = 1;
  TypeParam::free(record);
}

TYPED_TEST(ReferenceCounts, AllocatorGivesNullWheneverMemoryRunsOut) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "the allocator cannot be made to fail in this build";
  typename TypeParam::record *made = nullptr;
  clear_log();
  size_t failures = fake_allocator::sweep(
      [&] {
        made = TypeParam::fresh();
        fake_allocator::pause no_failures;
        if (!fake_allocator::has_failed())
          TypeParam::free(made);
      },
      [&](size_t n) { EXPECT_EQ(made, nullptr) << "allocation " << n; });
  EXPECT_GE(failures, 1u);
  EXPECT_EQ(log_dump(), "");
}

// The null says it all: OpenSSL's queue is the caller's.
TYPED_TEST(ReferenceCounts, AllocatorLeavesOpenSslsQueueAloneWhenMemoryRunsOut) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "the allocator cannot be made to fail in this build";
  for (bool stay_failed : {false, true}) {
    support::own_error queued;
    fake_allocator::sweep([] { TypeParam::free(TypeParam::fresh()); },
                          [&](size_t n) { EXPECT_TRUE(queued.is_alone()) << "allocation " << n; },
                          stay_failed);
    EXPECT_TRUE(queued.is_alone());
  }
}

TYPED_TEST(ReferenceCounts, AllocatorGivesNullWhenMemoryStaysShort) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "the allocator cannot be made to fail in this build";
  fake_allocator::fail_at(1, true);
  auto *made = TypeParam::fresh();
  fake_allocator::stop_failing();
  EXPECT_EQ(made, nullptr);
}

}  // namespace
