// From a host name to a connection.
#include <netdb.h>

#include <cerrno>
#include <string>
#include <vector>

#include "support/test_server.h"
#include "unit/http/http_exchange.h"

namespace {

using http_test::plain_get;
using requests = std::vector<std::string>;

class HttpAddress : public http_test::fixture {
 protected:
  // "ca.example", at these addresses.
  std::string named(const std::vector<std::string> &addresses, int port) {
    fake_failures::resolve("ca.example", addresses);
    return "ca.example:" + std::to_string(port);
  }
  void expect_answered(const support::test_server &server) {
    EXPECT_EQ(call.code, 0);
    EXPECT_EQ(call.status, 200);
    EXPECT_EQ(call.body_text(), "found");
    EXPECT_EQ(server.requests().size(), 1u);
    EXPECT_LOG();  // also when another address was tried in vain before
  }
};

TEST_F(HttpAddress, Ipv4) {
  support::test_server server({support::ok("found")});
  call.get(named({"127.0.0.1"}, server.port()), "/a");
  expect_answered(server);
}

TEST_F(HttpAddress, Ipv6) {
  support::test_server server({support::ok("found")}, true);
  call.get(named({"::1"}, server.port()), "/a");
  expect_answered(server);
}

TEST_F(HttpAddress, BracketedIpv6) {
  support::test_server server({support::ok("found")}, true);
  ASSERT_EQ(server.host(), "[::1]:" + std::to_string(server.port()));
  call.get(server.host(), "/a");
  expect_answered(server);
  EXPECT_EQ(server.requests(), requests{plain_get(server.host(), "/a")});
}

TEST_F(HttpAddress, FirstOneThatAnswersIsUsed) {
  support::test_server server({support::ok("found")});
  http_test::silent_listener other(16, "127.0.0.2", server.port());
  call.get(named({"127.0.0.1", "127.0.0.2"}, server.port()), "/a");
  expect_answered(server);
  EXPECT_FALSE(other.has_connection());
}

TEST_F(HttpAddress, DeadOneIsPassedOver) {
  support::test_server server({support::ok("found")});
  call.get(named({"127.0.0.2", "127.0.0.1"}, server.port()), "/a");
  expect_answered(server);
}

TEST_F(HttpAddress, SeveralDeadOnesArePassedOver) {
  support::test_server server({support::ok("found")});
  call.get(named({"127.0.0.2", "::1", "127.0.0.3", "127.0.0.1", "127.0.0.4"}, server.port()), "/a");
  expect_answered(server);
}

TEST_F(HttpAddress, DeadIpv6IsPassedOverForIpv4) {
  support::test_server server({support::ok("found")});
  call.get(named({"::1", "127.0.0.1"}, server.port()), "/a");
  expect_answered(server);
}

TEST_F(HttpAddress, DeadIpv4IsPassedOverForIpv6) {
  support::test_server server({support::ok("found")}, true);
  call.get(named({"127.0.0.1", "::1"}, server.port()), "/a");
  expect_answered(server);
}

TEST_F(HttpAddress, SilentOneIsGivenUpAfterSixtySeconds) {
  support::test_server server({support::ok("found")});
  http_test::silent_listener full(0, "127.0.0.2", server.port());
  full.fill();
  fake_failures::time_out_poll();
  call.get(named({"127.0.0.2", "127.0.0.1"}, server.port()), "/a");
  expect_answered(server);
}

TEST_F(HttpAddress, OneWithoutASocketIsPassedOver) {
  support::test_server server({support::ok("found")});
  fake_failures::fail_socket(EAFNOSUPPORT);
  call.get(named({"::1", "127.0.0.1"}, server.port()), "/a");
  expect_answered(server);
}

TEST_F(HttpAddress, AllDeadIsAFailure) {
  const int port = support::unused_port();
  call.get(named({"127.0.0.2", "::1", "127.0.0.1"}, port), "/a");
  EXPECT_EQ(call.code, 47);
  EXPECT_LOG(
      {3, "Error connecting to ca.example:" + std::to_string(port) + ": Connection refused"});
}

TEST_F(HttpAddress, LastOneWithoutASocketIsTheOneThatIsLogged) {
  const int port = support::unused_port();
  fake_failures::fail_socket(EMFILE, 1);
  call.get(named({"127.0.0.2", "127.0.0.1"}, port), "/a");
  EXPECT_EQ(call.code, 47);
  EXPECT_LOG(
      {3, "Error creating socket to ca.example:" + std::to_string(port) + ": Too many open files"});
}

TEST_F(HttpAddress, UnknownHostGivesTheReasonOfTheResolver) {
  fake_failures::resolve("gone.example", {});
  call.get("gone.example:8080", "/a");
  EXPECT_EQ(call.code, 47);
  EXPECT_LOG({3, std::string("Error getting hostname-info for gone.example: ") +
                     gai_strerror(EAI_NONAME)});
}

TEST_F(HttpAddress, SystemErrorOfTheResolverIsNamed) {
  for (int error : {EMFILE, EIO}) {
    clear_log();
    fake_failures::fail_resolver(EAI_SYSTEM, error);
    call.get("ca.example:8080", "/a");
    EXPECT_EQ(call.code, 47);
    EXPECT_LOG({3, std::string("Error getting hostname-info for ca.example: ") + strerror(error)});
  }
}

TEST_F(HttpAddress, ResolverThatFailsOtherwiseIsAFailure) {
  for (int failure : {EAI_NONAME, EAI_AGAIN, EAI_FAIL, EAI_FAMILY}) {
    clear_log();
    fake_failures::fail_resolver(failure, EAGAIN);
    call.get("ca.example:8080", "/a");
    EXPECT_EQ(call.code, 47);
    EXPECT_LOG(
        {3, std::string("Error getting hostname-info for ca.example: ") + gai_strerror(failure)});
  }
}

// ---- want of memory ----

TEST_F(HttpAddress, ResolverWithoutMemoryIsWantOfMemory) {
  // Without memory the C library may also say that there is no such host.
  for (const auto &[failure, error] :
       {std::pair(EAI_MEMORY, 0), std::pair(EAI_MEMORY, ENOMEM), std::pair(EAI_SYSTEM, ENOMEM),
        std::pair(EAI_SYSTEM, ENOBUFS), std::pair(EAI_NONAME, ENOMEM),
        std::pair(EAI_AGAIN, ENOMEM)}) {
    SCOPED_TRACE(failure);
    clear_log();
    fake_failures::fail_resolver(failure, error);
    call.get("ca.example:8080", "/a");
    EXPECT_EQ(call.code, 2);
    EXPECT_EQ(call.body, nullptr);
    EXPECT_LOG({3, std::string("Error getting hostname-info for ca.example: ") +
                       (failure == EAI_SYSTEM ? strerror(error) : gai_strerror(failure))});
  }
}

TEST_F(HttpAddress, WantOfMemoryBeforeTheCallIsNotTheResolvers) {
  fake_failures::resolve("gone.example", {});
  errno = ENOMEM;
  call.get("gone.example:8080", "/a");
  EXPECT_EQ(call.code, 47);
}

TEST_F(HttpAddress, SocketOrConnectionWithoutMemoryIsWantOfMemory) {
  const std::string to = "to 127.0.0.1:81: ";
  for (int error : {ENOMEM, ENOBUFS}) {
    clear_log();
    fake_failures::fail_socket(error);
    call.get("127.0.0.1:81", "/a");
    EXPECT_EQ(call.code, 2);
    EXPECT_LOG({3, "Error creating socket " + to + strerror(error)});

    clear_log();
    fake_failures::fail_connect(error);
    call.get("127.0.0.1:81", "/a");
    EXPECT_EQ(call.code, 2);
    EXPECT_LOG({3, "Error connecting " + to + strerror(error)});
  }
}

TEST_F(HttpAddress, OneThatMetWantOfMemoryIsPassedOver) {
  support::test_server server({support::ok("found")});
  fake_failures::fail_connect(ENOMEM);
  call.get(named({"127.0.0.2", "127.0.0.1"}, server.port()), "/a");
  expect_answered(server);
}

// It might have answered, whatever the others do.
TEST_F(HttpAddress, OneThatMetWantOfMemoryIsWhatCountsWhenNoneAnswers) {
  const int port = support::unused_port();
  for (int others_before : {0, 1, 2}) {
    SCOPED_TRACE(others_before);
    clear_log();
    fake_failures::fail_connect(ENOBUFS, others_before);
    call.get(named({"127.0.0.2", "::1", "127.0.0.1"}, port), "/a");
    EXPECT_EQ(call.code, 2);
    EXPECT_LOG(
        {3, "Error connecting to ca.example:" + std::to_string(port) + ": " + strerror(ENOBUFS)});
  }
}

// ---- many ----

TEST_F(HttpAddress, EighthIsTried) {
  support::test_server server({support::ok("found")});
  std::vector<std::string> addresses(7, "127.0.0.2");
  addresses.emplace_back("127.0.0.1");
  call.get(named(addresses, server.port()), "/a");
  expect_answered(server);
  EXPECT_EQ(fake_failures::connect_calls(), 8);
}

TEST_F(HttpAddress, NinthIsNotTriedNorAreThousandsBehindIt) {
  http_test::silent_listener other;
  for (size_t more : {1, 5000}) {
    clear_log();
    const int before = fake_failures::connect_calls();
    std::vector<std::string> addresses(8, "127.0.0.2");
    addresses.resize(8 + more, "127.0.0.1");
    call.get(named(addresses, other.port()), "/a");
    EXPECT_EQ(call.code, 47);
    EXPECT_EQ(fake_failures::connect_calls() - before, 8);
    EXPECT_FALSE(other.has_connection());
    EXPECT_LOG({3, "Error connecting to ca.example:" + std::to_string(other.port()) +
                       ": Connection refused"});
  }
}

TEST_F(HttpAddress, EmptyHostIsAFailure) {
  call.get(":8080", "/a");
  EXPECT_EQ(call.code, 47);
  EXPECT_TRUE(logged_containing(3, "Error")) << log_dump();
}

class HttpPort : public HttpAddress {
 protected:
  // The port that a host text leads to, as the message of a failed socket tells it.
  void expect_port(const std::string &host, const std::string &name_and_port) {
    SCOPED_TRACE(host);
    clear_log();
    fake_failures::fail_socket(EMFILE);
    call.get(host, "/a");
    EXPECT_EQ(call.code, 47);
    EXPECT_LOG({3, "Error creating socket to " + name_and_port + ": Too many open files"});
  }
};

TEST_F(HttpPort, IsEightyByDefault) {
  expect_port("127.0.0.1", "127.0.0.1:80");
}

TEST_F(HttpPort, IsTheNumberBehindTheColon) {
  expect_port("127.0.0.1:1", "127.0.0.1:1");
  expect_port("127.0.0.1:65535", "127.0.0.1:65535");
  expect_port("127.0.0.1:0080", "127.0.0.1:80");
  expect_port("127.0.0.1:81x", "127.0.0.1:81");
}

TEST_F(HttpPort, StandsBehindTheBracketOfAnIpv6Address) {
  for (const auto &[host, port] : {std::pair("[::1]:8080", ":8080: Too many open files"),
                                   std::pair("[::1]", ":80: Too many open files")}) {
    SCOPED_TRACE(host);
    clear_log();
    fake_failures::fail_socket(EMFILE);
    call.get(host, "/a");
    EXPECT_EQ(call.code, 47);
    EXPECT_TRUE(logged_containing(3, port)) << log_dump();
  }
}

TEST_F(HttpPort, OutOfRangeFailsBeforeASocketIsMade) {
  for (const char *host :
       {"127.0.0.1:0", "127.0.0.1:65536", "127.0.0.1:-1", "127.0.0.1:", "127.0.0.1:http",
        "127.0.0.1:99999999999999999999", "127.0.0.1:-99999999999999999999", "127.0.0.1:4294967376",
        "127.0.0.1:-4294967216", "[::1]:0", "[::1]:65536", "[::1]:"}) {
    SCOPED_TRACE(host);
    clear_log();
    fake_failures::fail_socket(EMFILE);
    call.get(host, "/a");
    EXPECT_EQ(call.code, 47);
    EXPECT_EQ(call.body, nullptr);
    EXPECT_EQ(call.content_length, -1);
    EXPECT_TRUE(logged_containing(3, "")) << "nothing was logged";
    EXPECT_FALSE(logged_containing(3, "Error creating socket")) << log_dump();
  }
}

TEST_F(HttpPort, OutOfRangeDoesNotWrapAround) {
  http_test::silent_listener listener;
  for (long long turn : {1LL << 16, 1LL << 32, -(1LL << 16), 1LL << 31}) {
    SCOPED_TRACE(turn);
    call.get("127.0.0.1:" + std::to_string(listener.port() + turn), "/a");
    EXPECT_EQ(call.code, 47);
    EXPECT_FALSE(listener.has_connection());
  }
}

}  // namespace
