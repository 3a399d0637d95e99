// Heads that are too long, end too early, or never end.
#include <string>

#include "support/test_server.h"
#include "unit/http/http_exchange.h"

namespace {

constexpr size_t head_limit = 64 * 1024;
const std::string first_line = "HTTP/1.0 200 OK\r\n";
const std::string announced = "Content-Length: 2\r\n";

class HttpHead : public http_test::fixture {
 protected:
  void get(const std::string &bytes) {
    support::test_server server({support::raw(bytes)});
    call.get(server.host(), "/");
  }
  void expect_ok() {
    EXPECT_EQ(call.code, 0);
    EXPECT_EQ(call.body_text(), "ok");
    EXPECT_LOG();
  }
  void expect_unread(const std::string &line) {
    EXPECT_EQ(call.code, 48);
    EXPECT_EQ(call.body, nullptr);
    EXPECT_EQ(call.content_type, nullptr);
    EXPECT_LOG({3, line});
  }
};

// Header lines of `size` octets in all, at most 500 each.
std::string filler(size_t size) {
  std::string lines;
  while (size > 0) {
    size_t take = size > 600 ? 500 : size > 500 ? size / 2 : size;
    lines += std::string(take - 2, 'f') + "\r\n";
    size -= take;
  }
  return lines;
}

TEST_F(HttpHead, StatusLineOfSixHundredNinetyNineCharactersIsRead) {
  const std::string line = "HTTP/1.0 200 ";
  get(line + std::string(699 - line.size(), 'x') + "\r\n" + announced + "\r\nok");
  expect_ok();
}

TEST_F(HttpHead, StatusLineOfSevenHundredCharactersIsNot) {
  const std::string line = "HTTP/1.0 200 ";
  get(line + std::string(700 - line.size(), 'x') + "\r\n" + announced + "\r\nok");
  expect_unread("Error reading http response line: Invalid argument");
}

TEST_F(HttpHead, HeaderLineOfSixHundredNinetyNineCharactersIsRead) {
  get(first_line + std::string(699, 'x') + "\r\n" + announced + "\r\nok");
  expect_ok();
}

TEST_F(HttpHead, HeaderLineOfSevenHundredCharactersIsNot) {
  get(first_line + std::string(700, 'x') + "\r\n" + announced + "\r\nok");
  expect_unread("Error reading http header line: Invalid argument");
}

TEST_F(HttpHead, CarriageReturnsDoNotCountInALine) {
  get(first_line + std::string(690, 'x') + std::string(1000, '\r') + "\r\n" + announced + "\r\nok");
  expect_ok();
}

TEST_F(HttpHead, LongestValuesAreRead) {
  const std::string type(699 - 14, 't');
  get(first_line + "Content-Type: " + type + "\r\n" + announced + "\r\nok");
  expect_ok();
  EXPECT_EQ(call.type_text(), type);
}

TEST_F(HttpHead, SixtyFourKibibytesAreRead) {
  get(first_line + announced + filler(head_limit - first_line.size() - announced.size() - 2) +
      "\r\nok");
  expect_ok();
}

TEST_F(HttpHead, OneOctetMoreIsNot) {
  get(first_line + announced + filler(head_limit + 1 - first_line.size() - announced.size() - 2) +
      "\r\nok");
  expect_unread("Error reading http header line: Invalid argument");
}

TEST_F(HttpHead, CarriageReturnsCountInTheHead) {
  get(first_line + announced + "X: " + std::string(head_limit, '\r') + "\r\n\r\nok");
  expect_unread("Error reading http header line: Invalid argument");
}

TEST_F(HttpHead, CarriageReturnsOfManyLinesAddUp) {
  std::string lines;
  for (int i = 0; i < 7; i++)
    lines += "X: " + std::string(10000, '\r') + "\r\n";
  get(first_line + announced + lines + "\r\nok");
  expect_unread("Error reading http header line: Invalid argument");
}

TEST_F(HttpHead, EndlessCarriageReturnsInTheStatusLineAreNotRead) {
  get("HTTP/1.0" + std::string(head_limit, '\r') + " 200 OK\r\n" + announced + "\r\nok");
  expect_unread("Error reading http response line: Invalid argument");
}

TEST_F(HttpHead, EndlessHeaderLinesAreNotRead) {
  get(first_line + announced + filler(1 << 20) + "\r\nok");
  expect_unread("Error reading http header line: Invalid argument");
}

TEST_F(HttpHead, EachAnswerOfAChainMayBeLong) {
  support::test_server *self = nullptr;
  support::test_server server([&](const std::string &request) {
    if (request.find("GET /next ") == 0)
      return support::raw(first_line + announced + filler(40000) + "\r\nok");
    return support::raw("HTTP/1.0 302 Found\r\nLocation: " + self->url("/next") + "\r\n" +
                        filler(40000) + "\r\n");
  });
  self = &server;
  call.get(server.host(), "/");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(call.body_text(), "ok");
}

TEST_F(HttpHead, ConnectionClosedWithoutAnAnswer) {
  get("");
  expect_unread("Error reading http response line: Transport endpoint is not connected");
}

TEST_F(HttpHead, ConnectionClosedInsideAHeaderLine) {
  get(first_line + "Content-Len");
  expect_unread("Error reading http header line: Transport endpoint is not connected");
}

TEST_F(HttpHead, ConnectionClosedBeforeTheEmptyLine) {
  get(first_line + announced);
  expect_unread("Error reading http header line: Transport endpoint is not connected");
}

TEST_F(HttpHead, ConnectionResetWithoutAnAnswer) {
  support::answer answer = support::raw("");
  answer.reset = true;
  support::test_server server({answer});
  call.get(server.host(), "/");
  expect_unread("Error reading http response line: Connection reset by peer");
}

TEST_F(HttpHead, StreamingCallFailsAlike) {
  support::test_server server({support::raw(first_line + announced)});
  call.get_stream(server.host(), "/");
  EXPECT_EQ(call.code, 48);
  EXPECT_EQ(call.sock, -1);
  EXPECT_LOG({3, "Error reading http header line: Transport endpoint is not connected"});
}

// Cut at every octet, the answer gives the failure of the step that it was cut in.
TEST_F(HttpHead, EveryTruncationIsAFailure) {
  const std::string head = first_line + "Content-Type: a/b\r\n" + announced + "\r\n";
  const std::string whole = head + "ok";
  for (size_t length = 0; length < whole.size(); length++) {
    SCOPED_TRACE(length);
    clear_log();
    get(whole.substr(0, length));
    EXPECT_EQ(call.code, length < head.size() ? 48 : 47);
    EXPECT_EQ(call.body, nullptr);
    const char *step = length < first_line.size() ? "Error reading http response line: "
                       : length < head.size()     ? "Error reading http header line: "
                                                  : "truncated http response: ";
    EXPECT_TRUE(logged_containing(3, step)) << log_dump();
  }
}

}  // namespace
