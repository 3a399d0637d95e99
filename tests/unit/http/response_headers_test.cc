#include <climits>
#include <string>

#include "support/test_server.h"
#include "unit/http/http_exchange.h"

namespace {

class HttpHeaders : public http_test::fixture {
 protected:
  // Gets an answer of status 200 with these header lines.
  void get(const std::string &lines, const std::string &body = "0123456789") {
    support::test_server server({support::raw("HTTP/1.0 200 OK\r\n" + lines + "\r\n" + body)});
    call.get(server.host(), "/");
  }
  void get_stream(const std::string &lines) {
    support::test_server server({support::raw("HTTP/1.0 200 OK\r\n" + lines + "\r\n")});
    call.get_stream(server.host(), "/");
  }
  // The media type that comes of this line.
  std::string type_of(const std::string &line) {
    get(line + "\r\nContent-Length: 2\r\n");
    EXPECT_EQ(call.code, 0) << line;
    return call.type_text();
  }
  // The announced length that comes of this line, without a look at the body.
  int length_of(const std::string &line) {
    get_stream(line + "\r\n");
    EXPECT_EQ(call.code, 0) << line;
    return call.content_length;
  }
};

TEST_F(HttpHeaders, TypeEndsAtABlankOrSemicolon) {
  EXPECT_EQ(type_of("Content-Type: application/pkix-crl"), "application/pkix-crl");
  EXPECT_EQ(type_of("Content-Type: text/html; charset=utf-8"), "text/html");
  EXPECT_EQ(type_of("Content-Type: text/html;charset=utf-8"), "text/html");
  EXPECT_EQ(type_of("Content-Type: text/html charset"), "text/html");
  EXPECT_EQ(type_of("Content-Type: a;b;c d"), "a");
}

TEST_F(HttpHeaders, WhiteSpaceBehindTheNameIsSkipped) {
  EXPECT_EQ(type_of("Content-Type:a/b"), "a/b");
  EXPECT_EQ(type_of("Content-Type: \t  a/b"), "a/b");
  EXPECT_EQ(length_of("Content-Length:5"), 5);
  EXPECT_EQ(length_of("Content-Length: \t 5"), 5);
}

TEST_F(HttpHeaders, NamesAreComparedWithoutCase) {
  EXPECT_EQ(type_of("cONTENT-tYPE: A/b"), "A/b");
  EXPECT_EQ(type_of("content-type: A/b"), "A/b");
  EXPECT_EQ(length_of("content-LENGTH: 5"), 5);
}

TEST_F(HttpHeaders, NamesWithoutAValueAreIgnored) {
  EXPECT_EQ(type_of("Content-Type:"), "(null)");
  EXPECT_EQ(length_of("Content-Length:"), -1);
}

TEST_F(HttpHeaders, TypeOfBlanksOnlyIsEmpty) {
  EXPECT_EQ(type_of("Content-Type: "), "");
  EXPECT_EQ(type_of("Content-Type: ;x"), "");
}

TEST_F(HttpHeaders, OtherLinesAreIgnored) {
  get("Server: Content-Length: 3\r\n"
      "X-Content-Type: a/b\r\n"
      "Content-Length : 3\r\n"
      " Content-Length: 3\r\n"
      "no colon at all\r\n"
      ":\r\n"
      "Content-Length: 4\r\n");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(call.body_text(), "0123");
  EXPECT_EQ(call.content_type, nullptr);
}

TEST_F(HttpHeaders, LastOfRepeatedLinesHolds) {
  get("Content-Type: a/first\r\nContent-Length: 3\r\n"
      "Content-Type: a/second\r\nContent-Length: 5\r\nContent-Type: a/third; x\r\n");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(call.type_text(), "a/third");
  EXPECT_EQ(call.body_text(), "01234");
}

TEST_F(HttpHeaders, MissingLinesGiveNullAndMinusOne) {
  get_stream("Server: x\r\n");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(call.status, 200);
  EXPECT_EQ(call.content_type, nullptr);
  EXPECT_EQ(call.content_length, -1);
}

TEST_F(HttpHeaders, LengthIsTheNumberThatTheValueBeginsWith) {
  EXPECT_EQ(length_of("Content-Length: 12"), 12);
  EXPECT_EQ(length_of("Content-Length: 12abc"), 12);
  EXPECT_EQ(length_of("Content-Length: +12"), 12);
  EXPECT_EQ(length_of("Content-Length: 0012"), 12);
  EXPECT_EQ(length_of("Content-Length: 0x12"), 0);
  EXPECT_EQ(length_of("Content-Length: many"), 0);
}

TEST_F(HttpHeaders, LengthIsClamped) {
  EXPECT_EQ(length_of("Content-Length: 2147483647"), INT_MAX);
  EXPECT_EQ(length_of("Content-Length: 2147483648"), INT_MAX);
  EXPECT_EQ(length_of("Content-Length: 4294967301"), INT_MAX);
  EXPECT_EQ(length_of("Content-Length: 99999999999999999999999999"), INT_MAX);
}

TEST_F(HttpHeaders, NegativeLengthCountsAsNotAnnounced) {
  EXPECT_EQ(length_of("Content-Length: -1"), -1);
  EXPECT_EQ(length_of("Content-Length: -2147483649"), -1);
  EXPECT_EQ(length_of("Content-Length: -4294967291"), -1);
  EXPECT_EQ(length_of("Content-Length: -99999999999999999999999999"), -1);
  clear_log();
  get("Content-Length: -5\r\n");
  EXPECT_EQ(call.code, 47);
  EXPECT_EQ(call.body, nullptr);
  EXPECT_LOG({3, "Won't buffer http response with indeterminate length"});
}

TEST_F(HttpHeaders, LengthThatWasReadStaysWhenALaterLineFails) {
  const std::string too_long = std::string(700, 'x') + "\r\n";
  const struct {
    std::string lines;
    int length;
  } heads[] = {
      {"Content-Length: 12\r\n", 12},
      {"Content-Length: 0\r\n", 0},
      {"Content-Length: 12\r\nContent-Length: 13\r\n", 13},
      {"Content-Length: 99999999999999999999\r\n", INT_MAX},
      {"Content-Length: -12\r\n", -1},
      {"Content-Length: 12\r\nContent-Length: -13\r\n", -1},
      {"Server: x\r\n", -1},
  };
  for (const auto &head : heads) {
    SCOPED_TRACE(head.lines);
    get(head.lines + too_long);
    EXPECT_EQ(call.code, 48);
    EXPECT_EQ(call.status, 200);
    EXPECT_EQ(call.content_length, head.length);
    get_stream(head.lines + too_long);
    EXPECT_EQ(call.code, 48);
    EXPECT_EQ(call.content_length, head.length);
    EXPECT_EQ(call.sock, -1);
  }
}

TEST_F(HttpHeaders, LengthThatWasReadStaysWhenTheConnectionEnds) {
  support::test_server server({support::raw("HTTP/1.0 200 OK\r\nContent-Length: 12\r\nServ")});
  call.get(server.host(), "/");
  EXPECT_EQ(call.code, 48);
  EXPECT_EQ(call.content_length, 12);
}

TEST_F(HttpHeaders, NulInsideALineIsHarmless) {
  get(std::string("Content-Type: a\0b\r\nContent-Length: 4\0 9\r\n", 41));
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(call.body_text(), "0123");
}

TEST_F(HttpHeaders, CarriageReturnsInsideALineAreDropped) {
  get("Content-\rType: a/\rb\r\r\nContent-Length: \r4\r\r\n\r\r");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(call.type_text(), "a/b");
  EXPECT_EQ(call.body_text(), "0123");
}

TEST_F(HttpHeaders, FailureKeepsTheTypeForTheCaller) {
  get("Content-Type: a/b\r\n");
  EXPECT_EQ(call.code, 47);
  EXPECT_EQ(call.type_text(), "a/b");
  get("Content-Type: a/b\r\nContent-Length: 50\r\n");
  EXPECT_EQ(call.code, 47);
  EXPECT_EQ(call.type_text(), "a/b");
  get("Content-Type: a/b\r\n" + std::string(700, 'x') + "\r\n");
  EXPECT_EQ(call.code, 48);
  EXPECT_EQ(call.type_text(), "a/b");
}

}  // namespace
