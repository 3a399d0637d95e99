#include <gtest/gtest.h>
#include <libpki/util.h>
#include <openssl/asn1.h>
#include <openssl/err.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "fakes/allocator.h"
#include "fakes/log_capture.h"
#include "support/certs.h"

namespace {

class UtilDer : public testing::Test {
 protected:
  void SetUp() override {
    support::clear_openssl_errors();
    clear_log();
  }
  void TearDown() override { support::clear_openssl_errors(); }
};

i2d_fn *const i2d_integer = reinterpret_cast<i2d_fn *>(i2d_ASN1_INTEGER);
i2d_fn *const i2d_cert = reinterpret_cast<i2d_fn *>(i2d_X509);

// An encoder that does as its "object" says, as OpenSSL's do: size without a buffer, then octets
// into the buffer, which it advances.
struct encoder_script {
  int size;    // what the first call returns
  int second;  // what the second call returns
  int calls = 0;
  bool had_buffer[3] = {false, false, false};
};

int i2d_script(const void *object, unsigned char **out) {
  auto *play = static_cast<encoder_script *>(const_cast<void *>(object));
  int call = play->calls++;
  play->had_buffer[call] = out && *out;
  if (!out || !*out)
    return play->size;
  if (play->second < 1) {
    support::raise_openssl_error(101);
    return play->second;
  }
  memset(*out, 0x42, static_cast<size_t>(play->second));
  *out += play->second;
  return play->second;
}

struct encoding {
  unsigned char *bytes = nullptr;
  int length = -99;
  encoding(const void *object, i2d_fn *i2d) { bytes = der_encode(object, i2d, &length); }
  encoding(const encoding &) = delete;
  encoding &operator=(const encoding &) = delete;
  ~encoding() { free(bytes); }
  std::string text() const {
    return bytes ? std::string(reinterpret_cast<char *>(bytes), static_cast<size_t>(length))
                 : "null";
  }
};

TEST_F(UtilDer, GivesTheEncodingAndItsLength) {
  support::integer five = support::make_serial(5);
  encoding der(five.get(), i2d_integer);
  EXPECT_EQ(der.length, 3);
  EXPECT_EQ(der.text(), std::string("\x02\x01\x05", 3));
}

TEST_F(UtilDer, EncodesACertificate) {
  support::cert cert = support::simple_cert("issuer", "subject", 7);
  encoding der(cert.get(), i2d_cert);
  EXPECT_EQ(der.text(), support::der(cert));
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(UtilDer, AsksForTheSizeFirst) {
  encoder_script play{4, 4};
  encoding der(&play, i2d_script);
  EXPECT_EQ(play.calls, 2);
  EXPECT_FALSE(play.had_buffer[0]);
  EXPECT_TRUE(play.had_buffer[1]);
  EXPECT_EQ(der.text(), "BBBB");
}

TEST_F(UtilDer, SizeBelowOneIsNullAndStored) {
  for (int size : {0, -1, -7}) {
    encoder_script play{size, 1};
    encoding der(&play, i2d_script);
    EXPECT_EQ(der.bytes, nullptr);
    EXPECT_EQ(der.length, size);
    EXPECT_EQ(play.calls, 1);
  }
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(UtilDer, SecondCallThatGivesZeroIsLoggedAndNull) {
  encoder_script play{4, 0};
  encoding der(&play, i2d_script);
  EXPECT_EQ(der.bytes, nullptr);
  ASSERT_EQ(captured_log().size(), 1u) << log_dump();
  EXPECT_TRUE(logged_containing(3, "OpenSSL error: error:")) << log_dump();
  EXPECT_EQ(ERR_peek_error(), 0ul);
}

// An encoder whose second call does not keep what its first one promised.
struct liar {
  int size;
  int second;   // what the second call returns
  int advance;  // how far it moves the pointer
};

int i2d_liar(const void *object, unsigned char **out) {
  const auto *play = static_cast<const liar *>(object);
  if (!out || !*out)
    return play->size;
  *out += play->advance;
  return play->second;
}

TEST_F(UtilDer, SecondCallThatDisagreesWithTheFirstIsNull) {
  const liar lies[] = {{4, 3, 3}, {4, 3, 4},  {4, 5, 4}, {4, 4, 0},
                       {4, 4, 3}, {4, -1, 0}, {4, -1, 4}};
  for (const liar &play : lies) {
    encoding der(&play, i2d_liar);
    EXPECT_EQ(der.bytes, nullptr) << play.second << " " << play.advance;
    EXPECT_EQ(der.length, 4);
  }
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(UtilDer, SecondCallThatGivesANegativeLengthIsLoggedAndNull) {
  encoder_script play{4, -1};
  encoding der(&play, i2d_script);
  EXPECT_EQ(der.bytes, nullptr);
  ASSERT_EQ(captured_log().size(), 1u) << log_dump();
  EXPECT_TRUE(logged_containing(3, "OpenSSL error: error:")) << log_dump();
  EXPECT_EQ(ERR_peek_error(), 0ul);
}

TEST_F(UtilDer, OutOfMemoryIsNull) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be told to fail";
  encoder_script play{4, 4};
  int length = -99;
  fake_allocator::fail_at(1);
  unsigned char *bytes = der_encode(&play, i2d_script, &length);
  fake_allocator::stop_failing();
  EXPECT_EQ(bytes, nullptr);
  EXPECT_EQ(length, 4);
  EXPECT_EQ(play.calls, 1);
  free(bytes);
}

std::string hex_der(const void *object, i2d_fn *i2d) {
  std::unique_ptr<char, void (*)(void *)> text(hex_der_encode(object, i2d), free);
  return text ? text.get() : "null";
}

TEST_F(UtilDer, HexIsTheEncodingInDigits) {
  support::integer serial = support::make_serial(0xABCD);
  EXPECT_EQ(hex_der(serial.get(), i2d_integer), "020300ABCD");
}

TEST_F(UtilDer, HexOfWhatCannotBeEncodedIsNull) {
  encoder_script no_size{0, 0};
  EXPECT_EQ(hex_der(&no_size, i2d_script), "null");
  encoder_script no_octets{4, 0};
  EXPECT_EQ(hex_der(&no_octets, i2d_script), "null");
}

TEST_F(UtilDer, HexOfWhatDisagreesWithItsSizeIsNull) {
  liar shorter{4, 3, 3}, still{4, 4, 0};
  EXPECT_EQ(hex_der(&shorter, i2d_liar), "null");
  EXPECT_EQ(hex_der(&still, i2d_liar), "null");
}

TEST_F(UtilDer, HexOfNothingIsNullWithoutAWord) {
  EXPECT_EQ(hex_der(nullptr, i2d_integer), "null");
  EXPECT_EQ(hex_der(nullptr, i2d_cert), "null");
  EXPECT_TRUE(captured_log().empty()) << log_dump();
  EXPECT_EQ(ERR_peek_error(), 0ul);
}

TEST_F(UtilDer, WithoutAnEncoderOrALengthThereIsNothing) {
  encoder_script play{4, 4};
  int length = 7;
  EXPECT_EQ(der_encode(&play, nullptr, &length), nullptr);
  EXPECT_EQ(length, 7);
  EXPECT_EQ(der_encode(&play, i2d_script, nullptr), nullptr);
  EXPECT_EQ(hex_der_encode(&play, nullptr), nullptr);
}

TEST_F(UtilDer, HexIsNullWheneverMemoryRunsOut) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "this build's allocator cannot be told to fail";
  char *text = nullptr;
  size_t failures = fake_allocator::sweep(
      [&] {
        encoder_script play{4, 4};
        text = hex_der_encode(&play, i2d_script);
        free(text);
      },
      [&](size_t n) { EXPECT_EQ(text, nullptr) << n; });
  EXPECT_EQ(failures, 2u);
}

}  // namespace
