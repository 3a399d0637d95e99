#include "tools/pkilab/http_message.h"

#include <gtest/gtest.h>

namespace {

using pkilab::parse_head;

TEST(HttpHead, EmptyPathWithTwoBlanksIsTheRootPath) {
  auto parsed = parse_head("GET  HTTP/1.0\r\nHost: h\r\n\r\n");
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->target, "");
  EXPECT_EQ(parsed->path, "/");
}

TEST(HttpHead, QueryWithoutPathBelongsToTheRootPath) {
  auto parsed = parse_head("GET ?serial=SN-1 HTTP/1.0\r\n\r\n");
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->path, "/");
  EXPECT_EQ(parsed->query, "serial=SN-1");
}

TEST(HttpHead, TargetKeepsLineFeedsBlanksAndUnescapedCharacters) {
  std::string target = "/scep?operation=PKIOperation&message=AB+/=\nCD \"<>=\n";
  auto parsed = parse_head("GET " + target + " HTTP/1.0\r\nHost: h\r\n\r\n");
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->target, target);
  EXPECT_EQ(parsed->path, "/scep");
  EXPECT_EQ(parsed->query, target.substr(6));
}

TEST(HttpHead, VersionTextInsideTheTargetDoesNotEndIt) {
  auto parsed = parse_head("GET /a HTTP/1.0\nb HTTP/1.0\r\n\r\n");
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->target, "/a HTTP/1.0\nb");
}

TEST(HttpHead, QueryBeginsAtTheFirstQuestionMark) {
  auto parsed = parse_head("GET /p?a=1?serial=2 HTTP/1.0\r\n\r\n");
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->query, "a=1?serial=2");
}

TEST(HttpHead, HeadersAreFoundInAnyLetterCase) {
  auto parsed = parse_head("GET / HTTP/1.0\r\nAccept: (null)\r\nX-EMPTY:\r\n\r\n");
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->header("accept"), "(null)");
  EXPECT_EQ(parsed->header("x-empty"), "");
  EXPECT_EQ(parsed->header("host"), "");
}

TEST(HttpHead, EveryShorterHeadIsRefused) {
  std::string head = "POST /ocsp HTTP/1.1\r\nContent-Length: 3\r\n\r\n";
  ASSERT_TRUE(parse_head(head));
  for (size_t length = 0; length < head.size(); length++)
    EXPECT_FALSE(parse_head(head.substr(0, length))) << length;
}

TEST(HttpHead, MalformedHeadsAreRefused) {
  for (const char *head : {"GET / HTTP/2.0\r\n\r\n", "GET HTTP/1.0\r\n\r\n", " / HTTP/1.0\r\n\r\n",
                           "GET / HTTP/1.x\r\n\r\n", "GET / HTTP/1.0\r\nno colon\r\n\r\n",
                           "GET / HTTP/1.0\r\n: no name\r\n\r\n"})
    EXPECT_FALSE(parse_head(head)) << head;
}

TEST(HttpBodyLength, IsZeroWithoutTheHeaderAndNothingForText) {
  EXPECT_EQ(pkilab::body_length(*parse_head("GET / HTTP/1.0\r\n\r\n")), 0u);
  EXPECT_EQ(pkilab::body_length(*parse_head("GET / HTTP/1.0\r\nContent-Length: 12\r\n\r\n")), 12u);
  for (const char *value : {"-1", "1x", "x", "99999999999999999999999"})
    EXPECT_FALSE(pkilab::body_length(
        *parse_head("GET / HTTP/1.0\r\nContent-Length: " + std::string(value) + "\r\n\r\n")))
        << value;
}

TEST(HttpResponse, HeadCarriesTheLengthOnlyWhenAskedTo) {
  pkilab::response answer = pkilab::text_response(404, "gone");
  EXPECT_EQ(pkilab::head_text(answer, 5),
            "HTTP/1.0 404 Not Found\r\nServer: pkilab\r\nContent-Type: text/plain\r\n"
            "Content-Length: 5\r\n\r\n");
  EXPECT_EQ(pkilab::head_text(answer, std::nullopt).find("Content-Length"), std::string::npos);
}

}  // namespace
