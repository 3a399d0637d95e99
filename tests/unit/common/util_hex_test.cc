#include <gtest/gtest.h>
#include <libpki/util.h>

#include <climits>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "fakes/allocator.h"
#include "fakes/log_capture.h"

namespace {

// The library's text as a string, freed; "null" for none.
std::string hex(const void *bytes, int length) {
  std::unique_ptr<char, void (*)(void *)> text(to_hex_string(bytes, length), free);
  return text ? text.get() : "null";
}

TEST(UtilHex, HighNibbleFirstInUpperCase) {
  const unsigned char bytes[] = {0x00, 0xAB};
  EXPECT_EQ(hex(bytes, 2), "00AB");
}

TEST(UtilHex, EveryOctet) {
  std::vector<unsigned char> bytes;
  std::string expected;
  for (int i = 0; i < 256; i++) {
    char digits[3];
    snprintf(digits, sizeof digits, "%02X", static_cast<unsigned>(i));
    bytes.push_back(static_cast<unsigned char>(i));
    expected += digits;
  }
  EXPECT_EQ(hex(bytes.data(), 256), expected);
}

TEST(UtilHex, LengthZeroIsAnEmptyText) {
  EXPECT_EQ(hex("x", 0), "");
}

TEST(UtilHex, NegativeLengthIsNull) {
  EXPECT_EQ(hex("x", -1), "null");
  EXPECT_EQ(hex("x", INT_MIN), "null");
}

TEST(UtilHex, NegativeLengthAsksForNoMemory) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be told to fail";
  fake_allocator::fail_at(0);
  char *text = to_hex_string("x", -1);
  size_t allocations = fake_allocator::allocations();
  fake_allocator::stop_failing();
  EXPECT_EQ(text, nullptr);
  EXPECT_EQ(allocations, 0u);
}

TEST(UtilHex, ReadsNoMoreThanItsLength) {
  auto one = std::make_unique<unsigned char>(0x5A);
  EXPECT_EQ(hex(one.get(), 1), "5A");
}

TEST(UtilHex, OutOfMemoryIsNull) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be told to fail";
  clear_log();
  for (int length : {0, 1, 1000}) {
    std::vector<unsigned char> bytes(1000);
    fake_allocator::fail_at(1);
    char *text = to_hex_string(bytes.data(), length);
    fake_allocator::stop_failing();
    EXPECT_EQ(text, nullptr) << length;
    free(text);
  }
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

// Twice the greatest length does not fit an int; no octet is read when there is no memory.
TEST(UtilHex, GreatestLengthDoesNotOverflow) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be told to fail";
  for (int length : {INT_MAX / 2, INT_MAX / 2 + 1, INT_MAX - 1, INT_MAX}) {
    fake_allocator::fail_at(1);
    char *text = to_hex_string("x", length);
    size_t allocations = fake_allocator::allocations();
    fake_allocator::stop_failing();
    EXPECT_EQ(text, nullptr) << length;
    EXPECT_EQ(allocations, 1u) << length;
  }
}

}  // namespace
