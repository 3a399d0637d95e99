// Headers of random octets, held against a plain reading of the rules.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "unit/verifier/crl_cache/stream_support.h"

using namespace crl_support;

namespace {

struct outcome {
  int code = 0;
  size_t size = 0;
  uint32_t length = 0;
};

class header_rules {
 public:
  header_rules(const std::string &octets, uint32_t limit) : octets_(octets), limit_(limit) {}

  outcome apply(uint32_t remaining) {
    uint8_t tag = 0, first = 0;
    if (!take(&tag))
      return failed();
    if ((tag & 31) == 31)
      for (uint8_t more = 0x80; more & 0x80;)
        if (!take(&more))
          return failed();
    if (!take(&first))
      return failed();
    uint32_t length = first;
    if (first == 0x80) {
      length = 0xFFFFFFFF;
    } else if (first & 0x80) {
      unsigned count = first & 0x7F;
      if (count > limit_ || at_ + count > pki::der_max_header_bytes)
        return {15};
      length = 0;
      for (uint8_t octet = 0; count > 0; count--) {
        if (!take(&octet))
          return failed();
        length = length << 8 | octet;
      }
    }
    if (at_ > pki::der_max_header_bytes || at_ > remaining || length > remaining - at_)
      return {15};
    return {0, at_, length};
  }
  size_t size() const { return at_; }

 private:
  bool take(uint8_t *octet) {
    no_room_ = limit_ == 0;
    if (no_room_ || at_ == octets_.size())
      return false;
    limit_--;
    *octet = static_cast<uint8_t>(octets_[at_++]);
    return true;
  }
  outcome failed() const { return {no_room_ ? 15 : 48}; }

  std::string octets_;
  uint32_t limit_;
  size_t at_ = 0;
  bool no_room_ = false;
};

TEST(CrlStreamReference, RandomHeadersFollowTheRules) {
  std::mt19937 random(7);
  const uint32_t limits[] = {0, 1, 2, 3, 4, 5, 7, 50, 139, 140, 141, 500, 10000};
  size_t accepted = 0, ended = 0;
  for (int i = 0; i < 40000; i++) {
    std::string octets(random() % 12, '\0');
    for (char &octet : octets)
      octet = static_cast<char>(random());
    if (octets.size() > 2 && random() % 2) {  // a length of a few octets
      octets[0] = random() % 4 ? '\x30' : '\xBF';
      octets[1] = static_cast<char>(0x80 | random() % 8);
      octets[2] = static_cast<char>(random() % 4 ? 0 : octets[2]);
    }
    if (random() % 20 == 0)
      octets = "\xBF" + std::string(random() % 160, '\x81') + octets;
    uint32_t limit = limits[random() % std::size(limits)];
    uint32_t remaining = random() % 3 ? 0x7FFFFFFF : static_cast<uint32_t>(random() % 300);
    header_rules rules(octets, limit);
    outcome expected = rules.apply(remaining);

    feeder source(octets);
    reader in(source.fd());
    std::vector<unsigned char> place(pki::crl_element_bytes);
    unsigned char *dst = place.data();
    uint32_t left = remaining, length = 0;
    int code = pki::cv_slurp_der_hdr(&in.stream, &dst, limit, &left, &length);
    if (expected.code == 48 && rules.size() > pki::der_max_header_bytes) {
      EXPECT_TRUE(code == 15 || code == 48) << i;  // too long, and cut off
      continue;
    }
    ASSERT_EQ(expected.code, code) << i << testing::PrintToString(octets) << limit;
    ended += code == 48;
    if (code)
      continue;
    accepted++;
    ASSERT_EQ(expected.length, length) << i;
    ASSERT_EQ(expected.size, static_cast<size_t>(dst - place.data())) << i;
    ASSERT_EQ(remaining - expected.size, left) << i;
  }
  EXPECT_GT(accepted, 3000u);
  EXPECT_GT(ended, 1000u);
}

}  // namespace
