// Streams in memory, and digest filters.
#include <gtest/gtest.h>
#include <libpki/marshal.h>
#include <openssl/buffer.h>
#include <openssl/err.h>

#include <climits>

#include "fakes/log_capture.h"
#include "support/certs.h"
#include "support/marshal.h"

namespace {

using support::hex;
using support::octets_in;
using support::stream;

struct MarshalBuffer : testing::Test {
  void SetUp() override {
    support::clear_openssl_errors();
    clear_log();
  }
  void TearDown() override { EXPECT_EQ(ERR_peek_error(), 0ul); }
  static stream buffer_of(int size) {
    BIO *made = nullptr;
    EXPECT_EQ(new_write_buffer(&made, size), 0);
    return stream(made);
  }
  static size_t room_in(const stream &of) {
    BUF_MEM *memory = nullptr;
    BIO_get_mem_ptr(of.get(), &memory);
    return memory ? memory->max : 0;
  }
};

TEST_F(MarshalBuffer, IsEmptyAndHasTheRoomThatWasAskedFor) {
  for (int size : {1, 100, 70000}) {
    stream made = buffer_of(size);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(octets_in(made), "");
    EXPECT_GE(room_in(made), static_cast<size_t>(size));
    EXPECT_LT(room_in(made), static_cast<size_t>(size) * 2 + 100);
  }
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(MarshalBuffer, SizeOfZeroOrLessIs5000) {
  for (int size : {0, -1, INT_MIN}) {
    stream made = buffer_of(size);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(octets_in(made), "");
    EXPECT_GE(room_in(made), 5000u);
    EXPECT_LT(room_in(made), 10000u);
  }
}

TEST_F(MarshalBuffer, GrowsAndIsReadBack) {
  stream made = buffer_of(10);
  std::string long_one(100000, 'x');
  ASSERT_EQ(write_block(made.get(), 1, long_one.data(), 100), 0);
  ASSERT_EQ(write_fully(made.get(), long_one.data(), 100000), 0);
  EXPECT_EQ(octets_in(made), "\x01\x64" + long_one.substr(0, 100) + long_one);
  int tag = 0, length = 0;
  unsigned char *data = nullptr;
  ASSERT_EQ(read_block(made.get(), &tag, &length, &data), 0);
  EXPECT_EQ(length, 100);
  free(data);
}

TEST_F(MarshalBuffer, MoreThanOpensslAllowsIsOutOfMemoryAndNull) {
  int untouched = 0;
  BIO *made = reinterpret_cast<BIO *>(&untouched);
  EXPECT_EQ(new_write_buffer(&made, INT_MAX), 2);
  EXPECT_EQ(made, nullptr);
  ASSERT_EQ(captured_log().size(), 1u) << log_dump();
  EXPECT_TRUE(logged_containing(3, "malloc failure")) << log_dump();
}

TEST_F(MarshalBuffer, NullPlaceForABufferIsRefused) {
  EXPECT_EQ(new_write_buffer(nullptr, 1), 63);
}

// ---- filters ----

TEST_F(MarshalBuffer, FilterIsPutInFrontAndTakenOffAgain) {
  BIO *bottom = BIO_new(BIO_s_mem());
  BIO *chain = bottom;
  ASSERT_EQ(push_md_bio(&chain, EVP_sha1()), 0);
  ASSERT_NE(chain, bottom);
  EXPECT_EQ(BIO_method_type(chain), BIO_TYPE_MD);
  EXPECT_EQ(BIO_next(chain), bottom);
  ASSERT_EQ(write_fully(chain, "abc", 3), 0);
  pop_md_bio(&chain);
  EXPECT_EQ(chain, bottom);
  EXPECT_EQ(BIO_next(chain), nullptr);
  ASSERT_EQ(write_fully(chain, "d", 1), 0);
  EXPECT_EQ(octets_in(stream(bottom)), "abcd");
}

TEST_F(MarshalBuffer, FilterDigestsWhatGoesThroughInEitherDirection) {
  for (bool reading : {false, true}) {
    BIO *chain = support::stream_of(reading ? "abc" : "").release();
    ASSERT_EQ(push_md_bio(&chain, EVP_sha1()), 0);
    char octets[] = "abc";
    EXPECT_EQ(reading ? read_fully(chain, octets, 3) : write_fully(chain, octets, 3), 0);
    EVP_MD_CTX *context = nullptr;
    ASSERT_EQ(BIO_get_md_ctx(chain, &context), 1);
    EVP_MD_CTX *copy = EVP_MD_CTX_new();
    EVP_MD_CTX_copy(copy, context);
    unsigned char digest[20];
    EVP_DigestFinal(copy, digest, nullptr);
    EVP_MD_CTX_free(copy);
    EXPECT_EQ(hex(std::string(reinterpret_cast<char *>(digest), 20)),
              "a9993e364706816aba3e25717850c26c9cd0d89d");
    pop_md_bio(&chain);
    BIO_free(chain);
  }
}

TEST_F(MarshalBuffer, FiltersStandInFrontOfEachOther) {
  BIO *chain = BIO_new(BIO_s_mem());
  BIO *bottom = chain;
  ASSERT_EQ(push_md_bio(&chain, EVP_sha1()), 0);
  BIO *first = chain;
  ASSERT_EQ(push_md_bio(&chain, EVP_sha256()), 0);
  EXPECT_EQ(BIO_next(chain), first);
  ASSERT_EQ(write_fully(chain, "abc", 3), 0);
  pop_md_bio(&chain);
  EXPECT_EQ(chain, first);
  pop_md_bio(&chain);
  EXPECT_EQ(chain, bottom);
  EXPECT_EQ(octets_in(stream(bottom)), "abc");
}

TEST_F(MarshalBuffer, DigestThatOpensslCannotMakeIs19AndLeavesTheChain) {
  for (const EVP_MD *md : {static_cast<const EVP_MD *>(nullptr), EVP_whirlpool()}) {
    clear_log();
    BIO *chain = BIO_new(BIO_s_mem());
    BIO *before = chain;
    EXPECT_EQ(push_md_bio(&chain, md), 19);
    EXPECT_EQ(chain, before);
    EXPECT_EQ(BIO_next(chain), nullptr);
    EXPECT_FALSE(captured_log().empty());
    for (const log_entry &entry : captured_log())
      EXPECT_EQ(entry.level, 3);
    support::raise_openssl_error(ERR_R_MALLOC_FAILURE);
    EXPECT_EQ(push_md_bio(&chain, md), 2);
    EXPECT_EQ(chain, before);
    BIO_free(chain);
  }
}

TEST_F(MarshalBuffer, NullChainsAreRefusedOrLeft) {
  EXPECT_EQ(push_md_bio(nullptr, EVP_sha1()), 63);
  pop_md_bio(nullptr);
  BIO *none = nullptr;
  pop_md_bio(&none);
  EXPECT_EQ(none, nullptr);
}

}  // namespace
