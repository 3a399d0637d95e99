#include "tools/pkilab/http_server.h"

#include <gtest/gtest.h>
#include <libpki/http.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <thread>

#include "raw_http.h"
#include "tools/common/failure.h"
#include "tools/pkilab/http_routes.h"
#include "tools/pkilab/misbehave.h"

namespace {

using tool_test::exchange;
using tool_test::raw_client;

class test_server {
 public:
  test_server(const pkilab::listener_options &options, pkilab::server::responder respond,
              size_t max_threads)
      : listener_(options), server_(listener_, std::move(respond), max_threads) {}

  std::string authority() const { return listener_.authority(); }
  int port() const { return listener_.port(); }
  void stop() { server_.stop(); }

 private:
  pkilab::listener listener_;
  pkilab::server server_;
};

void echo(const pkilab::request &asked, pkilab::connection &peer) {
  pkilab::response answer;
  answer.body = asked.method + "|" + asked.target + "|" + asked.body;
  pkilab::send_response(answer, peer);
}

// Answers every request with its method, target and body, one a line.
std::unique_ptr<test_server> echo_server(size_t max_threads = 8) {
  return std::make_unique<test_server>(pkilab::listener_options(), echo, max_threads);
}

std::string echoed(const test_server &server, const std::string &request) {
  return tool_test::body_of(exchange(server.port(), request));
}

TEST(HttpServer, UnderstandsTheLibrarysClientToTheLetter) {
  auto server = echo_server();
  std::string host = server->authority();
  std::string path = "/scep?operation=PKIOperation&message=AB+/=\nCD==\n";
  int status = 0;
  int length = 0;
  void *body = nullptr;
  ASSERT_EQ(send_http_get(host.data(), path.c_str(), &status, nullptr, &length, nullptr, 0, &body,
                          nullptr),
            0);
  EXPECT_EQ(status, 200);
  EXPECT_EQ(std::string(static_cast<char *>(body), static_cast<size_t>(length)),
            "GET|" + path + "|");
  free(body);
}

TEST(HttpServer, UnderstandsTheLibrarysClientWithAnEmptyPath) {
  auto server = echo_server();
  std::string host = server->authority();
  int status = 0;
  int length = 0;
  void *body = nullptr;
  ASSERT_EQ(send_http_get(host.data(), "", &status, nullptr, &length, nullptr, 0, &body, nullptr),
            0);
  EXPECT_EQ(std::string(static_cast<char *>(body), static_cast<size_t>(length)), "GET||");
  free(body);
}

TEST(HttpServer, ReadsTheBodyOfAPost) {
  auto server = echo_server();
  EXPECT_EQ(echoed(*server, "POST /ocsp HTTP/1.0\r\nContent-Length: 5\r\n\r\nab\r\n!"),
            "POST|/ocsp|ab\r\n!");
}

TEST(HttpServer, TakesARequestThatArrivesOctetByOctet) {
  auto server = echo_server();
  raw_client client(server->port());
  for (char octet : std::string("POST /p HTTP/1.0\r\nContent-Length: 2\r\n\r\nxy"))
    client.send(std::string(1, octet));
  EXPECT_EQ(tool_test::body_of(client.receive_all()), "POST|/p|xy");
}

TEST(HttpServer, TakesATargetOfManyKilobytes) {
  auto server = echo_server();
  std::string target = "/scep?message=" + std::string(100000, 'A') + "\n";
  EXPECT_EQ(echoed(*server, "GET " + target + " HTTP/1.0\r\n\r\n"), "GET|" + target + "|");
}

TEST(HttpServer, RefusesWhatItCannotRead) {
  auto server = echo_server();
  EXPECT_TRUE(exchange(server->port(), "nonsense\r\n\r\n").starts_with("HTTP/1.0 400 "));
  EXPECT_TRUE(exchange(server->port(), "POST / HTTP/1.0\r\nContent-Length: -1\r\n\r\n")
                  .starts_with("HTTP/1.0 400 "));
  EXPECT_TRUE(exchange(server->port(), "POST / HTTP/1.0\r\nContent-Length: 9999999\r\n\r\n")
                  .starts_with("HTTP/1.0 413 "));
  EXPECT_TRUE(
      exchange(server->port(), "GET /" + std::string(300000, 'a')).starts_with("HTTP/1.0 431 "));
}

TEST(HttpServer, GoesOnAfterAPeerThatLeavesInTheMiddle) {
  auto server = echo_server(1);
  { raw_client(server->port()).send("GET / HT"); }
  EXPECT_EQ(echoed(*server, "GET /next HTTP/1.0\r\n\r\n"), "GET|/next|");
}

TEST(HttpServer, ServesMoreConnectionsThanItHasThreads) {
  auto server = echo_server(2);
  std::vector<std::thread> clients;
  std::atomic<int> served = 0;
  for (int i = 0; i < 24; i++)
    clients.emplace_back([&] {
      if (echoed(*server, "GET /x HTTP/1.0\r\n\r\n") == "GET|/x|")
        served++;
    });
  for (std::thread &client : clients)
    client.join();
  EXPECT_EQ(served, 24);
}

TEST(HttpServer, StopEndsConnectionsThatWait) {
  auto server = echo_server(2);
  raw_client reading(server->port());
  reading.send("GET / HT");
  raw_client waiting(server->port());
  server->stop();
  EXPECT_EQ(reading.receive_all(), "");
  server->stop();  // again: nothing left to do
}

TEST(HttpServer, TellsThatItsPortIsTaken) {
  auto first = echo_server();
  pkilab::listener_options options;
  options.port = first->port();
  try {
    pkilab::listener second(options);
    FAIL() << "two servers on one port";
  } catch (const tools::failure &error) {
    EXPECT_EQ(std::string(error.what()),
              "cannot listen on 127.0.0.1 port " + std::to_string(first->port()) +
                  ": Address already in use; choose another port, or 0 for any free one");
  }
}

TEST(HttpServer, ConnectionsWaitForItBehindTheListener) {
  pkilab::listener listener{pkilab::listener_options()};
  raw_client client(listener.port());
  client.send("GET /early HTTP/1.0\r\n\r\n");
  pkilab::server server(listener, echo);
  EXPECT_EQ(tool_test::body_of(client.receive_all()), "GET|/early|");
}

TEST(HttpServer, ServesIpv6) {
  pkilab::listener_options options;
  options.bind = "::1";
  std::unique_ptr<test_server> server;
  try {
    server = std::make_unique<test_server>(
        options,
        [](const pkilab::request &asked, pkilab::connection &peer) {
          pkilab::send_response(pkilab::text_response(200, asked.authority), peer);
        },
        1);
  } catch (const tools::failure &) {
    GTEST_SKIP() << "this machine has no IPv6 loopback";
  }
  std::string host = server->authority();
  EXPECT_EQ(host, "[::1]:" + std::to_string(server->port()));
  int status = 0;
  int length = 0;
  void *body = nullptr;
  ASSERT_EQ(send_http_get(std::string(host).data(), "/", &status, nullptr, &length, nullptr, 0,
                          &body, nullptr),
            0);
  EXPECT_EQ(std::string(static_cast<char *>(body), static_cast<size_t>(length)), host + "\n");
  free(body);
}

TEST(HttpServer, WantsANumericAddress) {
  pkilab::listener_options options;
  options.bind = "some.host.invalid";
  EXPECT_THROW(pkilab::listener{options}, tools::usage_failure);
}

pkilab::request get(const std::string &target) {
  pkilab::request asked;
  asked.method = "GET";
  pkilab::set_target(&asked, target);
  return asked;
}

pkilab::handler says(const std::string &text) {
  return [text](const pkilab::request &) { return pkilab::text_response(200, text); };
}

TEST(HttpRoutes, FindExactPathsAndFolders) {
  pkilab::route_table routes;
  routes.add({"GET", "/crl/", "", says("crl")});
  routes.add({"GET", "/ocsp", "", says("ocsp")});
  EXPECT_EQ(routes.answer(get("/crl/root.crl?x=1")).body, "crl\n");
  EXPECT_EQ(routes.answer(get("/ocsp")).body, "ocsp\n");
  EXPECT_EQ(routes.answer(get("/ocsp/more")).status, 404);
  EXPECT_EQ(routes.answer(get("/crl")).status, 404);
}

TEST(HttpRoutes, TellWrongMethodFromWrongPath) {
  pkilab::route_table routes;
  routes.add({"POST", "/ocsp", "", says("ocsp")});
  EXPECT_EQ(routes.answer(get("/ocsp")).status, 405);
  EXPECT_EQ(routes.answer(get("/")).status, 404);
}

TEST(HttpRoutes, TurnWhatAHandlerThrowsIntoA500) {
  pkilab::route_table routes;
  routes.add({"GET", "/", "", [](const pkilab::request &) -> pkilab::response {
                throw tools::failure("no such key");
              }});
  pkilab::response answer = routes.answer(get("/"));
  EXPECT_EQ(answer.status, 500);
  EXPECT_EQ(answer.body, "no such key\n");
}

}  // namespace
