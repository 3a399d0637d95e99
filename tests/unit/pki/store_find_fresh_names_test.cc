// Searches by a name that was just built: OpenSSL encodes it for the first comparison, and needs
// memory then. Without that memory its comparison says "different".
#include <gtest/gtest.h>
#include <libpki/libpki.h>

#include <functional>

#include "fakes/allocator.h"
#include "fakes/log_capture.h"
#include "unit/pki/store_helpers.h"

namespace {

using support::cert;
using support::cert_list;
using support::elements;
using support::name;
using support::pointers;

name plain_name() {
  return support::make_name({{"C", "US"}, {"O", "An Example"}, {"CN", "device"}});
}

void join(const name &joined, const char *attribute, const char *value) {
  X509_NAME_add_entry_by_txt(joined.get(), attribute, MBSTRING_UTF8,
                             reinterpret_cast<const unsigned char *>(value), -1, -1, -1);
}

// The last RDN has several members, which OpenSSL sorts in memory of its own.
name joined_name() {
  name made = support::make_name({{"C", "US"}, {"O", "An Example"}});
  join(made, "OU", "b");
  join(made, "CN", "a");
  return made;
}

struct kind {
  const char *label;
  name (*build)();
};

// A certificate whose subject and issuer have that name is in the store, and a CA of that issuer.
class StoreFindFreshName : public support::store_test, public testing::WithParamInterface<kind> {
 protected:
  void SetUp() override {
    support::store_test::SetUp();
    support::cert_options options;
    options.subject = GetParam().build();
    options.serial = 5;
    wanted_ = support::make_cert(options);
    ca_->issuer_name = X509_NAME_dup(GetParam().build().get());
    pki_add_ca_info(ca_.get());
    pki_add_untrusted_cert(support::simple_cert("other", "other", 5).get(), 1);
    pki_add_untrusted_cert(wanted_.get(), 0);
    pki_add_trusted_cert(wanted_.get(), ca_.get());
    support::clear_openssl_errors();
    clear_log();
  }

  using search = std::function<int(const X509_NAME *, STACK **)>;

  void expect_all_or_out_of_memory(const search &run) {
    if (!fake_allocator::available())
      GTEST_SKIP() << "the allocator cannot be made to fail in this build";
    sweep_search(run, false);
    sweep_search(run, true);
  }

  // Runs `run` with a fresh name and each allocation failing in turn, alone or with all behind it.
  void sweep_search(const search &run, bool stay_failed) {
    pointers both{wanted_.get(), wanted_.get()};
    cert_list found;
    int code = -1;
    size_t out_of_memory = 0;
    fake_allocator::sweep(
        [&] {
          name fresh;
          {
            fake_allocator::pause no_failures;
            found.null_handle();
            fresh = GetParam().build();
          }
          code = run(fresh.get(), found.handle());
          fake_allocator::pause no_failures;
          fresh.reset();
        },
        [&](size_t n) {
          EXPECT_EQ(ERR_peek_error(), 0u) << "allocation " << n;
          support::clear_openssl_errors();
          out_of_memory += code == 2;
          if (code == 2) {
            EXPECT_EQ(found.get(), nullptr) << "allocation " << n;
            return;
          }
          EXPECT_EQ(code, 0) << "allocation " << n;
          EXPECT_EQ(elements(found.get()), both) << "allocation " << n;
        },
        stay_failed);
    EXPECT_EQ(code, 0);
    EXPECT_EQ(elements(found.get()), both);
    EXPECT_EQ(ERR_peek_error(), 0u);
    EXPECT_GE(out_of_memory, 3u);  // the name's encoding, the list, and the first push
  }

  support::ca ca_ = support::make_ca_info("ca");
  cert wanted_;
};

TEST_P(StoreFindFreshName, SubjectFindsAllOrMemoryIsOut) {
  expect_all_or_out_of_memory(pki_find_certs_by_subject);
}

TEST_P(StoreFindFreshName, IssuerAndSerialFindAllOrMemoryIsOut) {
  support::integer serial = support::make_serial(5);
  expect_all_or_out_of_memory([&](const X509_NAME *issuer, STACK **result) {
    return pki_find_certs_by_issuer_serial(issuer, serial.get(), result);
  });
}

TEST_P(StoreFindFreshName, IssuerFindsItsCaUnlessMemoryIsOut) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "the allocator cannot be made to fail in this build";
  ca_info *found = nullptr;
  size_t failures = fake_allocator::sweep(
      [&] {
        name fresh;
        {
          fake_allocator::pause no_failures;
          fresh = GetParam().build();
        }
        found = pki_find_ca_info_by_issuer(fresh.get());
        free_ca_info(found);
        fake_allocator::pause no_failures;
        fresh.reset();
      },
      [&](size_t n) {
        EXPECT_TRUE(!found || found == ca_.get()) << "allocation " << n;
        EXPECT_EQ(ERR_peek_error(), 0u) << "allocation " << n;
        support::clear_openssl_errors();
      });
  EXPECT_EQ(found, ca_.get());
  EXPECT_EQ(ca_->ref_count, 2);
  EXPECT_GE(failures, 1u);
}

INSTANTIATE_TEST_SUITE_P(Names, StoreFindFreshName,
                         testing::Values(kind{"Plain", plain_name}, kind{"Joined", joined_name}),
                         [](const auto &each) { return each.param.label; });

// Octets that are no UTF-8 do not encode: such a name equals none, which is no failure.
TEST(StoreFindOddName, NameThatDoesNotEncodeFindsNothing) {
  support::init_library();
  support::empty_store();
  ASSERT_EQ(pki_add_untrusted_cert(support::simple_cert("a", "b", 1).get(), 1), 0);
  X509_NAME *odd = nullptr;
  ASSERT_EQ(parse_rfc1779_str("CN=\xE9", &odd), 0);
  support::clear_openssl_errors();
  cert_list found;
  EXPECT_EQ(pki_find_certs_by_subject(odd, found.null_handle()), 0);
  EXPECT_EQ(OPENSSL_sk_num(found), 0);
  EXPECT_EQ(pki_find_ca_info_by_issuer(odd), nullptr);
  EXPECT_EQ(ERR_peek_error(), 0u);
  support::clear_openssl_errors();
  support::empty_store();
  X509_NAME_free(odd);
}

}  // namespace
