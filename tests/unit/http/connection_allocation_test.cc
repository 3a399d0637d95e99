// Each allocation of an exchange fails in turn.
#include <array>
#include <cstdio>
#include <string>

#include "fakes/allocator.h"
#include "support/test_server.h"
#include "unit/http/http_exchange.h"

namespace {

using http_test::client_sockets;

enum class mode { buffered_get, streaming_get, buffered_post };

class HttpAllocation : public http_test::fixture {
 protected:
  void SetUp() override {
    fixture::SetUp();
    if (!fake_allocator::available())
      GTEST_SKIP() << "the allocator cannot be replaced in this build";
  }

  // The operation of a sweep may not allocate itself, so it works on plain memory.
  void attempt(const std::string &server_host, const char *path, mode how) {
    snprintf(host_, sizeof host_, "%s", server_host.c_str());
    type_ = nullptr;
    body_ = nullptr;
    sock_ = -1;
    status_ = 0;
    switch (how) {
      case mode::buffered_get:
        code_ = send_http_get(host_, path, &status_, "a/b", &length_, &type_, 0, &body_, nullptr);
        break;
      case mode::streaming_get:
        code_ = send_http_get(host_, path, &status_, "a/b", &length_, &type_, 1, nullptr, &sock_);
        break;
      case mode::buffered_post:
        code_ = send_http_post(host_, path, "c/d", "request", 7, &status_, &length_, &type_, 0,
                               &body_, nullptr);
        break;
    }
    succeeded_ = code_ == 0 && status_ == 200 && (body_ || sock_ >= 0) && type_;
    if (code_ == 0)
      undo();
  }
  void undo() {
    free(body_);
    body_ = nullptr;
    if (sock_ >= 0)
      close(sock_);
    sock_ = -1;
    free(type_);
    type_ = nullptr;
  }

  // Runs the call with each allocation failing, until it succeeds. `ports` are those it connects
  // to.
  void sweep(const std::string &host, const char *path, mode how, std::initializer_list<int> ports,
             bool stay_failed = false) {
    clear_log();
    size_t failures = fake_allocator::sweep([&] { attempt(host, path, how); },
                                            [&](size_t n) {
                                              SCOPED_TRACE(n);
                                              expect_clean_failure();
                                              for (int port : ports)
                                                EXPECT_TRUE(client_sockets(port).empty());
                                              undo();
                                              clear_log();
                                            },
                                            stay_failed);
    EXPECT_GT(failures, 0u);
    EXPECT_TRUE(succeeded_) << code_ << " " << status_;
  }
  void expect_clean_failure() {
    EXPECT_EQ(code_, 2) << log_dump();
    EXPECT_EQ(body_, nullptr);
    EXPECT_EQ(sock_, -1);
  }

 protected:
  int code_ = -1;
  int status_ = 0;
  int length_ = 0;

 private:
  char host_[64];
  int sock_ = -1;
  char *type_ = nullptr;
  void *body_ = nullptr;
  bool succeeded_ = false;
};

TEST_F(HttpAllocation, OfABufferedGet) {
  support::test_server server({support::ok("body", "x/y; z")});
  sweep(server.host(), "/", mode::buffered_get, {server.port()});
}

TEST_F(HttpAllocation, OfAStreamingGet) {
  support::test_server server({support::ok("body", "x/y; z")});
  sweep(server.host(), "/", mode::streaming_get, {server.port()});
}

TEST_F(HttpAllocation, OfAPost) {
  support::test_server server({support::ok("body", "x/y; z")});
  sweep(server.host(), "/", mode::buffered_post, {server.port()});
}

TEST_F(HttpAllocation, OfALongTarget) {
  support::test_server server({support::ok("body", "x/y; z")});
  const std::string path(5000, 'p');
  sweep(server.host(), path.c_str(), mode::buffered_get, {server.port()});
}

TEST_F(HttpAllocation, OfARepeatedType) {
  support::test_server server(
      {support::raw("HTTP/1.0 200 OK\r\nContent-Type: a/b\r\n"
                    "Content-Type: c/d\r\nContent-Length: 4\r\n\r\nbody")});
  sweep(server.host(), "/", mode::buffered_get, {server.port()});
}

// Only the copy of the type and the body are allocated behind the status line.
TEST_F(HttpAllocation, OfWhatStandsBehindTheLengthLeavesTheLength) {
  support::test_server server(
      {support::raw("HTTP/1.0 200 OK\r\nContent-Length: 4\r\nContent-Type: a/b\r\n\r\nbody")});
  const std::string host = server.host();
  for (mode how : {mode::buffered_get, mode::streaming_get}) {
    int behind_the_status = 0;
    fake_allocator::sweep([&] { attempt(host, "/", how); },
                          [&](size_t n) {
                            if (status_ == 200) {
                              behind_the_status++;
                              EXPECT_EQ(code_, 2) << n;
                              EXPECT_EQ(length_, 4) << n;
                            } else {
                              EXPECT_EQ(length_, -1) << n;
                            }
                            undo();
                          });
    EXPECT_EQ(behind_the_status, how == mode::buffered_get ? 2 : 1);
  }
}

TEST_F(HttpAllocation, OfARedirectedGet) {
  support::test_server target({support::ok("body", "x/y")});
  support::test_server server({support::status(
      302, "Content-Type: text/html\r\nLocation: " + target.url("/b") + "\r\n", "moved")});
  sweep(server.host(), "/", mode::buffered_get, {server.port(), target.port()});
}

TEST_F(HttpAllocation, OfARedirectedPost) {
  support::test_server target({support::ok("body", "x/y")});
  support::test_server server({support::redirect(307, target.url("/b"))});
  sweep(server.host(), "/", mode::buffered_post, {server.port(), target.port()});
}

TEST_F(HttpAllocation, StaysFailed) {
  support::test_server target({support::ok("body", "x/y")});
  support::test_server server({support::redirect(302, target.url("/b"))});
  sweep(server.host(), "/", mode::buffered_get, {server.port(), target.port()}, true);
}

}  // namespace
