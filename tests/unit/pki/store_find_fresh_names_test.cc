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

// Octets that are no UTF-8 do not encode for a comparison: such a name equals none, which is no
// failure. OpenSSL tries it at a name's first use only, and takes the name for the empty one later.
class StoreFindOddName : public support::store_test {
 protected:
  void TearDown() override {
    support::clear_openssl_errors();
    support::store_test::TearDown();
  }

  static X509_NAME *parse(const char *text) {
    X509_NAME *made = nullptr;
    EXPECT_EQ(parse_rfc1779_str(text, &made), 0) << text;
    return made;
  }
  static name parsed(const char *text) { return name(parse(text), X509_NAME_free); }
  // One that nobody has tried to encode yet.
  static X509_NAME *build() {
    X509_NAME *made = X509_NAME_new();
    X509_NAME_add_entry_by_txt(made, "CN", V_ASN1_UTF8STRING,
                               reinterpret_cast<const unsigned char *>("\xE9"), 1, -1, 0);
    return made;
  }
  static name built() { return name(build(), X509_NAME_free); }
  static name empty() { return name(X509_NAME_new(), X509_NAME_free); }

  static cert named(const name &issuer, const name &subject) {
    support::cert_options options;
    options.issuer = issuer;
    options.subject = subject;
    return support::make_cert(options);
  }
  // Puts a CA of that issuer into the store. Returns the name, which the CA owns.
  static name add_ca_of(X509_NAME *issuer) {
    support::ca made = support::make_ca_info("ca");
    made->issuer_name = issuer;
    EXPECT_EQ(pki_add_ca_info(made.get()), 0);
    return name(made->issuer_name, [made](X509_NAME *) {});
  }

  // Twice, and nothing is left in OpenSSL's queue.
  static void expect_no_cert(const std::function<int(STACK **)> &search) {
    for (int time : {1, 2}) {
      cert_list found;
      EXPECT_EQ(search(found.null_handle()), 0) << time;
      EXPECT_EQ(OPENSSL_sk_num(found), 0) << time;
      EXPECT_EQ(ERR_peek_error(), 0u) << time;
    }
  }
  static void expect_no_cert_of_subject(const name &subject) {
    expect_no_cert(
        [&](STACK **result) { return pki_find_certs_by_subject(subject.get(), result); });
  }
  static void expect_no_ca(const name &issuer) {
    for (int time : {1, 2}) {
      ca_info *found = pki_find_ca_info_by_issuer(issuer.get());
      EXPECT_EQ(found, nullptr) << time;
      free_ca_info(found);
    }
    EXPECT_EQ(ERR_peek_error(), 0ul);
  }
  // As a comparison or an encoding of before leaves them.
  static void use_once(const name &odd) {
    X509_NAME_cmp(odd.get(), plain_name().get());
    i2d_X509_NAME(odd.get(), nullptr);
    support::clear_openssl_errors();
  }
};

TEST_F(StoreFindOddName, FindsNothing) {
  ASSERT_EQ(pki_add_untrusted_cert(support::simple_cert("a", "b", 1).get(), 1), 0);
  for (const name &odd : {parsed("CN=\xE9"), built()}) {
    support::clear_openssl_errors();
    expect_no_cert_of_subject(odd);
    expect_no_ca(odd);
    EXPECT_EQ(ERR_peek_error(), 0u);
  }
}

TEST_F(StoreFindOddName, IsNotTheEmptySubject) {
  cert nameless = named(plain_name(), empty());
  ASSERT_EQ(pki_add_untrusted_cert(nameless.get(), 1), 0);
  ASSERT_EQ(pki_add_untrusted_cert(nameless.get(), 0), 0);
  for (const name &odd : {parsed("CN=\xE9"), built()}) {
    expect_no_cert_of_subject(odd);
    use_once(odd);
    expect_no_cert_of_subject(odd);
  }
  cert_list found;
  EXPECT_EQ(pki_find_certs_by_subject(empty().get(), found.null_handle()), 0);
  EXPECT_EQ(elements(found.get()), (pointers{nameless.get(), nameless.get()}));
}

TEST_F(StoreFindOddName, IsNotTheEmptyIssuer) {
  cert nameless = named(empty(), plain_name());
  ASSERT_EQ(pki_add_untrusted_cert(nameless.get(), 1), 0);
  for (const name &odd : {parsed("CN=\xE9"), built()})
    expect_no_cert([&](STACK **result) {
      return pki_find_certs_by_issuer_serial(odd.get(), X509_get0_serialNumber(nameless.get()),
                                             result);
    });
}

TEST_F(StoreFindOddName, CaOfSuchAnIssuerIsNotTheEmptyNames) {
  name first = add_ca_of(parse("CN=\xE9")), second = add_ca_of(build());
  expect_no_ca(empty());
  use_once(first);
  use_once(second);
  expect_no_ca(empty());
}

TEST_F(StoreFindOddName, CaOfTheEmptyIssuerIsNotSuchANames) {
  add_ca_of(parse(""));
  for (const name &odd : {parsed("CN=\xE9"), built()}) {
    expect_no_ca(odd);
    use_once(odd);
    expect_no_ca(odd);
  }
}

TEST_F(StoreFindOddName, IsNotAnotherSuchName) {
  name first = add_ca_of(parse("CN=\xE9")), second = add_ca_of(build());
  for (const name &other : {parsed("CN=\xE8"), parsed("CN=\xE9"), built()}) {
    expect_no_ca(other);
    use_once(other);
    expect_no_ca(other);
    use_once(first);
    use_once(second);
    expect_no_ca(other);
  }
  expect_no_ca(built());
}

TEST_F(StoreFindOddName, CaBehindOneOfSuchAnIssuerIsFound) {
  add_ca_of(parse("CN=\xE9"));
  add_ca_of(build());
  support::ca wanted = support::make_ca_info("wanted", "issuer");
  ASSERT_EQ(pki_add_ca_info(wanted.get()), 0);
  for (int time : {1, 2}) {
    ca_info *found = pki_find_ca_info_by_issuer(support::common_name("issuer").get());
    EXPECT_EQ(found, wanted.get()) << time;
    free_ca_info(found);
  }
}

}  // namespace
