// Streams that give and take octets in other portions than one likes, end early, or fail.
#include <gtest/gtest.h>
#include <libpki/marshal.h>
#include <openssl/err.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "fakes/log_capture.h"
#include "support/marshal.h"

namespace {

using support::block;
using support::from_hex;
using support::hex;
using support::note;
using support::note_desc;
using support::note_item;
using support::note_octets;
using support::note_owner;
using support::premature;
using support::script;
using support::scripted;
using support::stream;

struct MarshalTransport : testing::Test {
  void SetUp() override {
    support::clear_openssl_errors();
    clear_log();
  }
  void TearDown() override {
    EXPECT_EQ(ERR_peek_error(), 0ul);
    support::clear_openssl_errors();
  }
  static int read_note(BIO *bio, note_owner *out) {
    return unmarshall(bio, &out->object, &note_item, "MAGI", 4);
  }
  // The code of reading a block.
  static int block_code(script *of) {
    int tag = 0, length = 0;
    unsigned char *data = nullptr;
    int code = read_block(scripted(of).get(), &tag, &length, &data);
    EXPECT_EQ(data, nullptr);
    return code;
  }
  // Of a block whose stream fails in its tag, its length or its data, and queues `reason`; `check`
  // looks at the log.
  template <class Check>
  static void expect_code_wherever_a_block_fails(int reason, int code, Check check) {
    for (int failure : {-1, 0})
      for (size_t given : {0, 1, 2, 3, 4}) {
        clear_log();
        script of{.input = from_hex("05818261626364")};
        of.reads_left = given;
        of.failure = failure;
        of.queued_reason = reason;
        EXPECT_EQ(block_code(&of), code) << given;
        check();
      }
  }
  const std::string whole = "MAGI" + note_octets("some text", 77) + support::end_of_data;
};

TEST_F(MarshalTransport, StreamThatTakesOneOctetACallGetsThemAll) {
  for (size_t chunk : {1, 2, 3, 7}) {
    script of;
    of.chunk = chunk;
    note_owner sent("some text", 77);
    EXPECT_EQ(marshall(scripted(&of).get(), sent.object, &note_item, "MAGI", 4), 0);
    EXPECT_EQ(hex(of.output), hex(whole)) << chunk;
  }
}

TEST_F(MarshalTransport, StreamThatGivesOneOctetACallIsRead) {
  for (size_t chunk : {1, 2, 3, 7}) {
    script of{.input = whole, .chunk = chunk};
    note_owner read;
    ASSERT_EQ(read_note(scripted(&of).get(), &read), 0) << chunk;
    EXPECT_STREQ(read->text, "some text");
    EXPECT_EQ(read->number, 77);
    EXPECT_EQ(of.position, whole.size() - 2) << "the end of the data stays unread";
  }
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(MarshalTransport, StreamThatTakesNoMoreIs9WhereverThatIs) {
  note_owner sent("some text", 77);
  for (int failure : {-1, 0, -2})
    for (size_t room = 0; room < whole.size(); room++) {
      script of;
      of.writes_left = room;
      of.failure = failure;
      EXPECT_EQ(marshall(scripted(&of).get(), sent.object, &note_item, "MAGI", 4), 9) << room;
      EXPECT_EQ(of.output, whole.substr(0, room));
    }
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(MarshalTransport, AFailedWriteIsNotTriedAgain) {
  script of;
  of.writes_left = 3;
  EXPECT_EQ(write_fully(scripted(&of).get(), "abcdef", 6), 9);
  EXPECT_EQ(of.asked, (std::vector<size_t>{6, 5, 4, 3}));
}

TEST_F(MarshalTransport, DataIsNotWrittenAfterAHeaderThatWasNot) {
  script of;
  of.writes_left = 1;
  EXPECT_EQ(write_block(scripted(&of).get(), 1, "abcdef", 6), 9);
  EXPECT_EQ(of.asked, (std::vector<size_t>{2, 1}));
}

// Where the blocks of `whole` have their data, and where their tags and lengths.
const std::vector<size_t> data_at = {8, 9, 16, 19, 20, 22};
const std::vector<size_t> headers_at = {4, 5, 6, 7, 17, 18, 23, 24};

TEST_F(MarshalTransport, StreamThatFailsInMagicOrDataIs10) {
  std::vector<size_t> places = {0, 1, 3};
  places.insert(places.end(), data_at.begin(), data_at.end());
  for (int failure : {-1, 0, -2})
    for (size_t given : places) {
      script of{.input = whole};
      of.reads_left = given;
      of.failure = failure;
      note_owner read;
      EXPECT_EQ(read_note(scripted(&of).get(), &read), 10) << given << " of " << failure;
      EXPECT_EQ(read.object, nullptr) << given;
    }
  EXPECT_TRUE(captured_log().empty()) << log_dump();
  EXPECT_EQ(support::notes_alive, 0);
}

TEST_F(MarshalTransport, StreamThatFailsInATagOrLengthIs10AndNoEnd) {
  for (int failure : {-1, -2})
    for (size_t given : headers_at) {
      script of{.input = whole};
      of.reads_left = given;
      of.failure = failure;
      note_owner read;
      EXPECT_EQ(read_note(scripted(&of).get(), &read), 10) << given << " of " << failure;
      EXPECT_EQ(read.object, nullptr) << given;
    }
  EXPECT_FALSE(was_logged(4, premature)) << log_dump();
  EXPECT_EQ(support::notes_alive, 0);
}

TEST_F(MarshalTransport, StreamThatGivesNothingForATagOrLengthHasEnded) {
  for (size_t given : headers_at) {
    clear_log();
    script of{.input = whole};
    of.reads_left = given;
    of.failure = 0;
    note_owner read;
    EXPECT_EQ(read_note(scripted(&of).get(), &read), 42) << given;
    EXPECT_EQ(read.object, nullptr) << given;
    std::vector<log_entry> expected = {{4, premature}};
    EXPECT_EQ(captured_log(), expected) << log_dump();
  }
}

TEST_F(MarshalTransport, StreamThatGivesNothingYetIs10) {
  for (size_t given : {0, 1, 2}) {
    script of{.input = from_hex("058103")};
    of.reads_left = given;
    of.failure = 0;
    of.wants_retry = true;
    EXPECT_EQ(block_code(&of), 10) << given;
  }
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(MarshalTransport, OpensslsErrorsOfABlockAreLoggedAtLevel3) {
  expect_code_wherever_a_block_fails(101, 10, [] {
    ASSERT_EQ(captured_log().size(), 1u) << log_dump();
    EXPECT_EQ(captured_log()[0].level, 3);
    EXPECT_EQ(captured_log()[0].text.rfind("OpenSSL error: error:", 0), 0u) << log_dump();
  });
}

TEST_F(MarshalTransport, OutOfMemoryInATagALengthOrDataIsThatCode) {
  expect_code_wherever_a_block_fails(ERR_R_MALLOC_FAILURE, 2, [] {
    EXPECT_EQ(captured_log().size(), 1u) << log_dump();
    EXPECT_TRUE(logged_containing(3, "malloc failure")) << log_dump();
  });
}

TEST_F(MarshalTransport, InputThatEndsIs42WhereverThatIs) {
  for (size_t length = 0; length < whole.size() - 2; length++) {
    script of{.input = whole.substr(0, length)};
    note_owner read;
    EXPECT_EQ(read_note(scripted(&of).get(), &read), 42) << length;
    EXPECT_EQ(read.object, nullptr) << length;
  }
  EXPECT_EQ(support::notes_alive, 0);
}

TEST_F(MarshalTransport, OpensslsErrorsOfAFailedTransferAreLoggedAtLevel3) {
  script of{.input = "ab"};
  of.reads_left = of.writes_left = 1;
  of.queued_reason = 101;
  stream bio = scripted(&of);
  char buffer[2];
  EXPECT_EQ(read_fully(bio.get(), buffer, 2), 10);
  ASSERT_EQ(captured_log().size(), 1u) << log_dump();
  EXPECT_EQ(captured_log()[0].level, 3);
  EXPECT_EQ(captured_log()[0].text.rfind("OpenSSL error: error:", 0), 0u) << log_dump();
  clear_log();
  EXPECT_EQ(write_fully(bio.get(), "ab", 2), 9);
  ASSERT_EQ(captured_log().size(), 1u) << log_dump();
  EXPECT_EQ(captured_log()[0].level, 3);
}

TEST_F(MarshalTransport, OutOfMemoryInOpensslsQueueIsThatCode) {
  script of{.input = "ab"};
  of.reads_left = of.writes_left = 1;
  of.queued_reason = ERR_R_MALLOC_FAILURE;
  stream bio = scripted(&of);
  char buffer[2];
  EXPECT_EQ(read_fully(bio.get(), buffer, 2), 2);
  EXPECT_TRUE(logged_containing(3, "malloc failure")) << log_dump();
  clear_log();
  EXPECT_EQ(write_fully(bio.get(), "ab", 2), 2);
  EXPECT_TRUE(logged_containing(3, "malloc failure")) << log_dump();
}

TEST_F(MarshalTransport, AFailureInTheDataOfABlockLeavesNoData) {
  script of{.input = block(3, "abcdef")};
  of.reads_left = 5;
  int tag = 0, length = 0;
  unsigned char untouched = 0;
  unsigned char *data = &untouched;
  EXPECT_EQ(read_block(scripted(&of).get(), &tag, &length, &data), 10);
  EXPECT_EQ(data, nullptr);
}

struct socket_pair {
  socket_pair() {
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    near.reset(BIO_new_socket(ends[0], BIO_CLOSE));
    far.reset(BIO_new_socket(ends[1], BIO_CLOSE));
  }
  int ends[2];
  stream near, far;
};

TEST_F(MarshalTransport, RecordsGoThroughASocket) {
  socket_pair pair;
  std::string text(300000, 't');
  text[150000] = 'u';
  std::thread writer([&] {
    note_owner sent(text.c_str(), -5);
    for (int i = 0; i < 2; i++)
      EXPECT_EQ(marshall(pair.far.get(), sent.object, &note_item, "MAGI", 4), 0);
  });
  for (int i = 0; i < 2; i++) {
    note_owner read;
    EXPECT_EQ(read_note(pair.near.get(), &read), 0);
    EXPECT_TRUE(read.object && text == read->text);
    char end[2] = {1, 1};
    EXPECT_EQ(read_fully(pair.near.get(), end, 2), 0);
    EXPECT_EQ(end[0] | end[1], 0);
  }
  writer.join();
}

TEST_F(MarshalTransport, ASocketThatTheOtherSideClosesIsAnEnd) {
  socket_pair pair;
  BIO_write(pair.far.get(), whole.data(), 8);
  pair.far.reset();
  note_owner read;
  EXPECT_EQ(read_note(pair.near.get(), &read), 42);
  EXPECT_EQ(read.object, nullptr);
}

TEST_F(MarshalTransport, RecordsGoThroughAFile) {
  std::string path = testing::TempDir() + "marshal_transport." + std::to_string(getpid());
  note_owner sent("some text", 77);
  {
    stream out(BIO_new_file(path.c_str(), "wb"));
    ASSERT_EQ(marshall(out.get(), sent.object, &note_item, "MAGI", 4), 0);
  }
  EXPECT_EQ(std::filesystem::file_size(path), whole.size());
  {
    stream in(BIO_new_file(path.c_str(), "rb"));
    note_owner read;
    ASSERT_EQ(read_note(in.get(), &read), 0);
    EXPECT_STREQ(read->text, "some text");
  }
  std::filesystem::resize_file(path, 12);
  {
    stream in(BIO_new_file(path.c_str(), "rb"));
    note_owner read;
    EXPECT_EQ(read_note(in.get(), &read), 42);
    EXPECT_EQ(read.object, nullptr);
  }
  std::filesystem::remove(path);
}

TEST_F(MarshalTransport, AFullDiskIs9) {
  BIO *full = BIO_new_file("/dev/full", "wb");
  if (!full)
    GTEST_SKIP() << "no /dev/full";
  stream out(full);
  setvbuf(
      [&] {
        FILE *file = nullptr;
        BIO_get_fp(full, &file);
        return file;
      }(),
      nullptr, _IONBF, 0);
  EXPECT_EQ(write_block(out.get(), 1, "abc", 3), 9);
}

TEST_F(MarshalTransport, ADigestFilterInFrontSeesEveryOctet) {
  note_owner sent("some text", 77);
  BIO *out = BIO_new(BIO_s_mem());
  ASSERT_EQ(push_md_bio(&out, EVP_sha256()), 0);
  EXPECT_EQ(marshall(out, sent.object, &note_item, "MAGI", 4), 0);
  unsigned char digest[32], wanted[32];
  BIO_gets(out, reinterpret_cast<char *>(digest), sizeof digest);
  EVP_Digest(whole.data(), whole.size(), wanted, nullptr, EVP_sha256(), nullptr);
  EXPECT_EQ(memcmp(digest, wanted, sizeof digest), 0);
  BIO_free_all(out);

  BIO *in = support::stream_of(whole).release();
  ASSERT_EQ(push_md_bio(&in, EVP_sha256()), 0);
  note_owner read;
  EXPECT_EQ(read_note(in, &read), 0);
  BIO_gets(in, reinterpret_cast<char *>(digest), sizeof digest);
  EVP_Digest(whole.data(), whole.size() - 2, wanted, nullptr, EVP_sha256(), nullptr);
  EXPECT_EQ(memcmp(digest, wanted, sizeof digest), 0);
  BIO_free_all(in);
}

TEST_F(MarshalTransport, TheEndBehindADigestFilterIsAnEnd) {
  BIO *in = support::stream_of(whole.substr(0, 9)).release();
  ASSERT_EQ(push_md_bio(&in, EVP_sha256()), 0);
  note_owner read;
  EXPECT_EQ(read_note(in, &read), 42);
  BIO_free_all(in);
}

}  // namespace
