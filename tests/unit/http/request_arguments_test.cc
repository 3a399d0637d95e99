#include <memory>
#include <string>

#include "support/test_server.h"
#include "unit/http/http_exchange.h"

namespace {

class HttpArguments : public http_test::fixture {
 protected:
  void SetUp() override {
    fixture::SetUp();
    listener = std::make_unique<http_test::silent_listener>();
    call.host = listener->host();
  }
  void TearDown() override {
    EXPECT_FALSE(listener->has_connection()) << "connected before the arguments were checked";
    listener.reset();
    fixture::TearDown();
  }

  std::unique_ptr<http_test::silent_listener> listener;
};

TEST_F(HttpArguments, BufferedModeNeedsABodyOutput) {
  int sock = -77;
  EXPECT_EQ(send_http_get(call.host.data(), "/", &call.status, nullptr, &call.content_length,
                          nullptr, 0, nullptr, &sock),
            63);
  EXPECT_EQ(send_http_post(call.host.data(), "/", "t", "b", 1, &call.status, &call.content_length,
                           nullptr, 0, nullptr, &sock),
            63);
}

TEST_F(HttpArguments, StreamingModeNeedsASocketOutput) {
  for (unsigned char stream : {1, 2, 255}) {
    EXPECT_EQ(send_http_get(call.host.data(), "/", &call.status, nullptr, &call.content_length,
                            nullptr, stream, &call.body, nullptr),
              63);
    EXPECT_EQ(send_http_post(call.host.data(), "/", "t", "b", 1, &call.status, &call.content_length,
                             nullptr, stream, &call.body, nullptr),
              63);
  }
}

TEST_F(HttpArguments, StatusOutputIsRequired) {
  EXPECT_EQ(send_http_get(call.host.data(), "/", nullptr, nullptr, &call.content_length, nullptr, 0,
                          &call.body, nullptr),
            63);
  EXPECT_EQ(send_http_post(call.host.data(), "/", "t", "b", 1, nullptr, &call.content_length,
                           nullptr, 0, &call.body, nullptr),
            63);
}

TEST_F(HttpArguments, LengthOutputIsRequired) {
  EXPECT_EQ(send_http_get(call.host.data(), "/", &call.status, nullptr, nullptr, nullptr, 0,
                          &call.body, nullptr),
            63);
  EXPECT_EQ(send_http_post(call.host.data(), "/", "t", "b", 1, &call.status, nullptr, nullptr, 0,
                           &call.body, nullptr),
            63);
}

TEST_F(HttpArguments, HostAndPathAreRequired) {
  EXPECT_EQ(send_http_get(nullptr, "/", &call.status, nullptr, &call.content_length, nullptr, 0,
                          &call.body, nullptr),
            63);
  EXPECT_EQ(send_http_get(call.host.data(), nullptr, &call.status, nullptr, &call.content_length,
                          nullptr, 0, &call.body, nullptr),
            63);
  EXPECT_EQ(send_http_post(nullptr, "/", "t", "b", 1, &call.status, &call.content_length, nullptr,
                           0, &call.body, nullptr),
            63);
  EXPECT_EQ(send_http_post(call.host.data(), nullptr, "t", "b", 1, &call.status,
                           &call.content_length, nullptr, 0, &call.body, nullptr),
            63);
}

TEST_F(HttpArguments, NegativeBodyLengthIsRefused) {
  EXPECT_EQ(send_http_post(call.host.data(), "/", "t", "b", -1, &call.status, &call.content_length,
                           nullptr, 0, &call.body, nullptr),
            63);
}

class HttpOutputs : public http_test::fixture {};

TEST_F(HttpOutputs, TypeOutputMayBeNull) {
  support::test_server server({support::ok("body")});
  call.host = server.host();
  call.code = send_http_get(call.host.data(), "/", &call.status, nullptr, &call.content_length,
                            nullptr, 0, &call.body, nullptr);
  EXPECT_EQ(call.code, 0);
  EXPECT_EQ(call.body_text(), "body");
}

TEST_F(HttpOutputs, AreEmptyAfterAFailedConnection) {
  const std::string host = "127.0.0.1:" + std::to_string(support::unused_port());
  call.get(host, "/");
  EXPECT_EQ(call.code, 47);
  EXPECT_EQ(call.content_length, -1);
  EXPECT_EQ(call.content_type, nullptr);
  EXPECT_EQ(call.body, nullptr);
  call.get_stream(host, "/");
  EXPECT_EQ(call.code, 47);
  EXPECT_EQ(call.content_length, -1);
  EXPECT_EQ(call.content_type, nullptr);
  EXPECT_EQ(call.sock, -1);
}

TEST_F(HttpOutputs, StatusIsStoredAsSoonAsItIsKnown) {
  support::test_server server({support::raw("HTTP/1.0 404 Not Found\r\nServer")});
  call.get(server.host(), "/");
  EXPECT_EQ(call.code, 48);
  EXPECT_EQ(call.status, 404);
}

}  // namespace
