// Start-up while memory is short: each step is tried again every 60 seconds.
#include <gtest/gtest.h>
#include <libpki/libpki.h>

#include <string>
#include <vector>

#include "fakes/allocator.h"
#include "fakes/clock.h"
#include "fakes/log_capture.h"
#include "unit/pki/lifecycle_process.h"

namespace {

using lines = std::vector<log_entry>;

const log_entry retry_line = {6, "failed - retrying after 60 seconds\n"};
const log_entry done_line = {6, "pki initialized"};
const log_entry no_nid_list = {0, "couldn't allocate nid-list - out of memory"};

STACK *const *store_list(size_t index) {
  STACK *const *lists[] = {&pki_store->key_store, &pki_store->ca_infos,
                           &pki_store->provisioned_certs, &pki_store->collected_certs,
                           &pki_store->global_status_rules};
  return lists[index];
}

bool has_all_lists() {
  for (size_t i = 0; i < 5; i++)
    if (!*store_list(i) || OPENSSL_sk_num(*store_list(i)) != 0)
      return false;
  return true;
}

// Log lines but those of OpenSSL's own errors.
lines log_without_openssl() {
  lines kept;
  for (const log_entry &entry : captured_log())
    if (entry.text.find("OpenSSL error: ") != 0)
      kept.push_back(entry);
  return kept;
}

class LibpkiInitRetryDeathTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!fake_allocator::available())
      GTEST_SKIP() << "the allocator cannot be made to fail in this build";
  }
};

// Memory comes back at the third sleep.
void objects_are_registered_in_the_end() {
  support::warm_up_libraries();
  clear_log();
  fake_clock::on_sleep([](size_t count) {
    if (count == 3)
      fake_allocator::stop_failing();
  });
  fake_allocator::fail_at(1, true);
  EXPECT_EQ(libpki_init(), 0);
  EXPECT_EQ(fake_clock::sleeps(), (std::vector<unsigned>{60, 60, 60}));
  EXPECT_EQ(log_without_openssl(), (lines{no_nid_list, retry_line, no_nid_list, retry_line,
                                          no_nid_list, retry_line, done_line}))
      << log_dump();
  EXPECT_TRUE(has_all_lists());
  EXPECT_EQ(OBJ_txt2nid("qrn-serial-number"), pki_nid_list[PKI_OID_SERIAL_NUMBER]);
  EXPECT_EQ(libpki_init(), 16);
}

TEST_F(LibpkiInitRetryDeathTest, RegistrationIsTriedAgainUntilThereIsMemory) {
  EXPECT_IN_FRESH_PROCESS(objects_are_registered_in_the_end);
}

void first_list_is_made_in_the_end() {
  support::warm_up_libraries();
  pki_register_oids();
  clear_log();
  fake_clock::on_sleep([](size_t count) {
    if (count == 2)
      fake_allocator::stop_failing();
  });
  fake_allocator::fail_at(1, true);
  EXPECT_EQ(libpki_init(), 0);
  EXPECT_EQ(fake_clock::sleeps(), (std::vector<unsigned>{60, 60}));
  EXPECT_EQ(log_without_openssl(), (lines{retry_line, retry_line, done_line})) << log_dump();
  EXPECT_TRUE(has_all_lists());
}

TEST_F(LibpkiInitRetryDeathTest, ListIsTriedAgainUntilThereIsMemory) {
  EXPECT_IN_FRESH_PROCESS(first_list_is_made_in_the_end);
}

// At the retry of list `failing`, those before it exist and the others do not.
void each_list_alone_is_tried_again(size_t failing) {
  fake_clock::on_sleep([failing](size_t) {
    for (size_t i = 0; i < 5; i++)
      EXPECT_EQ(*store_list(i) != nullptr, i < failing) << "list " << i;
  });
  fake_allocator::fail_at(failing + 1);
  EXPECT_EQ(libpki_init(), 0);
  fake_allocator::stop_failing();
  EXPECT_EQ(fake_clock::sleeps(), std::vector<unsigned>{60});
  EXPECT_EQ(log_without_openssl(), (lines{retry_line, done_line})) << log_dump();
  EXPECT_TRUE(has_all_lists());
}

void lists_are_made_in_order() {
  support::warm_up_libraries();
  pki_register_oids();
  clear_log();
  for (size_t failing = 0; failing < 5; failing++)
    EXPECT_TRUE(support::holds_in_copy([failing] { each_list_alone_is_tried_again(failing); }))
        << "list " << failing;
}

TEST_F(LibpkiInitRetryDeathTest, EachListIsTriedAgainAloneInOrder) {
  EXPECT_IN_FRESH_PROCESS(lists_are_made_in_order);
}

// What happened when one allocation of start-up was to fail.
struct outcome {
  bool failed = false;
  bool retried = false;
};

// Not every failure needs a retry: OpenSSL gets by without some of what it asks for.
outcome init_with_failure_at(size_t n) {
  fake_allocator::fail_at(n);
  EXPECT_EQ(libpki_init(), 0);
  outcome seen = {fake_allocator::has_failed(), !fake_clock::sleeps().empty()};
  fake_allocator::stop_failing();
  EXPECT_EQ(fake_clock::sleeps(), std::vector<unsigned>(seen.retried ? 1 : 0, 60));
  EXPECT_EQ(count_logged(retry_line.level, retry_line.text), seen.retried ? 1u : 0u) << log_dump();
  EXPECT_EQ(count_logged(done_line.level, done_line.text), 1u);
  EXPECT_TRUE(has_all_lists());
  for (int row = 0; row < PKI_OID_COUNT; row++)
    EXPECT_GT(pki_nid_list[row], 0) << "row " << row;
  EXPECT_EQ(libpki_init(), 16);
  return seen;
}

// The same in a copy of this process.
outcome init_in_copy_with_failure_at(size_t n) {
  int ends[2];
  EXPECT_EQ(pipe(ends), 0);
  EXPECT_TRUE(support::holds_in_copy([&] {
    outcome seen = init_with_failure_at(n);
    EXPECT_EQ(write(ends[1], &seen, sizeof seen), static_cast<ssize_t>(sizeof seen));
  })) << "allocation "
      << n;
  close(ends[1]);
  outcome seen;
  EXPECT_EQ(read(ends[0], &seen, sizeof seen), static_cast<ssize_t>(sizeof seen));
  close(ends[0]);
  return seen;
}

void any_allocation_may_fail() {
  support::warm_up_libraries();
  clear_log();
  size_t n = 1, retries = 0;
  for (;; n++) {
    ASSERT_LT(n, 1000u);
    outcome seen = init_in_copy_with_failure_at(n);
    if (!seen.failed)
      break;
    retries += seen.retried;
  }
  // The five lists, the list of numbers and each of the eighteen objects.
  EXPECT_GE(retries, 5u + 1u + 18u);
}

TEST_F(LibpkiInitRetryDeathTest, AnySingleAllocationMayFail) {
  EXPECT_IN_FRESH_PROCESS(any_allocation_may_fail);
}

}  // namespace
