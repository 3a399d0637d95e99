// Extensions of CRL entries.
#include "fakes/allocator.h"
#include "fakes/log_capture.h"
#include "support/store_fixture.h"
#include "unit/verifier/codes.h"
#include "unit/verifier/crl_cache/crl_objects.h"
#include "verifier/crl_cache/decoder.h"

using namespace crl_objects;
using support::certificate_issuer;
using support::crl_extension;
using support::der_tlv;
using support::reason_code;
using support::unknown_extension;

namespace {

constexpr int decode_error = 15, unknown_critical = 86;

constexpr char certificate_issuer_oid[] = "2.5.29.29";
const std::string issuer_without_dn =
    crl_extension(certificate_issuer_oid, der_tlv(0x30, support::der_uri("http://127.0.0.1/")));
constexpr char no_entry_dn[] = "4: No DN found in certificate-issuer crl-entry extension\n";
constexpr char refused_issuer[] =
    "4: Found unknown critical crl-entry extension: X509v3 Certificate Issuer\n";
const std::string refused_unknown = std::string("4: Found unknown critical crl-entry extension: ") +
                                    support::unknown_extension_oid + "\n";

class EntryExtensions : public support::store_test {
 protected:
  void TearDown() override {
    X509_NAME_free(current);
    store_test::TearDown();
  }
  int process(const std::string &encodings) {
    return pki::cv_proc_rev_ext(make_entry_extensions(encodings).get(), &current);
  }
  std::string now() const { return current ? one_line(current) : "null"; }

  X509_NAME *current = X509_NAME_dup(support::common_name("issuer").get());
};

TEST_F(EntryExtensions, NoneChangeNothing) {
  EXPECT_EQ(0, pki::cv_proc_rev_ext(nullptr, &current));
  EXPECT_EQ(0, process(""));
  EXPECT_EQ("/CN=issuer", now());
  EXPECT_EQ("", log_dump());
}

TEST_F(EntryExtensions, CertificateIssuerBecomesTheCurrentOneUntilTheNext) {
  EXPECT_EQ(0, process(certificate_issuer("first")));
  EXPECT_EQ("/CN=first", now());
  EXPECT_EQ(0, process(reason_code(1)));
  EXPECT_EQ("/CN=first", now());
  EXPECT_EQ(0, process(certificate_issuer("second")));
  EXPECT_EQ("/CN=second", now());
  EXPECT_EQ("", log_dump());
}

TEST_F(EntryExtensions, CertificateIssuerBecomesTheCurrentOneWhereThereWasNone) {
  X509_NAME_free(current);
  current = nullptr;
  EXPECT_EQ(0, process(certificate_issuer("first")));
  EXPECT_EQ("/CN=first", now());
}

TEST_F(EntryExtensions, FirstDirectoryNameCounts) {
  EXPECT_EQ(0, process(crl_extension(certificate_issuer_oid,
                                     der_tlv(0x30, support::der_uri("http://127.0.0.1/") +
                                                       support::der_directory_name("first") +
                                                       support::der_directory_name("second")))));
  EXPECT_EQ("/CN=first", now());
}

TEST_F(EntryExtensions, LastCertificateIssuerOfOneEntryCounts) {
  EXPECT_EQ(0, process(certificate_issuer("first") + certificate_issuer("second")));
  EXPECT_EQ("/CN=second", now());
}

TEST_F(EntryExtensions, CertificateIssuerWithoutDirectoryNameKeepsTheCurrentOne) {
  EXPECT_EQ(0, process(issuer_without_dn));
  EXPECT_EQ("/CN=issuer", now());
  EXPECT_EQ(no_entry_dn, log_dump());
}

TEST_F(EntryExtensions, CertificateIssuerThatCannotBeDecodedIsRefused) {
  for (const std::string &value : extension_der::malformed_sequences()) {
    EXPECT_EQ(decode_error, process(crl_extension(certificate_issuer_oid, value)));
    EXPECT_EQ("/CN=issuer", now());
  }
}

TEST_F(EntryExtensions, CertificateIssuerThatCannotBeDecodedIsRefusedAlsoWhenCritical) {
  EXPECT_EQ(decode_error, process(crl_extension(certificate_issuer_oid, "x", true)));
  EXPECT_EQ("/CN=issuer", now());
}

TEST_F(EntryExtensions, CriticalCertificateIssuerIsRefusedAfterItsNameWasTaken) {
  EXPECT_EQ(unknown_critical, process(certificate_issuer("first", true)));
  EXPECT_EQ("/CN=first", now());
  EXPECT_EQ(refused_issuer, log_dump());
}

TEST_F(EntryExtensions, CriticalCertificateIssuerWithoutDirectoryNameIsRefused) {
  EXPECT_EQ(unknown_critical,
            process(crl_extension(certificate_issuer_oid,
                                  der_tlv(0x30, support::der_uri("http://127.0.0.1/")), true)));
  EXPECT_EQ("/CN=issuer", now());
  EXPECT_EQ(std::string(no_entry_dn) + refused_issuer, log_dump());
}

TEST_F(EntryExtensions, CriticalReasonDateAndInstructionAreAccepted) {
  EXPECT_EQ(0, process(reason_code(1, true)));
  EXPECT_EQ(0, process(crl_extension("2.5.29.24", support::der_generalized_time(0), true)));
  EXPECT_EQ(0, process(crl_extension("2.5.29.23", support::der_oid("1.2.840.10040.2.1"), true)));
  EXPECT_EQ("", log_dump());
}

TEST_F(EntryExtensions, ValuesOfOtherExtensionsAreNotLookedAt) {
  EXPECT_EQ(0, process(crl_extension("2.5.29.21", "x", true) + crl_extension("2.5.29.24", "x")));
  EXPECT_EQ(0, process(unknown_extension(false)));
  EXPECT_EQ("", log_dump());
}

TEST_F(EntryExtensions, UnknownCriticalOneIsRefused) {
  EXPECT_EQ(unknown_critical, process(unknown_extension(true)));
  EXPECT_EQ("/CN=issuer", now());
  EXPECT_EQ(refused_unknown, log_dump());
}

TEST_F(EntryExtensions, ExtensionsOfCrlsAndCertificatesAreUnknownHere) {
  EXPECT_EQ(unknown_critical, process(support::crl_number(1, true)));
  EXPECT_TRUE(was_logged(4, "Found unknown critical crl-entry extension: X509v3 CRL Number"));
}

TEST_F(EntryExtensions, LookAtThemInTheirOrder) {
  EXPECT_EQ(unknown_critical, process(unknown_extension(true) + certificate_issuer("first")));
  EXPECT_EQ("/CN=issuer", now());
  EXPECT_EQ(unknown_critical, process(certificate_issuer("first") + unknown_extension(true)));
  EXPECT_EQ("/CN=first", now());
  EXPECT_EQ(unknown_critical, process(unknown_extension(true) + crl_extension("2.5.29.29", "x")));
  EXPECT_EQ(decode_error, process(crl_extension("2.5.29.29", "x") + unknown_extension(true)));
}

TEST_F(EntryExtensions, AcceptedOnesDoNotHideOthers) {
  EXPECT_EQ(unknown_critical, process(reason_code(1, true) + unknown_extension(false) +
                                      certificate_issuer("first") + unknown_extension(true)));
  EXPECT_EQ(refused_unknown, log_dump());
}

TEST_F(EntryExtensions, LongIdentifierIsLoggedInAtMostFiftyCharacters) {
  std::string oid = "1.3.6.1.4.1.32473";
  for (int i = 0; i < 10; i++)
    oid += ".1234567";
  EXPECT_EQ(unknown_critical, process(crl_extension(oid, "", true)));
  ASSERT_EQ(1u, captured_log().size());
  const std::string before = "Found unknown critical crl-entry extension: ",
                    text = captured_log()[0].text;
  EXPECT_LE(text.size(), before.size() + 50);
  EXPECT_EQ(before + oid.substr(0, 40), text.substr(0, before.size() + 40));
}

TEST_F(EntryExtensions, WantOfMemoryKeepsTheOldNameOrTakesTheNewOne) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be replaced";
  entry_extensions extensions = make_entry_extensions(certificate_issuer("first"));
  int result = -1;
  size_t failures = fake_allocator::sweep(
      [&] {
        X509_NAME_free(current);
        current = nullptr;
        {
          fake_allocator::pause no_failures;
          current = X509_NAME_dup(support::common_name("issuer").get());
        }
        result = pki::cv_proc_rev_ext(extensions.get(), &current);
      },
      [&](size_t n) {
        EXPECT_TRUE(result == 0 || result == out_of_memory || result == decode_error) << result;
        EXPECT_EQ(result == 0 ? "/CN=first" : "/CN=issuer", now()) << n;
        support::clear_openssl_errors();
      });
  EXPECT_GT(failures, 3u);
  EXPECT_EQ(0, result);
}

}  // namespace
