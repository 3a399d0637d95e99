// send_scep_msg: what goes wrong, its code and its line in the log.
#include <gtest/gtest.h>
#include <netdb.h>
#include <openssl/err.h>

#include <cerrno>
#include <string>

#include "fakes/allocator.h"
#include "fakes/failures.h"
#include "unit/scep_client/scep_fixture.h"

namespace {

using support::log_lines;
using support::own_lines;
using support::pkcs7;
using support::test_server;

class ScepTransportErrors : public support::store_test {
 protected:
  int send(const std::string &url) {
    octets = &message;  // must become null
    length = -77;
    int code = send_scep_msg(message.get(), url.c_str(), &octets, &length);
    if (code != PKI_OK) {
      EXPECT_EQ(octets, nullptr);
      EXPECT_EQ(length, 0);
    } else {
      free(octets);
    }
    return code;
  }
  // The one line that a failed sending to `url` leaves at level 4.
  static log_entry failed(const std::string &url, int code) {
    return {4, "failed to send scep request: url=" + url +
                   " err=" + pki_strerror(static_cast<unsigned>(code))};
  }
  static log_entry status_line(const std::string &url, int status) {
    return {4, "failed to send scep request: url=" + url + " sts=" + std::to_string(status) +
                   "\n(null)"};
  }

  pkcs7 message = support::make_data("message");
  void *octets = nullptr;
  int length = 0;
};

TEST_F(ScepTransportErrors, UrlWithoutAColonIsInvalid) {
  EXPECT_EQ(send("ca.example"), PKI_INVALID_URL);
  EXPECT_EQ(own_lines(), (log_lines{{3, "invalid scep url: ca.example"}}));
}

TEST_F(ScepTransportErrors, UrlWithASingleSlashIsInvalid) {
  EXPECT_EQ(send("http:/ca.example"), PKI_INVALID_URL);
  EXPECT_EQ(own_lines(), (log_lines{{3, "invalid scep url: http:/ca.example"}}));
}

TEST_F(ScepTransportErrors, EmptyUrlIsInvalid) {
  EXPECT_EQ(send(""), PKI_INVALID_URL);
  EXPECT_EQ(own_lines(), (log_lines{{3, "invalid scep url: "}}));
}

TEST_F(ScepTransportErrors, OtherSchemesAreRefusedWithTheWholeUrl) {
  for (std::string url : {"https://127.0.0.1:1/scep", "ftp://127.0.0.1/", "://127.0.0.1/",
                          "httpx://127.0.0.1/", "htt://127.0.0.1/"}) {
    clear_log();
    EXPECT_EQ(send(url), PKI_INVALID_URL) << url;
    EXPECT_EQ(own_lines(), (log_lines{{3, "scep url is not an http url: " + url}}));
  }
}

TEST_F(ScepTransportErrors, LetterCaseOfTheSchemeDoesNotMatter) {
  test_server server({support::ok("fine")});
  for (const char *scheme : {"HTTP", "Http", "hTTP"})
    EXPECT_EQ(send(scheme + server.url("/").substr(4)), PKI_OK) << scheme;
  EXPECT_EQ(server.requests().size(), 3u);
  EXPECT_EQ(own_lines(), log_lines());
}

TEST_F(ScepTransportErrors, StatusOtherThan200IsLoggedWithItsNumber) {
  for (int status : {500, 404, 204, 400, 503}) {
    clear_log();
    test_server server({support::status(status, "", "not for you")});
    EXPECT_EQ(send(server.url("/scep")), PKI_HTTP_ERROR);
    EXPECT_EQ(own_lines(), (log_lines{status_line(server.url("/scep"), status)}));
  }
}

TEST_F(ScepTransportErrors, RedirectThatLeadsNowhereIsAStatus) {
  test_server server({support::redirect(302, "https://127.0.0.1/")});
  EXPECT_EQ(send(server.url()), PKI_HTTP_ERROR);
  EXPECT_EQ(own_lines(),
            (log_lines{{3, "Invalid or unsupported url in redirect: https://127.0.0.1/"},
                       status_line(server.url(), 302)}));
}

TEST_F(ScepTransportErrors, NobodyListening) {
  std::string host = "127.0.0.1:" + std::to_string(support::unused_port());
  EXPECT_EQ(send("http://" + host + "/x"), PKI_HTTP_ERROR);
  ASSERT_EQ(own_lines().size(), 2u) << log_dump();
  EXPECT_EQ(own_lines()[0].text.rfind("Error connecting to 127.0.0.1:", 0), 0u) << log_dump();
  EXPECT_EQ(own_lines()[1], failed("http://" + host + "/x", PKI_HTTP_ERROR));
}

TEST_F(ScepTransportErrors, WantOfMemoryOnTheWayToTheServerIsOne) {
  for (int error : {ENOMEM, ENOBUFS}) {
    fake_failures::fail_resolver(EAI_SYSTEM, error);
    EXPECT_EQ(send("http://ca.example/x"), PKI_OUT_OF_MEMORY);
    fake_failures::fail_connect(error);
    EXPECT_EQ(send("http://127.0.0.1:81/x"), PKI_OUT_OF_MEMORY);
    EXPECT_EQ(own_lines().back(), failed("http://127.0.0.1:81/x", PKI_OUT_OF_MEMORY));
  }
}

TEST_F(ScepTransportErrors, AnswerWithoutALengthIsRefused) {
  test_server server({support::raw("HTTP/1.0 200 OK\r\n\r\nbody")});
  EXPECT_EQ(send(server.url()), PKI_HTTP_ERROR);
  EXPECT_EQ(own_lines(), (log_lines{{3, "Won't buffer http response with indeterminate length"},
                                    failed(server.url(), PKI_HTTP_ERROR)}));
}

TEST_F(ScepTransportErrors, BodyCutShortIsRefused) {
  test_server server({support::raw("HTTP/1.0 200 OK\r\nContent-Length: 10\r\n\r\nbody")});
  EXPECT_EQ(send(server.url()), PKI_HTTP_ERROR);
  ASSERT_EQ(own_lines().size(), 2u) << log_dump();
  EXPECT_EQ(own_lines()[0].text.rfind("truncated http response: got 4 bytes but expected 10", 0),
            0u);
  EXPECT_EQ(own_lines()[1], failed(server.url(), PKI_HTTP_ERROR));
}

TEST_F(ScepTransportErrors, HeadThatCannotBeReadKeepsItsOwnCode) {
  test_server server({support::raw("HTTP/1.0 200 OK\r\nX: " + std::string(800, 'x'))});
  EXPECT_EQ(send(server.url()), PKI_HTTP_READ_RESP_ERROR);
  ASSERT_EQ(own_lines().size(), 2u) << log_dump();
  EXPECT_EQ(own_lines()[1], failed(server.url(), PKI_HTTP_READ_RESP_ERROR));
}

TEST_F(ScepTransportErrors, SendingThatFailsIsLogged) {
  test_server server({support::ok("fine")});
  fake_failures::fail_send(EPIPE);
  EXPECT_EQ(send(server.url()), PKI_HTTP_ERROR);
  ASSERT_EQ(own_lines().size(), 2u) << log_dump();
  EXPECT_EQ(own_lines()[1], failed(server.url(), PKI_HTTP_ERROR));
}

TEST_F(ScepTransportErrors, MissingArgumentsAreRefusedAndTheOthersCleared) {
  const char *url = "http://127.0.0.1:1/";
  auto expect_refused = [&](PKCS7 *sent, const char *to) {
    octets = &message;
    length = -77;
    EXPECT_EQ(send_scep_msg(sent, to, &octets, &length), PKI_INVALID_ARGS);
    EXPECT_EQ(octets, nullptr);
    EXPECT_EQ(length, 0);
  };
  expect_refused(nullptr, url);
  expect_refused(message.get(), nullptr);
  length = -77;
  EXPECT_EQ(send_scep_msg(message.get(), url, nullptr, &length), PKI_INVALID_ARGS);
  EXPECT_EQ(length, 0);
  octets = &message;
  EXPECT_EQ(send_scep_msg(message.get(), url, &octets, nullptr), PKI_INVALID_ARGS);
  EXPECT_EQ(octets, nullptr);
}

TEST_F(ScepTransportErrors, EveryFailedAllocationIsACodeAndNoBody) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "the allocator cannot be made to fail in this build";
  test_server server({support::ok("fine")});
  std::string url = server.url();
  ASSERT_EQ(send(url), PKI_OK);
  int code = -1;
  size_t failures = fake_allocator::sweep(
      [&] {
        octets = &message;
        length = -77;
        code = send_scep_msg(message.get(), url.c_str(), &octets, &length);
        if (code == PKI_OK)
          free(octets);
      },
      [&](size_t n) {
        EXPECT_TRUE(code == PKI_OUT_OF_MEMORY || code == PKI_OK) << n << ": " << code;
        EXPECT_TRUE(code == PKI_OK || octets == nullptr) << n;
        EXPECT_EQ(length, code == PKI_OK ? 4 : 0) << n;
        EXPECT_EQ(count_logged(3, "invalid scep url: " + url), 0u) << n;
        support::clear_openssl_errors();
      });
  EXPECT_EQ(code, PKI_OK);
  EXPECT_GT(failures, 5u);
}

TEST_F(ScepTransportErrors, WhatIsSentIsWholeWhicheverAllocationFailed) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "the allocator cannot be made to fail in this build";
  // OpenSSL's base64 filter writes again what the memory behind it did not take.
  message = support::make_data(std::string(3000, 'x'));
  const std::string head =
      "GET /?operation=PKIOperation&message=" + support::base64_lines(support::der(message)) +
      " HTTP/1.0\r\n";
  test_server server({support::ok("fine")});
  std::string url = server.url();
  ASSERT_EQ(send(url), PKI_OK);
  int code = -1;
  size_t sent = 0;
  fake_allocator::sweep([&] { code = send_scep_msg(message.get(), url.c_str(), &octets, &length); },
                        [&](size_t n) {
                          if (code != PKI_OK) {
                            EXPECT_EQ(ERR_peek_error(), 0u) << n << ": code " << code;
                            return;
                          }
                          support::clear_openssl_errors();
                          free(octets);
                          EXPECT_EQ(server.requests().back().rfind(head, 0), 0u) << n;
                          sent++;
                        });
  ASSERT_EQ(code, PKI_OK);
  free(octets);
  EXPECT_GT(sent, 0u);
}

}  // namespace
