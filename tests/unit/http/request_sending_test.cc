// Sending that goes wrong, or piece by piece.
#include <csignal>
#include <string>
#include <vector>

#include "support/test_server.h"
#include "unit/http/http_exchange.h"

namespace {

using http_test::exchange;
using http_test::plain_get;
using http_test::plain_post;
using requests = std::vector<std::string>;

class HttpSending : public http_test::fixture {};

// More than the buffers of both ends of a connection take.
const std::string &large_body() {
  static const std::string body(32 << 20, 'B');
  return body;
}

support::answer close_without_reading(bool reset) {
  support::answer answer = support::raw("");
  answer.read_request = false;
  answer.reset = reset;
  return answer;
}

TEST_F(HttpSending, ShortSendOfTheHeadGoesOnWithTheRest) {
  support::test_server server({support::ok("x")});
  fake_failures::short_send();
  call.get(server.host(), "/a");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(call.body_text(), "x");
  EXPECT_EQ(server.requests(), requests{plain_get(server.host(), "/a")});
  EXPECT_LOG();
}

TEST_F(HttpSending, ShortSendOfTheBodyGoesOnWithTheRest) {
  support::test_server server({support::ok("x")});
  fake_failures::short_send(1);
  call.post(server.host(), "/a", "text/x", "0123456789");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(server.requests(), requests{plain_post(server.host(), "/a", "text/x", "0123456789")});
}

TEST_F(HttpSending, BodyLargerThanTheSocketBuffersArrivesWhole) {
  support::test_server server({support::ok("x")});
  call.post(server.host(), "/a", "text/x", large_body());
  EXPECT_EQ(call.code, 0);
  ASSERT_EQ(server.requests().size(), 1u);
  EXPECT_TRUE(server.requests()[0] == plain_post(server.host(), "/a", "text/x", large_body()));
}

TEST_F(HttpSending, FailureOfTheHeadIsLogged) {
  http_test::silent_listener listener;
  fake_failures::fail_send(ENOBUFS);
  call.get(listener.host(), "/a");
  EXPECT_EQ(call.code, 47);
  EXPECT_EQ(call.body, nullptr);
  EXPECT_LOG({3, "Error sending request header: No buffer space available"});
}

TEST_F(HttpSending, FailureOfTheBodyIsLogged) {
  http_test::silent_listener listener;
  fake_failures::fail_send(EPIPE, 1);
  call.post(listener.host(), "/a", "text/x", "body");
  EXPECT_EQ(call.code, 47);
  EXPECT_EQ(call.body, nullptr);
  EXPECT_LOG({3, "Error sending request body: Broken pipe"});
}

TEST_F(HttpSending, FailureAfterAShortSendIsAFailure) {
  http_test::silent_listener listener;
  fake_failures::short_send(1);
  fake_failures::fail_send(ECONNRESET, 2);
  call.post(listener.host(), "/a", "text/x", "body");
  EXPECT_EQ(call.code, 47);
  EXPECT_LOG({3, "Error sending request body: Connection reset by peer"});
}

TEST_F(HttpSending, EmptyBodyIsNotSent) {
  support::test_server server({support::ok("x")});
  fake_failures::fail_send(EPIPE, 1);
  call.post(server.host(), "/a", "text/x", "");
  EXPECT_EQ(call.code, 0);
}

TEST_F(HttpSending, PeerThatNeverReadsTimesOut) {
  http_test::silent_listener listener;
  const std::string timed_out = "Error sending request body: Connection timed out";
  for (int waits = 0; waits < 20 && !was_logged(3, timed_out); waits++) {
    fake_failures::time_out_poll(waits);
    call.post(listener.host(), "/a", "text/x", large_body());
    EXPECT_EQ(call.code, 47);
    EXPECT_EQ(fake_failures::last_poll_timeout(), 60000);
  }
  EXPECT_EQ(captured_log().back(), (log_entry{3, timed_out}));
}

// A reset may be seen as early as by the connect.
void expect_sending_failed() {
  EXPECT_EQ(captured_log().size(), 1u) << log_dump();
  EXPECT_TRUE(logged_containing(3, "Error sending request ") ||
              logged_containing(3, "Error connecting to "))
      << log_dump();
}

TEST_F(HttpSending, PeerThatClosesEarlyIsAFailure) {
  support::test_server server({close_without_reading(false)});
  call.post(server.host(), "/a", "text/x", large_body());
  EXPECT_EQ(call.code, 47);
  expect_sending_failed();
}

TEST_F(HttpSending, PeerThatResetsEarlyIsAFailure) {
  support::test_server server({close_without_reading(true)});
  call.post(server.host(), "/a", "text/x", large_body());
  EXPECT_EQ(call.code, 47);
  expect_sending_failed();
}

// In a process of its own, as the signal would end this one.
[[noreturn]] void post_with_sigpipe_at_default(bool reset) {
  struct sigaction action = {};
  action.sa_handler = SIG_DFL;
  sigaction(SIGPIPE, &action, nullptr);
  sigset_t pipe_only;
  sigemptyset(&pipe_only);
  sigaddset(&pipe_only, SIGPIPE);
  pthread_sigmask(SIG_UNBLOCK, &pipe_only, nullptr);

  int failures = 0;
  {
    support::test_server server({close_without_reading(reset)});
    for (int i = 0; i < 20; i++) {
      exchange call;
      call.post(server.host(), "/a", "text/x", large_body());
      failures += call.code == 47;
    }
  }
  sigaction(SIGPIPE, nullptr, &action);
  sigset_t blocked;
  pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
  bool untouched = action.sa_handler == SIG_DFL && !sigismember(&blocked, SIGPIPE);
  _exit(failures == 20 && untouched ? 0 : 1);
}

TEST(HttpSendingDeathTest, PeerThatClosesRaisesNoSignal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(post_with_sigpipe_at_default(false), testing::ExitedWithCode(0), "");
}

TEST(HttpSendingDeathTest, PeerThatResetsRaisesNoSignal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(post_with_sigpipe_at_default(true), testing::ExitedWithCode(0), "");
}

}  // namespace
