// The OCSP room's manners: methods, types, bad requests and bad options.
#include <gtest/gtest.h>
#include <libpki/libpki.h>

#include "lab_fixture.h"
#include "ocsp_client.h"
#include "raw_http.h"
#include "tools/common/failure.h"
#include "tools/common/text.h"
#include "tools/pkilab/ocsp_options.h"

namespace {

using tool_test::body_of;
using tool_test::exchange;
using tool_test::post_ocsp;
using tool_test::the_lab;

class ocsp_http_test : public testing::Test {
 protected:
  void SetUp() override {
    const pkilab::ca &keys = the_lab().lab.keys();
    tools::cert_ptr cert = tool_test::issue_cert(keys, keys.issuing());
    tool_test::ocsp_request_ptr made =
        tool_test::make_ocsp_request(cert.get(), keys.issuing().cert.get());
    request_ = tool_test::ocsp_request_der(made.get());
  }

  std::string post(const std::string &query, const std::string &body) {
    return post_ocsp(the_lab().lab.port(), query, body);
  }
  std::string post(const std::string &query = "") { return post(query, request_); }
  std::string get(const std::string &path) {
    return exchange(the_lab().lab.port(), "GET " + path + " HTTP/1.0\r\n\r\n");
  }
  std::string base64() {
    std::string text = tools::base64_lines(request_);
    std::erase(text, '\n');
    return text;
  }

  std::string request_;
};

const std::string malformed_request("\x30\x03\x0A\x01\x01", 5);

void expect_response(const std::string &answer) {
  EXPECT_TRUE(answer.starts_with("HTTP/1.0 200 OK\r\n")) << answer;
  EXPECT_NE(answer.find("\r\nContent-Type: application/ocsp-response\r\n"), std::string::npos);
  std::string status = body_of(answer).substr(4, 3);  // behind a tag and a length of three octets
  EXPECT_EQ(status, std::string("\x0A\x01\x00", 3));
}

void expect_refused(const std::string &answer, const std::string &text) {
  EXPECT_TRUE(answer.starts_with("HTTP/1.0 400 ")) << answer;
  EXPECT_EQ(body_of(answer), text + "\n");
}

TEST_F(ocsp_http_test, TakesAPost) {
  expect_response(post());
}

TEST_F(ocsp_http_test, TakesAPostOfOurOwnClientWithAQuery) {
  std::string url = the_lab().lab.url("/ocsp?response-status=3&nonce=none");
  char *copy = nullptr;
  char *host = nullptr;
  char *path = nullptr;
  ASSERT_EQ(parse_url(url.c_str(), &copy, &host, &path), PKI_OK);
  int status = 0;
  int length = 0;
  char *type = nullptr;
  void *body = nullptr;
  EXPECT_EQ(
      send_http_post(host, path, "application/ocsp-request", request_.data(),
                     static_cast<int>(request_.size()), &status, &length, &type, 0, &body, nullptr),
      PKI_OK);
  EXPECT_EQ(status, 200);
  EXPECT_STREQ(type, "application/ocsp-response");
  EXPECT_EQ(std::string(static_cast<char *>(body), static_cast<size_t>(length)),
            std::string("\x30\x03\x0A\x01\x03", 5));
  free(copy);
  free(type);
  free(body);
}

TEST_F(ocsp_http_test, TakesAGetWithAndWithoutEscapes) {
  expect_response(get("/ocsp/" + base64()));
  std::string escaped;
  for (char character : base64())
    escaped += isalnum(static_cast<unsigned char>(character))
                   ? std::string(1, character)
                   : "%" + tools::hex(std::string(1, character));
  expect_response(get("/ocsp/" + escaped));
}

TEST_F(ocsp_http_test, TakesOptionsInTheQueryOfAGet) {
  EXPECT_EQ(body_of(get("/ocsp/" + base64() + "?response-status=3")),
            std::string("\x30\x03\x0A\x01\x03", 5));
}

TEST_F(ocsp_http_test, RefusesAGetThatIsNoBase64) {
  expect_refused(get("/ocsp/AAA"), "the path's request is no base64");
}

TEST_F(ocsp_http_test, RefusesAPostOfAnotherType) {
  std::string answer = post_ocsp(the_lab().lab.port(), "", request_, "text/plain");
  EXPECT_TRUE(answer.starts_with("HTTP/1.0 415 ")) << answer;
  EXPECT_EQ(body_of(answer), "the Content-Type is not application/ocsp-request\n");
}

TEST_F(ocsp_http_test, AnswersWhatIsNoRequestWithMalformedRequest) {
  EXPECT_EQ(body_of(post("", "")), malformed_request);
  EXPECT_EQ(body_of(post("", "nonsense")), malformed_request);
  EXPECT_EQ(body_of(get("/ocsp/AAAA")), malformed_request);
  EXPECT_EQ(body_of(post("", std::string("\x30\x04\x30\x02\x30\x00", 6))), malformed_request);
}

TEST_F(ocsp_http_test, SurvivesEveryTruncationAndChangedOctet) {
  for (size_t length = 0; length < request_.size(); length++)
    EXPECT_EQ(body_of(post("", request_.substr(0, length))), malformed_request) << length;
  for (size_t at = 0; at < request_.size(); at++) {
    std::string changed = request_;
    changed[at] = static_cast<char>(changed[at] ^ 0x55);
    EXPECT_TRUE(post("", changed).starts_with("HTTP/1.0 200 ")) << at;
  }
}

TEST_F(ocsp_http_test, StatusAndTypeCanBeAny) {
  EXPECT_TRUE(post("?http-status=503").starts_with("HTTP/1.0 503 "));
  EXPECT_NE(post("?content-type=text/html").find("\r\nContent-Type: text/html\r\n"),
            std::string::npos);
  EXPECT_EQ(post("?content-type=").find("Content-Type"), std::string::npos);
  // No line of its own can be smuggled into the head.
  EXPECT_NE(post("?content-type=a%0D%0Ab").find("\r\nContent-Type: a??b\r\n"), std::string::npos);
}

TEST_F(ocsp_http_test, TakesSeveralOptionsAndSkipsEmptyOnes) {
  std::string answer = post("?&http-status=201&&response-status=6&");
  EXPECT_TRUE(answer.starts_with("HTTP/1.0 201 "));
  EXPECT_EQ(body_of(answer), std::string("\x30\x03\x0A\x01\x06", 5));
}

TEST_F(ocsp_http_test, RefusesBadOptionsWithOneLine) {
  expect_refused(post("?nothing"),
                 "there is no OCSP option 'nothing'; pkilab serve --help lists"
                 " them");
  expect_refused(post("?status=bad"),
                 "OCSP option 'status': 'bad' is not one of good, revoked, unknown");
  expect_refused(post("?status"), "OCSP option 'status' needs a value: status=STATUS");
  expect_refused(post("?no-cert=1"), "OCSP option 'no-cert' takes no value");
  expect_refused(post("?others=-1"),
                 "OCSP option 'others': '-1' is not a number from 0 to 1000000");
  expect_refused(post("?response-type=x"),
                 "OCSP option 'response-type': 'x' is not an object identifier as in 1.2.3.4");
  expect_refused(post("?digest=x"),
                 "OCSP option 'digest': 'x' is not a digest that OpenSSL knows; try SHA1");
}

TEST_F(ocsp_http_test, RoomIsInTheIndex) {
  std::string index = body_of(get("/"));
  EXPECT_NE(index.find("POST /ocsp  "), std::string::npos);
  EXPECT_NE(index.find("GET /ocsp/  "), std::string::npos);
}

}  // namespace
