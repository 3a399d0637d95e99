// Downloading a CRL: the request, the answers that are refused, and bare CRLs.
#include <iterator>

#include "support/descriptors.h"
#include "unit/verifier/crl_cache/fetch_support.h"

using namespace crl_support;
using namespace support;

namespace {

class CrlFetch : public crl_fetch_test {
 protected:
  static std::string body(const std::string &extensions = "") {
    crl_fields fields;
    fields.entries = crl_entry(4) + crl_entry(target_serial);
    fields.extensions = extensions;
    return crl_octets(fields);
  }
};

// ---- URLs ----

TEST_F(CrlFetch, UrlWithoutASchemeIsInvalid) {
  for (const std::string &url :
       {std::string("nonsense"), std::string("http:/x/crl"), std::string()}) {
    clear_log();
    EXPECT_EQ(45, send(url).code);
    EXPECT_EQ("3: CRL url '" + url + "' is invalid\n", own_log());
  }
}

TEST_F(CrlFetch, OtherSchemesAreRefusedWithoutAConnection) {
  test_server server({serve(body())});
  for (std::string scheme : {"https", "ldap", "ftp", "httpx", "htt"}) {
    clear_log();
    EXPECT_EQ(45, send(scheme + "://" + server.host() + "/crl").code);
    EXPECT_EQ("3: CRL transport '" + scheme + "' not supported - must be http\n", own_log());
  }
  EXPECT_TRUE(server.requests().empty());
}

TEST_F(CrlFetch, SchemeInCapitalsIsAccepted) {
  test_server server({serve(body())});
  EXPECT_EQ(0, send("HTTP://" + server.host() + "/crl").code);
  EXPECT_EQ(0, send("hTTp://" + server.host() + "/crl").code);
}

// ---- the request and its answer ----

TEST_F(CrlFetch, AsksForCrls) {
  test_server server({serve(body())});
  EXPECT_EQ(0, send(server.url("/a/crl?x=y")).code);
  ASSERT_EQ(1u, server.requests().size());
  EXPECT_EQ(0u, server.requests()[0].find("GET /a/crl?x=y HTTP/1.0\r\nHost: " + server.host()));
  EXPECT_NE(std::string::npos,
            server.requests()[0].find("\r\nAccept: application/pkix-crl,application/x-x509-crl,"
                                      "application/x-pkcs7-crl,*/*\r\n"));
}

TEST_F(CrlFetch, NobodyThereIsLogged) {
  std::string url = "http://127.0.0.1:" + std::to_string(unused_port()) + "/crl";
  EXPECT_EQ(47, send(url).code);
  EXPECT_TRUE(was_logged(3, "Error sending CRL request to '" + url + "': HTTP ERROR"))
      << log_dump();
}

TEST_F(CrlFetch, ServerThatClosesIsLogged) {
  test_server server({raw("")});
  EXPECT_EQ(48, send(server.url("/crl")).code);
  EXPECT_TRUE(
      was_logged(3, "Error sending CRL request to '" + last_url + "': HTTP READ RESP ERROR"))
      << log_dump();
}

TEST_F(CrlFetch, OtherStatusIsAnHttpError) {
  for (int number : {201, 204, 304, 400, 404, 500, 503}) {
    test_server server({status(number, "", body())});
    clear_log();
    EXPECT_EQ(47, send(server.url("/crl")).code);
    EXPECT_EQ("3: CRL server at '" + last_url + "' returned " + std::to_string(number) + "\n",
              own_log());
  }
}

TEST_F(CrlFetch, RedirectsAreFollowed) {
  test_server server([&](const std::string &request) {
    return request.find("/moved") == std::string::npos ? redirect(302, server.url("/moved"))
                                                       : serve(body());
  });
  EXPECT_EQ(0, send(server.url("/crl")).code) << log_dump();
}

TEST_F(CrlFetch, RedirectToAnotherSchemeIsNotFollowed) {
  test_server server({redirect(302, "https://127.0.0.1/crl")});
  EXPECT_EQ(47, send(server.url("/crl")).code);
  EXPECT_TRUE(was_logged(3, "CRL server at '" + last_url + "' returned 302")) << log_dump();
}

TEST_F(CrlFetch, RecordWithoutAUrlIsRefused) {
  crl_info *record = create_crl_info(nullptr, 0, 0, 0, nullptr, nullptr);
  pki::fetched_crl found;
  EXPECT_EQ(45, pki::cv_get_crl(record, {target().get(), nullptr, nullptr, false, 0}, {}, &found));
  EXPECT_EQ("3: CRL url '(null)' is invalid\n", own_log());
  EXPECT_EQ(nullptr, found.crl);
  free_crl_info(record);
}

TEST_F(CrlFetch, UnexpectedContentTypeIsAWarning) {
  test_server server({serve(body(), true, "text/plain")});
  EXPECT_EQ(0, send(server.url("/crl")).code);
  EXPECT_EQ("4: CRL responder at '" + last_url +
                "' returned unexpected content-type 'text/plain' - only application/pkix-crl, "
                "application/x-x509-crl, and application/x-pkcs7-crl are supported\n" +
                full_line,
            own_log());
}

TEST_F(CrlFetch, ExpectedContentTypesAreAcceptedInAnyLetterCase) {
  for (const char *type :
       {"application/pkix-crl", "application/x-x509-crl", "application/x-pkcs7-crl",
        "Application/PKIX-CRL", "application/pkix-crl; charset=none"}) {
    test_server server({serve(body(), true, type)});
    clear_log();
    EXPECT_EQ(0, send(server.url("/crl")).code);
    EXPECT_EQ(full_line, own_log());
  }
}

TEST_F(CrlFetch, ContentTypeDoesNotMatterWhenTheFormatIsKnown) {
  test_server server(
      {serve(body(), true, "text/plain"), serve(pkcs7_octets(body()), true, "text/plain")});
  EXPECT_EQ(0, send(server.url("/crl"), 1).code);
  EXPECT_EQ(0, send(server.url("/crl"), 2).code);
  EXPECT_EQ(std::string(full_line) + full_line, own_log());
}

TEST_F(CrlFetch, MissingContentTypeDoesNoHarm) {
  test_server server({raw("HTTP/1.0 200 OK\r\n\r\n" + body())});
  EXPECT_EQ(0, send(server.url("/crl")).code);
  EXPECT_EQ("4: CRL responder at '" + last_url +
                "' returned unexpected content-type '(null)' - only application/pkix-crl, "
                "application/x-x509-crl, and application/x-pkcs7-crl are supported\n" +
                truncated_line,
            own_log());
}

// ---- the body ----

TEST_F(CrlFetch, AnnouncedLengthGivesTheWholeList) {
  decoded got = send_body(body());
  ASSERT_EQ(0, got.code);
  EXPECT_FALSE(got.truncated);
  EXPECT_EQ(2u, entries_of(got.crl).size());
  EXPECT_EQ(full_line, own_log());
  EXPECT_EQ("", out);
  EXPECT_TRUE(verifies(got, test_key(0)));
}

TEST_F(CrlFetch, UnknownLengthGivesTheTargetsEntries) {
  decoded got = send_body(body(), 0, false);
  ASSERT_EQ(0, got.code);
  EXPECT_TRUE(got.truncated);
  EXPECT_EQ((entry_list{{"5", "/CN=issuer"}}), entries_of(got.crl));
  EXPECT_EQ(truncated_line, own_log());
  EXPECT_TRUE(verifies(got, test_key(0)));
}

TEST_F(CrlFetch, LongListGivesTheTargetsEntries) {
  crl_fields fields;
  std::string entries;
  for (long serial = 1; serial < 20000; serial++)
    entries += crl_entry(serial, reason_code(1));
  fields.entries = entries;
  decoded got = send_body(crl_octets(fields));
  ASSERT_EQ(0, got.code);
  EXPECT_EQ((entry_list{{"5", "/CN=issuer"}}), entries_of(got.crl));
  EXPECT_EQ(truncated_line, own_log());
  EXPECT_TRUE(verifies(got, test_key(0)));
}

TEST_F(CrlFetch, NegativeLengthIsAnUnknownOne) {
  test_server server({raw("HTTP/1.0 200 OK\r\nContent-Length: -5\r\n\r\n" + body())});
  decoded got = send(server.url("/crl"), 1);
  EXPECT_EQ(0, got.code);
  EXPECT_TRUE(got.truncated);
}

TEST_F(CrlFetch, LongIssuerNameIsCutTo100Characters) {
  crl_fields fields;
  std::string cn(60, 'n');
  fields.issuer = der_name(make_name({{"CN", cn}, {"O", std::string(60, 'o')}}));
  EXPECT_EQ(0, send_body(crl_octets(fields)).code);
  // OpenSSL leaves out the attribute that does not fit.
  EXPECT_EQ("7: CRL (/CN=" + cn + ") fully decoded\n", own_log());
}

TEST_F(CrlFetch, SlowlyDeliveredBodyIsReadWhole) {
  answer slow = serve(body());
  slow.chunk = 1;
  test_server server({slow});
  EXPECT_EQ(0, send(server.url("/crl")).code);
}

TEST_F(CrlFetch, BodyThatBreaksOffIsAReadErrorAndNoPkcs7) {
  std::string whole_body = body();
  for (size_t size : {size_t{0}, size_t{1}, size_t{3}, size_t{60}, whole_body.size() - 1}) {
    answer cut = serve(whole_body);
    cut.bytes.resize(cut.bytes.size() - whole_body.size() + size);
    test_server server({cut});
    for (int format : {0, 1}) {
      clear_log();
      EXPECT_EQ(48, send(server.url("/crl"), format).code);
      EXPECT_EQ(failed_line(48), own_log());
      EXPECT_EQ(size == 60 ? "c\n" : "", out);
    }
  }
}

TEST_F(CrlFetch, ConnectionThatIsResetIsAReadError) {
  answer cut = serve(body());
  cut.bytes.resize(cut.bytes.size() - 20);
  cut.reset = true;
  test_server server({cut});
  for (int format : {0, 1})
    EXPECT_EQ(48, send(server.url("/crl"), format).code);
}

TEST_F(CrlFetch, ServerThatStopsHalfWayIsAReadError) {
  answer stalled = serve(body());
  stalled.bytes.resize(stalled.bytes.size() - 20);
  stalled.hold = true;
  test_server server({stalled});
  // Only the wait for what never comes is cut short.
  for (int waits = 0, code = 0; code != 48; waits++) {
    ASSERT_LT(waits, 1000);
    fake_failures::time_out_poll(waits);
    code = send(server.url("/crl"), 1).code;
  }
  EXPECT_TRUE(was_logged(3, "read timed out"));
}

TEST_F(CrlFetch, AnnouncedLengthThatIsTooShortIsRefused) {
  for (int length : {0, 1, 100}) {
    test_server server({raw("HTTP/1.0 200 OK\r\nContent-Length: " + std::to_string(length) +
                            "\r\n\r\n" + body())});
    clear_log();
    EXPECT_EQ(15, send(server.url("/crl"), 1).code);
    EXPECT_EQ(failed_line(15), own_log());
    EXPECT_EQ("", out);
  }
}

TEST_F(CrlFetch, DecoderErrorsAreLoggedAndReturned) {
  crl_fields fields;
  fields.algorithm = der_algorithm("1.3.101.112", false);
  EXPECT_EQ(84, send_body(crl_octets(fields), 1).code);
  EXPECT_EQ(failed_line(84), own_log());
  EXPECT_EQ("c\n", out);
  fields = {};
  fields.entries = crl_entry(9, unknown_extension(true));
  EXPECT_EQ(86, send_body(crl_octets(fields), 1).code);
  EXPECT_EQ(std::string("4: Found unknown critical crl-entry extension: ") + unknown_extension_oid +
                "\n" + failed_line(86),
            own_log());
  fields = {};
  fields.this_update = der_integer(1);
  EXPECT_EQ(15, send_body(crl_octets(fields), 1).code);
  EXPECT_EQ(failed_line(15), own_log());
  EXPECT_GT(openssl_lines(), 0u);
  EXPECT_EQ(0u, ERR_peek_error());
}

TEST_F(CrlFetch, EitherFormatTriesPkcs7BehindAFailedDecode) {
  crl_fields fields;
  fields.entries = crl_entry(9, unknown_extension(true));
  // What stands behind the entry, the signature's algorithm, is taken for a content type.
  const std::string behind = "3: Content-type (RSA-SHA256) in P7 is not SignedData\n";
  for (bool announced : {true, false}) {
    EXPECT_EQ(15, send_body(crl_octets(fields), 0, announced).code);
    EXPECT_EQ(std::string("4: Found unknown critical crl-entry extension: ") +
                  unknown_extension_oid + "\n" + failed_line(86) + behind + failed_pkcs7_line(),
              own_log());
    EXPECT_EQ("c\n", out);
  }
  fields = {};
  fields.algorithm = der_algorithm("1.3.101.112", false);
  for (bool announced : {true, false}) {
    EXPECT_EQ(15, send_body(crl_octets(fields), 0, announced).code);
    EXPECT_EQ(failed_line(84) + failed_pkcs7_line(), own_log());
    EXPECT_EQ("c\n", out);
  }
}

TEST_F(CrlFetch, EntriesWithoutATargetAreRefused) {
  test_server server({serve(body())});
  pki::crl_request request = {};
  request.tbs_digest = EVP_MD_CTX_new();
  int code = -1;
  out =
      output_of([&] { code = pki::cv_send_crl_request(&request, server.url("/crl").c_str(), 1); });
  EXPECT_EQ(63, code);
  EXPECT_EQ(nullptr, request.crl);
  EVP_MD_CTX_free(request.tbs_digest);
}

TEST_F(CrlFetch, PlainFormatRefusesPkcs7) {
  EXPECT_EQ(15, send_body(pkcs7_octets(body()), 1).code);
  EXPECT_EQ(failed_line(15), own_log());
  EXPECT_EQ("c\n", out);
}

TEST_F(CrlFetch, EveryWaitMayTimeOut) {
  test_server server({serve(body())});
  size_t waits = 0;
  for (int code = -1; code != 0 && waits < 1000; waits++) {
    fake_failures::time_out_poll(static_cast<int>(waits));
    clear_log();
    code = send(server.url("/crl"), 1).code;
    EXPECT_TRUE(code == 0 || code == 48 || code == 47) << waits << log_dump();
  }
  EXPECT_GT(waits, 2u);
}

TEST_F(CrlFetch, ConnectionsAreClosed) {
  auto before = support::open_descriptors();
  test_server server({serve(body()), serve("garbage"), status(404), serve(pkcs7_octets(body())),
                      serve(body().substr(0, 50))});
  auto with_server = support::open_descriptors();
  EXPECT_GT(with_server, before);
  for (int i = 0; i < 30; i++)
    send(server.url("/crl"));
  // The server may still be closing its end.
  EXPECT_LE(support::open_descriptors(), with_server + 1);
}

}  // namespace
