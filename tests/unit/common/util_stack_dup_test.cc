#include <gtest/gtest.h>
#include <libpki/util.h>
#include <openssl/err.h>
#include <openssl/stack.h>

#include <algorithm>
#include <vector>

#include "fakes/allocator.h"
#include "fakes/log_capture.h"
#include "support/certs.h"

namespace {

// Elements that count how often they were duplicated and released.
struct element {
  int dups = 0;
  int releases = 0;
};

int null_releases = 0;
element *refused = nullptr;  // dup gives null for this one

void *dup_element(void *object) {
  auto *source = static_cast<element *>(object);
  if (source == refused)
    return nullptr;
  source->dups++;
  return source;
}

void release_element(void *object) {
  if (!object)
    null_releases++;
  else
    static_cast<element *>(object)->releases++;
}

class UtilStackDup : public testing::Test {
 protected:
  UtilStackDup() : elements(20), list(OPENSSL_sk_new_null()) {
    null_releases = 0;
    refused = nullptr;
    for (element &each : elements)
      OPENSSL_sk_push(list, &each);
  }
  ~UtilStackDup() override {
    OPENSSL_sk_free(list);
    support::clear_openssl_errors();
  }

  void expect_nothing_kept() {
    EXPECT_EQ(OPENSSL_sk_num(list), 20);
    for (size_t i = 0; i < elements.size(); i++)
      EXPECT_EQ(elements[i].releases, elements[i].dups) << i;
  }

  std::vector<element> elements;
  STACK *list;
};

TEST_F(UtilStackDup, HoldsTheDuplicatesInOrder) {
  STACK *copy = stack_dup(list, dup_element, release_element);
  ASSERT_NE(copy, nullptr);
  EXPECT_NE(copy, list);
  ASSERT_EQ(OPENSSL_sk_num(copy), 20);
  for (int i = 0; i < 20; i++) {
    EXPECT_EQ(OPENSSL_sk_value(copy, i), &elements[static_cast<size_t>(i)]);
    EXPECT_EQ(elements[static_cast<size_t>(i)].dups, 1);
    EXPECT_EQ(elements[static_cast<size_t>(i)].releases, 0);
  }
  OPENSSL_sk_free(copy);
}

void *next_element(void *object) {
  return static_cast<element *>(object) + 1;
}

TEST_F(UtilStackDup, HoldsWhatDupGivesNotTheElements) {
  OPENSSL_sk_pop(list);
  STACK *copy = stack_dup(list, next_element, release_element);
  ASSERT_EQ(OPENSSL_sk_num(copy), 19);
  EXPECT_EQ(OPENSSL_sk_value(copy, 0), &elements[1]);
  EXPECT_EQ(OPENSSL_sk_value(copy, 18), &elements[19]);
  OPENSSL_sk_free(copy);
}

TEST_F(UtilStackDup, LeavesTheListAlone) {
  STACK *copy = stack_dup(list, dup_element, release_element);
  OPENSSL_sk_pop(copy);
  EXPECT_EQ(OPENSSL_sk_num(list), 20);
  EXPECT_EQ(OPENSSL_sk_value(list, 19), &elements[19]);
  OPENSSL_sk_free(copy);
}

TEST_F(UtilStackDup, EmptyListGivesANewEmptyList) {
  STACK *empty = OPENSSL_sk_new_null();
  STACK *copy = stack_dup(empty, dup_element, release_element);
  ASSERT_NE(copy, nullptr);
  EXPECT_NE(copy, empty);
  EXPECT_EQ(OPENSSL_sk_num(copy), 0);
  OPENSSL_sk_free(copy);
  OPENSSL_sk_free(empty);
}

TEST_F(UtilStackDup, NullListGivesANewEmptyListWithoutAWord) {
  clear_log();
  STACK *copy = stack_dup(nullptr, dup_element, release_element);
  EXPECT_NE(copy, nullptr);
  EXPECT_EQ(OPENSSL_sk_num(copy), 0);
  OPENSSL_sk_free(copy);
  EXPECT_TRUE(captured_log().empty()) << log_dump();
  EXPECT_EQ(ERR_peek_error(), 0ul);
}

TEST_F(UtilStackDup, SharesReferenceCountedElements) {
  support::cert cert = support::simple_cert("issuer", "subject", 1);
  STACK *certs = OPENSSL_sk_new_null();
  OPENSSL_sk_push(certs, cert.get());
  auto dup = [](void *object) -> void * {
    return X509_up_ref(static_cast<X509 *>(object)) == 1 ? object : nullptr;
  };
  auto release = [](void *object) { X509_free(static_cast<X509 *>(object)); };
  STACK *copy = stack_dup(certs, dup, release);
  OPENSSL_sk_free(certs);
  ASSERT_EQ(OPENSSL_sk_num(copy), 1);
  EXPECT_EQ(OPENSSL_sk_value(copy, 0), cert.get());
  cert.reset();
  // The copy's reference keeps the certificate.
  EXPECT_NE(X509_get_subject_name(static_cast<X509 *>(OPENSSL_sk_value(copy, 0))), nullptr);
  OPENSSL_sk_pop_free(copy, release);
}

TEST_F(UtilStackDup, DupThatGivesNullReleasesAllBefore) {
  for (size_t at : {0, 1, 7, 19}) {
    for (element &each : elements)
      each = element();
    null_releases = 0;
    refused = &elements[at];
    EXPECT_EQ(stack_dup(list, dup_element, release_element), nullptr);
    for (size_t i = 0; i < elements.size(); i++) {
      EXPECT_EQ(elements[i].dups, i < at ? 1 : 0) << at << " " << i;
      EXPECT_EQ(elements[i].releases, i < at ? 1 : 0) << at << " " << i;
    }
    EXPECT_EQ(null_releases, 1) << at;  // what dup gave
  }
}

TEST_F(UtilStackDup, OutOfMemoryIsNullAndReleasesAll) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be told to fail";
  STACK *copy = nullptr;
  size_t failures = fake_allocator::sweep(
      [&] {
        for (element &each : elements)
          each = element();
        copy = stack_dup(list, dup_element, release_element);
        if (copy)
          OPENSSL_sk_pop_free(copy, release_element);
      },
      [&](size_t n) {
        EXPECT_EQ(copy, nullptr) << n;
        expect_nothing_kept();
        support::clear_openssl_errors();
      });
  EXPECT_GE(failures, 2u);
}

// The push of a later element needs a greater array: the element in hand must not be lost.
TEST_F(UtilStackDup, FailedPushReleasesTheElementInHand) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be told to fail";
  int dups_at_failure = 0;
  fake_allocator::sweep(
      [&] {
        for (element &each : elements)
          each = element();
        if (STACK *copy = stack_dup(list, dup_element, release_element))
          OPENSSL_sk_pop_free(copy, release_element);
      },
      [&](size_t) {
        int dups = 0;
        int releases = 0;
        for (const element &each : elements) {
          dups += each.dups;
          releases += each.releases;
        }
        EXPECT_EQ(releases, dups);
        dups_at_failure = std::max(dups_at_failure, dups);
        support::clear_openssl_errors();
      });
  EXPECT_GE(dups_at_failure, 1);
}

TEST_F(UtilStackDup, FailedPushReleasesEachElementOnceAndNoNull) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be told to fail";
  clear_log();
  size_t most = 0;
  fake_allocator::sweep(
      [&] {
        for (element &each : elements)
          each = element();
        null_releases = 0;
        if (STACK *copy = stack_dup(list, dup_element, release_element))
          OPENSSL_sk_free(copy);
      },
      [&](size_t n) {
        size_t reached = 0;
        while (reached < elements.size() && elements[reached].dups == 1)
          reached++;
        for (size_t i = 0; i < elements.size(); i++) {
          EXPECT_EQ(elements[i].dups, i < reached ? 1 : 0) << n << " " << i;
          EXPECT_EQ(elements[i].releases, i < reached ? 1 : 0) << n << " " << i;
        }
        EXPECT_EQ(null_releases, 0) << n;
        EXPECT_EQ(ERR_peek_error(), 0ul) << n;
        most = std::max(most, reached);
      });
  EXPECT_GE(most, 2u);  // one in hand behind one that was pushed
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(UtilStackDup, WithoutAFunctionThereIsNoCopy) {
  EXPECT_EQ(stack_dup(list, nullptr, release_element), nullptr);
  EXPECT_EQ(stack_dup(list, dup_element, nullptr), nullptr);
  EXPECT_EQ(elements[0].dups, 0);
}

}  // namespace
