#include <fcntl.h>
#include <gtest/gtest.h>
#include <libpki/http.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "unit/http/http_exchange.h"

namespace {

class TimedRead : public http_test::fixture {
 protected:
  // A datagram is a read of its own, so a second read would be seen.
  void open_pair(int type = SOCK_STREAM) { ASSERT_EQ(socketpair(AF_UNIX, type, 0, pair_), 0); }
  void give(const std::string &text) {
    ASSERT_EQ(write(pair_[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  void end() {
    close(pair_[1]);
    pair_[1] = -1;
  }
  void TearDown() override {
    for (int fd : pair_)
      if (fd >= 0)
        close(fd);
    fixture::TearDown();
  }
  int fd() const { return pair_[0]; }

  char buffer_[16] = {};
  int error_ = 0;

 private:
  int pair_[2] = {-1, -1};
};

TEST_F(TimedRead, GivesWhatIsThere) {
  open_pair();
  give("abc");
  EXPECT_EQ(timed_read(fd(), buffer_, sizeof buffer_, 1000, &error_), 3);
  EXPECT_EQ(std::string(buffer_, 3), "abc");
  EXPECT_LOG();
}

TEST_F(TimedRead, TakesNoMoreThanAskedFor) {
  open_pair();
  give("abcdef");
  EXPECT_EQ(timed_read(fd(), buffer_, 4, 1000, &error_), 4);
  EXPECT_EQ(std::string(buffer_, 5), std::string("abcd\0", 5));
  EXPECT_EQ(timed_read(fd(), buffer_, sizeof buffer_, 1000, &error_), 2);
}

TEST_F(TimedRead, ReadsOnce) {
  open_pair(SOCK_SEQPACKET);
  give("ab");
  give("cd");
  EXPECT_EQ(timed_read(fd(), buffer_, sizeof buffer_, 1000, &error_), 2);
  EXPECT_EQ(std::string(buffer_, 3), std::string("ab\0", 3));
}

TEST_F(TimedRead, WaitsAsLongAsItIsTold) {
  open_pair();
  give("a");
  timed_read(fd(), buffer_, 1, 1234, &error_);
  EXPECT_EQ(fake_failures::last_poll_timeout(), 1234);
}

TEST_F(TimedRead, EndOfStreamIsZeroAndNotConnected) {
  open_pair();
  end();
  EXPECT_EQ(timed_read(fd(), buffer_, sizeof buffer_, 1000, &error_), 0);
  EXPECT_EQ(error_, ENOTCONN);
  EXPECT_LOG();
}

TEST_F(TimedRead, WhatCameBeforeTheEndIsGivenFirst) {
  open_pair();
  give("ab");
  end();
  EXPECT_EQ(timed_read(fd(), buffer_, sizeof buffer_, 1000, &error_), 2);
  EXPECT_EQ(timed_read(fd(), buffer_, sizeof buffer_, 1000, &error_), 0);
}

TEST_F(TimedRead, TimeOutIsLoggedAndNamed) {
  open_pair();
  errno = 0;
  EXPECT_EQ(timed_read(fd(), buffer_, sizeof buffer_, 0, &error_), -1);
  EXPECT_EQ(errno, ETIME);
  EXPECT_EQ(error_, ETIMEDOUT);
  EXPECT_LOG({3, "read timed out"});
}

TEST_F(TimedRead, LongWaitTimesOutLikeAShortOne) {
  open_pair();
  fake_failures::time_out_poll();
  EXPECT_EQ(timed_read(fd(), buffer_, sizeof buffer_, 60000, &error_), -1);
  EXPECT_EQ(error_, ETIMEDOUT);
  EXPECT_LOG({3, "read timed out"});
}

TEST_F(TimedRead, FailedPollIsLoggedWithItsResultAndReason) {
  open_pair();
  give("abc");
  fake_failures::fail_poll(ENOMEM);
  EXPECT_EQ(timed_read(fd(), buffer_, sizeof buffer_, 1000, &error_), -1);
  EXPECT_EQ(error_, ENOMEM);
  EXPECT_LOG({3, "poll error: -1 (Cannot allocate memory)"});
  EXPECT_EQ(buffer_[0], '\0');
}

TEST_F(TimedRead, SignalDoesNotEndTheWait) {
  open_pair();
  give("abc");
  fake_failures::fail_poll(EINTR);
  EXPECT_EQ(timed_read(fd(), buffer_, sizeof buffer_, 1000, &error_), 3);
  EXPECT_LOG();
}

TEST_F(TimedRead, FailedReadGivesItsError) {
  // A folder is always readable to poll, and never to read.
  int folder = open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_GE(folder, 0);
  EXPECT_EQ(timed_read(folder, buffer_, sizeof buffer_, 1000, &error_), -1);
  EXPECT_EQ(error_, EISDIR);
  EXPECT_LOG();
  close(folder);
}

TEST_F(TimedRead, ClosedDescriptorIsAFailedRead) {
  open_pair();
  int gone = dup(fd());
  close(gone);
  EXPECT_LT(timed_read(gone, buffer_, sizeof buffer_, 1000, &error_), 0);
  EXPECT_EQ(error_, EBADF);
}

TEST_F(TimedRead, ErrorOutputMayBeNull) {
  open_pair();
  give("a");
  EXPECT_EQ(timed_read(fd(), buffer_, 1, 1000, nullptr), 1);
  EXPECT_EQ(timed_read(fd(), buffer_, 1, 0, nullptr), -1);
  fake_failures::fail_poll(ENOMEM);
  EXPECT_EQ(timed_read(fd(), buffer_, 1, 1000, nullptr), -1);
  end();
  EXPECT_EQ(timed_read(fd(), buffer_, 1, 1000, nullptr), 0);
}

}  // namespace
