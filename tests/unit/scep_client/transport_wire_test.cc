// send_scep_msg: the request's octets, and the answer that comes back.
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "unit/scep_client/scep_fixture.h"

namespace {

using support::answer;
using support::pkcs7;
using support::scep_ca;
using support::test_server;

class ScepWire : public support::store_test {
 protected:
  // The code of sending `sent` to `url`; the body stays in `body`.
  int send(const pkcs7 &sent, const std::string &url) {
    void *octets = &octets;
    int length = -77;
    int code = send_scep_msg(sent.get(), url.c_str(), &octets, &length);
    if (code != PKI_OK) {
      EXPECT_EQ(octets, nullptr);
      return code;
    }
    body.assign(static_cast<char *>(octets), static_cast<size_t>(length));
    free(octets);
    return code;
  }
  // The target of a message sent to `path` of a server.
  std::string target_for(const pkcs7 &sent, const std::string &path) {
    test_server server({support::ok("fine")});
    EXPECT_EQ(send(sent, server.url(path)), PKI_OK) << log_dump();
    std::string head = server.requests().at(0);
    size_t end = head.find(" HTTP/1.0\r\n");
    return head.substr(0, 4) == "GET " && end != std::string::npos ? head.substr(4, end - 4) : "";
  }

  pkcs7 message = support::make_data(std::string(300, '\xfb'));
  std::string body;
};

const std::string query = "?operation=PKIOperation&message=";

TEST_F(ScepWire, TargetIsPathQueryAndBase64InLines) {
  EXPECT_EQ(target_for(message, "/cgi-bin/pkiclient.exe"),
            "/cgi-bin/pkiclient.exe" + query + support::base64_lines(support::der(message)));
}

TEST_F(ScepWire, Base64HasALineFeedAfterEach64CharactersAndAtTheEnd) {
  std::string text = target_for(message, "/").substr(1 + query.size());
  EXPECT_EQ(text.back(), '\n');
  std::istringstream lines(text);
  std::string joined;
  for (std::string line; std::getline(lines, line); joined += line)
    EXPECT_TRUE(line.size() == 64 || lines.peek() == EOF) << line;
  EXPECT_EQ(joined.find('\r'), std::string::npos);
  EXPECT_EQ(support::decode_base64(joined), support::der(message));
}

TEST_F(ScepWire, LastLineOfExactly64CharactersHasOneLineFeed) {
  // 48 octets of DER are one full line, 96 are two.
  for (size_t lines : {1u, 2u, 5u}) {
    size_t filler = 48 * lines;
    while (support::der(support::make_data(std::string(filler, 'x'))).size() > 48 * lines)
      filler--;
    pkcs7 exact = support::make_data(std::string(filler, 'x'));
    ASSERT_EQ(support::der(exact).size(), 48 * lines);
    std::string text = target_for(exact, "/").substr(1 + query.size());
    EXPECT_EQ(text.size(), 65 * lines);
    EXPECT_EQ(text, support::base64_lines(support::der(exact)));
  }
}

TEST_F(ScepWire, PlusSlashAndEqualsAreNotEscaped) {
  std::string text;
  for (char filler : {'\xfb', '\xff', '\xfe'})
    for (size_t size : {100u, 101u, 102u})
      text += target_for(support::make_data(std::string(size, filler)), "/");
  for (const char *plain : {"+", "/", "="})
    EXPECT_NE(text.find(plain), std::string::npos) << plain;
  EXPECT_EQ(text.find('%'), std::string::npos);
}

TEST_F(ScepWire, QueryOfTheUrlStaysInFrontOfOurs) {
  EXPECT_EQ(target_for(message, "/scep?ca=1"),
            "/scep?ca=1" + query + support::base64_lines(support::der(message)));
}

TEST_F(ScepWire, UrlWithoutAPathGivesATargetThatStartsWithTheQuery) {
  EXPECT_EQ(target_for(message, ""), query + support::base64_lines(support::der(message)));
}

TEST_F(ScepWire, HeadIsThatOfAnyGetWithoutAnAcceptValue) {
  test_server server({support::ok("fine")});
  ASSERT_EQ(send(message, server.url("/x")), PKI_OK);
  EXPECT_EQ(server.requests().at(0), "GET /x" + query +
                                         support::base64_lines(support::der(message)) +
                                         " HTTP/1.0\r\nHost: " + server.host() +
                                         "\r\nUser-Agent: ZelvoPKI/3.7\r\nAccept: (null)\r\n\r\n");
}

TEST_F(ScepWire, MessageOf100KilobytesArrivesWhole) {
  pkcs7 big = support::make_data(std::string(100000, 'x'));
  EXPECT_EQ(target_for(big, "/"), "/" + query + support::base64_lines(support::der(big)));
}

TEST_F(ScepWire, BodyOfTheAnswerComesBackOctetByOctet) {
  const std::string octets("a\0b\r\n\xff", 6);
  test_server server({support::ok(octets)});
  ASSERT_EQ(send(message, server.url()), PKI_OK);
  EXPECT_EQ(body, octets);
  EXPECT_EQ(captured_log(), support::log_lines());
}

TEST_F(ScepWire, EmptyBodyIsABody) {
  test_server server({support::ok("")});
  body = "before";
  EXPECT_EQ(send(message, server.url()), PKI_OK);
  EXPECT_EQ(body, "");
}

TEST_F(ScepWire, MessageAndUrlStayAsTheyWere) {
  test_server server({support::ok("fine")});
  std::string before = support::der(message);
  std::string url = server.url("/path");
  ASSERT_EQ(send(message, url), PKI_OK);
  EXPECT_EQ(support::der(message), before);
  EXPECT_EQ(url, server.url("/path"));
}

TEST_F(ScepWire, RedirectIsFollowed) {
  test_server target({support::ok("there")});
  test_server server({support::redirect(302, target.url("/moved"))});
  ASSERT_EQ(send(message, server.url()), PKI_OK);
  EXPECT_EQ(body, "there");
  EXPECT_EQ(target.requests().at(0).rfind("GET /moved HTTP/1.0\r\n", 0), 0u);
}

TEST_F(ScepWire, MessageThatCannotBeEncodedIsOutOfMemory) {
  pkcs7 hollow(PKCS7_new(), PKCS7_free);
  test_server server({support::ok("fine")});
  EXPECT_EQ(send(hollow, server.url()), PKI_OUT_OF_MEMORY);
  EXPECT_TRUE(server.requests().empty());
}

}  // namespace
