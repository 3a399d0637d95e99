// A search that fails gives nothing: a list that it made is gone, a given list is as it was.
#include <gtest/gtest.h>
#include <libpki/libpki.h>

#include <cerrno>
#include <functional>

#include "fakes/allocator.h"
#include "fakes/failures.h"
#include "fakes/log_capture.h"
#include "unit/pki/store_helpers.h"

namespace {

using support::cert;
using support::cert_list;
using support::elements;
using support::pointers;
using support::simple_cert;
using support::store_contents;
using support::watch;

constexpr int own_reason = 77;

// One of the three searches for the certificate of the fixture.
struct search {
  const char *name;
  std::function<int(X509 *wanted, STACK **result)> run;
  bool hashes = false;
};

int by_subject(X509 *wanted, STACK **result) {
  return pki_find_certs_by_subject(X509_get_subject_name(wanted), result);
}

int by_issuer_serial(X509 *wanted, STACK **result) {
  return pki_find_certs_by_issuer_serial(X509_get_issuer_name(wanted),
                                         X509_get0_serialNumber(wanted), result);
}

int by_key_hash(X509 *wanted, STACK **result) {
  unsigned char hash[EVP_MAX_MD_SIZE];
  unsigned length = 0;
  {
    fake_allocator::pause no_failures;
    X509_pubkey_digest(wanted, EVP_sha1(), hash, &length);
  }
  return pki_find_certs_by_key_hash(EVP_sha1(), hash, static_cast<int>(length), result);
}

// The wanted certificate is in the provisioned list, in the collected list and a CA's root.
class StoreFindFailure : public support::store_test, public testing::WithParamInterface<search> {
 protected:
  void SetUp() override {
    support::store_test::SetUp();
    wanted_ = simple_cert("issuer", "wanted", 1);
    mine_ = simple_cert("issuer", "mine", 2);
    destroyed_ = watch(wanted_);
    support::ca ca = support::make_ca_info("ca");
    pki_add_ca_info(ca.get());
    pki_add_trusted_cert(wanted_.get(), ca.get());
    pki_add_untrusted_cert(wanted_.get(), 0);
    pki_add_untrusted_cert(wanted_.get(), 1);
    // Once without failures: OpenSSL fetches the digest, and its first use takes locks.
    cert_list warm_up;
    ASSERT_EQ(find(warm_up.null_handle()), 0);
    ASSERT_EQ(OPENSSL_sk_num(warm_up), 3);
    before_ = store_contents();
    support::clear_openssl_errors();
    clear_log();
  }

  int find(STACK **result) { return GetParam().run(wanted_.get(), result); }

  // All references that a search took were given back.
  void expect_no_reference_left() {
    EXPECT_EQ(store_contents(), before_);
    wanted_.reset();
    support::empty_store();
    EXPECT_EQ(*destroyed_, 1);
  }

  cert wanted_, mine_;
  support::destruction_count destroyed_;
  std::vector<pointers> before_;
};

TEST_P(StoreFindFailure, LockThatCannotBeTakenLeavesTheHandleNull) {
  STACK *result = nullptr;
  fake_failures::fail_wrlock(EDEADLK);
  EXPECT_EQ(find(&result), 80);
  EXPECT_EQ(result, nullptr);
  expect_no_reference_left();
}

TEST_P(StoreFindFailure, LockThatCannotBeTakenLeavesAGivenListAlone) {
  cert_list found{mine_};
  STACK *list = found;
  fake_failures::fail_wrlock(EDEADLK);
  EXPECT_EQ(find(found.handle()), 80);
  EXPECT_EQ(found.get(), list);
  EXPECT_EQ(elements(found.get()), pointers{mine_.get()});
}

TEST_P(StoreFindFailure, LockThatCannotBeTakenLogsNothingAndLeavesOpenSslsQueueAlone) {
  STACK *result = nullptr;
  for (STACK *given : {static_cast<STACK *>(nullptr), OPENSSL_sk_new_null()}) {
    result = given;
    support::raise_openssl_error(own_reason);
    fake_failures::fail_wrlock(EDEADLK);
    EXPECT_EQ(find(&result), 80);
    EXPECT_EQ(result, given);
    EXPECT_EQ(log_dump(), "");
    EXPECT_EQ(ERR_GET_REASON(ERR_get_error()), own_reason);
    EXPECT_EQ(ERR_get_error(), 0u);
    OPENSSL_sk_free(given);
  }
}

TEST_P(StoreFindFailure, ReferenceThatCannotBeTakenTakesANewListBack) {
  for (int matches_before : {0, 1, 2}) {
    STACK *result = nullptr;
    fake_failures::fail_x509_up_ref(matches_before);
    EXPECT_EQ(find(&result), 49);
    EXPECT_EQ(result, nullptr);
  }
  expect_no_reference_left();
}

TEST_P(StoreFindFailure, ReferenceThatCannotBeTakenLeavesAGivenListAsItWas) {
  cert_list found{mine_, wanted_};
  STACK *list = found;
  for (int matches_before : {0, 1, 2}) {
    fake_failures::fail_x509_up_ref(matches_before);
    EXPECT_EQ(find(found.handle()), 49);
    EXPECT_EQ(found.get(), list);
    EXPECT_EQ(elements(found.get()), (pointers{mine_.get(), wanted_.get()}));
  }
  found.clear();
  expect_no_reference_left();
}

TEST_P(StoreFindFailure, ReferenceThatCannotBeTakenMovesOpenSslsErrorsIntoTheLog) {
  cert_list found{mine_};
  support::raise_openssl_error(own_reason);
  fake_failures::fail_x509_up_ref();
  EXPECT_EQ(find(found.handle()), 49);
  EXPECT_TRUE(logged_containing(3, "OpenSSL error: ")) << log_dump();
  EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST_P(StoreFindFailure, WorksAgainAfterwards) {
  cert_list found;
  fake_failures::fail_wrlock(EDEADLK);
  EXPECT_EQ(find(found.null_handle()), 80);
  fake_failures::fail_x509_up_ref(1);
  EXPECT_EQ(find(found.handle()), 49);
  EXPECT_EQ(find(found.handle()), 0);
  EXPECT_EQ(OPENSSL_sk_num(found), 3);
}

// What a search gives with each of its allocations failing in turn. OpenSSL can hash without some
// of what it asks for, and says nothing of others; then the search finds everything.
TEST_P(StoreFindFailure, OutOfMemoryTakesANewListBack) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "the allocator cannot be made to fail in this build";
  cert_list found;
  int code = -1, failed_searches = 0;
  fake_allocator::sweep(
      [&] {
        found.clear();
        code = find(found.handle());
      },
      [&](size_t n) {
        failed_searches += code == 2;
        if (GetParam().hashes && code == 0) {
          EXPECT_EQ(OPENSSL_sk_num(found), 3) << "allocation " << n;
          return;
        }
        EXPECT_EQ(code, 2) << "allocation " << n;
        EXPECT_EQ(found.get(), nullptr) << "allocation " << n;
        if (n == 1 || !GetParam().hashes) {
          EXPECT_TRUE(logged_containing(3, "OpenSSL error: ")) << "allocation " << n;
        }
        EXPECT_EQ(ERR_peek_error(), 0u) << "allocation " << n;
        support::clear_openssl_errors();
        clear_log();
      });
  EXPECT_EQ(code, 0);
  EXPECT_GE(failed_searches, 2);
  found.clear();
  expect_no_reference_left();
}

TEST_P(StoreFindFailure, OutOfMemoryLeavesAGivenListAsItWas) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "the allocator cannot be made to fail in this build";
  // OpenSSL's lists start with room for four: the second push must allocate.
  cert_list found;
  pointers before;
  int code = -1, failed_searches = 0;
  fake_allocator::sweep(
      [&] {
        {
          fake_allocator::pause no_failures;
          *found.null_handle() = OPENSSL_sk_new_null();
          for (int i = 0; i < 3; i++)
            found.push(mine_);
          before = elements(found.get());
        }
        code = find(found.handle());
      },
      [&](size_t n) {
        failed_searches += code == 2;
        if (GetParam().hashes && code == 0) {
          EXPECT_EQ(OPENSSL_sk_num(found), 6) << "allocation " << n;
          return;
        }
        EXPECT_EQ(code, 2) << "allocation " << n;
        EXPECT_EQ(elements(found.get()), before) << "allocation " << n;
        EXPECT_EQ(ERR_peek_error(), 0u) << "allocation " << n;
        support::clear_openssl_errors();
      });
  EXPECT_EQ(code, 0);
  EXPECT_GE(failed_searches, 1);
  found.clear();
  expect_no_reference_left();
}

INSTANTIATE_TEST_SUITE_P(Searches, StoreFindFailure,
                         testing::Values(search{"BySubject", by_subject},
                                         search{"ByIssuerSerial", by_issuer_serial},
                                         search{"ByKeyHash", by_key_hash, true}),
                         [](const auto &each) { return each.param.name; });

}  // namespace
