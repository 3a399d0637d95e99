// The entries of a list: which are kept, under which issuer, and which end the decode.
#include "unit/verifier/crl_cache/decoder_support.h"

using namespace crl_support;
using namespace support;

namespace {

class CrlEntries : public crl_decoder_test {
 protected:
  static std::string crl_with(const std::string &entries) {
    crl_fields fields;
    fields.entries = entries;
    fields.extensions = issuing_dist_point({.indirect = true});
    return crl_octets(fields);
  }
  // The entries that are left of the whole list.
  entry_list in_full(const std::string &entries, const decode_options &options = {}) {
    decoded got = decode(crl_with(entries), options);
    EXPECT_EQ(0, got.code);
    EXPECT_TRUE(got.crl && verifies(got, test_key(0)));
    return got.crl ? entries_of(got.crl) : entry_list();
  }
  // Those that are left when only the target's are kept.
  entry_list kept(const std::string &entries, decode_options options = {}) {
    options.length = unknown_length;
    return in_full(entries, options);
  }
  // An entry ends the decode, both ways, with the code and, behind it, this line of level 4.
  void expect_entry_refused(int code, const std::string &entries, const std::string &line = "") {
    for (uint32_t length : {0u, unknown_length}) {
      clear_log();
      decoded got;
      std::string out = output_of([&] { got = decode(crl_with(entries), {.length = length}); });
      EXPECT_EQ(code, got.code);
      EXPECT_EQ("c\n", out);
      if (!line.empty()) {
        EXPECT_EQ(1u, count_logged(4, line)) << log_dump();
      }
    }
    expect_refused(code, crl_with(entries));
  }
};

// ---- what is kept ----

TEST_F(CrlEntries, WholeListIsKeptSortedBySerialNumber) {
  std::string entries =
      crl_entry(300) + crl_entry(target_serial) + crl_entry(7) + crl_entry(4, reason_code(1));
  EXPECT_EQ((entry_list{{"4", by_issuer}, {"5", by_issuer}, {"7", by_issuer}, {"300", by_issuer}}),
            in_full(entries));
}

TEST_F(CrlEntries, TruncatedListKeepsTheTargetsEntryOnly) {
  std::string entries;
  for (long serial = 1; serial < 300; serial++)
    entries += crl_entry(serial, serial % 2 ? reason_code(1) : "");
  EXPECT_EQ((entry_list{{"5", by_issuer}}), kept(entries));
}

TEST_F(CrlEntries, TruncatedListWithoutTheTargetsEntryKeepsNone) {
  EXPECT_EQ(entry_list(), kept(crl_entry(4) + crl_entry(6)));
}

TEST_F(CrlEntries, KeptEntryIsWhole) {
  std::string date = der_generalized_time(crl_der_now - 5000);
  std::string entry =
      crl_entry(std::string("\x05"), reason_code(4) + unknown_extension(false), date);
  for (uint32_t length : {0u, unknown_length}) {
    decoded got = decode(crl_with(crl_entry(1) + entry + crl_entry(9)), {.length = length});
    ASSERT_EQ(0, got.code);
    STACK_OF(X509_REVOKED) *list = X509_CRL_get_REVOKED(got.crl.get());
    X509_REVOKED *found = sk_X509_REVOKED_value(list, length ? 0 : 1);
    ASSERT_TRUE(found);
    unsigned char *out = nullptr;
    int size = i2d_X509_REVOKED(found, &out);
    EXPECT_EQ(entry, std::string(reinterpret_cast<char *>(out), static_cast<size_t>(size)));
    OPENSSL_free(out);
  }
}

TEST_F(CrlEntries, SerialNumbersAreComparedExactly) {
  for (const std::string &serial :
       {std::string("\x05\x05"), std::string("\xFB"), std::string("\x05\x00", 2),
        std::string("\x00\x85", 2), std::string("\x01\x00\x00\x00\x05", 5)})
    EXPECT_EQ(entry_list(), kept(crl_entry(serial))) << serial.size();
}

TEST_F(CrlEntries, LongSerialNumbersAreFound) {
  std::string serial = std::string("\x00\xFF", 2) + pattern(19);
  support::cert_options options;
  options.issuer = common_name("issuer");
  options.signing_key = test_key(0);
  support::cert wanted = support::make_cert(options);
  support::integer number = support::make_serial(serial.substr(1));
  X509_set_serialNumber(wanted.get(), number.get());
  std::string other = serial;
  other.back() = static_cast<char>(other.back() ^ 1);
  entry_list got =
      kept(crl_entry(other) + crl_entry(serial) + crl_entry(serial.substr(2)), {.target = wanted});
  EXPECT_EQ(1u, got.size());
}

TEST_F(CrlEntries, SerialNumberZeroIsFound) {
  support::cert wanted = support::simple_cert("issuer", "device", 0);
  EXPECT_EQ((entry_list{{"0", by_issuer}}), kept(crl_entry(0) + crl_entry(1), {.target = wanted}));
}

TEST_F(CrlEntries, TargetOfAnotherIssuerIsNotListed) {
  support::cert stranger = support::simple_cert("other", "device", target_serial);
  EXPECT_EQ(entry_list(), kept(crl_entry(target_serial), {.target = stranger}));
}

TEST_F(CrlEntries, EntriesMayStartAtTheTargetsIssuer) {
  support::cert stranger = support::simple_cert("other", "device", target_serial);
  std::string entries = crl_entry(4) + crl_entry(target_serial);
  EXPECT_EQ(1u, kept(entries, {.target = stranger, .start_at_target = true}).size());
  // A named issuer still holds from its entry on.
  entries = crl_entry(4, certificate_issuer("third")) + crl_entry(target_serial);
  EXPECT_EQ(0u, kept(entries, {.target = stranger, .start_at_target = true}).size());
}

TEST_F(CrlEntries, UpTo64EntriesAreKeptOfATruncatedList) {
  std::string entries = crl_entry(4);
  for (int i = 0; i < 64; i++)
    entries += crl_entry(target_serial, i % 2 ? reason_code(1) : "");
  EXPECT_EQ(64u, kept(entries).size());
  entries += crl_entry(target_serial);
  decoded got;
  std::string out = output_of([&] { got = decode_without_length(crl_with(entries)); });
  EXPECT_EQ(15, got.code);
  EXPECT_EQ("c\n", out);
  // A list that is decoded in full knows no such limit.
  EXPECT_EQ(66u, in_full(entries).size());
}

// ---- issuers of entries ----

TEST_F(CrlEntries, NamedIssuerHoldsUntilTheNext) {
  std::string entries = crl_entry(1) + crl_entry(2, certificate_issuer("other")) + crl_entry(3) +
                        crl_entry(4, certificate_issuer("third")) + crl_entry(6) +
                        crl_entry(7, certificate_issuer("issuer")) + crl_entry(8);
  EXPECT_EQ((entry_list{{"1", by_issuer},
                        {"2", by_other},
                        {"3", by_other},
                        {"4", by_third},
                        {"6", by_third},
                        {"7", by_issuer},
                        {"8", by_issuer}}),
            in_full(entries));
}

TEST_F(CrlEntries, SortingLosesNoInheritedIssuer) {
  std::string entries = crl_entry(9) + crl_entry(8, certificate_issuer("other")) + crl_entry(3) +
                        crl_entry(7, certificate_issuer("third")) + crl_entry(1) +
                        crl_entry(2, certificate_issuer("issuer")) + crl_entry(6);
  entry_list all = in_full(entries);
  std::sort(all.begin(), all.end());
  EXPECT_EQ((entry_list{{"1", by_third},
                        {"2", by_issuer},
                        {"3", by_other},
                        {"6", by_issuer},
                        {"7", by_third},
                        {"8", by_other},
                        {"9", by_issuer}}),
            all);
}

TEST_F(CrlEntries, SameSerialNumberUnderSeveralIssuers) {
  std::string entries = crl_entry(target_serial, certificate_issuer("other")) +
                        crl_entry(target_serial, certificate_issuer("third")) +
                        crl_entry(target_serial, certificate_issuer("issuer"));
  entry_list all = in_full(entries);
  std::sort(all.begin(), all.end());
  EXPECT_EQ((entry_list{{"5", by_issuer}, {"5", by_other}, {"5", by_third}}), all);
  EXPECT_EQ((entry_list{{"5", by_issuer}}), kept(entries));
}

TEST_F(CrlEntries, RightSerialNumberUnderAnotherIssuerIsDropped) {
  EXPECT_EQ(entry_list(), kept(crl_entry(target_serial, certificate_issuer("other"))));
  EXPECT_EQ(entry_list(), kept(crl_entry(1, certificate_issuer("other")) +
                               crl_entry(target_serial, reason_code(1))));
}

TEST_F(CrlEntries, DroppingLosesNoInheritedIssuer) {
  support::cert stranger = support::simple_cert("other", "device", target_serial);
  std::string entries = crl_entry(target_serial) + crl_entry(1, certificate_issuer("other")) +
                        crl_entry(2) + crl_entry(target_serial);
  EXPECT_EQ((entry_list{{"5", by_other}}), kept(entries, {.target = stranger}));
}

TEST_F(CrlEntries, IssuerIsTheFirstDirectoryName) {
  std::string names = der_tlv(
      0x30, der_uri("http://a/") + der_directory_name("other") + der_directory_name("third"));
  std::string entries = crl_entry(1, crl_extension("2.5.29.29", names)) + crl_entry(2);
  entry_list got = in_full(entries);
  EXPECT_EQ(by_other, got[0].second);
  EXPECT_EQ(by_other, got[1].second);
}

TEST_F(CrlEntries, IssuerWithoutADirectoryNameIsLoggedAndChangesNothing) {
  std::string none = crl_extension("2.5.29.29", der_tlv(0x30, der_uri("http://a/")));
  std::string entries = crl_entry(1, certificate_issuer("other")) + crl_entry(target_serial, none);
  for (uint32_t length : {0u, unknown_length}) {
    clear_log();
    support::cert stranger = support::simple_cert("other", "device", target_serial);
    entry_list got = in_full(entries, {.length = length, .target = stranger});
    EXPECT_EQ(by_other, got.back().second);
    EXPECT_EQ("5", got.back().first);
    EXPECT_EQ(1u, count_logged(4, "No DN found in certificate-issuer crl-entry extension"));
  }
}

// ---- entries that end the decode ----

TEST_F(CrlEntries, UndecodableIssuerEndsTheDecode) {
  std::string bad = crl_extension("2.5.29.29", der_tlv(0x04, "x"));
  expect_entry_refused(15, crl_entry(1) + crl_entry(9, bad));
}

TEST_F(CrlEntries, CriticalIssuerEndsTheDecode) {
  expect_entry_refused(86, crl_entry(9, certificate_issuer("other", true)),
                       "Found unknown critical crl-entry extension: X509v3 Certificate Issuer");
}

TEST_F(CrlEntries, UnknownCriticalExtensionEndsTheDecodeWhereverItStands) {
  std::string line =
      std::string("Found unknown critical crl-entry extension: ") + unknown_extension_oid;
  expect_entry_refused(86, crl_entry(9, unknown_extension(true)), line);
  expect_entry_refused(86, crl_entry(9, reason_code(1) + unknown_extension(true)), line);
  expect_entry_refused(86, crl_entry(4) + crl_entry(9, unknown_extension(true)) + crl_entry(10),
                       line);
}

TEST_F(CrlEntries, KnownCriticalExtensionsAreAccepted) {
  std::string hold_code = crl_extension("2.5.29.23", der_oid("1.2.840.10040.2.1"), true);
  std::string invalidity = crl_extension("2.5.29.24", der_generalized_time(crl_der_now), true);
  for (const std::string &extensions :
       {reason_code(1, true), hold_code, invalidity, reason_code(6, true) + hold_code + invalidity})
    for (long serial : {target_serial, 9L}) {
      EXPECT_EQ(1u, in_full(crl_entry(serial, extensions)).size());
      EXPECT_EQ(serial == target_serial ? 1u : 0u, kept(crl_entry(serial, extensions)).size());
    }
}

TEST_F(CrlEntries, UnknownUncriticalExtensionIsPassedOver) {
  EXPECT_EQ(1u, in_full(crl_entry(9, unknown_extension(false))).size());
  EXPECT_EQ(1u, kept(crl_entry(target_serial, unknown_extension(false))).size());
}

TEST_F(CrlEntries, MalformedEntryEndsTheDecodeWhetherItIsKeptOrNot) {
  std::string date = der_utc_time(crl_der_now);
  for (const std::string &bad :
       {der_tlv(0x30, ""), der_tlv(0x30, der_integer(9)), der_tlv(0x31, der_integer(9) + date),
        der_tlv(0x30, date + der_integer(9)), der_tlv(0x30, der_integer(9) + date + "x"),
        der_tlv(0x30, der_integer(9) + date + der_tlv(0x30, "x")),
        der_tlv(0x30, der_integer(9) + date + der_tlv(0x31, reason_code(1))),
        der_tlv(0x30, der_integer(9) + date + der_tlv(0x30, reason_code(1)) + date),
        der_tlv(0x30, der_integer(std::string()) + date),
        der_tlv(0x30, der_integer(std::string("\x00\x09", 2)) + date),
        der_tlv(0x30, der_integer(std::string("\xFF\x89", 2)) + date),
        der_tlv(0x30, der_integer(9) + der_tlv(0x16, "231114221320Z")),
        std::string("\x30\x80\x00\x00", 4)}) {
    expect_entry_refused(15, bad);
    expect_entry_refused(15, crl_entry(4) + bad + crl_entry(6));
  }
}

TEST_F(CrlEntries, EntryMustFitIntoTheList) {
  std::string entry = crl_entry(9);
  for (size_t size = 1; size < entry.size(); size++)
    expect_entry_refused(15, crl_entry(4) + entry.substr(0, size));
}

TEST_F(CrlEntries, EntryAboveTenThousandEndsTheDecode) {
  for (size_t padding : {9900u, 11000u, 70000u}) {
    std::string entry =
        crl_entry(9, crl_extension("1.3.6.1.4.1.32473.99", std::string(padding, 'x')));
    std::string octets = crl_with(crl_entry(4) + entry + crl_entry(target_serial));
    if (padding == 9900u) {
      EXPECT_EQ(0, decode_both_ways(octets).code);
    } else {
      expect_refused(15, octets);
    }
  }
}

// An entry of at least that content size; it grows by one octet at a time.
std::string entry_with_content(size_t size) {
  std::string entry;
  for (size_t padding = size - 100; entry.size() < size + 4; padding++)
    entry = crl_entry(9, crl_extension("1.3.6.1.4.1.32473.99", std::string(padding, 'x')));
  return entry;
}

TEST_F(CrlEntries, EntryOfExactlyTenThousandIsTheLongest) {
  ASSERT_EQ(10004u, entry_with_content(10000).size());
  EXPECT_EQ(0, decode_both_ways(crl_with(entry_with_content(10000))).code);
  expect_refused(15, crl_with(entry_with_content(10001)));
}

// ---- the entry-extension check by itself ----

class DecodedEntryExtensions : public crl_decoder_test {
 protected:
  int check(const std::string &extensions) {
    std::string octets = crl_entry(9, extensions);
    const auto *in = reinterpret_cast<const unsigned char *>(octets.data());
    X509_REVOKED *entry = d2i_X509_REVOKED(nullptr, &in, static_cast<long>(octets.size()));
    EXPECT_TRUE(entry);
    X509_NAME *current = X509_NAME_dup(common_name("issuer").get());
    int code = pki::cv_proc_rev_ext(X509_REVOKED_get0_extensions(entry), &current);
    issuer = line_of(current);
    X509_NAME_free(current);
    X509_REVOKED_free(entry);
    clear_openssl_errors();
    return code;
  }
  std::string issuer;
};

TEST_F(DecodedEntryExtensions, NoneChangeNothing) {
  EXPECT_EQ(0, check(""));
  EXPECT_EQ(by_issuer, issuer);
}

TEST_F(DecodedEntryExtensions, CriticalIssuerIsTakenOverBeforeItIsRefused) {
  EXPECT_EQ(86, check(certificate_issuer("other", true)));
  EXPECT_EQ(by_other, issuer);
}

TEST_F(DecodedEntryExtensions, TheyAreLookedAtInOrder) {
  EXPECT_EQ(86, check(unknown_extension(true) + certificate_issuer("other")));
  EXPECT_EQ(by_issuer, issuer);
  EXPECT_EQ(86, check(certificate_issuer("other") + unknown_extension(true)));
  EXPECT_EQ(by_other, issuer);
}

TEST_F(DecodedEntryExtensions, LongObjectIdentifierIsCutToFiftyCharacters) {
  std::string oid = "1.3.6.1.4.1.32473.123456789.123456789.123456789.123456789";
  EXPECT_EQ(86, check(crl_extension(oid, "x", true)));
  EXPECT_TRUE(was_logged(4, "Found unknown critical crl-entry extension: " + oid.substr(0, 50)))
      << log_dump();
}

}  // namespace
