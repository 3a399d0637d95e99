#include <string>
#include <vector>

#include "support/test_server.h"
#include "unit/http/http_exchange.h"

namespace {

class HttpStatusLine : public http_test::fixture {
 protected:
  // Gets an answer with this status line and the body "ok".
  void get(const std::string &line) {
    clear_log();
    support::test_server server(
        {support::raw(line + "\r\nContent-Length: 2\r\nContent-Type: a/b\r\n\r\nok")});
    call.get(server.host(), "/");
  }
  void expect_status(const std::string &line, int status) {
    SCOPED_TRACE(line);
    get(line);
    EXPECT_EQ(call.code, 0);
    EXPECT_EQ(call.status, status);
    EXPECT_EQ(call.content_length, status == 200 ? 2 : 0);
    EXPECT_EQ(call.body != nullptr, status == 200);
    EXPECT_LOG();
  }
  void expect_invalid(const std::string &line) {
    SCOPED_TRACE(line);
    get(line);
    EXPECT_EQ(call.code, 47);
    EXPECT_EQ(call.body, nullptr);
    EXPECT_EQ(call.content_type, nullptr);
    EXPECT_LOG({3, "Invalid http response line: " + line});
  }
};

TEST_F(HttpStatusLine, HttpOneDotAnythingIsAccepted) {
  expect_status("HTTP/1.0 200 OK", 200);
  expect_status("HTTP/1.1 200 OK", 200);
  expect_status("HTTP/1.9 200 OK", 200);
  expect_status("HTTP/1.17beta 200 OK", 200);
}

TEST_F(HttpStatusLine, MinorVersionMayBeMissing) {
  expect_status("HTTP/1. 200", 200);
}

TEST_F(HttpStatusLine, ReasonMayBeMissing) {
  expect_status("HTTP/1.0 200", 200);
  expect_status("HTTP/1.0 200 ", 200);
}

TEST_F(HttpStatusLine, AnyWhiteSpaceStandsBeforeTheStatus) {
  expect_status("HTTP/1.0 \t   200 OK", 200);
  expect_status("HTTP/1.0\t200\tOK", 200);
}

TEST_F(HttpStatusLine, StatusIsTheNumberThatTheRestBeginsWith) {
  expect_status("HTTP/1.0 200OK", 200);
  expect_status("HTTP/1.0 404 Not 200 Found", 404);
  expect_status("HTTP/1.0 0200", 200);
  expect_status("HTTP/1.0 OK", 0);
}

TEST_F(HttpStatusLine, OtherProtocolsAreInvalid) {
  expect_invalid("HTTP/2 200 OK");
  expect_invalid("HTTP/2.0 200 OK");
  expect_invalid("HTTP/0.9 200 OK");
  expect_invalid("ICY 200 OK");
  expect_invalid("200 OK and more");
}

TEST_F(HttpStatusLine, PrefixIsComparedWithCase) {
  expect_invalid("http/1.0 200 OK");
  expect_invalid("Http/1.1 200 OK");
}

TEST_F(HttpStatusLine, PrefixStandsAtTheStart) {
  expect_invalid(" HTTP/1.0 200 OK");
}

TEST_F(HttpStatusLine, ShortLinesAreInvalid) {
  expect_invalid("");
  expect_invalid("H");
  expect_invalid("HTTP/1.");
}

TEST_F(HttpStatusLine, LinesThatEndBeforeTheStatusAreInvalid) {
  expect_invalid("HTTP/1.0");
  expect_invalid("HTTP/1.0 ");
  expect_invalid("HTTP/1.0 \t ");
  expect_invalid("HTTP/1.000000200");
}

TEST_F(HttpStatusLine, LineOfSixHundredNinetyNineCharactersIsLogged) {
  expect_invalid(std::string(699, 'z'));
}

TEST_F(HttpStatusLine, HugeStatusNumberIsNoSuccess) {
  get("HTTP/1.0 99999999999999999999999999");
  EXPECT_EQ(call.code, 0);
  EXPECT_NE(call.status, 200);
  EXPECT_EQ(call.body, nullptr);
}

TEST_F(HttpStatusLine, NulInsideIsInvalidOrHarmless) {
  get(std::string("HTTP/1.0\0 200 OK", 16));
  EXPECT_TRUE(call.code == 47 || call.status == 200) << call.code;
}

TEST_F(HttpStatusLine, BareLineFeedsAreAccepted) {
  support::test_server server({support::raw("HTTP/1.0 200 OK\nContent-Length: 2\n\nok")});
  call.get(server.host(), "/");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(call.body_text(), "ok");
}

TEST_F(HttpStatusLine, EveryOtherStatusIsGivenWithoutABody) {
  for (int status : {100, 199, 201, 204, 206, 299, 300, 304, 305, 306, 308, 400, 404, 500, 503}) {
    SCOPED_TRACE(status);
    support::test_server server(
        {support::status(status, "Location: http://127.0.0.1:1/\r\nContent-Type: a/b\r\n", "why")});
    call.get(server.host(), "/");
    EXPECT_EQ(call.code, 0);
    EXPECT_EQ(call.status, status);
    EXPECT_EQ(call.content_length, 0);
    EXPECT_EQ(call.body, nullptr);
    EXPECT_EQ(call.type_text(), "a/b");
    EXPECT_EQ(server.requests().size(), 1u);
  }
  EXPECT_LOG();
}

}  // namespace
