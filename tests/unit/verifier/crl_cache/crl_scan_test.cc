// Looking into CRLs while their octets go by.
#include <gtest/gtest.h>
#include <libpki/libpki.h>

#include <climits>

#include "fakes/log_capture.h"
#include "unit/verifier/crl_cache/crl_scan_support.h"
#include "unit/verifier/own_log.h"

using namespace crl_scan_test;
using namespace support;

namespace {

class CrlScan : public testing::Test {
 protected:
  void SetUp() override {
    libpki_init();
    clear_log();
  }
};

name issuer_name() {
  return common_name("issuer");
}

cert signer(int which) {
  cert_options options;
  options.subject = issuer_name();
  options.public_key = test_key(which);
  return make_cert(options);
}

TEST_F(CrlScan, CountsEntriesAndKeepsNone) {
  for (long count : {0L, 1L, 2L, 500L}) {
    std::string octets = list_of(count);
    scanned result = scan(octets);
    ASSERT_EQ(0, result.code) << log_dump();
    EXPECT_EQ(static_cast<uint64_t>(count), result.report.entries);
    EXPECT_EQ(octets.size(), result.report.octets);
    EXPECT_EQ(0u, result.report.critical_entries);
    EXPECT_EQ(PKI_CRL_NOT_CHECKED, result.report.signature);
    EXPECT_EQ(std::vector<long>(), serials_of(result.crl));
  }
  EXPECT_EQ("", own_log());
}

TEST_F(CrlScan, KeepsEverythingAroundTheEntries) {
  std::string extensions = crl_number(7) + unknown_extension(true);
  scanned result = scan(list_of(100, extensions));
  ASSERT_EQ(0, result.code);
  EXPECT_EQ(0, X509_NAME_cmp(issuer_name().get(), X509_CRL_get_issuer(result.crl.get())));
  EXPECT_EQ(0,
            ASN1_TIME_cmp_time_t(X509_CRL_get0_lastUpdate(result.crl.get()), crl_der_now - 3600));
  EXPECT_EQ(
      0, ASN1_TIME_cmp_time_t(X509_CRL_get0_nextUpdate(result.crl.get()), crl_der_now + 7 * 86400));
  // And the mark that entries are missing.
  EXPECT_EQ(3, X509_CRL_get_ext_count(result.crl.get()));
  EXPECT_GE(X509_CRL_get_ext_by_NID(result.crl.get(), pki_nid_list[PKI_OID_TRUNCATED_CRL], -1), 0);
  EXPECT_EQ(NID_sha256WithRSAEncryption, X509_CRL_get_signature_nid(result.crl.get()));
}

TEST_F(CrlScan, KeepsTheEntryThatIsLookedFor) {
  for (long wanted : {1L, 250L, 251L, 500L}) {
    integer serial = make_serial(wanted);
    scanned result = scan(list_of(500), query_for(serial));
    ASSERT_EQ(0, result.code);
    EXPECT_EQ(std::vector<long>{wanted}, serials_of(result.crl));
    EXPECT_EQ(500u, result.report.entries);
  }
}

TEST_F(CrlScan, ShortListLosesItsOtherEntriesToo) {
  integer serial = make_serial(2);
  EXPECT_EQ(std::vector<long>{2}, serials_of(scan(list_of(3), query_for(serial)).crl));
}

TEST_F(CrlScan, SerialNumberThatIsNotListedIsNotFound) {
  for (long wanted : {0L, 501L, -1L, LONG_MAX >> 1}) {
    integer serial = make_serial(wanted);
    scanned result = scan(list_of(500), query_for(serial));
    ASSERT_EQ(0, result.code);
    EXPECT_EQ(std::vector<long>(), serials_of(result.crl));
  }
}

TEST_F(CrlScan, WithoutAQueryEvenSerialNumberZeroIsNotKept) {
  crl_fields fields;
  fields.entries = crl_entry(0) + crl_entry(1);
  scanned result = scan(crl_octets(fields));
  ASSERT_EQ(0, result.code);
  EXPECT_EQ(2u, result.report.entries);
  EXPECT_EQ(std::vector<long>(), serials_of(result.crl));
}

TEST_F(CrlScan, LongSerialNumbersAreFound) {
  for (size_t size : {20u, 127u, 128u, 400u}) {
    std::string octets(size, '\x11');
    crl_fields fields;
    fields.entries = crl_entry(5) + crl_entry(octets) + crl_entry(6);
    integer serial = make_serial(octets);
    scanned result = scan(crl_octets(fields), query_for(serial));
    ASSERT_EQ(0, result.code) << size;
    EXPECT_EQ(3u, result.report.entries);
    EXPECT_EQ(1, sk_X509_REVOKED_num(X509_CRL_get_REVOKED(result.crl.get()))) << size;
  }
}

// An indirect CRL: 5 of the issuer's own, then 5 and 6 of others, the last of them inherited.
std::string indirect_list() {
  crl_fields fields;
  fields.entries = crl_entry(5) + crl_entry(5, certificate_issuer("other", true)) + crl_entry(6) +
                   crl_entry(5, certificate_issuer("third", true)) + crl_entry(6);
  fields.extensions = issuing_dist_point({.indirect = true});
  return crl_octets(fields);
}

TEST_F(CrlScan, AnyIssuerMatchesWhereNoneIsGiven) {
  integer serial = make_serial(6);
  scanned result = scan(indirect_list(), query_for(serial));
  ASSERT_EQ(0, result.code);
  EXPECT_EQ((std::vector<long>{6, 6}), serials_of(result.crl));
}

TEST_F(CrlScan, OnlyTheIssuerMatchesThatIsGiven) {
  integer five = make_serial(5);
  integer six = make_serial(6);
  for (const char *cn : {"issuer", "other", "third"}) {
    name issuer = common_name(cn);
    EXPECT_EQ(std::vector<long>{5}, serials_of(scan(indirect_list(), query_for(five, issuer)).crl))
        << cn;
    EXPECT_EQ(cn == std::string("issuer") ? 0u : 1u,
              serials_of(scan(indirect_list(), query_for(six, issuer)).crl).size())
        << cn;
  }
  name stranger = common_name("stranger");
  EXPECT_EQ(std::vector<long>(), serials_of(scan(indirect_list(), query_for(five, stranger)).crl));
}

TEST_F(CrlScan, InheritedIssuerIsWrittenIntoTheEntry) {
  integer serial = make_serial(6);
  name issuer = common_name("third");
  scanned result = scan(indirect_list(), query_for(serial, issuer));
  ASSERT_EQ(0, result.code);
  const X509_REVOKED *entry = sk_X509_REVOKED_value(X509_CRL_get_REVOKED(result.crl.get()), 0);
  auto *names = static_cast<GENERAL_NAMES *>(
      X509_REVOKED_get_ext_d2i(entry, NID_certificate_issuer, nullptr, nullptr));
  ASSERT_NE(nullptr, names);
  EXPECT_EQ(0, X509_NAME_cmp(issuer.get(), sk_GENERAL_NAME_value(names, 0)->d.directoryName));
  GENERAL_NAMES_free(names);
}

TEST_F(CrlScan, CriticalExtensionsThatVerdictsRefuseAreCounted) {
  scanned result = scan(indirect_list());
  ASSERT_EQ(0, result.code);
  EXPECT_EQ(5u, result.report.entries);
  EXPECT_EQ(2u, result.report.critical_entries);
  EXPECT_EQ("", own_log());
}

TEST_F(CrlScan, IssuerBehindAnUnknownCriticalExtensionCounts) {
  crl_fields fields;
  fields.entries =
      crl_entry(5, unknown_extension(true) + certificate_issuer("other", true)) + crl_entry(6);
  integer serial = make_serial(6);
  name other = common_name("other");
  scanned result = scan(crl_octets(fields), query_for(serial, other));
  ASSERT_EQ(0, result.code);
  EXPECT_EQ(1u, result.report.critical_entries);
  EXPECT_EQ(std::vector<long>{6}, serials_of(result.crl));
}

TEST_F(CrlScan, SignatureIsChecked) {
  for (long count : {0L, 3L, 1000L}) {
    cert right = signer(0);
    cert wrong = signer(1);
    std::string octets = list_of(count);
    EXPECT_EQ(PKI_CRL_SIGNED, scan(octets, {nullptr, nullptr, right.get()}).report.signature);
    EXPECT_EQ(PKI_CRL_NOT_SIGNED, scan(octets, {nullptr, nullptr, wrong.get()}).report.signature);
  }
  EXPECT_EQ("", log_dump());
  EXPECT_EQ(0u, ERR_peek_error());
}

TEST_F(CrlScan, ChangedEntrySpoilsTheSignature) {
  cert right = signer(0);
  std::string octets = list_of(1000);
  octets[octets.size() / 2] ^= 1;
  scanned result = scan(octets, {nullptr, nullptr, right.get()});
  if (result.code == 0)
    EXPECT_EQ(PKI_CRL_NOT_SIGNED, result.report.signature);
  else
    EXPECT_EQ(PKI_ASN1_DECODE_ERROR, result.code);
}

TEST_F(CrlScan, EllipticCurvesAreVerifiedToo) {
  crl_fields fields;
  fields.signing = crl_signing::ecdsa_sha256;
  cert_options options;
  options.public_key = crl_ec_key();
  cert right = make_cert(options);
  EXPECT_EQ(PKI_CRL_SIGNED,
            scan(crl_octets(fields), {nullptr, nullptr, right.get()}).report.signature);
}

TEST_F(CrlScan, Pkcs7IsOpened) {
  std::string octets = pkcs7_octets(list_of(500));
  cert right = signer(0);
  integer serial = make_serial(77);
  for (bool announced : {true, false}) {
    scanned result = scan(octets, {serial.get(), nullptr, right.get()}, announced);
    ASSERT_EQ(0, result.code) << log_dump();
    EXPECT_EQ(500u, result.report.entries);
    EXPECT_EQ(PKI_CRL_SIGNED, result.report.signature);
    EXPECT_EQ(std::vector<long>{77}, serials_of(result.crl));
    EXPECT_LT(result.report.octets, octets.size());
    EXPECT_GT(result.report.octets, list_of(500).size());
  }
}

TEST_F(CrlScan, LengthNeedNotBeKnown) {
  std::string octets = list_of(500);
  scanned result = scan(octets, {}, false);
  ASSERT_EQ(0, result.code);
  EXPECT_EQ(500u, result.report.entries);
  EXPECT_EQ(octets.size(), result.report.octets);
}

TEST_F(CrlScan, OctetsBehindTheListAreLeftAlone) {
  std::string octets = list_of(500);
  scanned result = scan(octets + std::string(5000, 'x'), {}, false);
  ASSERT_EQ(0, result.code);
  EXPECT_EQ(octets.size(), result.report.octets);
}

TEST_F(CrlScan, ReadsOfAnySizeGiveTheSame) {
  std::string octets = list_of(200);
  for (size_t part : {1u, 2u, 3u, 7u, 100u, 1999u, 2000u, 2001u}) {
    text_source source = {octets, part};
    scanned result = scan({text_source::read, &source, octets.size()});
    ASSERT_EQ(0, result.code) << part;
    EXPECT_EQ(200u, result.report.entries);
    EXPECT_EQ(octets.size(), result.report.octets);
  }
}

TEST_F(CrlScan, DoesNotAnnounceFailuresOnStandardOutput) {
  testing::internal::CaptureStdout();
  scan("no CRL at all, but quite some text");
  scan(pkcs7_octets(list_of(1)));
  EXPECT_EQ("", testing::internal::GetCapturedStdout());
}

}  // namespace
