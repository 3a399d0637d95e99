// A CertificateList off a connection: its fields, their order, and the digest over tbsCertList.
#include "unit/verifier/crl_cache/decoder_support.h"

using namespace crl_support;
using namespace support;

namespace {

class CrlDecoder : public crl_decoder_test {
 protected:
  // The CRL decodes both ways to what OpenSSL makes of it, and its signature verifies.
  void expect_decoded(const crl_fields &fields, const support::key &signer = test_key(0)) {
    std::string octets = crl_octets(fields);
    support::crl expected = openssl_decoded(octets);
    ASSERT_TRUE(expected);
    decoded got;
    std::string out = output_of([&] { got = decode(octets); });
    EXPECT_EQ("", out);
    ASSERT_EQ(0, got.code);
    EXPECT_EQ(frame_of(expected), frame_of(got.crl));
    EXPECT_EQ(octets, encoding_of(got.crl));
    EXPECT_TRUE(verifies(got, signer));
    decoded again = decode_both_ways(octets);
    EXPECT_EQ(0, again.code);
    EXPECT_TRUE(verifies(decode_without_length(octets), signer));
    EXPECT_TRUE(captured_log().empty()) << log_dump();
  }
};

crl_fields with_everything() {
  crl_fields fields;
  fields.entries = crl_entry(3) + crl_entry(4, reason_code(1)) + crl_entry(7);
  fields.extensions = crl_number(12) + authority_key_id({.key_id = "abcd"});
  return fields;
}

// ---- fields ----

TEST_F(CrlDecoder, DecodesEveryField) {
  expect_decoded(with_everything());
}

TEST_F(CrlDecoder, OptionalFieldsMayBeAbsentInEveryCombination) {
  for (int absent = 0; absent < 16; absent++) {
    crl_fields fields = with_everything();
    if (absent & 1)
      fields.version.clear();
    if (absent & 2)
      fields.next_update.clear();
    if (absent & 4)
      fields.entries.reset();
    if (absent & 8)
      fields.extensions.clear();
    SCOPED_TRACE(absent);
    expect_decoded(fields);
  }
}

TEST_F(CrlDecoder, EmptyListIsOne) {
  crl_fields fields = with_everything();
  fields.entries = "";
  for (const std::string &extensions : {fields.extensions, std::string()}) {
    fields.extensions = extensions;
    decoded got = decode_both_ways(crl_octets(fields));
    ASSERT_EQ(0, got.code);
    EXPECT_EQ(0u, entries_of(got.crl).size());
    EXPECT_TRUE(verifies(got, test_key(0)));
  }
}

TEST_F(CrlDecoder, TimesOfEitherType) {
  crl_fields fields = with_everything();
  fields.this_update = der_generalized_time(crl_der_now);
  expect_decoded(fields);
  fields.next_update = der_generalized_time(crl_der_now + 100);
  expect_decoded(fields);
  fields.this_update = der_utc_time(crl_der_now);
  expect_decoded(fields);
}

TEST_F(CrlDecoder, DigestCoversTbsCertListInEveryTwoWaySplit) {
  crl_fields fields = with_everything();
  std::string octets = crl_octets(fields);
  std::string expected = digest_of(tbs_cert_list(fields));
  for (size_t at = 1; at < octets.size(); at++)
    for (uint32_t length : {0u, unknown_length}) {
      decoded got = decode(octets, {.length = length, .how = split_at(at)});
      ASSERT_EQ(0, got.code) << at;
      ASSERT_EQ(expected, got.digest) << at;
    }
}

TEST_F(CrlDecoder, VersionZeroIsDropped) {
  for (const std::string &zero : {der_integer(0), std::string()}) {
    crl_fields fields = with_everything();
    fields.version = zero;
    decoded got = decode_both_ways(crl_octets(fields));
    ASSERT_EQ(0, got.code);
    EXPECT_EQ(0, X509_CRL_get_version(got.crl.get()));
    EXPECT_EQ(digest_of(tbs_cert_list(fields)), got.digest);
    EXPECT_TRUE(verifies(got, test_key(0)));
  }
}

TEST_F(CrlDecoder, OtherVersionsAreKept) {
  for (long version : {1, 2, 77}) {
    crl_fields fields = with_everything();
    fields.version = der_integer(version);
    decoded got = decode_both_ways(crl_octets(fields));
    ASSERT_EQ(0, got.code);
    EXPECT_EQ(version, X509_CRL_get_version(got.crl.get()));
  }
}

TEST_F(CrlDecoder, VersionThatIsNoIntegerIsRefused) {
  for (const std::string &version : {std::string("\x22\x01\x01"), std::string("\x02\x00", 2),
                                     der_integer(std::string(2, '\0'))}) {
    crl_fields fields = with_everything();
    fields.version = version;
    expect_refused(15, crl_octets(fields));
  }
}

// ---- algorithms ----

TEST_F(CrlDecoder, DigestFollowsTheSignatureAlgorithm) {
  crl_fields fields = with_everything();
  for (crl_signing signing : {crl_signing::rsa_sha256, crl_signing::rsa_sha1, crl_signing::rsa_md5,
                              crl_signing::ecdsa_sha256}) {
    fields.signing = signing;
    expect_decoded(fields, signing == crl_signing::ecdsa_sha256 ? crl_ec_key() : test_key(0));
  }
}

TEST_F(CrlDecoder, DigestsOfFurtherAlgorithms) {
  const std::vector<std::pair<std::string, const EVP_MD *>> algorithms = {
      {"1.2.840.113549.1.1.12", EVP_sha384()}, {"1.2.840.113549.1.1.13", EVP_sha512()},
      {"1.2.840.113549.1.1.14", EVP_sha224()}, {"1.2.840.10045.4.1", EVP_sha1()},
      {"1.2.840.10045.4.3.3", EVP_sha384()},   {"1.2.840.10045.4.3.4", EVP_sha512()},
      {"1.2.840.10040.4.3", EVP_sha1()},       {"2.16.840.1.101.3.4.3.2", EVP_sha256()}};
  for (const auto &[oid, md] : algorithms) {
    crl_fields fields = with_everything();
    fields.algorithm = der_algorithm(oid, false);
    decoded got = decode_both_ways(crl_octets(fields));
    ASSERT_EQ(0, got.code) << oid;
    EXPECT_EQ(digest_of(tbs_cert_list(fields), md), got.digest) << oid;
  }
}

TEST_F(CrlDecoder, AlgorithmWithoutAKnownDigestIsRefused) {
  for (const char *oid :
       {"1.2.840.113549.1.1.10", "1.3.101.112", "1.3.6.1.4.1.32473.5", "1.2.840.113549.1.1.1"}) {
    crl_fields fields = with_everything();
    fields.algorithm = der_algorithm(oid);
    expect_refused(84, crl_octets(fields));
  }
}

TEST_F(CrlDecoder, AlgorithmThatIsNoneIsRefused) {
  for (const std::string &algorithm : {der_tlv(0x30, ""), der_tlv(0x31, der_oid("1.2.3")),
                                       der_tlv(0x04, "x"), der_tlv(0x30, der_integer(1))}) {
    crl_fields fields = with_everything();
    fields.algorithm = algorithm;
    expect_refused(15, crl_octets(fields));
  }
}

TEST_F(CrlDecoder, OuterAlgorithmIsKeptAndChosenByNobody) {
  crl_fields fields = with_everything();
  fields.outer_algorithm = der_algorithm("1.2.840.113549.1.1.5");
  decoded got = decode_both_ways(crl_octets(fields));
  ASSERT_EQ(0, got.code);
  EXPECT_EQ(digest_of(tbs_cert_list(fields)), got.digest);
  EXPECT_NE(std::string::npos, frame_of(got.crl).find("1.2.840.113549.1.1.5"));
}

// ---- order and tags ----

TEST_F(CrlDecoder, OuterTagsDoNotMatter) {
  crl_fields fields = with_everything();
  std::string octets = crl_octets(fields);
  size_t tbs_at = octets.find(tbs_cert_list(fields));
  for (char tag : {'\x31', '\x10', '\xA0'}) {
    std::string outer = octets;
    outer[0] = tag;
    EXPECT_EQ(0, decode_both_ways(outer).code);
    std::string inner = octets;
    inner[tbs_at] = tag;
    decoded got = decode_both_ways(inner);
    EXPECT_EQ(0, got.code);
    EXPECT_EQ(digest_of(inner.substr(tbs_at, tbs_cert_list(fields).size())), got.digest);
  }
}

TEST_F(CrlDecoder, WrongTypesAreRefused) {
  const std::string wrong = der_tlv(0x04, "x");
  crl_fields fields = with_everything();
  fields.issuer = wrong;
  expect_refused(15, crl_octets(fields));
  fields = with_everything();
  fields.this_update = wrong;
  expect_refused(15, crl_octets(fields));
  fields = with_everything();
  fields.next_update = wrong;
  expect_refused(15, crl_octets(fields));
  fields = with_everything();
  fields.next_update[0] = '\x37';  // a constructed UTCTime that is none
  expect_refused(15, crl_octets(fields));
}

TEST_F(CrlDecoder, OtherOrderIsRefused) {
  crl_fields fields = with_everything();
  std::string extensions = der_tlv(0xA0, der_tlv(0x30, fields.extensions));
  std::string list = der_tlv(0x30, *fields.entries);
  fields.extensions.clear();
  fields.entries.reset();
  for (const std::string &rest :
       {list + list, list + list + extensions, fields.next_update + list, list + fields.next_update,
        der_tlv(0x31, *with_everything().entries)}) {
    fields.behind_tbs_fields = rest;
    expect_refused(15, crl_octets(fields));
  }
  // The list is taken for left-over octets, which the outer algorithm is then read from.
  fields.behind_tbs_fields = extensions + list;
  expect_refused_silently(15, crl_octets(fields));
  EXPECT_TRUE(was_logged(4, "CRL-Info parse inconsistency: " + std::to_string(list.size()) +
                                " bytes left over after parsing crl-info body"));
}

TEST_F(CrlDecoder, ExtensionsStandBehindExactlyA0) {
  for (unsigned char tag : {0xA1, 0x80, 0xA2, 0x31, 0x04, 0xE0}) {
    crl_fields fields = with_everything();
    fields.extensions_element = der_tlv(tag, der_tlv(0x30, fields.extensions));
    expect_refused(15, crl_octets(fields));
  }
}

TEST_F(CrlDecoder, ExtensionsThatAreNoneAreRefused) {
  for (const std::string &content :
       {std::string(), der_tlv(0x31, crl_number(1)), der_tlv(0x30, "x"),
        der_tlv(0x30, der_tlv(0x30, "")), std::string("\x30\x05\x30", 3)}) {
    crl_fields fields = with_everything();
    fields.extensions_element = der_tlv(0xA0, content);
    expect_refused(15, crl_octets(fields));
  }
}

// ---- lengths ----

TEST_F(CrlDecoder, BodyOfTenThousandIsDecodedInFullAndALongerOneIsTruncated) {
  crl_fields fields = with_everything();
  for (size_t size : {9999u, 10000u, 10001u}) {
    size_t padding = size;
    std::string octets;
    for (int i = 0; i < 4; i++) {  // settles on the padding that makes this size
      fields.extensions = crl_extension("1.3.6.1.4.1.32473.99", std::string(padding, 'x'));
      octets = crl_octets(fields);
      padding = padding + size - octets.size();
    }
    ASSERT_EQ(size, octets.size());
    decoded got = decode(octets);
    ASSERT_EQ(0, got.code);
    EXPECT_EQ(size > 10000, got.truncated);
    EXPECT_EQ(size > 10000 ? 0u : 3u, entries_of(got.crl).size());
    EXPECT_TRUE(verifies(got, test_key(0)));
  }
}

TEST_F(CrlDecoder, UnknownLengthTruncates) {
  decoded got = decode_without_length(crl_octets(with_everything()));
  EXPECT_TRUE(got.truncated);
  EXPECT_EQ(0u, entries_of(got.crl).size());
}

// An extension whose crlExtensions element has that content size.
std::string extensions_of_size(size_t size) {
  std::string made;
  for (size_t padding = size - 100; made.size() < size; padding++)
    made = der_tlv(0x30, crl_extension("1.3.6.1.4.1.32473.99", std::string(padding, 'x')));
  return der_tlv(0xA0, made);
}

TEST_F(CrlDecoder, ElementsAboveTenThousandAreRefused) {
  crl_fields fields = with_everything();
  fields.extensions_element = extensions_of_size(10000);
  EXPECT_EQ(0, decode_both_ways(crl_octets(fields)).code);
  fields.extensions_element = extensions_of_size(10001);
  expect_refused(15, crl_octets(fields));
  fields = with_everything();
  fields.issuer = der_tlv(0x30, std::string(10001, 'x'));
  expect_refused(15, crl_octets(fields));
  fields = with_everything();
  fields.this_update = der_tlv(0x17, std::string(10001, '1'));
  expect_refused(15, crl_octets(fields));
  fields = with_everything();
  fields.algorithm =
      der_tlv(0x30, der_oid("1.2.840.113549.1.1.11") + der_tlv(0x04, std::string(10001, 'x')));
  expect_refused(15, crl_octets(fields));
  fields = with_everything();
  fields.version = der_tlv(0x02, std::string(10001, '\x01'));
  expect_refused(15, crl_octets(fields));
}

TEST_F(CrlDecoder, NextUpdateAboveTenThousandIsRefused) {
  for (unsigned char tag : {0x17, 0x18})
    for (size_t size : {10001u, 10200u, 10300u, 70000u}) {
      crl_fields fields = with_everything();
      fields.next_update = der_tlv(tag, std::string(size, '1'));
      expect_refused(15, crl_octets(fields));
    }
}

TEST_F(CrlDecoder, OuterPartsAboveTenThousandAreRefusedSilently) {
  crl_fields fields = with_everything();
  fields.signature = der_tlv(0x03, std::string(10001, '\0'));
  expect_refused_silently(15, crl_octets(fields));
  fields = with_everything();
  fields.outer_algorithm =
      der_tlv(0x30, der_oid("1.2.840.113549.1.1.11") + der_tlv(0x04, std::string(10001, 'x')));
  expect_refused_silently(15, crl_octets(fields));
}

// `octets` with the length of the element at `at` replaced.
std::string with_length(const std::string &octets, size_t at, const std::string &length) {
  size_t old = static_cast<unsigned char>(octets[at + 1]);
  old = old < 0x80 ? 1 : 1 + (old & 0x7F);
  return octets.substr(0, at + 1) + length + octets.substr(at + 1 + old);
}

TEST_F(CrlDecoder, HostileLengthsOfTheOuterHeaderAreRefusedSilently) {
  std::string octets = crl_octets(with_everything());
  for (const std::string &length :
       {std::string("\x80"), der_length(0xFFFFFFFF), der_length(0x80000000u),
        der_length(0x7FFFFFFF), "\xFF" + std::string(127, '\xFF')})
    expect_refused_silently(15, with_length(octets, 0, length));
}

TEST_F(CrlDecoder, HostileLengthsWithinAreRefused) {
  crl_fields fields = with_everything();
  std::string octets = crl_octets(fields);
  auto announced = static_cast<uint32_t>(octets.size());
  size_t tbs = octets.find(tbs_cert_list(fields));
  size_t list = octets.find(der_tlv(0x30, *fields.entries));
  size_t name = octets.find(fields.issuer);
  size_t extensions = octets.find(der_tlv(0xA0, der_tlv(0x30, fields.extensions)));
  for (size_t at : {tbs, tbs + 3, name, name + fields.issuer.size(), list, extensions})
    for (const std::string &length :
         {std::string("\x80"), der_length(0xFFFFFFFF), der_length(0x80000000u),
          der_length(0xFFFFFFFE), der_length(octets.size()), der_length(1, 127)}) {
      std::string changed = with_length(octets, at, length);
      int code = -1;
      std::string out = output_of([&] { code = decode(changed, {.length = announced}).code; });
      EXPECT_EQ(15, code) << at << " " << length.size();
      EXPECT_EQ("c\n", out) << at << " " << length.size();
      output_of([&] { code = decode(changed, {.length = unknown_length}).code; });
      EXPECT_EQ(15, code) << at << " " << length.size();
    }
}

}  // namespace
