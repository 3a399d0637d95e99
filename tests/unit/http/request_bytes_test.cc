// What arrives at the server, compared octet by octet.
#include <string>
#include <vector>

#include "support/test_server.h"
#include "unit/http/http_exchange.h"

namespace {

using http_test::agent;
using http_test::plain_get;
using http_test::plain_post;
using requests = std::vector<std::string>;

class HttpRequest : public http_test::fixture {};

TEST_F(HttpRequest, GetWithAnAcceptValue) {
  support::test_server server({support::ok("x")});
  call.get(server.host(), "/ca?op=1&b=2", "application/pkix-crl,*/*");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(server.requests(), requests{"GET /ca?op=1&b=2 HTTP/1.0\r\n"
                                        "Host: " +
                                        server.host() +
                                        "\r\n"
                                        "User-Agent: ZelvoPKI/3.7\r\n"
                                        "Accept: application/pkix-crl,*/*\r\n"
                                        "\r\n"});
  EXPECT_LOG();
}

TEST_F(HttpRequest, GetWithoutAnAcceptValuePrintsNull) {
  support::test_server server({support::ok("x")});
  call.get(server.host(), "/a");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(server.requests(), requests{"GET /a HTTP/1.0\r\n"
                                        "Host: " +
                                        server.host() +
                                        "\r\n"
                                        "User-Agent: ZelvoPKI/3.7\r\n"
                                        "Accept: (null)\r\n"
                                        "\r\n"});
}

TEST_F(HttpRequest, EmptyAcceptValueIsSentEmpty) {
  support::test_server server({support::ok("x")});
  call.get(server.host(), "/a", "");
  EXPECT_EQ(server.requests(), requests{"GET /a HTTP/1.0\r\nHost: " + server.host() + "\r\n" +
                                        agent + "Accept: \r\n\r\n"});
}

TEST_F(HttpRequest, EmptyPathGivesTwoBlanks) {
  support::test_server server({support::ok("x")});
  call.get(server.host(), "");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(server.requests(), requests{plain_get(server.host(), "")});
  EXPECT_EQ(server.requests()[0].substr(0, 14), "GET  HTTP/1.0\r");
}

TEST_F(HttpRequest, StreamingGetSendsTheSame) {
  support::test_server server({support::ok("x")});
  call.get_stream(server.host(), "/a", "text/x");
  EXPECT_EQ(server.requests(), requests{"GET /a HTTP/1.0\r\nHost: " + server.host() + "\r\n" +
                                        agent + "Accept: text/x\r\n\r\n"});
}

TEST_F(HttpRequest, PostSendsTypeLengthAndBodyButNoAccept) {
  support::test_server server({support::ok("x")});
  call.post(server.host(), "/ocsp", "application/ocsp-request", "body");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(server.requests(), requests{"POST /ocsp HTTP/1.0\r\n"
                                        "Host: " +
                                        server.host() +
                                        "\r\n"
                                        "User-Agent: ZelvoPKI/3.7\r\n"
                                        "Content-Type: application/ocsp-request\r\n"
                                        "Content-Length: 4\r\n"
                                        "\r\n"
                                        "body"});
  EXPECT_LOG();
}

TEST_F(HttpRequest, StreamingPostSendsTheSame) {
  support::test_server server({support::ok("x")});
  call.post_stream(server.host(), "/a", "text/x", "body");
  EXPECT_EQ(server.requests(), requests{plain_post(server.host(), "/a", "text/x", "body")});
}

TEST_F(HttpRequest, PostWithoutATypeSendsTheLengthOnly) {
  support::test_server server({support::ok("x")});
  call.post(server.host(), "/a", nullptr, "body");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(server.requests(), requests{"POST /a HTTP/1.0\r\nHost: " + server.host() + "\r\n" +
                                        agent + "Content-Length: 4\r\n\r\nbody"});
}

TEST_F(HttpRequest, PostOfAnEmptyBodyStillAnnouncesIt) {
  support::test_server server({support::ok("x")});
  call.post(server.host(), "/a", "text/x", "");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(server.requests(), requests{plain_post(server.host(), "/a", "text/x", "")});
}

TEST_F(HttpRequest, PostWithoutABodyAnnouncesNothing) {
  support::test_server server({support::ok("x")});
  call.host = server.host();
  call.code = send_http_post(call.host.data(), "/a", "text/x", nullptr, 0, &call.status,
                             &call.content_length, &call.content_type, 0, &call.body, nullptr);
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(server.requests(),
            requests{"POST /a HTTP/1.0\r\nHost: " + server.host() + "\r\n" + agent + "\r\n"});
}

TEST_F(HttpRequest, BodyIsSentOctetByOctet) {
  std::string octets;
  for (int i = 0; i < 1024; i++)
    octets += static_cast<char>(i);
  support::test_server server({support::ok("x")});
  call.post(server.host(), "/a", "text/x", octets);
  EXPECT_EQ(server.requests(), requests{plain_post(server.host(), "/a", "text/x", octets)});
}

TEST_F(HttpRequest, TargetOfAHundredThousandCharactersArrivesWhole) {
  const std::string path = "/scep?message=" + std::string(100000, 'M');
  support::test_server server({support::ok("x")});
  call.get(server.host(), path);
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(call.body_text(), "x");
  ASSERT_EQ(server.requests().size(), 1u);
  EXPECT_TRUE(server.requests()[0] == plain_get(server.host(), path));
}

TEST_F(HttpRequest, HeadOfEveryLengthAroundSevenHundredIsSentWhole) {
  support::test_server server({support::ok("x")});
  for (size_t length = 560; length < 720; length++) {
    const std::string path(length, 'p');
    call.get(server.host(), path);
    ASSERT_EQ(call.code, 0);
    ASSERT_EQ(server.requests().back(), plain_get(server.host(), path));
  }
}

TEST_F(HttpRequest, LongAcceptAndTypeArriveWhole) {
  const std::string value(5000, 'v');
  support::test_server server({support::ok("x")});
  call.get(server.host(), "/a", value.c_str());
  EXPECT_EQ(server.requests().back(), "GET /a HTTP/1.0\r\nHost: " + server.host() + "\r\n" + agent +
                                          "Accept: " + value + "\r\n\r\n");
  call.post(server.host(), "/a", value.c_str(), "b");
  EXPECT_EQ(server.requests().back(), plain_post(server.host(), "/a", value, "b"));
}

TEST_F(HttpRequest, PercentSignsAreNoFormats) {
  support::test_server server({support::ok("x")});
  call.get(server.host(), "/%s%n%%41", "%s%n");
  EXPECT_EQ(server.requests(), requests{"GET /%s%n%%41 HTTP/1.0\r\nHost: " + server.host() +
                                        "\r\n" + agent + "Accept: %s%n\r\n\r\n"});
}

TEST_F(HttpRequest, ParsedUrlCanBeUsedAsItIs) {
  support::test_server server({support::ok("found")});
  char *copy, *host, *path;
  ASSERT_EQ(parse_url(server.url("/x?y").c_str(), &copy, &host, &path), 0);
  call.code = send_http_get(host, path, &call.status, nullptr, &call.content_length,
                            &call.content_type, 0, &call.body, nullptr);
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(call.body_text(), "found");
  EXPECT_EQ(server.requests(), requests{plain_get(server.host(), "/x?y")});
  free(copy);
}

TEST_F(HttpRequest, PortIsCutOffTheHostInPlace) {
  support::test_server server({support::ok("x")});
  call.get(server.host(), "/a");
  EXPECT_STREQ(call.host.c_str(), "127.0.0.1");
}

TEST_F(HttpRequest, HostNameIsResolvedAndSentAsGiven) {
  support::test_server server({support::ok("x")});
  fake_failures::resolve("ca.example", {"127.0.0.1"});
  const std::string host = "ca.example:" + std::to_string(server.port());
  call.get(host, "/a");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(server.requests(), requests{plain_get(host, "/a")});
}

}  // namespace
