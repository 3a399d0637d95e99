// Connections that fail at one step or another, and what the host sees of it.
#include <fcntl.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "support/test_server.h"
#include "unit/http/http_exchange.h"

namespace {

using http_test::client_sockets;
using http_test::exchange;

class HttpConnection : public http_test::fixture {};

TEST_F(HttpConnection, RefusedConnectionIsLogged) {
  const std::string host = "127.0.0.1:" + std::to_string(support::unused_port());
  call.get(host, "/");
  EXPECT_EQ(call.code, 47);
  EXPECT_LOG({3, "Error connecting to " + host + ": Connection refused"});
}

TEST_F(HttpConnection, MissingSocketIsLogged) {
  fake_failures::fail_socket(ENFILE);
  call.get("127.0.0.1:81", "/");
  EXPECT_EQ(call.code, 47);
  EXPECT_LOG({3, "Error creating socket to 127.0.0.1:81: Too many open files in system"});
}

TEST_F(HttpConnection, UnansweredConnectionTimesOutAfterSixtySeconds) {
  http_test::silent_listener full(0);
  full.fill();
  fake_failures::time_out_poll();
  call.get(full.host(), "/");
  EXPECT_EQ(call.code, 47);
  EXPECT_EQ(fake_failures::last_poll_timeout(), 60000);
  EXPECT_TRUE(was_logged(3, "Error connecting to " + full.host() + ": Connection timed out"))
      << log_dump();
}

TEST_F(HttpConnection, SilentServerTimesOut) {
  http_test::silent_listener listener;
  const std::string line = "Error reading http response line: Connection timed out";
  for (int waits = 0; waits < 20 && !was_logged(3, line); waits++) {
    clear_log();
    fake_failures::time_out_poll(waits);
    call.get(listener.host(), "/");
    EXPECT_EQ(fake_failures::last_poll_timeout(), 60000);
  }
  EXPECT_EQ(call.code, 48);
  EXPECT_LOG({3, "read timed out"}, {3, line});
}

TEST_F(HttpConnection, ServerThatStopsInsideTheBodyTimesOut) {
  support::answer answer = support::raw("HTTP/1.0 200 OK\r\nContent-Length: 9\r\n\r\nbod");
  answer.hold = true;
  support::test_server server({answer});
  const std::string line =
      "truncated http response: got 3 bytes but expected 9 bytes: Connection timed out";
  for (int waits = 0; waits < 200 && !was_logged(3, line); waits++) {
    clear_log();
    fake_failures::time_out_poll(waits);
    call.get(server.host(), "/");
  }
  EXPECT_EQ(call.code, 47);
  EXPECT_EQ(call.body, nullptr);
  EXPECT_LOG({3, "read timed out"}, {3, line});
}

// Fails each wait of an exchange in turn; `arm(n)` arms the failure after n waits. Every run gives
// the message of its step, with `reason`, and leaves nothing open. Where that hits the connection,
// the result is `unconnected`.
template <class Arm>
void fail_each_wait(const std::string &reason, int unconnected, Arm arm) {
  support::test_server server({support::ok("body")});
  const std::vector<std::string> steps = {
      "Error connecting to " + server.host() + ": ",
      "Error sending request header: ",
      "Error sending request body: ",
      "Error reading http response line: ",
      "Error reading http header line: ",
      "truncated http response: got 0 bytes but expected 4 bytes: "};
  std::vector<size_t> seen(steps.size());
  for (int waits = 0; waits < 500; waits++) {
    SCOPED_TRACE(waits);
    clear_log();
    arm(waits);
    exchange call;
    call.post(server.host(), "/", "t", "request");
    if (call.code == 0)
      break;
    ASSERT_FALSE(captured_log().empty());
    const log_entry last = captured_log().back();
    EXPECT_EQ(last.level, 3);
    auto step = std::find_if(steps.begin(), steps.end(),
                             [&](const std::string &text) { return last.text == text + reason; });
    ASSERT_NE(step, steps.end()) << last.text;
    const size_t index = static_cast<size_t>(step - steps.begin());
    seen[index]++;
    const int otherwise = index == 0 ? unconnected : 47;
    EXPECT_EQ(call.code, index == 3 || index == 4 ? 48 : otherwise) << last.text;
    EXPECT_EQ(call.body, nullptr);
    EXPECT_TRUE(client_sockets(server.port()).empty());
  }
  EXPECT_GT(seen[3], 0u);
  EXPECT_GT(seen[4], 0u);
  EXPECT_GT(seen[5], 0u);
}

TEST_F(HttpConnection, EachWaitMayTimeOut) {
  fail_each_wait("Connection timed out", 47,
                 [](int waits) { fake_failures::time_out_poll(waits); });
}

TEST_F(HttpConnection, EachWaitMayFail) {
  fail_each_wait("Cannot allocate memory", 2,
                 [](int waits) { fake_failures::fail_poll(ENOMEM, waits); });
}

TEST_F(HttpConnection, SignalEndsNoWait) {
  support::test_server server({support::ok("body")});
  for (int waits = 0; waits < 100; waits++) {
    SCOPED_TRACE(waits);
    fake_failures::fail_poll(EINTR, waits);
    call.post(server.host(), "/", "t", "request");
    ASSERT_EQ(call.code, 0) << log_dump();
    EXPECT_EQ(call.body_text(), "body");
  }
  EXPECT_LOG();
}

TEST_F(HttpConnection, IsClosedOnExecAndTheOnlyOne) {
  int port = 0;
  std::vector<int> flags;
  support::test_server server([&](const std::string &) {
    for (int fd : client_sockets(port))
      flags.push_back(fcntl(fd, F_GETFD));
    return support::ok("body");
  });
  port = server.port();
  call.get(server.host(), "/");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(flags, std::vector<int>{FD_CLOEXEC});
}

TEST_F(HttpConnection, IsClosedBeforeARedirectIsFollowed) {
  int first_port = 0;
  size_t still_open = 77;
  support::test_server target([&](const std::string &) {
    still_open = client_sockets(first_port).size();
    return support::ok("found");
  });
  support::test_server server({support::redirect(302, target.url("/b"))});
  first_port = server.port();
  call.get(server.host(), "/a");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(still_open, 0u);
}

TEST_F(HttpConnection, CallsFromManyThreadsDoNotMeet) {
  support::test_server server([](const std::string &request) {
    return support::ok(request.substr(0, request.find(" HTTP/")));
  });
  std::vector<std::thread> threads;
  std::atomic<int> right = 0;
  for (int id = 0; id < 8; id++)
    threads.emplace_back([&, id] {
      for (int i = 0; i < 10; i++) {
        const std::string path = "/" + std::to_string(id) + "/" + std::to_string(i);
        exchange mine;
        mine.get(server.host(), path);
        right += mine.code == 0 && mine.body_text() == "GET " + path;
      }
    });
  for (std::thread &thread : threads)
    thread.join();
  EXPECT_EQ(right, 80);
}

}  // namespace
