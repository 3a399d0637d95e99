// Redirects at which the client stops, or fails.
#include <string>
#include <vector>

#include "support/test_server.h"
#include "unit/http/http_exchange.h"

namespace {

using http_test::client_sockets;
using http_test::plain_get;
using requests = std::vector<std::string>;

class HttpRedirectEnd : public http_test::fixture {
 protected:
  // The answer of `server`, a redirect, is the result of the call.
  void expect_end(const support::test_server &server, int status, const std::string &location) {
    EXPECT_EQ(call.code, 0);
    EXPECT_EQ(call.status, status);
    EXPECT_EQ(call.content_length, 0);
    EXPECT_EQ(call.body, nullptr);
    EXPECT_EQ(server.requests().size(), 1u);
    EXPECT_LOG({3, "Invalid or unsupported url in redirect: " + location});
    EXPECT_TRUE(client_sockets(server.port()).empty());
  }
  void expect_refused(const std::string &location) {
    SCOPED_TRACE(location);
    for (int status : {301, 302, 303, 307}) {
      clear_log();
      support::test_server server({support::redirect(status, location)});
      call.get(server.host(), "/");
      expect_end(server, status, location);
    }
  }
};

TEST_F(HttpRedirectEnd, OtherSchemes) {
  expect_refused("https://127.0.0.1/a");
  expect_refused("ftp://127.0.0.1/a");
  expect_refused("httpx://127.0.0.1/a");
  expect_refused("htt://127.0.0.1/a");
  expect_refused("://127.0.0.1/a");
}

TEST_F(HttpRedirectEnd, RelativeAndBrokenUrls) {
  expect_refused("/a");
  expect_refused("a");
  expect_refused("//127.0.0.1/a");
  expect_refused("http:/127.0.0.1/a");
  expect_refused("http:");
}

TEST_F(HttpRedirectEnd, NoLocation) {
  support::test_server server({support::status(302)});
  call.get(server.host(), "/");
  expect_end(server, 302, "");
}

TEST_F(HttpRedirectEnd, LocationWithoutAValue) {
  for (const char *line : {"Location:\r\n", "Location: \r\n"}) {
    clear_log();
    support::test_server server({support::status(301, line)});
    call.get(server.host(), "/");
    expect_end(server, 301, "");
  }
}

TEST_F(HttpRedirectEnd, LocationOfAnEarlierAnswerIsForgotten) {
  support::test_server second({support::status(307)});
  support::test_server first({support::redirect(302, second.url("/b"))});
  call.get(first.host(), "/a");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(call.status, 307);
  EXPECT_EQ(second.requests(), requests{plain_get(second.host(), "/b")});
  EXPECT_LOG({7, "Redirecting to url '" + second.url("/b") + "'"},
             {3, "Invalid or unsupported url in redirect: "});
}

TEST_F(HttpRedirectEnd, StreamingCallHandsOverNoSocket) {
  support::test_server server({support::redirect(302, "https://127.0.0.1/a")});
  call.get_stream(server.host(), "/");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(call.status, 302);
  EXPECT_EQ(call.content_length, 0);
  EXPECT_EQ(call.sock, -1);
}

TEST_F(HttpRedirectEnd, TypeIsKeptForTheCaller) {
  support::test_server server(
      {support::status(302, "Content-Type: text/html\r\nLocation: https://x/\r\n", "moved")});
  call.get(server.host(), "/");
  EXPECT_EQ(call.status, 302);
  EXPECT_EQ(call.type_text(), "text/html");
}

TEST_F(HttpRedirectEnd, TwentyInARow) {
  for (int status : {301, 302, 303, 307}) {
    SCOPED_TRACE(status);
    support::test_server server([&](const std::string &) {
      return support::status(
          status, "Content-Type: text/html\r\nLocation: " + server.url("/next") + "\r\n", "moved");
    });
    call.get(server.host(), "/first");
    EXPECT_EQ(call.code, 0);
    EXPECT_EQ(call.status, status);
    EXPECT_EQ(call.content_length, 0);
    EXPECT_EQ(call.type_text(), "text/html");
    EXPECT_EQ(call.body, nullptr);
    EXPECT_EQ(server.requests().size(), 20u);
    EXPECT_TRUE(client_sockets(server.port()).empty());
    call.get_stream(server.host(), "/first");
    EXPECT_EQ(call.code, 0);
    EXPECT_EQ(call.status, status);
    EXPECT_EQ(call.sock, -1);
    EXPECT_EQ(server.requests().size(), 40u);
  }
  EXPECT_FALSE(logged_containing(3, ""));
}

// A URL of `length` characters at this server.
std::string url_of_length(const support::test_server &server, size_t length) {
  std::string url = server.url("/path/");
  return url + std::string(length - url.size(), 'p');
}

TEST_F(HttpRedirectEnd, LocationOfAHundredCharactersIsKept) {
  support::test_server target({support::ok("found")});
  const std::string url = url_of_length(target, 100);
  support::test_server server({support::redirect(302, url)});
  call.get(server.host(), "/a");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(target.requests(),
            requests{plain_get(target.host(), url.substr(target.url("").size()))});
  EXPECT_LOG({7, "Redirecting to url '" + url + "'"});
}

TEST_F(HttpRedirectEnd, LongerLocationIsCutToAHundredCharacters) {
  for (size_t length : {101u, 150u, 600u}) {
    clear_log();
    support::test_server target({support::ok("found")});
    const std::string cut = url_of_length(target, length).substr(0, 100);
    support::test_server server({support::redirect(302, url_of_length(target, length))});
    call.get(server.host(), "/a");
    EXPECT_EQ(call.code, 0);
    EXPECT_EQ(target.requests(),
              requests{plain_get(target.host(), cut.substr(target.url("").size()))});
    EXPECT_LOG({7, "Redirecting to url '" + cut + "'"});
  }
}

TEST_F(HttpRedirectEnd, CutLocationIsLoggedAsItIsParsed) {
  const std::string location = "https://" + std::string(200, 'h');
  support::test_server server({support::redirect(302, location)});
  call.get(server.host(), "/");
  expect_end(server, 302, location.substr(0, 100));
}

TEST_F(HttpRedirectEnd, ToAPortWhereNobodyListens) {
  const std::string host = "127.0.0.1:" + std::to_string(support::unused_port());
  support::test_server server({support::redirect(302, "http://" + host + "/b")});
  call.get(server.host(), "/a");
  EXPECT_EQ(call.code, 47);
  EXPECT_EQ(call.status, 302);
  EXPECT_EQ(call.body, nullptr);
  EXPECT_EQ(call.content_type, nullptr);
  EXPECT_LOG({7, "Redirecting to url 'http://" + host + "/b'"},
             {3, "Error connecting to " + host + ": Connection refused"});
}

TEST_F(HttpRedirectEnd, TypeAndLengthAreForgottenEvenIfTheNextConnectionFails) {
  const std::string host = "127.0.0.1:" + std::to_string(support::unused_port());
  support::test_server server({support::status(
      302, "Content-Type: text/html\r\nLocation: http://" + host + "/b\r\n", "moved")});
  call.get(server.host(), "/a");
  EXPECT_EQ(call.code, 47);
  EXPECT_EQ(call.content_length, -1);
  EXPECT_EQ(call.content_type, nullptr);
}

TEST_F(HttpRedirectEnd, TypeAndLengthAreForgottenEvenIfTheNextAnswerFails) {
  support::test_server target({support::raw("")});
  support::test_server server({support::status(
      302, "Content-Type: text/html\r\nLocation: " + target.url("/b") + "\r\n", "moved")});
  call.get(server.host(), "/a");
  EXPECT_EQ(call.code, 48);
  EXPECT_EQ(call.content_length, -1);
  EXPECT_EQ(call.content_type, nullptr);
}

TEST_F(HttpRedirectEnd, StatusIsTheRedirectsUntilTheNextAnswerHasOne) {
  const std::string nobody = "127.0.0.1:" + std::to_string(support::unused_port());
  support::test_server silent({support::raw("")});
  support::test_server half({support::raw("HTTP/1.0 200")});
  support::test_server answering({support::raw("HTTP/1.0 200 OK\r\n")});
  const struct {
    std::string host;
    int code, status;
  } hops[] = {
      {nobody, 47, 0},      {"127.0.0.1:65536", 47, 0},  {silent.host(), 48, 0},
      {half.host(), 48, 0}, {answering.host(), 48, 200},
  };
  for (const auto &hop : hops)
    for (int status : {301, 302, 303, 307}) {
      SCOPED_TRACE(hop.host + " " + std::to_string(status));
      support::test_server server({support::redirect(status, "http://" + hop.host + "/b")});
      call.get(server.host(), "/a");
      EXPECT_EQ(call.code, hop.code);
      EXPECT_EQ(call.status, hop.status ? hop.status : status);
    }
}

TEST_F(HttpRedirectEnd, ToAPortOutOfRange) {
  support::test_server server({support::redirect(302, "http://127.0.0.1:65536/b")});
  call.get(server.host(), "/a");
  EXPECT_EQ(call.code, 47);
  EXPECT_EQ(server.requests().size(), 1u);
}

TEST_F(HttpRedirectEnd, ToAHostThatIsNotFound) {
  fake_failures::resolve("gone.example", {});
  support::test_server server({support::redirect(302, "http://gone.example/b")});
  call.get(server.host(), "/a");
  EXPECT_EQ(call.code, 47);
  EXPECT_TRUE(logged_containing(3, "Error getting hostname-info for gone.example: "));
}

TEST_F(HttpRedirectEnd, ToAServerThatAnswersBadly) {
  support::test_server target({support::raw("HTTP/2 200 OK\r\n\r\n")});
  support::test_server server({support::redirect(302, target.url("/b"))});
  call.get(server.host(), "/a");
  EXPECT_EQ(call.code, 47);
  EXPECT_TRUE(was_logged(3, "Invalid http response line: HTTP/2 200 OK"));
}

TEST_F(HttpRedirectEnd, HostOfTheCallerIsCutOnlyOnce) {
  support::test_server target({support::ok("found")});
  support::test_server server({support::redirect(302, target.url("/b"))});
  const std::string port = std::to_string(server.port());
  call.get(server.host(), "/a");
  EXPECT_EQ(call.host, std::string("127.0.0.1\0", 10) + port);
}

}  // namespace
