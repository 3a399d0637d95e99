// Where a CertificateList ends: left-over octets, connections that break off, and what a failure
// leaves behind.
#include "unit/verifier/crl_cache/decoder_support.h"

using namespace crl_support;
using namespace support;

namespace {

class CrlDecoderEnds : public crl_decoder_test {};

crl_fields small_crl() {
  crl_fields fields;
  fields.entries = crl_entry(4) + crl_entry(target_serial);
  fields.extensions = crl_number(1);
  return fields;
}

TEST_F(CrlDecoderEnds, OctetsLeftBehindTheExtensionsAreLogged) {
  crl_fields fields = small_crl();
  // What stands there is read as the outer algorithm and signature.
  std::string plain = crl_octets(fields);
  std::string tbs = tbs_cert_list(fields);
  size_t at = plain.find(tbs) + tbs.size();
  fields.behind_tbs_fields = plain.substr(at);
  for (uint32_t length : {0u, unknown_length}) {
    clear_log();
    std::string out = output_of(
        [&] { EXPECT_EQ(0, decode(crl_octets(fields), {.length = length}).code) << log_dump(); });
    EXPECT_EQ("", out);
    EXPECT_TRUE(was_logged(
        4, "CRL-Info parse inconsistency: " + std::to_string(fields.behind_tbs_fields.size()) +
               " bytes left over after parsing crl-info body"))
        << log_dump();
  }
}

TEST_F(CrlDecoderEnds, OctetsLeftBehindTheSignatureAreLogged) {
  crl_fields fields = small_crl();
  for (const std::string &more : {std::string("x"), std::string(3000, 'y')}) {
    fields.behind_signature = more;
    std::string octets = crl_octets(fields);
    for (uint32_t length : {0u, unknown_length}) {
      clear_log();
      decoded got;
      std::string out = output_of([&] { got = decode(octets, {.length = length}); });
      EXPECT_EQ(0, got.code);
      EXPECT_EQ("", out);
      EXPECT_TRUE(verifies(got, test_key(0)));
      ASSERT_EQ(1u, captured_log().size());
      EXPECT_EQ((log_entry{4, "CRL parse inconsistency: " + std::to_string(more.size()) +
                                  " bytes left over after parsing crl body"}),
                captured_log()[0]);
    }
  }
}

TEST_F(CrlDecoderEnds, OctetsBehindTheCrlDoNotMatter) {
  std::string octets = crl_octets(small_crl());
  EXPECT_EQ(0, decode_both_ways(octets + "and more").code);
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(CrlDecoderEnds, SoundCrlLogsAndWritesNothing) {
  std::string out = output_of([] { EXPECT_EQ(0, decode(crl_octets(small_crl())).code); });
  EXPECT_EQ("", out);
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

// Where tbsCertList begins (with its header) and ends, in `octets`.
struct span {
  size_t begin, end;
};
span tbs_span(const crl_fields &fields, const std::string &octets) {
  std::string tbs = tbs_cert_list(fields);
  size_t begin = octets.find(tbs);
  return {begin, begin + tbs.size()};
}

TEST_F(CrlDecoderEnds, BrokenConnectionIsAReadErrorWithAStrayLineWithinTbsCertList) {
  crl_fields fields = small_crl();
  std::string octets = crl_octets(fields);
  span tbs = tbs_span(fields, octets);
  for (size_t size = 0; size < octets.size(); size++)
    for (uint32_t length : {static_cast<uint32_t>(octets.size()), unknown_length}) {
      decoded got;
      std::string out =
          output_of([&] { got = decode(octets.substr(0, size), {.length = length}); });
      ASSERT_EQ(48, got.code) << size;
      ASSERT_EQ(size >= tbs.begin && size < tbs.end ? "c\n" : "", out) << size;
    }
}

TEST_F(CrlDecoderEnds, AnnouncedLengthThatIsTooShortIsRefusedSilently) {
  std::string octets = crl_octets(small_crl());
  for (uint32_t length = 1; length < octets.size(); length++) {
    std::string out = output_of([&] { EXPECT_EQ(15, decode(octets, {.length = length}).code); });
    ASSERT_EQ("", out) << length;
  }
}

TEST_F(CrlDecoderEnds, BadSignatureFieldIsRefusedSilently) {
  crl_fields fields = small_crl();
  for (const std::string &signature :
       {der_tlv(0x04, "x"), std::string("\x03\x00", 2), der_tlv(0x03, "\x09x")}) {
    fields.signature = signature;
    expect_refused_silently(15, crl_octets(fields));
  }
}

TEST_F(CrlDecoderEnds, BadOuterAlgorithmIsRefusedSilently) {
  crl_fields fields = small_crl();
  for (const std::string &algorithm : {der_tlv(0x30, ""), der_tlv(0x04, "x")}) {
    fields.outer_algorithm = algorithm;
    expect_refused_silently(15, crl_octets(fields));
  }
}

TEST_F(CrlDecoderEnds, EntriesWithoutATargetAreRefused) {
  crl_fields fields = small_crl();
  expect_refused(63, crl_octets(fields), {.target = nullptr});
  fields.entries = "";
  expect_refused(63, crl_octets(fields), {.target = nullptr});
}

TEST_F(CrlDecoderEnds, CrlWithoutEntriesNeedsNoTarget) {
  crl_fields fields = small_crl();
  fields.entries.reset();
  EXPECT_EQ(0, decode_both_ways(crl_octets(fields), {.target = nullptr}).code);
}

TEST_F(CrlDecoderEnds, Pkcs7MessageIsToldFromACrl) {
  crl_pkcs7_fields wrapped;
  std::string octets = pkcs7_octets(crl_octets(small_crl()), wrapped);
  for (uint32_t length : {0u, unknown_length}) {
    decoded got;
    std::string out =
        output_of([&] { got = decode(octets, {.length = length, .with_pkcs7 = true}); });
    EXPECT_EQ(15, got.code);
    EXPECT_EQ("c\n", out);
    EXPECT_TRUE(got.pkcs7.found);
    EXPECT_EQ(4u, got.pkcs7.header_size);
  }
}

TEST_F(CrlDecoderEnds, NothingElseIsTakenForPkcs7) {
  std::string octets = crl_octets(small_crl());
  EXPECT_FALSE(decode(octets, {.with_pkcs7 = true}).pkcs7.found);
  for (const std::string &other : {der_tlv(0x30, der_tlv(0x04, "x")), der_tlv(0x30, ""),
                                   der_tlv(0x30, octets), std::string("garbage, no DER")}) {
    decoded got;
    output_of([&] { got = decode(other, {.with_pkcs7 = true}); });
    EXPECT_TRUE(got.code == 15 || got.code == 48) << got.code;
    EXPECT_FALSE(got.pkcs7.found);
  }
}

TEST_F(CrlDecoderEnds, DecodedCrlIsEncodedAndCopiedAsItWas) {
  std::string octets = crl_octets(small_crl());
  decoded got = decode(octets);
  ASSERT_EQ(0, got.code);
  EXPECT_EQ(octets, encoding_of(got.crl));
  support::crl copy = hold(X509_CRL_dup(got.crl.get()));
  ASSERT_TRUE(copy);
  EXPECT_EQ(frame_of(got.crl), frame_of(copy));
  EXPECT_EQ(1, X509_CRL_verify(got.crl.get(), test_key(0).get()));
}

}  // namespace
