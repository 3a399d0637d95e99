// Answers whose body the caller reads from the socket.
#include <fcntl.h>

#include <string>

#include "support/test_server.h"
#include "unit/http/http_exchange.h"

namespace {

using http_test::client_sockets;

class HttpStream : public http_test::fixture {};

TEST_F(HttpStream, SocketStandsAtTheFirstOctetOfTheBody) {
  support::test_server server({support::ok("hello world", "a/b; c")});
  call.get_stream(server.host(), "/");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(call.status, 200);
  EXPECT_EQ(call.content_length, 11);
  EXPECT_EQ(call.type_text(), "a/b");
  ASSERT_GE(call.sock, 0);
  EXPECT_EQ(call.rest_of_socket(), "hello world");
  EXPECT_LOG();
}

TEST_F(HttpStream, OfAPostStandsThereToo) {
  support::test_server server({support::ok("hello")});
  call.post_stream(server.host(), "/", "t", "request");
  EXPECT_EQ(call.code, 0);
  ASSERT_GE(call.sock, 0);
  EXPECT_EQ(call.rest_of_socket(), "hello");
}

TEST_F(HttpStream, AnyNonZeroFlagStreams) {
  support::test_server server({support::ok("hello")});
  call.host = server.host();
  call.code = send_http_get(call.host.data(), "/", &call.status, nullptr, &call.content_length,
                            nullptr, 0x80, nullptr, &call.sock);
  EXPECT_EQ(call.code, 0);
  ASSERT_GE(call.sock, 0);
  EXPECT_EQ(call.rest_of_socket(), "hello");
}

TEST_F(HttpStream, AnnouncedLengthDoesNotLimitTheSocket) {
  support::test_server server(
      {support::raw("HTTP/1.0 200 OK\r\nContent-Length: 3\r\n\r\nabc\r\n\r\ndef")});
  call.get_stream(server.host(), "/");
  EXPECT_EQ(call.content_length, 3);
  EXPECT_EQ(call.rest_of_socket(), "abc\r\n\r\ndef");
}

TEST_F(HttpStream, LengthNeedNotBeAnnounced) {
  support::test_server server({support::raw("HTTP/1.0 200 OK\r\n\r\nbody to the end")});
  call.get_stream(server.host(), "/");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(call.content_length, -1);
  EXPECT_EQ(call.rest_of_socket(), "body to the end");
  EXPECT_LOG();
}

TEST_F(HttpStream, BodyMayBeAboveTheLimitOfBuffers) {
  support::test_server server(
      {support::raw("HTTP/1.0 200 OK\r\nContent-Length: 67108865\r\n\r\nstart")});
  call.get_stream(server.host(), "/");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(call.content_length, 67108865);
  EXPECT_EQ(call.rest_of_socket(), "start");
}

TEST_F(HttpStream, BodyMayComeLater) {
  support::answer answer = support::ok("hello world");
  answer.chunk = answer.bytes.size() - 11;
  answer.pause_ms = 20;
  support::test_server server({answer});
  call.get_stream(server.host(), "/");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(call.rest_of_socket(), "hello world");
}

TEST_F(HttpStream, BodyCanBeReadWithATimeOut) {
  support::test_server server({support::ok("hello")});
  call.get_stream(server.host(), "/");
  char buffer[16];
  int error = 0;
  EXPECT_EQ(timed_read(call.sock, buffer, 2, 60000, &error), 2);
  EXPECT_EQ(std::string(buffer, 2), "he");
}

TEST_F(HttpStream, SocketBlocksAndIsClosedOnExec) {
  support::test_server server({support::ok("hello")});
  call.get_stream(server.host(), "/");
  ASSERT_GE(call.sock, 0);
  EXPECT_TRUE(fcntl(call.sock, F_GETFD) & FD_CLOEXEC);
  EXPECT_FALSE(fcntl(call.sock, F_GETFL) & O_NONBLOCK);
}

TEST_F(HttpStream, OtherStatusHandsOverNoSocket) {
  support::test_server server({support::status(404, "Content-Type: text/html\r\n", "not found")});
  call.get_stream(server.host(), "/");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(call.status, 404);
  EXPECT_EQ(call.content_length, 0);
  EXPECT_EQ(call.type_text(), "text/html");
  EXPECT_EQ(call.sock, -1);
  EXPECT_TRUE(client_sockets(server.port()).empty());
}

TEST_F(HttpStream, FailureHandsOverNoSocket) {
  support::test_server server({support::raw("HTTP/2 200 OK\r\n\r\n")});
  call.get_stream(server.host(), "/");
  EXPECT_EQ(call.code, 47);
  EXPECT_EQ(call.sock, -1);
  EXPECT_TRUE(client_sockets(server.port()).empty());
}

TEST_F(HttpStream, RedirectLeadsToTheLastSocket) {
  support::test_server target({support::ok("found")});
  support::test_server server({support::redirect(302, target.url("/b"))});
  call.get_stream(server.host(), "/a");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(call.status, 200);
  EXPECT_TRUE(client_sockets(server.port()).empty());
  EXPECT_EQ(client_sockets(target.port()).size(), 1u);
  EXPECT_EQ(call.rest_of_socket(), "found");
}

}  // namespace
