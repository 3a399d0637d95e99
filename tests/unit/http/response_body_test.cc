// Bodies that are held in memory.
#include <string>

#include "support/test_server.h"
#include "unit/http/http_exchange.h"

namespace {

using http_test::client_sockets;

class HttpBody : public http_test::fixture {
 protected:
  void get(const std::string &lines, const std::string &body) {
    support::test_server server({support::raw("HTTP/1.0 200 OK\r\n" + lines + "\r\n" + body)});
    call.get(server.host(), "/");
    EXPECT_TRUE(client_sockets(server.port()).empty()) << "the connection stayed open";
  }
};

TEST_F(HttpBody, IsReadWhole) {
  get("Content-Type: a/b; c\r\nContent-Length: 11\r\n", "hello world");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(call.status, 200);
  EXPECT_EQ(call.content_length, 11);
  EXPECT_EQ(call.type_text(), "a/b");
  EXPECT_EQ(call.body_text(), "hello world");
  EXPECT_LOG();
}

TEST_F(HttpBody, OfAPostIsReadWhole) {
  support::test_server server({support::ok("hello", "x/y")});
  call.post(server.host(), "/", "t", "request");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(call.status, 200);
  EXPECT_EQ(call.type_text(), "x/y");
  EXPECT_EQ(call.body_text(), "hello");
}

TEST_F(HttpBody, MayHoldAnyOctets) {
  std::string octets;
  for (int i = 0; i < 4096; i++)
    octets += static_cast<char>(i);
  get("Content-Length: 4096\r\n", octets);
  EXPECT_EQ(call.body_text(), octets);
}

TEST_F(HttpBody, OctetsBehindTheAnnouncedLengthAreLeft) {
  get("Content-Length: 3\r\n", "abcdef");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(call.content_length, 3);
  EXPECT_EQ(call.body_text(), "abc");
  EXPECT_LOG();
}

TEST_F(HttpBody, OfManyMegabytesIsReadWhole) {
  std::string octets(20 << 20, 'x');
  for (size_t i = 0; i < octets.size(); i += 4093)
    octets[i] = static_cast<char>(i);
  get("Content-Length: " + std::to_string(octets.size()) + "\r\n", octets);
  EXPECT_EQ(call.code, 0);
  EXPECT_TRUE(call.body_text() == octets);
}

TEST_F(HttpBody, OfLengthZeroIsABuffer) {
  get("Content-Length: 0\r\n", "");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(call.status, 200);
  EXPECT_EQ(call.content_length, 0);
  EXPECT_NE(call.body, nullptr);
  EXPECT_LOG();
}

TEST_F(HttpBody, WithoutAnAnnouncedLengthIsRefused) {
  get("Content-Type: a/b\r\n", "body");
  EXPECT_EQ(call.code, 47);
  EXPECT_EQ(call.status, 200);
  EXPECT_EQ(call.body, nullptr);
  EXPECT_LOG({3, "Won't buffer http response with indeterminate length"});
}

TEST_F(HttpBody, CutShortIsRefused) {
  get("Content-Length: 10\r\n", "1234567");
  EXPECT_EQ(call.code, 47);
  EXPECT_EQ(call.status, 200);
  EXPECT_EQ(call.body, nullptr);
  EXPECT_LOG({3,
              "truncated http response: got 7 bytes but expected 10 bytes: "
              "Transport endpoint is not connected"});
}

TEST_F(HttpBody, MissingAltogetherIsRefused) {
  get("Content-Length: 10\r\n", "");
  EXPECT_EQ(call.code, 47);
  EXPECT_EQ(call.body, nullptr);
  EXPECT_LOG({3,
              "truncated http response: got 0 bytes but expected 10 bytes: "
              "Transport endpoint is not connected"});
}

TEST_F(HttpBody, CutShortByAResetIsRefused) {
  support::answer answer = support::raw("HTTP/1.0 200 OK\r\nContent-Length: 10\r\n\r\n");
  answer.reset = true;
  support::test_server server({answer});
  call.get(server.host(), "/");
  EXPECT_EQ(call.code, 47);
  EXPECT_EQ(call.body, nullptr);
  EXPECT_LOG({3,
              "truncated http response: got 0 bytes but expected 10 bytes: "
              "Connection reset by peer"});
}

TEST_F(HttpBody, OfSixtyFourMebibytesIsTaken) {
  get("Content-Length: 67108864\r\n", "abc");
  EXPECT_EQ(call.code, 47);
  EXPECT_EQ(call.body, nullptr);
  EXPECT_LOG({3,
              "truncated http response: got 3 bytes but expected 67108864 bytes: "
              "Transport endpoint is not connected"});
}

TEST_F(HttpBody, AboveSixtyFourMebibytesIsOutOfMemory) {
  for (const char *length : {"67108865", "2147483647", "99999999999999999999"}) {
    SCOPED_TRACE(length);
    get(std::string("Content-Length: ") + length + "\r\n", "abc");
    EXPECT_EQ(call.code, 2);
    EXPECT_EQ(call.status, 200);
    EXPECT_EQ(call.body, nullptr);
    EXPECT_LOG();
  }
}

TEST_F(HttpBody, OfAnotherStatusIsNotRead) {
  support::test_server server({support::status(404, "Content-Type: text/html\r\n", "not found")});
  call.get(server.host(), "/");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(call.status, 404);
  EXPECT_EQ(call.content_length, 0);
  EXPECT_EQ(call.type_text(), "text/html");
  EXPECT_EQ(call.body, nullptr);
  EXPECT_TRUE(client_sockets(server.port()).empty());
  EXPECT_LOG();
}

TEST_F(HttpBody, OfASlowServerIsReadWhole) {
  support::answer answer = support::ok("hello world", "a/b");
  answer.chunk = 1;
  answer.pause_ms = 1;
  support::test_server server({answer});
  call.get(server.host(), "/");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(call.type_text(), "a/b");
  EXPECT_EQ(call.body_text(), "hello world");
}

TEST_F(HttpBody, ComesOutTheSameHoweverTheAnswerIsSplit) {
  support::answer answer = support::ok("hello world", "a/b");
  answer.pause_ms = 1;
  for (answer.chunk = 2; answer.chunk < answer.bytes.size(); answer.chunk++) {
    SCOPED_TRACE(answer.chunk);
    support::test_server server({answer});
    call.get(server.host(), "/");
    EXPECT_EQ(call.code, 0);
    EXPECT_EQ(call.type_text(), "a/b");
    EXPECT_EQ(call.body_text(), "hello world");
  }
}

}  // namespace
