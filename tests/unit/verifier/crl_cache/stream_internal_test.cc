// Octets and DER headers off a connection, with the digest that follows along.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "fakes/failures.h"
#include "fakes/log_capture.h"
#include "support/crl_der.h"
#include "unit/verifier/crl_cache/stream_support.h"

using namespace crl_support;
using support::der_length;
using support::der_tlv;

namespace {

std::string read_bytes(crl_stream *stream, uint32_t size, int *code) {
  std::string octets(size, '\0');
  *code = pki::cv_slurp_bytes(stream, reinterpret_cast<unsigned char *>(octets.data()), size);
  return octets;
}

class CrlStream : public testing::Test {
 protected:
  void SetUp() override { clear_log(); }
  void TearDown() override { fake_failures::reset(); }
};

// ---- exact counts ----

TEST_F(CrlStream, ReadsExactlyWhatIsAskedForInAnyDelivery) {
  std::string octets = pattern(3000);
  for (delivery how : {whole, one_by_one, split_at(1), split_at(499), split_at(2001)}) {
    feeder source(octets, how);
    reader in(source.fd());
    size_t at = 0;
    for (uint32_t size : {1u, 2u, 499u, 500u, 501u, 0u, 700u, 797u}) {
      int code = -1;
      EXPECT_EQ(octets.substr(at, size), read_bytes(&in.stream, size, &code)) << at;
      EXPECT_EQ(0, code);
      at += size;
    }
    EXPECT_EQ(octets.size(), at);
  }
}

TEST_F(CrlStream, NothingWantedReadsNothing) {
  feeder source("abc");
  reader in(source.fd());
  unsigned char unused = 'x';
  EXPECT_EQ(0, pki::cv_slurp_bytes(&in.stream, &unused, 0));
  EXPECT_EQ('x', unused);
  EXPECT_EQ(3u, source.unread() + in.stream.avail);
}

TEST_F(CrlStream, UpTo500OctetsComeThroughTheReadBuffer) {
  feeder source(pattern(3000));
  reader in(source.fd());
  int code = -1;
  read_bytes(&in.stream, 500, &code);
  EXPECT_EQ(0, code);
  EXPECT_EQ(1500u, in.stream.avail);
  EXPECT_EQ(1000u, source.unread());
  EXPECT_EQ(in.buffer.get() + 500, in.stream.cur);
}

TEST_F(CrlStream, MoreThan500OctetsGoStraightToTheirDestination) {
  feeder source(pattern(3000));
  reader in(source.fd());
  int code = -1;
  EXPECT_EQ(pattern(501), read_bytes(&in.stream, 501, &code));
  EXPECT_EQ(0, code);
  EXPECT_EQ(0u, in.stream.avail);
  EXPECT_EQ(2499u, source.unread());
}

TEST_F(CrlStream, EndOfStreamIsAReadError) {
  for (uint32_t size : {4u, 600u}) {
    feeder source("abc");
    reader in(source.fd());
    int code = -1;
    read_bytes(&in.stream, size, &code);
    EXPECT_EQ(48, code) << size;
  }
}

TEST_F(CrlStream, WaitsAMinuteAndNoLonger) {
  for (uint32_t size : {1u, 600u}) {
    feeder source(pattern(2000));
    reader in(source.fd());
    int code = -1;
    read_bytes(&in.stream, size, &code);
    EXPECT_EQ(60000, fake_failures::last_poll_timeout());
    fake_failures::time_out_poll();
    read_bytes(&in.stream, 2001, &code);
    EXPECT_EQ(48, code);
    EXPECT_TRUE(was_logged(3, "read timed out")) << log_dump();
    clear_log();
  }
}

TEST_F(CrlStream, FailingPollIsAReadError) {
  feeder source("abc");
  reader in(source.fd());
  fake_failures::fail_poll(EINVAL);
  int code = -1;
  read_bytes(&in.stream, 1, &code);
  EXPECT_EQ(48, code);
}

TEST_F(CrlStream, NoSocketIsAReadError) {
  reader in(-1);
  int code = -1;
  read_bytes(&in.stream, 1, &code);
  EXPECT_EQ(48, code);
}

// ---- the digest ----

TEST_F(CrlStream, DigestSeesEachOctetOnceFromTheMarkToTheEnd) {
  std::string octets = pattern(9000);
  for (delivery how : {whole, one_by_one, split_at(1000), delivery{700, 333}}) {
    feeder source(octets, how);
    reader in(source.fd());
    EVP_DigestInit_ex(in.stream.md, EVP_sha256(), nullptr);
    int code = -1;
    read_bytes(&in.stream, 10, &code);
    pki::start_digest_at_cursor(&in.stream);
    size_t at = 10;
    for (uint32_t size : {1u, 500u, 501u, 1999u, 3u, 2000u, 499u, 2001u}) {
      read_bytes(&in.stream, size, &code);
      EXPECT_EQ(0, code);
      at += size;
    }
    pki::end_digest_at_cursor(&in.stream);
    EXPECT_EQ(nullptr, in.stream.mark);
    read_bytes(&in.stream, 100, &code);
    EXPECT_EQ(digest_of(octets.substr(10, at - 10)), digest_so_far(in.stream.md)) << how.first;
  }
}

TEST_F(CrlStream, DigestThatIsOffSeesNothing) {
  feeder source(pattern(2000));
  reader in(source.fd());
  EVP_DigestInit_ex(in.stream.md, EVP_sha256(), nullptr);
  int code = -1;
  read_bytes(&in.stream, 100, &code);
  read_bytes(&in.stream, 1900, &code);
  EXPECT_EQ(0, code);
  EXPECT_EQ(digest_of(""), digest_so_far(in.stream.md));
}

// ---- headers ----

struct header {
  int code = -1;
  size_t moved = 0;
  uint32_t remaining = 0;
  uint32_t length = 0;
};

// The header at the start of `octets`, behind which plenty of content follows.
header read_header(const std::string &octets, uint32_t limit = 10000,
                   uint32_t remaining = 0x7FFFFFFF, delivery how = whole) {
  feeder source(octets, how);
  reader in(source.fd());
  std::vector<unsigned char> place(pki::crl_element_bytes);
  unsigned char *dst = place.data();
  header got;
  got.remaining = remaining;
  got.code = pki::cv_slurp_der_hdr(&in.stream, &dst, limit, &got.remaining, &got.length);
  got.moved = static_cast<size_t>(dst - place.data());
  if (got.code == 0) {
    EXPECT_EQ(octets.substr(0, got.moved),
              std::string(reinterpret_cast<char *>(place.data()), got.moved));
  }
  return got;
}

void expect_header(const std::string &octets, uint32_t length) {
  for (delivery how : {whole, one_by_one}) {
    header got = read_header(octets, 10000, 0x7FFFFFFF, how);
    EXPECT_EQ(0, got.code);
    EXPECT_EQ(length, got.length);
    EXPECT_EQ(octets.size(), got.moved);
    EXPECT_EQ(0x7FFFFFFF - octets.size(), got.remaining);
  }
}

TEST_F(CrlStream, LengthsOfEveryForm) {
  expect_header("\x30" + der_length(0), 0);
  expect_header("\x30" + der_length(1), 1);
  expect_header("\x30" + der_length(127), 127);
  for (uint64_t length :
       {0u, 1u, 128u, 255u, 256u, 65535u, 65536u, 0xFFFFFFu, 0x1000000u, 0x7FFFFFF0u})
    for (int octets = 1; octets <= 8; octets++)
      if (octets == 8 || length >> (8 * octets) == 0)
        expect_header("\x30" + der_length(length, octets), static_cast<uint32_t>(length));
}

TEST_F(CrlStream, LongFormWithoutLengthOctetsDoesNotCrash) {
  // 0x80 itself is the indefinite form.
  EXPECT_EQ(15, read_header(std::string("\x30\x80\0\0", 4)).code);
}

TEST_F(CrlStream, ExcessLeadingLengthOctetsAreShiftedOut) {
  expect_header("\x30" + der_length((uint64_t{1} << 32) + 5, 5), 5);
  expect_header("\x30" + der_length(0xFFFFFFFF00000007u, 8), 7);
  expect_header("\x30" + der_length(9, 100), 9);
}

TEST_F(CrlStream, HeaderOf140OctetsPassesAndALongerOneDoesNot) {
  // The tag, more tag octets, and a short length.
  for (size_t size : {3u, 4u, 139u, 140u}) {
    std::string octets = "\xBF" + std::string(size - 3, '\x81') + "\x01\x05";
    expect_header(octets, 5);
  }
  for (size_t size : {141u, 142u, 200u, 5000u}) {
    std::string octets = "\xBF" + std::string(size - 3, '\x81') + "\x01\x05";
    EXPECT_EQ(15, read_header(octets).code) << size;
  }
  std::string long_form = "\xBF" + std::string(20, '\x81') + "\x01" + der_length(5, 126);
  EXPECT_EQ(15, read_header(long_form).code);
}

TEST_F(CrlStream, TagOctetsThatNeverEndAreRefused) {
  EXPECT_EQ(15, read_header("\xBF" + std::string(20000, '\xFF')).code);
}

TEST_F(CrlStream, IndefiniteLengthIsRefused) {
  EXPECT_EQ(15, read_header(std::string("\x30\x80\x05\x00\x00\x00", 6), 10000, 0xFFFFFFFF).code);
}

TEST_F(CrlStream, LimitCountsEveryHeaderOctet) {
  EXPECT_EQ(15, read_header("\x30\x05", 0).code);
  EXPECT_EQ(15, read_header("\x30\x05", 1).code);
  EXPECT_EQ(0, read_header("\x30\x05", 2).code);
  // Further tag octets.
  EXPECT_EQ(15, read_header("\xBF\x81\x01\x05", 1).code);
  EXPECT_EQ(15, read_header("\xBF\x81\x01\x05", 3).code);
  EXPECT_EQ(0, read_header("\xBF\x81\x01\x05", 4).code);
}

TEST_F(CrlStream, LongFormWithMoreLengthOctetsThanTheLimitLeavesIsRefused) {
  std::string octets = "\x30" + der_length(5, 4);
  EXPECT_EQ(15, read_header(octets, 5).code);
  EXPECT_EQ(0, read_header(octets, 6).code);
  EXPECT_EQ(15, read_header("\x30" + der_length(5, 100), 101).code);
  EXPECT_EQ(0, read_header("\x30" + der_length(5, 100), 102).code);
}

TEST_F(CrlStream, HeaderAndContentMustFitIntoWhatRemains) {
  EXPECT_EQ(15, read_header("\x30\x05", 100, 0).code);
  EXPECT_EQ(15, read_header("\x30\x05", 100, 1).code);
  EXPECT_EQ(15, read_header("\x30\x05", 100, 6).code);
  header got = read_header("\x30\x05", 100, 7);
  EXPECT_EQ(0, got.code);
  EXPECT_EQ(5u, got.remaining);
  EXPECT_EQ(0, read_header(std::string("\x30\x00", 2), 100, 2).code);
  for (uint64_t length : {uint64_t{0xFFFFFFFF}, uint64_t{0x80000000}, uint64_t{0xFFFFFFF0}})
    EXPECT_EQ(15, read_header("\x30" + der_length(length)).code) << length;
}

TEST_F(CrlStream, HeaderCutOffByThePeerIsAReadError) {
  for (const std::string &octets :
       {std::string(), std::string("\x30"), std::string("\x30\x82\x01"), std::string("\xBF\x81")})
    EXPECT_EQ(48, read_header(octets).code);
}

// ---- elements ----

header read_element(const std::string &octets, uint32_t limit, uint32_t remaining,
                    delivery how = whole) {
  feeder source(octets, how);
  reader in(source.fd());
  std::vector<unsigned char> place(pki::crl_element_bytes);
  unsigned char *dst = place.data();
  header got;
  got.remaining = remaining;
  got.code = pki::cv_slurp_der_obj(&in.stream, &dst, limit, &got.remaining);
  got.moved = static_cast<size_t>(dst - place.data());
  if (got.code == 0) {
    EXPECT_EQ(0, memcmp(octets.data(), place.data(), got.moved));
  }
  return got;
}

TEST_F(CrlStream, ElementIsReadWholeWithItsHeader) {
  for (size_t size : {0u, 1u, 127u, 128u, 500u, 501u, 2000u, 10000u})
    for (delivery how : {whole, one_by_one, split_at(3)}) {
      std::string octets = der_tlv(0x04, pattern(size));
      header got = read_element(octets + "more", 10000, 20000, how);
      EXPECT_EQ(0, got.code) << size;
      EXPECT_EQ(octets.size(), got.moved) << size;
      EXPECT_EQ(20000 - octets.size(), got.remaining) << size;
    }
}

TEST_F(CrlStream, LimitOfAnElementIsForItsContent) {
  std::string octets = der_tlv(0x04, pattern(50));
  EXPECT_EQ(0, read_element(octets, 50, 1000).code);
  EXPECT_EQ(15, read_element(octets, 49, 1000).code);
  EXPECT_EQ(15, read_element(der_tlv(0x04, pattern(10001)), 10000, 20000).code);
}

TEST_F(CrlStream, ElementCutOffByThePeerIsAReadError) {
  std::string octets = der_tlv(0x04, pattern(700));
  for (size_t size = 0; size < octets.size(); size++)
    EXPECT_EQ(48, read_element(octets.substr(0, size), 10000, 20000).code) << size;
}

// ---- passing over ----

TEST_F(CrlStream, SkippedElementIsPassedOverExactly) {
  for (size_t size : {0u, 1u, 499u, 500u, 501u, 1000u, 1996u, 2000u, 2001u, 7777u})
    for (delivery how : {whole, one_by_one, split_at(1), split_at(300)}) {
      std::string octets = der_tlv(0x30, pattern(size));
      feeder source(octets + "behind it", how);
      reader in(source.fd());
      std::vector<unsigned char> scratch(pki::der_scratch_bytes);
      uint32_t remaining = 9000;
      EXPECT_EQ(0, pki::cv_skip_der_obj(&in.stream, scratch.data(), &remaining)) << size;
      EXPECT_EQ(9000 - octets.size(), remaining) << size;
      int code = -1;
      EXPECT_EQ("behind it", read_bytes(&in.stream, 9, &code)) << size;
      EXPECT_EQ(0, code);
    }
}

TEST_F(CrlStream, SkippingIsBoundByWhatRemains) {
  std::string octets = der_tlv(0x30, pattern(50));
  std::vector<unsigned char> scratch(pki::der_scratch_bytes);
  for (uint32_t remaining : {0u, 1u, 51u}) {
    feeder source(octets);
    reader in(source.fd());
    EXPECT_EQ(15, pki::cv_skip_der_obj(&in.stream, scratch.data(), &remaining));
  }
}

TEST_F(CrlStream, SkippingWhatIsCutOffIsAReadError) {
  std::string octets = der_tlv(0x30, pattern(3000));
  std::vector<unsigned char> scratch(pki::der_scratch_bytes);
  for (size_t size : {0u, 1u, 3u, 4u, 100u, 2000u, 3003u}) {
    feeder source(octets.substr(0, size));
    reader in(source.fd());
    uint32_t remaining = 9000;
    EXPECT_EQ(48, pki::cv_skip_der_obj(&in.stream, scratch.data(), &remaining)) << size;
  }
}

TEST_F(CrlStream, PeekedTagStaysUnread) {
  for (delivery how : {whole, one_by_one}) {
    feeder source("\xA1xyz", how);
    reader in(source.fd());
    unsigned char tag = 0;
    EXPECT_EQ(0, pki::cv_peek_tag(&in.stream, &tag));
    EXPECT_EQ(0xA1, tag);
    int code = -1;
    EXPECT_EQ("\xA1xyz", read_bytes(&in.stream, 4, &code));
    EXPECT_EQ(48, pki::cv_peek_tag(&in.stream, &tag));
  }
}

}  // namespace
