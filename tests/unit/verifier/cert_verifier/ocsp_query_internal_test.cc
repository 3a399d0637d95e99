// The OCSP query up to the answer's arrival: what is sent, and what HTTP brings back.
#include "fakes/failures.h"
#include "unit/verifier/cert_verifier/ocsp_support.h"

using namespace ocsp_support;
using support::ocsp_answer;
using support::test_server;

namespace {

class OcspQuery : public ocsp_query_test {
 protected:
  // The request that a query sends.
  std::string sent_request() {
    ocsp_responder responder(by_issuer());
    EXPECT_EQ(PKI_CERT_OK, status_of(ask(responder))) << log_dump();
    std::vector<std::string> requests = responder.requests();
    EXPECT_EQ(1u, requests.size());
    return requests.empty() ? "" : requests[0];
  }
  record ask_http(const support::answer &answer) {
    test_server server({answer});
    return query(server.url("/ocsp"));
  }
};

TEST_F(OcspQuery, LocatorOfAnotherTypeIsRefused) {
  for (int type : {0, 2, 3, -1}) {
    clear_log();
    std::string url = "http://127.0.0.1/";
    pki::ocsp_locator locator = {type, url.data(), nullptr, 0};
    EXPECT_EQ(nullptr,
              pki::zv_cv_ocsp_get_sts_info(&locator, device.get(), issuer.get(), nullptr, 1, 0));
    EXPECT_EQ("2: wrong locator-data type " + std::to_string(type) +
                  " encountered in zv_cv_ocsp_get_sts_info\n",
              log_dump());
  }
}

TEST_F(OcspQuery, CertificateWithoutIssuerIsNotAskedAbout) {
  ocsp_responder responder(by_issuer());
  issuer.reset();
  EXPECT_EQ(nullptr, ask(responder));
  EXPECT_EQ(lookup_line() + "3: Cert issuer is null\n", log_dump());
  EXPECT_EQ(0u, responder.requests().size());
}

TEST_F(OcspQuery, GoodAnswerLogsItsWholeCourse) {
  ocsp_options options = by_issuer();
  options.nonce = ocsp_nonce::none;
  options.single.id = support::ocsp_cert_id(device, issuer);
  std::string der = support::make_ocsp_response(options);
  ocsp_responder responder(der);
  record info = ask(responder);
  EXPECT_EQ(PKI_CERT_OK, status_of(info));
  EXPECT_EQ(lookup_line() + basic_length_line(der) + accepted_from_issuer(), log_dump());
}

TEST_F(OcspQuery, PostsARequestOfItsMediaType) {
  std::string request = sent_request();
  EXPECT_EQ(0u, request.rfind("POST /ocsp HTTP/1.0\r\n", 0)) << request;
  EXPECT_NE(std::string::npos, request.find("\r\nContent-Type: application/ocsp-request\r\n"));
  EXPECT_NE(std::string::npos, request.find("\r\nContent-Length: "));
}

TEST_F(OcspQuery, AsksForOneCertificateBySha1) {
  support::ocsp_request request = support::decode_ocsp_request(sent_request());
  ASSERT_NE(nullptr, request);
  ASSERT_EQ(1, OCSP_request_onereq_count(request.get()));
  OCSP_CERTID *asked = OCSP_onereq_get0_id(OCSP_request_onereq_get0(request.get(), 0));
  std::unique_ptr<OCSP_CERTID, void (*)(OCSP_CERTID *)> expected(
      OCSP_cert_to_id(EVP_sha1(), device.get(), issuer.get()), OCSP_CERTID_free);
  EXPECT_EQ(0, OCSP_id_cmp(expected.get(), asked));
  ASN1_OBJECT *digest = nullptr;
  OCSP_id_get0_info(nullptr, &digest, nullptr, nullptr, asked);
  EXPECT_EQ(NID_sha1, OBJ_obj2nid(digest));
}

TEST_F(OcspQuery, RequestIsNotSigned) {
  support::ocsp_request request = support::decode_ocsp_request(sent_request());
  ASSERT_NE(nullptr, request);
  EXPECT_EQ(0, OCSP_request_is_signed(request.get()));
}

TEST_F(OcspQuery, RequestCarriesANonceWithTwentyOctets) {
  support::ocsp_request request = support::decode_ocsp_request(sent_request());
  ASSERT_NE(nullptr, request);
  EXPECT_EQ(1, OCSP_REQUEST_get_ext_count(request.get()));
  std::string nonce = support::ocsp_nonce_of(request);
  EXPECT_EQ(22u, nonce.size());
  EXPECT_EQ(std::string("\x04\x14", 2), nonce.substr(0, 2));
}

TEST_F(OcspQuery, EachRequestHasItsOwnNonce) {
  ocsp_responder responder(by_issuer());
  ask(responder);
  ask(responder);
  std::vector<std::string> requests = responder.requests();
  ASSERT_EQ(2u, requests.size());
  EXPECT_NE(support::ocsp_nonce_of(support::decode_ocsp_request(requests[0])),
            support::ocsp_nonce_of(support::decode_ocsp_request(requests[1])));
}

TEST_F(OcspQuery, WithoutRandomOctetsNothingIsSent) {
  ocsp_responder responder(by_issuer());
  fake_failures::fail_rand_bytes();
  EXPECT_EQ(nullptr, ask(responder));
  EXPECT_EQ(lookup_line() + "3: out of memory\n", own_log());
  EXPECT_EQ(0u, responder.requests().size());
}

TEST_F(OcspQuery, UrlWithoutPathIsAsked) {
  ocsp_responder responder(by_issuer());
  EXPECT_EQ(PKI_CERT_OK, status_of(query(responder.url(""))));
  EXPECT_EQ(0u, responder.requests().at(0).rfind("POST / HTTP/1.0\r\n", 0));
  EXPECT_EQ(lookup_line() + "7: basic-rsp len: ", own_log().substr(0, lookup_line().size() + 18));
}

TEST_F(OcspQuery, UrlWithQueryKeepsIt) {
  ocsp_responder responder(by_issuer());
  EXPECT_EQ(PKI_CERT_OK, status_of(query(responder.url("/a/b?c=d"))));
  EXPECT_EQ(0u, responder.requests().at(0).rfind("POST /a/b?c=d HTTP/1.0\r\n", 0));
}

TEST_F(OcspQuery, UrlThatIsNoneIsInvalid) {
  for (const char *url : {"", "ocsp.example", "http:/ocsp.example/", "http:"}) {
    clear_log();
    EXPECT_EQ(nullptr, query(url));
    EXPECT_EQ(lookup_line() + "3: OCSP url '" + url + "' is invalid\n", log_dump());
  }
}

TEST_F(OcspQuery, UrlWithControlCharactersIsInvalidAndNotAsked) {
  ocsp_responder responder(by_issuer());
  for (const char *path : {"/a\r\nX-More: 1", "/a\nb", "/\x01", "/a\tb", "/\x7f"}) {
    clear_log();
    EXPECT_EQ(nullptr, query(responder.url(path)));
    EXPECT_TRUE(logged_containing(3, "OCSP url '")) << log_dump();
    EXPECT_TRUE(logged_containing(3, "' is invalid")) << log_dump();
  }
  EXPECT_EQ(0u, responder.requests().size());
}

TEST_F(OcspQuery, OtherTransportsAreNotSupported) {
  const std::pair<const char *, const char *> urls[] = {
      {"https://127.0.0.1/", "https"}, {"ldap://127.0.0.1/", "ldap"}, {"://127.0.0.1/", ""}};
  for (const auto &[url, scheme] : urls) {
    clear_log();
    EXPECT_EQ(nullptr, query(url));
    EXPECT_EQ(lookup_line() + "3: OCSP transport '" + scheme + "' not supported - must be http\n",
              log_dump());
  }
}

TEST_F(OcspQuery, ResponderThatIsNotThereIsATransportError) {
  EXPECT_EQ(nullptr, query("http://127.0.0.1:" + std::to_string(support::unused_port()) + "/"));
  EXPECT_TRUE(was_logged(3, "Error sending OCSP request to '" + last_url + "': HTTP ERROR"))
      << log_dump();
}

TEST_F(OcspQuery, HeadThatIsCutShortIsATransportError) {
  EXPECT_EQ(nullptr, ask_http(support::raw("HTTP/1.0 200 OK\r\nContent-Ty")));
  EXPECT_TRUE(
      was_logged(3, "Error sending OCSP request to '" + last_url + "': HTTP READ RESP ERROR"))
      << log_dump();
}

TEST_F(OcspQuery, BodyThatIsCutShortIsATransportError) {
  EXPECT_EQ(nullptr,
            ask_http(support::raw("HTTP/1.0 200 OK\r\nContent-Type: application/ocsp-response\r\n"
                                  "Content-Length: 100\r\n\r\n0123")));
  EXPECT_TRUE(was_logged(3, "Error sending OCSP request to '" + last_url + "': HTTP ERROR"))
      << log_dump();
}

TEST_F(OcspQuery, BodyWithoutLengthIsATransportError) {
  EXPECT_EQ(nullptr, ask_http(support::raw("HTTP/1.0 200 OK\r\nContent-Type: "
                                           "application/ocsp-response\r\n\r\n0123")));
  EXPECT_TRUE(was_logged(3, "Error sending OCSP request to '" + last_url + "': HTTP ERROR"))
      << log_dump();
}

TEST_F(OcspQuery, OnlyStatus200IsAnAnswer) {
  std::string body = support::make_ocsp_response([&] {
    ocsp_options options = by_issuer();
    options.nonce = ocsp_nonce::none;
    options.single.id = support::ocsp_cert_id(device, issuer);
    return options;
  }());
  for (int number : {201, 204, 206, 400, 404, 500, 503}) {
    clear_log();
    EXPECT_EQ(nullptr, ask_http(support::status(
                           number, "Content-Type: application/ocsp-response\r\n", body)));
    EXPECT_EQ(lookup_line() + "3: OCSP responder (" + last_url + ") returned " +
                  std::to_string(number) + "\n",
              log_dump());
  }
}

TEST_F(OcspQuery, RedirectThatKeepsTheMethodIsFollowed) {
  ocsp_responder responder(by_issuer());
  EXPECT_EQ(PKI_CERT_OK, status_of(ask_http(support::redirect(307, responder.url("/there")))));
  EXPECT_EQ(0u, responder.requests().at(0).rfind("POST /there HTTP/1.0\r\n", 0));
}

TEST_F(OcspQuery, OtherMediaTypesAreRefused) {
  for (const char *type : {"text/html", "application/ocsp-request", "application/ocsp-responses",
                           "application/ocsp-respons"}) {
    clear_log();
    EXPECT_EQ(nullptr, ask_http(support::ok("body", type)));
    EXPECT_EQ(lookup_line() + "3: OCSP responder (" + last_url +
                  ") returned unexpected content-type '" + type +
                  "' - only application/ocsp-response is supported\n",
              log_dump());
  }
}

TEST_F(OcspQuery, MissingMediaTypeIsAnUnexpectedOne) {
  for (const char *headers : {"", "Content-Type:\r\n"}) {
    clear_log();
    EXPECT_EQ(nullptr, ask_http(support::status(200, headers, "body")));
    EXPECT_EQ(lookup_line() + "3: OCSP responder (" + last_url +
                  ") returned unexpected content-type '(null)' - only application/ocsp-response "
                  "is supported\n",
              log_dump());
  }
}

TEST_F(OcspQuery, LetterCaseOfTheMediaTypeDoesNotMatter) {
  test_server server([this](const std::string &request) {
    return support::ok(
        support::make_ocsp_response(by_issuer(), support::decode_ocsp_request(request)),
        "Application/OCSP-Response");
  });
  EXPECT_EQ(PKI_CERT_OK, status_of(query(server.url()))) << log_dump();
}

TEST_F(OcspQuery, ParametersOfTheMediaTypeDoNotMatter) {
  test_server server([this](const std::string &request) {
    return support::ok(
        support::make_ocsp_response(by_issuer(), support::decode_ocsp_request(request)),
        "application/ocsp-response; charset=binary");
  });
  EXPECT_EQ(PKI_CERT_OK, status_of(query(server.url()))) << log_dump();
}

TEST_F(OcspQuery, BodyThatIsNoResponseGivesOpensslsErrors) {
  for (const char *body : {"", "no DER", "\x30\x03\x02\x01", "\x30\x80"}) {
    clear_log();
    EXPECT_EQ(nullptr, ask_http(ocsp_answer(body)));
    EXPECT_EQ(lookup_line(), own_log());
    EXPECT_GT(openssl_lines(3), 0u) << log_dump();
  }
}

TEST_F(OcspQuery, SubjectsAreNoFormats) {
  device = issue("%s%s%n", device_serial, device_key);
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(by_issuer())));
  EXPECT_TRUE(was_logged(7, "look up status of cert '/CN=%s%s%n' using OCSP (" + last_url + ")"))
      << log_dump();
  EXPECT_TRUE(was_logged(7, "cert (/CN=%s%s%n) status is: ok")) << log_dump();
}

TEST_F(OcspQuery, LongSubjectsDoNotMatter) {
  std::vector<std::pair<std::string, std::string>> entries(100, {"OU", std::string(64, 'u')});
  support::cert_options made = valid_options("device", device_serial, device_key);
  made.subject = support::make_name(entries);
  made.issuer = support::common_name("issuer");
  made.signing_key = support::test_key(issuer_key);
  device = support::make_cert(made);
  EXPECT_EQ(PKI_CERT_OK, status_of(ask(by_issuer())));
}

TEST_F(OcspQuery, LeavesNoOpensslErrorsBehind) {
  ask_http(ocsp_answer("no DER"));
  EXPECT_EQ(0ul, ERR_peek_error());
  ocsp_options damaged = by_issuer();
  damaged.damaged_signature = true;
  ask(damaged);
  EXPECT_EQ(0ul, ERR_peek_error());
  ask(by_issuer());
  EXPECT_EQ(0ul, ERR_peek_error());
}

}  // namespace
