#include <gtest/gtest.h>
#include <libpki/http.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "unit/http/http_exchange.h"

namespace {

constexpr size_t wire_limit = 64 * 1024;

class ReadLine : public http_test::fixture {
 protected:
  void SetUp() override {
    fixture::SetUp();
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair_), 0);
    memset(buffer_, '#', sizeof buffer_);
  }
  void TearDown() override {
    end();
    close(pair_[0]);
    fixture::TearDown();
  }
  void give(const std::string &text) {
    ASSERT_EQ(write(pair_[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  void end() {
    if (pair_[1] >= 0)
      close(pair_[1]);
    pair_[1] = -1;
  }
  int read_with_capacity(size_t capacity) {
    length_ = capacity;
    error_ = 0;
    return read_line(pair_[0], buffer_, &length_, &error_);
  }
  // What the calls so far left unread.
  std::string rest() {
    end();
    http_test::exchange socket;
    socket.sock = dup(pair_[0]);
    return socket.rest_of_socket();
  }
  int fd() const { return pair_[0]; }

  char buffer_[1024];
  size_t length_ = 0;
  int error_ = 0;

 private:
  int pair_[2] = {-1, -1};
};

TEST_F(ReadLine, EndsAtTheLineFeed) {
  give("abc\n");
  EXPECT_EQ(read_with_capacity(10), 0);
  EXPECT_STREQ(buffer_, "abc");
  EXPECT_EQ(length_, 3u);
  EXPECT_LOG();
}

TEST_F(ReadLine, DropsCarriageReturnsAnywhere) {
  give("\ra\rb\r\rc\r\n");
  EXPECT_EQ(read_with_capacity(10), 0);
  EXPECT_STREQ(buffer_, "abc");
  EXPECT_EQ(length_, 3u);
}

TEST_F(ReadLine, EmptyLineHasLengthZero) {
  give("\r\n\n");
  EXPECT_EQ(read_with_capacity(10), 0);
  EXPECT_STREQ(buffer_, "");
  EXPECT_EQ(length_, 0u);
  buffer_[0] = '#';
  EXPECT_EQ(read_with_capacity(1), 0);
  EXPECT_STREQ(buffer_, "");
  EXPECT_EQ(length_, 0u);
}

TEST_F(ReadLine, TakesNothingBehindTheLineFeed) {
  give("one\r\ntwo\r\nthree");
  EXPECT_EQ(read_with_capacity(10), 0);
  EXPECT_STREQ(buffer_, "one");
  EXPECT_EQ(read_with_capacity(10), 0);
  EXPECT_STREQ(buffer_, "two");
  EXPECT_EQ(rest(), "three");
}

TEST_F(ReadLine, KeepsOtherControlCharacters) {
  give(std::string("a\0\t\x80\n", 5));
  EXPECT_EQ(read_with_capacity(10), 0);
  EXPECT_EQ(std::string(buffer_, 5), std::string("a\0\t\x80\0", 5));
  EXPECT_EQ(length_, 4u);
}

TEST_F(ReadLine, WaitsSixtySecondsForEachOctet) {
  give("a\n");
  EXPECT_EQ(read_with_capacity(10), 0);
  EXPECT_EQ(fake_failures::last_poll_timeout(), 60000);
}

TEST_F(ReadLine, FillsTheCapacityWithItsNul) {
  give("abc\n");
  EXPECT_EQ(read_with_capacity(4), 0);
  EXPECT_STREQ(buffer_, "abc");
  EXPECT_EQ(buffer_[4], '#');
}

TEST_F(ReadLine, LineAsLongAsTheCapacityIsInvalid) {
  give("abcd\n");
  EXPECT_EQ(read_with_capacity(4), 48);
  EXPECT_EQ(error_, EINVAL);
  EXPECT_EQ(length_, 4u);
  EXPECT_EQ(std::string(buffer_, 5), "abcd#");
  EXPECT_LOG();
}

TEST_F(ReadLine, CarriageReturnsTakeNoCapacity) {
  give("\r\rab\rc\r\r\n");
  EXPECT_EQ(read_with_capacity(4), 0);
  EXPECT_STREQ(buffer_, "abc");
}

TEST_F(ReadLine, SixHundredNinetyNineCharactersFitSevenHundred) {
  give(std::string(699, 'x') + "\r\n" + std::string(700, 'y') + "\r\n");
  EXPECT_EQ(read_with_capacity(700), 0);
  EXPECT_EQ(length_, 699u);
  EXPECT_EQ(std::string(buffer_), std::string(699, 'x'));
  EXPECT_EQ(read_with_capacity(700), 48);
  EXPECT_EQ(error_, EINVAL);
  EXPECT_EQ(length_, 700u);
}

TEST_F(ReadLine, CapacityZeroFailsWithoutReading) {
  give("abc\n");
  EXPECT_EQ(read_with_capacity(0), 48);
  EXPECT_EQ(error_, EINVAL);
  EXPECT_EQ(length_, 0u);
  EXPECT_EQ(rest(), "abc\n");
}

TEST_F(ReadLine, EndOfStreamBeforeTheLineFeedIsAFailure) {
  give("ab\rc");
  end();
  EXPECT_EQ(read_with_capacity(10), 48);
  EXPECT_EQ(error_, ENOTCONN);
  EXPECT_EQ(length_, 3u);
  EXPECT_LOG();
}

TEST_F(ReadLine, EndOfStreamAtOnceIsAFailure) {
  end();
  EXPECT_EQ(read_with_capacity(10), 48);
  EXPECT_EQ(error_, ENOTCONN);
  EXPECT_EQ(length_, 0u);
}

TEST_F(ReadLine, TimeOutGivesWhatCameSoFar) {
  give("abc");
  fake_failures::time_out_poll(3);
  EXPECT_EQ(read_with_capacity(10), 48);
  EXPECT_EQ(error_, ETIMEDOUT);
  EXPECT_EQ(length_, 3u);
  EXPECT_LOG({3, "read timed out"});
}

TEST_F(ReadLine, FailedPollGivesItsError) {
  give("abc\n");
  fake_failures::fail_poll(ENOMEM, 1);
  EXPECT_EQ(read_with_capacity(10), 48);
  EXPECT_EQ(error_, ENOMEM);
  EXPECT_EQ(length_, 1u);
  EXPECT_LOG({3, "poll error: -1 (Cannot allocate memory)"});
}

TEST_F(ReadLine, SignalDoesNotEndTheLine) {
  give("abc\n");
  fake_failures::fail_poll(EINTR, 2);
  EXPECT_EQ(read_with_capacity(10), 0);
  EXPECT_STREQ(buffer_, "abc");
}

TEST_F(ReadLine, ManyCarriageReturnsAreDropped) {
  give("a" + std::string(60000, '\r') + "b\n");
  EXPECT_EQ(read_with_capacity(10), 0);
  EXPECT_STREQ(buffer_, "ab");
}

TEST_F(ReadLine, EndlessCarriageReturnsAreInvalid) {
  give("a" + std::string(wire_limit + 100, '\r') + "b\n");
  EXPECT_EQ(read_with_capacity(10), 48);
  EXPECT_EQ(error_, EINVAL);
  EXPECT_EQ(length_, 1u);
  EXPECT_GE(rest().size(), 100u);
}

TEST_F(ReadLine, LineOfSixtyFourKibibytesOnTheWireIsTaken) {
  give(std::string(wire_limit - 1, '\r') + "\n");
  EXPECT_EQ(read_with_capacity(10), 0);
}

TEST_F(ReadLine, OneOctetMoreIsInvalid) {
  give(std::string(wire_limit, '\r') + "\n");
  EXPECT_EQ(read_with_capacity(10), 48);
  EXPECT_EQ(error_, EINVAL);
}

TEST_F(ReadLine, ErrorOutputMayBeNull) {
  give("abc\nabc");
  length_ = 10;
  EXPECT_EQ(read_line(fd(), buffer_, &length_, nullptr), 0);
  length_ = 2;
  EXPECT_EQ(read_line(fd(), buffer_, &length_, nullptr), 48);
  length_ = 0;
  EXPECT_EQ(read_line(fd(), buffer_, &length_, nullptr), 48);
  end();
  length_ = 10;
  EXPECT_EQ(read_line(fd(), buffer_, &length_, nullptr), 48);
}

TEST_F(ReadLine, NullArgumentsAreRefused) {
  give("abc\n");
  length_ = 10;
  EXPECT_EQ(read_line(fd(), nullptr, &length_, &error_), 63);
  EXPECT_EQ(read_line(fd(), buffer_, nullptr, &error_), 63);
  EXPECT_EQ(rest(), "abc\n");
}

}  // namespace
