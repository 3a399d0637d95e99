// CRLs inside PKCS#7 SignedData.
#include "unit/verifier/crl_cache/fetch_support.h"

using namespace crl_support;
using namespace support;

namespace {

class CrlFetchPkcs7 : public crl_fetch_test {
 protected:
  static std::string bare(long serial = target_serial) {
    crl_fields fields;
    fields.entries = crl_entry(4) + crl_entry(serial);
    return crl_octets(fields);
  }
  // Both ways: the code, and what is logged when the format is known.
  void expect_refused(int code, const std::string &body, const std::string &log = "") {
    for (bool announced : {true, false}) {
      EXPECT_EQ(code, send_body(body, 2, announced).code);
      EXPECT_EQ(log + failed_pkcs7_line(), own_log());
      EXPECT_EQ("", out);
    }
  }
};

TEST_F(CrlFetchPkcs7, CrlIsFoundWithAndWithoutCertificates) {
  for (size_t size : {size_t{0}, size_t{1}, size_t{400}, size_t{5000}})
    for (bool announced : {true, false})
      for (int format : {2, 3, 77}) {
        crl_pkcs7_fields fields;
        if (size == 1)
          fields.certificates = der(target());
        else if (size)
          fields.certificates = der_tlv(0x30, std::string(size, 'c'));
        decoded got = send_body(pkcs7_octets(bare(), fields), format, announced);
        ASSERT_EQ(0, got.code) << log_dump();
        // The list's own length is known.
        EXPECT_EQ(full_line, own_log());
        EXPECT_EQ("", out);
        EXPECT_EQ(2u, entries_of(got.crl).size());
        EXPECT_TRUE(verifies(got, test_key(0)));
      }
}

TEST_F(CrlFetchPkcs7, EitherFormatFindsItBehindTheFailedPlainDecode) {
  for (bool announced : {true, false}) {
    decoded got = send_body(pkcs7_octets(bare()), 0, announced);
    ASSERT_EQ(0, got.code) << log_dump();
    EXPECT_EQ(failed_line(15) + full_line, own_log());
    EXPECT_EQ("c\n", out);
    EXPECT_TRUE(verifies(got, test_key(0)));
  }
}

TEST_F(CrlFetchPkcs7, EitherFormatWorksInAnyDelivery) {
  for (size_t chunk : {1u, 2u, 7u, 300u}) {
    answer slow = serve(pkcs7_octets(bare()));
    slow.chunk = chunk;
    test_server server({slow});
    decoded got = send(server.url("/crl"));
    ASSERT_EQ(0, got.code) << log_dump();
    EXPECT_TRUE(verifies(got, test_key(0)));
  }
}

TEST_F(CrlFetchPkcs7, LengthOfTheCrlFieldDecidesAboutTruncation) {
  crl_fields fields;
  std::string entries;
  for (long serial = 1; serial < 500; serial++)
    entries += crl_entry(serial);
  fields.entries = entries;
  for (int format : {0, 2}) {
    decoded got = send_body(pkcs7_octets(crl_octets(fields)), format);
    ASSERT_EQ(0, got.code) << log_dump();
    EXPECT_TRUE(got.truncated);
    EXPECT_EQ((entry_list{{"5", "/CN=issuer"}}), entries_of(got.crl));
    EXPECT_TRUE(verifies(got, test_key(0)));
    EXPECT_TRUE(was_logged(7, "CRL (/CN=issuer) too large - truncated it"));
  }
}

TEST_F(CrlFetchPkcs7, FirstCrlIsTaken) {
  crl_pkcs7_fields fields;
  fields.crls = bare(77) + bare(88);
  decoded got = send_body(pkcs7_octets("", fields), 2);
  ASSERT_EQ(0, got.code);
  EXPECT_EQ((entry_list{{"4", "/CN=issuer"}, {"77", "/CN=issuer"}}), entries_of(got.crl));
}

TEST_F(CrlFetchPkcs7, OtherContentTypesAreRefused) {
  crl_pkcs7_fields fields;
  fields.content_type = der_oid("1.2.840.113549.1.7.1");
  std::string line = "3: Content-type (pkcs7-data) in P7 is not SignedData\n";
  expect_refused(15, pkcs7_octets(bare(), fields), line);
  EXPECT_EQ(15, send_body(pkcs7_octets(bare(), fields)).code);
  EXPECT_EQ(failed_line(15) + line + failed_pkcs7_line(), own_log());
  EXPECT_EQ("c\n", out);
  fields.content_type = der_oid("1.2.840.113549.1.7.3");
  expect_refused(15, pkcs7_octets(bare(), fields),
                 "3: Content-type (pkcs7-envelopedData) in P7 is not SignedData\n");
}

TEST_F(CrlFetchPkcs7, UnknownContentTypeIsRefused) {
  crl_pkcs7_fields fields;
  fields.content_type = der_oid("1.3.6.1.4.1.32473.9");
  expect_refused(15, pkcs7_octets(bare(), fields),
                 "3: Content-type (UNDEF) in P7 is not SignedData\n");
}

TEST_F(CrlFetchPkcs7, ContentTypeThatIsNoOidIsRefused) {
  crl_pkcs7_fields fields;
  for (const std::string &type :
       {der_tlv(0x04, "xxxxx"), std::string("\x06\x00", 2), der_integer(1)}) {
    fields.content_type = type;
    expect_refused(15, pkcs7_octets(bare(), fields));
  }
}

TEST_F(CrlFetchPkcs7, MessageWithoutCrlsIsRefused) {
  crl_pkcs7_fields fields;
  fields.crls = "";
  expect_refused(15, pkcs7_octets("", fields));
  fields.certificates = der(target());
  expect_refused(15, pkcs7_octets("", fields));
}

TEST_F(CrlFetchPkcs7, PlainCrlIsNoPkcs7) {
  expect_refused(15, bare());
}

TEST_F(CrlFetchPkcs7, EmptyCrlsFieldIsRefused) {
  crl_pkcs7_fields fields;
  fields.crls = "";
  fields.signers = der_tlv(0xA1, "") + der_tlv(0x31, "");
  for (bool announced : {true, false})
    EXPECT_EQ(15, send_body(pkcs7_octets("", fields), 2, announced).code);
}

TEST_F(CrlFetchPkcs7, BrokenCrlInsideIsRefusedWithItsStrayLine) {
  crl_fields fields;
  fields.this_update = der_integer(1);
  for (bool announced : {true, false}) {
    EXPECT_EQ(15, send_body(pkcs7_octets(crl_octets(fields)), 2, announced).code);
    EXPECT_EQ(failed_pkcs7_line(), own_log());
    EXPECT_GT(openssl_lines(), 0u);
    EXPECT_EQ("c\n", out);
  }
}

TEST_F(CrlFetchPkcs7, ErrorsOfTheCrlInsideAreNamed) {
  crl_fields fields;
  fields.entries = crl_entry(9, unknown_extension(true));
  EXPECT_EQ(86, send_body(pkcs7_octets(crl_octets(fields)), 2).code);
  EXPECT_TRUE(
      was_logged(3, "Failed to decode PKCS7 from '" + last_url + "': UNKNOWN CRITICAL EXTENSION"));
  fields = {};
  fields.algorithm = der_algorithm("1.3.101.112", false);
  EXPECT_EQ(84, send_body(pkcs7_octets(crl_octets(fields)), 2).code);
  EXPECT_EQ(failed_pkcs7_line("UNKNOWN DIGEST ALG"), own_log());
}

TEST_F(CrlFetchPkcs7, MessageThatBreaksOffIsAReadError) {
  std::string body = pkcs7_octets(bare());
  for (size_t size : {size_t{1}, size_t{10}, size_t{40}, size_t{200}, body.size() - 10}) {
    answer cut = serve(body);
    cut.bytes.resize(cut.bytes.size() - body.size() + size);
    test_server server({cut});
    clear_log();
    EXPECT_EQ(48, send(server.url("/crl"), 2).code);
    EXPECT_EQ(failed_pkcs7_line("HTTP READ RESP ERROR"), own_log());
  }
}

TEST_F(CrlFetchPkcs7, MessageOfUnknownPackingThatBreaksOffIsAReadError) {
  std::string body = pkcs7_octets(bare());
  for (size_t size : {size_t{40}, size_t{200}, body.size() - 10}) {
    answer cut = serve(body);
    cut.bytes.resize(cut.bytes.size() - body.size() + size);
    test_server server({cut});
    clear_log();
    EXPECT_EQ(48, send(server.url("/crl")).code);
    EXPECT_EQ(failed_line(15) + failed_pkcs7_line("HTTP READ RESP ERROR"), own_log());
  }
}

TEST_F(CrlFetchPkcs7, IndefiniteLengthsAreRefused) {
  std::string inner = pkcs7_octets(bare()).substr(4);
  EXPECT_EQ(15, send_body("\x30\x80" + inner + std::string(2, '\0'), 2).code);
  EXPECT_EQ("", out);
  EXPECT_NE(0, send_body("\x30\x80" + inner + std::string(2, '\0'), 0).code);
  EXPECT_EQ("", out);
}

TEST_F(CrlFetchPkcs7, OnlyCertificatesMayStandBeforeTheCrls) {
  for (unsigned char tag : {0x80, 0xA2, 0x30, 0x31}) {
    crl_pkcs7_fields fields;
    fields.digest_algorithms = der_tlv(0x31, "");
    fields.content += der_tlv(tag, "x");
    expect_refused(15, pkcs7_octets(bare(), fields));
  }
  crl_pkcs7_fields twice;
  twice.content += der_tlv(0xA0, "x");
  twice.certificates = "x";
  expect_refused(15, pkcs7_octets(bare(), twice));
}

// `content` behind a header of that many octets.
std::string with_header_of(unsigned char tag, const std::string &content, int size) {
  return static_cast<char>(tag) + der_length(content.size(), size - 2) + content;
}

TEST_F(CrlFetchPkcs7, OuterHeadersAreBoundTo50Octets) {
  for (int size : {50, 51}) {
    std::string signed_data = der_integer(1) + der_tlv(0x31, "") + der_tlv(0x30, "") +
                              der_tlv(0xA1, bare()) + der_tlv(0x31, "");
    std::string type = der_oid("1.2.840.113549.1.7.2");
    std::string inner = der_tlv(0x30, signed_data);
    int expected = size > 50 ? 15 : 0;
    EXPECT_EQ(expected, send_body(with_header_of(0x30, type + der_tlv(0xA0, inner), size), 2).code);
    EXPECT_EQ(expected, send_body(der_tlv(0x30, type + with_header_of(0xA0, inner, size)), 2).code);
    EXPECT_EQ(
        expected,
        send_body(der_tlv(0x30, type + der_tlv(0xA0, with_header_of(0x30, signed_data, size))), 2)
            .code);
  }
}

TEST_F(CrlFetchPkcs7, HeadersWithinMayBeLonger) {
  crl_pkcs7_fields fields;
  fields.version = with_header_of(0x02, "\x01", 100);
  fields.digest_algorithms = with_header_of(0x31, "", 60);
  EXPECT_EQ(0, send_body(pkcs7_octets(bare(), fields), 2).code) << log_dump();
}

TEST_F(CrlFetchPkcs7, LengthsBeyondTheMessageAreRefused) {
  for (const std::string &length :
       {std::string("\x80"), der_length(0xFFFFFFFF), der_length(100000), der_length(0x80000000u)}) {
    crl_pkcs7_fields fields;
    fields.version = "\x02" + length + "\x01";
    EXPECT_EQ(15, send_body(pkcs7_octets(bare(), fields), 2).code);
    fields = {};
    fields.content = "\x30" + length;
    EXPECT_EQ(15, send_body(pkcs7_octets(bare(), fields), 2).code);
    fields = {};
    fields.crls = "";
    fields.signers = "\xA1" + length + bare();
    EXPECT_EQ(15, send_body(pkcs7_octets("", fields), 2).code);
  }
}

TEST_F(CrlFetchPkcs7, CrlOfAMessageIsAcceptedLikeABareOne) {
  trust(signer_cert());
  for (int format : {0, 2}) {
    got_crl got = get_body(pkcs7_octets(bare()), {.format = format});
    EXPECT_EQ(0, got.code) << log_dump();
    EXPECT_TRUE(was_logged(7, "downloaded a valid CRL (" + last_url + ")"));
  }
}

}  // namespace
