// pki_add_ca up to the document: arguments, URL, serial number, download, signature.
#include <gtest/gtest.h>
#include <libpki/libpki.h>
#include <netdb.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "fakes/failures.h"
#include "fakes/log_capture.h"
#include "support/ca_info_doc.h"
#include "support/certs.h"
#include "support/store_fixture.h"
#include "support/test_server.h"

namespace {

using support::test_server;

class ProvisionDownload : public support::store_test {
 protected:
  void TearDown() override {
    if (!board.empty()) {
      setenv("BOARD_INFO_DIR", old_board.c_str(), 1);
      std::filesystem::remove_all(board);
    }
    support::store_test::TearDown();
  }

  int add(const std::string &url) { return pki_add_ca("label", url.c_str(), doc_key.get()); }

  // The board says this serial number from now on; without text it has none.
  void set_serial_number(const std::string &text) {
    char path[] = "/tmp/libpki-board-XXXXXX";
    board = mkdtemp(path);
    old_board = getenv("BOARD_INFO_DIR");
    if (!text.empty())
      std::ofstream(board + "/serialnumber") << text << "\n";
    setenv("BOARD_INFO_DIR", board.c_str(), 1);
  }

  static void expect_empty_store() {
    for (const STACK *list :
         {pki_store->key_store, pki_store->ca_infos, pki_store->provisioned_certs,
          pki_store->collected_certs, pki_store->global_status_rules})
      EXPECT_EQ(OPENSSL_sk_num(list), 0);
  }
  static std::string request_line(const test_server &server) {
    std::vector<std::string> requests = server.requests();
    return requests.empty() ? "(none)" : requests[0].substr(0, requests[0].find("\r\n"));
  }
  static std::string failed(const std::string &url, const std::string &error) {
    return "failed to download ca-info: url=" + url + " err=" + error;
  }

  support::key doc_key = support::test_key(0);
  std::string message = support::sign_document(support::sample().document, doc_key);
  std::string board, old_board;
};

TEST_F(ProvisionDownload, NullArgumentsAreRefused) {
  test_server server({support::ok(message)});
  EXPECT_EQ(pki_add_ca(nullptr, server.url().c_str(), doc_key.get()), PKI_INVALID_ARGS);
  EXPECT_EQ(pki_add_ca("label", nullptr, doc_key.get()), PKI_INVALID_ARGS);
  EXPECT_EQ(pki_add_ca("label", server.url().c_str(), nullptr), PKI_INVALID_ARGS);
  EXPECT_EQ(server.requests(), std::vector<std::string>());
  expect_empty_store();
}

TEST_F(ProvisionDownload, AsksForThePathWithTheSerialNumber) {
  test_server server({support::ok(message)});
  ASSERT_EQ(add(server.url("/ca/info")), PKI_OK);
  EXPECT_EQ(request_line(server), "GET /ca/info?serial=SN-0001 HTTP/1.0");
  EXPECT_NE(server.requests()[0].find("\r\nHost: " + server.host() + "\r\n"), std::string::npos);
  EXPECT_EQ(server.requests().size(), 1u);
}

TEST_F(ProvisionDownload, UrlWithoutPathAsksForTheQueryAlone) {
  test_server server({support::ok(message)});
  ASSERT_EQ(add("http://" + server.host()), PKI_OK);
  EXPECT_EQ(request_line(server), "GET ?serial=SN-0001 HTTP/1.0");
}

TEST_F(ProvisionDownload, QueryIsAppendedAsItIs) {
  test_server server({support::ok(message)});
  ASSERT_EQ(add(server.url("/info?a=%20b")), PKI_OK);
  EXPECT_EQ(request_line(server), "GET /info?a=%20b?serial=SN-0001 HTTP/1.0");
}

TEST_F(ProvisionDownload, SerialNumberMayHaveFortySevenCharacters) {
  set_serial_number(std::string(47, 's'));
  test_server server({support::ok(message)});
  ASSERT_EQ(add(server.url("/")), PKI_OK);
  EXPECT_EQ(request_line(server), "GET /?serial=" + std::string(47, 's') + " HTTP/1.0");
}

TEST_F(ProvisionDownload, SerialNumberThatTheBoardDoesNotEndIsEndedInItsPlace) {
  fake_failures::fill_serialnumber('s');
  test_server server({support::ok(message)});
  ASSERT_EQ(add(server.url("/")), PKI_OK);
  EXPECT_EQ(request_line(server), "GET /?serial=" + std::string(47, 's') + " HTTP/1.0");
}

TEST_F(ProvisionDownload, LongPathIsAskedForWhole) {
  std::string path = "/" + std::string(5000, 'p');
  test_server server({support::ok(message)});
  ASSERT_EQ(add(server.url(path)), PKI_OK);
  EXPECT_EQ(request_line(server), "GET " + path + "?serial=SN-0001 HTTP/1.0");
}

TEST_F(ProvisionDownload, LongerSerialNumberIsRefused) {
  set_serial_number(std::string(48, 's'));
  test_server server({support::ok(message)});
  EXPECT_EQ(add(server.url()), PKI_FLASH_ERROR);
  EXPECT_TRUE(logged_containing(3, "failed to get qrn serial-number from flash: ")) << log_dump();
  EXPECT_EQ(server.requests(), std::vector<std::string>());
}

TEST_F(ProvisionDownload, MissingSerialNumberIsRefused) {
  set_serial_number("");
  test_server server({support::ok(message)});
  EXPECT_EQ(add(server.url()), PKI_FLASH_ERROR);
  EXPECT_TRUE(
      was_logged(3, "failed to get qrn serial-number from flash: " + std::to_string(ENOENT)))
      << log_dump();
  EXPECT_EQ(server.requests(), std::vector<std::string>());
  expect_empty_store();
}

TEST_F(ProvisionDownload, BoardsFailureValueIsLogged) {
  test_server server({support::ok(message)});
  fake_failures::fail_serialnumber(-42);
  EXPECT_EQ(add(server.url()), PKI_FLASH_ERROR);
  EXPECT_EQ(captured_log(),
            (std::vector<log_entry>{{3, "failed to get qrn serial-number from flash: -42"}}));
  EXPECT_EQ(server.requests(), std::vector<std::string>());
  expect_empty_store();
}

TEST_F(ProvisionDownload, KeyReferenceThatCannotBeTakenIsRefused) {
  test_server server({support::ok(message)});
  fake_failures::fail_evp_pkey_up_ref();
  EXPECT_EQ(add(server.url()), PKI_CRYPTO_LOCK_FAILED);
  EXPECT_EQ(server.requests(), std::vector<std::string>());
  expect_empty_store();
  // The caller's reference was not dropped in its place.
  EXPECT_EQ(add(server.url()), PKI_OK);
}

TEST_F(ProvisionDownload, WhatIsNoUrlIsRefused) {
  for (const char *url : {"", "nonsense", "http:/host/", "http//host/", "127.0.0.1:80/x"}) {
    clear_log();
    EXPECT_EQ(add(url), PKI_INVALID_URL) << url;
    EXPECT_EQ(captured_log(),
              (std::vector<log_entry>{{3, std::string("invalid ca-pointer url: ") + url}}));
  }
  expect_empty_store();
}

TEST_F(ProvisionDownload, OtherSchemesAreRefused) {
  test_server server({support::ok(message)});
  for (const std::string scheme : {"https", "ftp", "file", "httpx", "htt", ""}) {
    clear_log();
    std::string url = scheme + "://" + server.host() + "/";
    EXPECT_EQ(add(url), PKI_INVALID_URL);
    EXPECT_EQ(captured_log(),
              (std::vector<log_entry>{{3, "ca-pointer url is not an http url: " + url}}));
  }
  EXPECT_EQ(server.requests(), std::vector<std::string>());
  expect_empty_store();
}

TEST_F(ProvisionDownload, SchemeMayHaveAnyLetterCase) {
  test_server server({support::ok(message)});
  EXPECT_EQ(add("HTTP://" + server.host() + "/"), PKI_OK);
  EXPECT_EQ(add("hTTp://" + server.host() + "/"), PKI_OK);
}

TEST_F(ProvisionDownload, FailedDownloadIsLoggedWithUrlAndText) {
  std::string url = "http://127.0.0.1:" + std::to_string(support::unused_port()) + "/";
  EXPECT_EQ(add(url), PKI_HTTP_ERROR);
  EXPECT_TRUE(was_logged(4, failed(url, "HTTP ERROR"))) << log_dump();
  expect_empty_store();
}

TEST_F(ProvisionDownload, BodyCutShortIsAFailedDownload) {
  test_server server({support::raw("HTTP/1.0 200 OK\r\nContent-Length: " +
                                   std::to_string(message.size() + 1) + "\r\n\r\n" + message)});
  EXPECT_EQ(add(server.url()), PKI_HTTP_ERROR);
  EXPECT_TRUE(was_logged(4, failed(server.url(), "HTTP ERROR"))) << log_dump();
  expect_empty_store();
}

TEST_F(ProvisionDownload, BodyOfUnknownOrNegativeLengthIsAFailedDownload) {
  for (const std::string head : {"", "Content-Length: -1\r\n", "Content-Length: -2147483648\r\n"}) {
    test_server server({support::raw("HTTP/1.0 200 OK\r\n" + head + "\r\n" + message)});
    EXPECT_EQ(add(server.url()), PKI_HTTP_ERROR);
    EXPECT_TRUE(was_logged(4, failed(server.url(), "HTTP ERROR"))) << log_dump();
  }
  expect_empty_store();
}

TEST_F(ProvisionDownload, HeadThatDoesNotEndIsAFailedDownload) {
  std::string lines;
  for (int i = 0; i < 1000; i++)
    lines += "X-Filler: " + std::string(100, 'x') + "\r\n";
  test_server server({support::raw("HTTP/1.0 200 OK\r\n" + lines)});
  EXPECT_EQ(add(server.url()), PKI_HTTP_READ_RESP_ERROR);
  EXPECT_TRUE(was_logged(4, failed(server.url(), "HTTP READ RESP ERROR"))) << log_dump();
  expect_empty_store();
}

TEST_F(ProvisionDownload, BodyOfAHundredMegabytesIsRefusedUnread) {
  test_server server(
      {support::raw("HTTP/1.0 200 OK\r\nContent-Length: 104857600\r\n\r\n" + message)});
  EXPECT_EQ(add(server.url()), PKI_OUT_OF_MEMORY);
  EXPECT_TRUE(was_logged(4, failed(server.url(), "OUT OF MEMORY"))) << log_dump();
  expect_empty_store();
}

TEST_F(ProvisionDownload, OtherStatusIsLoggedWithItsNumber) {
  // The client reads no body of such an answer.
  for (int number : {404, 500, 204, 304}) {
    test_server server({support::status(number, "", "some body")});
    EXPECT_EQ(add(server.url("/x")), PKI_HTTP_ERROR);
    EXPECT_TRUE(was_logged(4, "failed to download ca-info: url=" + server.url("/x") +
                                  " sts=" + std::to_string(number) + "\n(null)"))
        << log_dump();
  }
  expect_empty_store();
}

TEST_F(ProvisionDownload, RedirectIsFollowed) {
  test_server target({support::ok(message)});
  test_server server({support::redirect(302, target.url("/elsewhere"))});
  EXPECT_EQ(add(server.url()), PKI_OK);
  EXPECT_EQ(request_line(target), "GET /elsewhere HTTP/1.0");
}

TEST_F(ProvisionDownload, RedirectToAnotherSchemeIsAFailedDownload) {
  test_server server({support::redirect(302, "https://127.0.0.1/")});
  EXPECT_EQ(add(server.url()), PKI_HTTP_ERROR);
  EXPECT_TRUE(was_logged(4, "failed to download ca-info: url=" + server.url() + " sts=302\n(null)"))
      << log_dump();
}

TEST_F(ProvisionDownload, WantOfMemoryOnTheWayToTheServerIsOne) {
  fake_failures::fail_resolver(EAI_MEMORY, ENOMEM);
  EXPECT_EQ(add("http://ca.example/"), PKI_OUT_OF_MEMORY);
  EXPECT_TRUE(was_logged(4, failed("http://ca.example/", "OUT OF MEMORY"))) << log_dump();
  fake_failures::fail_socket(ENOBUFS);
  EXPECT_EQ(add("http://127.0.0.1:81/"), PKI_OUT_OF_MEMORY);
  expect_empty_store();
}

TEST_F(ProvisionDownload, UrlIsLoggedAsItStands) {
  std::string url = "http://127.0.0.1:" + std::to_string(support::unused_port()) + "/%s%n";
  EXPECT_EQ(add(url), PKI_HTTP_ERROR);
  EXPECT_TRUE(was_logged(4, failed(url, "HTTP ERROR"))) << log_dump();
}

TEST_F(ProvisionDownload, DocumentSignedWithAnotherKeyIsRefused) {
  test_server server(
      {support::ok(support::sign_document(support::sample().document, support::test_key(1)))});
  EXPECT_EQ(add(server.url()), PKI_SIG_VERIFY_FAILED);
  expect_empty_store();
}

TEST_F(ProvisionDownload, DocumentOfAStrangerWhoCarriesItsCertificateIsRefused) {
  support::cert_options options;
  options.subject = support::common_name("stranger");
  options.public_key = support::test_key(1);
  std::string forged =
      support::der(support::make_message({.content = support::sample().document,
                                          .signers = {{support::test_key(1), options.subject, 1}},
                                          .carried = {support::make_cert(options)}}));
  test_server server({support::ok(forged)});
  EXPECT_EQ(add(server.url()), PKI_SIG_VERIFY_FAILED);
  expect_empty_store();
}

TEST_F(ProvisionDownload, UnsignedDocumentIsRefused) {
  test_server server({support::ok(support::sample().document)});
  EXPECT_EQ(add(server.url()), PKI_P7_DECODE_ERROR);
  expect_empty_store();
}

TEST_F(ProvisionDownload, EmptyBodyIsRefused) {
  test_server server({support::ok("")});
  EXPECT_EQ(add(server.url()), PKI_P7_DECODE_ERROR);
  expect_empty_store();
}

TEST_F(ProvisionDownload, SignedContentThatIsNotDataIsRefused) {
  support::pkcs7 inner = support::make_envelope("x", support::make_ca("ca"));
  test_server server(
      {support::ok(support::der(support::make_message({.content = support::contents_octets(inner),
                                                       .signers = {{doc_key, nullptr, 1}},
                                                       .inner = inner})))});
  EXPECT_EQ(add(server.url()), PKI_UNKNOWN_P7_CONTENT_TYPE);
  expect_empty_store();
}

TEST_F(ProvisionDownload, ContentTypeDoesNotMatter) {
  test_server server({support::ok(message, "application/x-whatever; charset=none")});
  EXPECT_EQ(add(server.url()), PKI_OK);
}

}  // namespace
