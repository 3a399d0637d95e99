// Redirects that are followed.
#include <string>
#include <vector>

#include "support/test_server.h"
#include "unit/http/http_exchange.h"

namespace {

using http_test::agent;
using http_test::plain_get;
using http_test::plain_post;
using requests = std::vector<std::string>;

class HttpRedirect : public http_test::fixture {};

// Answers "/a" with a redirect of this status to "/b", and everything else with "found".
struct one_hop {
  explicit one_hop(int status)
      : server([this, status](const std::string &request) {
          return request.find(" /a ") == std::string::npos
                     ? support::ok("found", "a/b")
                     : support::redirect(status, server.url("/b"));
        }) {}
  support::test_server server;
};

TEST_F(HttpRedirect, GetIsRepeatedAtTheNewPlace) {
  for (int status : {301, 302, 303, 307}) {
    SCOPED_TRACE(status);
    clear_log();
    one_hop hop(status);
    call.get(hop.server.host(), "/a");
    EXPECT_EQ(call.code, 0);
    EXPECT_EQ(call.status, 200);
    EXPECT_EQ(call.type_text(), "a/b");
    EXPECT_EQ(call.body_text(), "found");
    EXPECT_EQ(hop.server.requests(),
              (requests{plain_get(hop.server.host(), "/a"), plain_get(hop.server.host(), "/b")}));
    EXPECT_LOG({7, "Redirecting to url '" + hop.server.url("/b") + "'"});
    EXPECT_TRUE(http_test::client_sockets(hop.server.port()).empty());
  }
}

TEST_F(HttpRedirect, AcceptValueIsSentAgain) {
  one_hop hop(302);
  call.get(hop.server.host(), "/a", "text/x");
  EXPECT_EQ(hop.server.requests().at(1), "GET /b HTTP/1.0\r\nHost: " + hop.server.host() + "\r\n" +
                                             agent + "Accept: text/x\r\n\r\n");
}

TEST_F(HttpRedirect, LeadsToAnotherServer) {
  support::test_server target({support::ok("found")});
  support::test_server server({support::redirect(301, target.url("/x?y=z"))});
  call.get(server.host(), "/a");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(call.body_text(), "found");
  EXPECT_EQ(server.requests(), requests{plain_get(server.host(), "/a")});
  EXPECT_EQ(target.requests(), requests{plain_get(target.host(), "/x?y=z")});
}

TEST_F(HttpRedirect, NewPlaceMayHaveNoPath) {
  support::test_server target({support::ok("found")});
  support::test_server server({support::redirect(301, target.url(""))});
  call.get(server.host(), "/a");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(target.requests(), requests{plain_get(target.host(), "")});
}

TEST_F(HttpRedirect, NewPlaceMayBeAnIpv6Address) {
  support::test_server target({support::ok("found")}, true);
  support::test_server server({support::redirect(301, target.url("/b"))});
  call.get(server.host(), "/a");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(target.requests(), requests{plain_get(target.host(), "/b")});
}

TEST_F(HttpRedirect, SchemeIsComparedWithoutCase) {
  support::test_server target({support::ok("found")});
  support::test_server server({support::redirect(301, "HtTp://" + target.host() + "/b")});
  call.get(server.host(), "/a");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(call.body_text(), "found");
  EXPECT_LOG({7, "Redirecting to url 'HtTp://" + target.host() + "/b'"});
}

TEST_F(HttpRedirect, LocationIsFoundWithoutCaseAndBehindWhiteSpace) {
  support::test_server target({support::ok("found")});
  for (const char *name : {"location:", "LOCATION: \t ", "Location:  "}) {
    SCOPED_TRACE(name);
    support::test_server server({support::status(302, name + target.url("/b") + "\r\n")});
    call.get(server.host(), "/a");
    EXPECT_EQ(call.body_text(), "found");
  }
}

TEST_F(HttpRedirect, LastOfRepeatedLocationsHolds) {
  support::test_server target({support::ok("found")});
  support::test_server server({support::status(
      302, "Location: http://127.0.0.1:1/longer/than/the/other/one/that/follows\r\nLocation: " +
               target.url("/b") + "\r\n")});
  call.get(server.host(), "/a");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(target.requests(), requests{plain_get(target.host(), "/b")});
}

TEST_F(HttpRedirect, BodyOfTheRedirectIsLeft) {
  support::test_server target({support::ok("found")});
  support::test_server server({support::status(302, "Location: " + target.url("/b") + "\r\n",
                                               "HTTP/1.0 404 Not found\r\n\r\n")});
  call.get(server.host(), "/a");
  EXPECT_EQ(call.body_text(), "found");
}

TEST_F(HttpRedirect, FoundPostBecomesAGetThatAnnouncesNoBody) {
  for (int status : {302, 303}) {
    SCOPED_TRACE(status);
    one_hop hop(status);
    call.post(hop.server.host(), "/a", "text/x", "body");
    EXPECT_EQ(call.code, 0);
    EXPECT_EQ(call.body_text(), "found");
    EXPECT_EQ(hop.server.requests(),
              (requests{plain_post(hop.server.host(), "/a", "text/x", "body"),
                        "GET /b HTTP/1.0\r\n"
                        "Host: " +
                            hop.server.host() +
                            "\r\n"
                            "User-Agent: ZelvoPKI/3.7\r\n"
                            "Accept: (null)\r\n"
                            "Content-Type: text/x\r\n"
                            "Content-Length: 0\r\n"
                            "\r\n"}));
  }
}

TEST_F(HttpRedirect, FoundPostWithoutATypeAnnouncesTheLengthOnly) {
  one_hop hop(302);
  call.post(hop.server.host(), "/a", nullptr, "body");
  EXPECT_EQ(hop.server.requests().at(1), "GET /b HTTP/1.0\r\nHost: " + hop.server.host() + "\r\n" +
                                             agent + "Accept: (null)\r\nContent-Length: 0\r\n\r\n");
}

TEST_F(HttpRedirect, FoundPostWithoutABodyBecomesAPlainGet) {
  one_hop hop(303);
  call.host = hop.server.host();
  call.code = send_http_post(call.host.data(), "/a", "text/x", nullptr, 0, &call.status,
                             &call.content_length, &call.content_type, 0, &call.body, nullptr);
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(hop.server.requests().at(1), plain_get(hop.server.host(), "/b"));
}

TEST_F(HttpRedirect, MovedPostIsSentAgainWithItsBody) {
  for (int status : {301, 307}) {
    SCOPED_TRACE(status);
    one_hop hop(status);
    call.post(hop.server.host(), "/a", "text/x", "body");
    EXPECT_EQ(call.code, 0);
    EXPECT_EQ(call.body_text(), "found");
    EXPECT_EQ(hop.server.requests(),
              (requests{plain_post(hop.server.host(), "/a", "text/x", "body"),
                        plain_post(hop.server.host(), "/b", "text/x", "body")}));
  }
}

TEST_F(HttpRedirect, PostThatBecameAGetStaysOne) {
  support::test_server target({support::ok("found")});
  support::test_server second({support::redirect(307, target.url("/c"))});
  support::test_server first({support::redirect(302, second.url("/b"))});
  call.post(first.host(), "/a", "text/x", "body");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(target.requests(),
            requests{"GET /c HTTP/1.0\r\nHost: " + target.host() + "\r\n" + agent +
                     "Accept: (null)\r\nContent-Type: text/x\r\nContent-Length: 0\r\n\r\n"});
}

TEST_F(HttpRedirect, TypeOfTheRedirectIsForgotten) {
  support::test_server target({support::raw("HTTP/1.0 200 OK\r\nContent-Length: 2\r\n\r\nok")});
  support::test_server server({support::status(
      302, "Content-Type: text/html\r\nLocation: " + target.url("/b") + "\r\n", "moved")});
  call.get(server.host(), "/a");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(call.body_text(), "ok");
  EXPECT_EQ(call.content_type, nullptr);
}

TEST_F(HttpRedirect, LengthOfTheRedirectIsForgotten) {
  support::test_server target({support::raw("HTTP/1.0 200 OK\r\n\r\nunannounced")});
  support::test_server server(
      {support::status(302, "Location: " + target.url("/b") + "\r\n", "moved")});
  call.get(server.host(), "/a");
  EXPECT_EQ(call.code, 47);
  EXPECT_EQ(call.body, nullptr);
  EXPECT_TRUE(was_logged(3, "Won't buffer http response with indeterminate length"));
  call.get_stream(server.host(), "/a");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(call.content_length, -1);
  EXPECT_EQ(call.rest_of_socket(), "unannounced");
}

TEST_F(HttpRedirect, NineteenInARowAreFollowed) {
  support::test_server server([&](const std::string &) {
    return server.requests().size() <= 19 ? support::redirect(302, server.url("/next"))
                                          : support::ok("found");
  });
  call.get(server.host(), "/first");
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(call.status, 200);
  EXPECT_EQ(call.body_text(), "found");
  EXPECT_EQ(server.requests().size(), 20u);
  EXPECT_EQ(count_logged(7, "Redirecting to url '" + server.url("/next") + "'"), 19u);
}

}  // namespace
