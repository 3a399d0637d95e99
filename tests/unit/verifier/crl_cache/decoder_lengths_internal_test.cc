// Lengths in forms that DER does not know, and the room that the first elements share.
#include "unit/verifier/crl_cache/decoder_support.h"

using namespace crl_support;
using namespace support;

namespace {

class CrlLengths : public crl_decoder_test {
 protected:
  void expect_accepted(const std::string &octets, const std::string &tbs) {
    for (uint32_t length : {0u, unknown_length}) {
      decoded got;
      std::string out = output_of([&] { got = decode(octets, {.length = length}); });
      ASSERT_EQ(0, got.code);
      EXPECT_EQ("", out);
      EXPECT_EQ(digest_of(tbs), got.digest);
      EXPECT_EQ((std::pair<std::string, std::string>("5", "/CN=issuer")),
                entries_of(got.crl).back());
    }
    EXPECT_EQ(0, decode_both_ways(octets).code);
  }
};

// `content` behind a length of that many octets in long form.
std::string padded(unsigned char tag, const std::string &content, int length_octets) {
  return static_cast<char>(tag) + der_length(content.size(), length_octets) + content;
}

// The same behind a length of which OpenSSL would see another value.
std::string overlong(unsigned char tag, const std::string &content) {
  return static_cast<char>(tag) + der_length((uint64_t{1} << 32) + content.size(), 5) + content;
}

std::string without_header(const std::string &element) {
  auto first = static_cast<unsigned char>(element[1]);
  return element.substr(first < 0x80 ? 2 : 2 + (first & 0x7F));
}

crl_fields crl_of_two() {
  crl_fields fields;
  fields.entries = crl_entry(4) + crl_entry(target_serial);
  return fields;
}

TEST_F(CrlLengths, PaddedLengthsAreAccepted) {
  for (int octets : {1, 2, 4, 8, 100, 126}) {
    crl_fields fields = crl_of_two();
    std::string list = *fields.entries;
    fields.entries = padded(0x30, without_header(crl_entry(4)), octets) +
                     padded(0x30, without_header(crl_entry(target_serial)), octets);
    expect_accepted(crl_octets(fields), tbs_cert_list(fields));

    fields = crl_of_two();
    fields.issuer = padded(0x30, without_header(fields.issuer), octets);
    fields.this_update = padded(0x17, without_header(fields.this_update), octets);
    fields.next_update = padded(0x17, without_header(fields.next_update), octets);
    fields.version = padded(0x02, "\x01", octets);
    expect_accepted(crl_octets(fields), tbs_cert_list(fields));
  }
}

TEST_F(CrlLengths, PaddedLengthsOfTheOuterPartsAreAccepted) {
  for (int octets : {4, 8, 100, 126}) {
    crl_fields fields = crl_of_two();
    std::string tbs = padded(0x30, without_header(tbs_cert_list(fields)), octets);
    std::string whole = sign_tbs(tbs, fields);
    expect_accepted(whole, tbs);
    expect_accepted(padded(0x30, without_header(whole), octets), tbs);
  }
}

TEST_F(CrlLengths, LengthOfTheListAbove32BitsIsFolded) {
  crl_fields fields = crl_of_two();
  fields.behind_tbs_fields = overlong(0x30, *fields.entries);
  fields.entries.reset();
  expect_accepted(crl_octets(fields), tbs_cert_list(fields));
}

TEST_F(CrlLengths, LengthOfTheExtensionsAbove32BitsIsFolded) {
  crl_fields fields = crl_of_two();
  fields.extensions_element = overlong(0xA0, der_tlv(0x30, crl_number(1)));
  expect_accepted(crl_octets(fields), tbs_cert_list(fields));
}

TEST_F(CrlLengths, LengthsOfTheOuterPartsAbove32BitsAreFolded) {
  crl_fields fields = crl_of_two();
  std::string tbs = overlong(0x30, without_header(tbs_cert_list(fields)));
  std::string whole = sign_tbs(tbs, fields);
  expect_accepted(whole, tbs);
  expect_accepted(overlong(0x30, without_header(whole)), tbs);
}

TEST_F(CrlLengths, LengthsAbove32BitsAreRefusedWhereOpenSslSeesThem) {
  crl_fields fields = crl_of_two();
  fields.entries = overlong(0x30, without_header(crl_entry(4)));
  expect_refused(15, crl_octets(fields));
  fields = crl_of_two();
  fields.issuer = overlong(0x30, without_header(fields.issuer));
  expect_refused(15, crl_octets(fields));
  fields = crl_of_two();
  fields.next_update = overlong(0x17, without_header(fields.next_update));
  expect_refused(15, crl_octets(fields));
}

TEST_F(CrlLengths, HeadersAbove140OctetsAreRefused) {
  // No element of a CRL has such a tag; it is the header that is refused.
  std::string tag = "\xBF" + std::string(150, '\x81') + "\x01";
  crl_fields fields = crl_of_two();
  fields.issuer = tag + std::string(1, '\0');
  expect_refused(15, crl_octets(fields));
  fields = crl_of_two();
  fields.entries = tag + std::string(1, '\0');
  expect_refused(15, crl_octets(fields));
  fields = crl_of_two();
  fields.extensions_element = tag + std::string(1, '\0');
  expect_refused(15, crl_octets(fields));
}

// An RSA-SHA256 algorithm of exactly that content size.
std::string algorithm_of_size(size_t size) {
  std::string oid = der_oid("1.2.840.113549.1.1.11");
  return der_tlv(0x30, oid + der_tlv(0x04, std::string(size - oid.size() - 4, 'x')));
}

TEST_F(CrlLengths, FirstElementsShareTheirRoom) {
  // Four octets of tbsCertList's header, three of the version, stand in front of the algorithm.
  crl_fields fields = crl_of_two();
  fields.algorithm = algorithm_of_size(9993);
  fields.outer_algorithm = der_algorithm("1.2.840.113549.1.1.11");
  EXPECT_EQ(0, decode_both_ways(crl_octets(fields)).code);
  fields.algorithm = algorithm_of_size(9994);
  expect_refused(15, crl_octets(fields));
  fields.version.clear();
  EXPECT_EQ(0, decode_both_ways(crl_octets(fields)).code);
  fields.algorithm = algorithm_of_size(9996);
  EXPECT_EQ(0, decode_both_ways(crl_octets(fields)).code);
  fields.algorithm = algorithm_of_size(9997);
  expect_refused(15, crl_octets(fields));
}

TEST_F(CrlLengths, VersionThatFillsTheRoomLeavesNoneForTheAlgorithm) {
  crl_fields fields = crl_of_two();
  for (size_t size : {9991u, 9996u}) {
    fields.version = der_tlv(0x02, std::string(size, '\x01'));
    std::string octets = crl_octets(fields);
    expect_refused(15, octets);
  }
}

}  // namespace
