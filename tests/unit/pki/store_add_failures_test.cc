// Running out of memory while something is added: code 2, nothing added, nothing leaked.
#include <gtest/gtest.h>
#include <libpki/libpki.h>

#include "fakes/allocator.h"
#include "fakes/log_capture.h"
#include "unit/pki/store_helpers.h"

namespace {

using support::cert;
using support::cert_list;
using support::elements;
using support::fresh_store;
using support::pointers;
using support::simple_cert;
using support::store_contents;
using support::watch;

class StoreAddWithoutMemory : public support::store_test {
 protected:
  void SetUp() override {
    support::store_test::SetUp();
    if (!fake_allocator::available())
      GTEST_SKIP() << "the allocator cannot be made to fail in this build";
  }

  // What OpenSSL had to say of a failed call is in the log and not in its queue.
  static void expect_errors_in_the_log(size_t n) {
    EXPECT_TRUE(logged_containing(3, "OpenSSL error: ")) << "allocation " << n;
    EXPECT_EQ(ERR_peek_error(), 0u) << "allocation " << n;
    support::clear_openssl_errors();
    clear_log();
  }

  // Sweeps `add`, which is run on a fresh store and must leave it empty on failure.
  template <class Add>
  void sweep_on_empty_store(Add add) {
    int code = -1;
    fresh_store();
    auto before = store_contents();
    size_t failures = fake_allocator::sweep(
        [&] {
          fresh_store();
          code = add();
        },
        [&](size_t n) {
          EXPECT_EQ(code, 2) << "allocation " << n;
          EXPECT_EQ(store_contents(), before) << "allocation " << n;
          expect_errors_in_the_log(n);
        });
    EXPECT_EQ(code, 0);
    EXPECT_GE(failures, 1u);
    fresh_store();
  }
};

TEST_F(StoreAddWithoutMemory, CertificateIsNotAddedToAList) {
  cert added = simple_cert("issuer", "subject", 1);
  auto destroyed = watch(added);
  cert_list list;
  int code = -1;
  size_t failures = fake_allocator::sweep([&] { code = pki_add_cert(list, added.get()); },
                                          [&](size_t n) {
                                            EXPECT_EQ(code, 2) << "allocation " << n;
                                            EXPECT_EQ(OPENSSL_sk_num(list), 0);
                                            expect_errors_in_the_log(n);
                                          });
  EXPECT_EQ(code, 0);
  EXPECT_GE(failures, 1u);
  list.clear();
  added.reset();
  EXPECT_EQ(*destroyed, 1);
}

TEST_F(StoreAddWithoutMemory, TrustedCertificateIsNotAdded) {
  cert added = simple_cert("issuer", "subject", 1);
  auto destroyed = watch(added);
  support::ca ca = support::make_ca_info("ca");
  int code = -1;
  size_t failures =
      fake_allocator::sweep([&] { code = pki_add_trusted_cert(added.get(), ca.get()); },
                            [&](size_t n) {
                              EXPECT_EQ(code, 2) << "allocation " << n;
                              EXPECT_EQ(OPENSSL_sk_num(ca->trusted_roots), 0);
                              expect_errors_in_the_log(n);
                            });
  EXPECT_EQ(code, 0);
  EXPECT_GE(failures, 1u);
  ca.reset();
  added.reset();
  EXPECT_EQ(*destroyed, 1);
}

TEST_F(StoreAddWithoutMemory, UntrustedCertificateIsNotAdded) {
  for (unsigned char keep : {0, 1}) {
    cert added = simple_cert("issuer", "subject", 1);
    auto destroyed = watch(added);
    sweep_on_empty_store([&] { return pki_add_untrusted_cert(added.get(), keep); });
    added.reset();
    EXPECT_EQ(*destroyed, 1);
  }
}

TEST_F(StoreAddWithoutMemory, UntrustedCertificatesUpToTheFailureStay) {
  std::vector<cert> certs;
  cert_list list;
  for (long serial = 0; serial < 40; serial++) {
    certs.push_back(simple_cert("issuer", "subject", serial));
    list.push(certs.back());
  }
  auto destroyed = watch(certs[20]);
  pointers all = elements(list.get());
  int code = -1;
  size_t failures = fake_allocator::sweep(
      [&] {
        fresh_store();
        code = pki_add_untrusted_certs(list, 1);
      },
      [&](size_t n) {
        EXPECT_EQ(code, 2) << "allocation " << n;
        pointers added = elements(pki_store->provisioned_certs);
        ASSERT_LT(added.size(), all.size());
        EXPECT_EQ(added, pointers(all.begin(), all.begin() + static_cast<long>(added.size())));
        EXPECT_EQ(n == 1, added.empty());
        expect_errors_in_the_log(n);
      });
  EXPECT_EQ(code, 0);
  EXPECT_GE(failures, 2u);
  fresh_store();
  list.clear();
  certs.clear();
  EXPECT_EQ(*destroyed, 1);
}

TEST_F(StoreAddWithoutMemory, CaIsNotAddedAndNotShared) {
  support::ca ca = support::make_ca_info("ca");
  sweep_on_empty_store([&] {
    int code = pki_add_ca_info(ca.get());
    EXPECT_EQ(ca->ref_count, code == 0 ? 2 : 1);
    return code;
  });
  EXPECT_EQ(ca->ref_count, 1);
}

}  // namespace
