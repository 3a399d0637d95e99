// The SCEP room as other clients meet it.
#include <gtest/gtest.h>
#include <signal.h>

#include "device.h"
#include "raw_http.h"
#include "tools/common/cert_text.h"
#include "tools/common/keys.h"
#include "tools/common/scep_message.h"
#include "tools/common/text.h"

namespace {

using tool_test::body_of;
using tool_test::device;
using tool_test::exchange;

// A lab and a request that it has answered once, to be sent again in other ways.
class scep_http_test : public testing::Test {
 protected:
  void SetUp() override {
    test_.prepare();
    ASSERT_EQ(test_.enroll().exit_code, 0);
    request_ = tool_test::read_file(test_.message("0001-PKCSReq.der"));
  }

  std::string get(const std::string &query) {
    return exchange(test_.lab().port(), "GET /scep?" + query + " HTTP/1.1\r\nHost: lab\r\n\r\n");
  }
  std::string get_message(const std::string &text) {
    return get("operation=PKIOperation&message=" + text);
  }
  std::string post(const std::string &body) {
    return exchange(test_.lab().port(),
                    "POST /scep?operation=PKIOperation HTTP/1.1\r\nHost: lab\r\n"
                    "Content-Type: application/x-pki-message\r\nContent-Length: " +
                        std::to_string(body.size()) + "\r\n\r\n" + body);
  }
  void expect_issued(const std::string &answer) {
    EXPECT_TRUE(answer.starts_with("HTTP/1.0 200 ")) << answer;
    EXPECT_NE(answer.find("\r\nContent-Type: application/x-pki-message\r\n"), std::string::npos);
    tools::pkcs7_ptr reply = tools::decode_pkcs7(body_of(answer));
    ASSERT_TRUE(reply);
    EXPECT_EQ(tools::read_outside(reply.get()).status, "0");
  }
  void expect_refused(const std::string &answer, const std::string &text) {
    EXPECT_TRUE(answer.starts_with("HTTP/1.0 400 ")) << answer;
    EXPECT_EQ(body_of(answer), text + "\n");
  }
  std::string fail_info_of(const std::string &answer) {
    tools::pkcs7_ptr reply = tools::decode_pkcs7(body_of(answer));
    return reply ? tools::read_outside(reply.get()).fail_info.value_or("none") : "no message";
  }

  device test_;
  std::string request_;
};

std::string one_line(const std::string &octets) {
  std::string text = tools::base64_lines(octets);
  std::erase(text, '\n');
  return text;
}

std::string escaped(const std::string &text) {
  std::string made;
  for (char character : text)
    made += isalnum(static_cast<unsigned char>(character))
                ? std::string(1, character)
                : "%" + tools::hex(std::string(1, character));
  return made;
}

TEST_F(scep_http_test, TakesBase64AsItIsWithItsLineFeeds) {
  expect_issued(get_message(tools::base64_lines(request_)));
}

TEST_F(scep_http_test, TakesBase64OnOneLine) {
  expect_issued(get_message(one_line(request_)));
}

TEST_F(scep_http_test, TakesEscapedBase64WithAndWithoutLineFeeds) {
  expect_issued(get_message(escaped(one_line(request_))));
  expect_issued(get_message(escaped(tools::base64_lines(request_))));
}

TEST_F(scep_http_test, TakesTheParametersInAnyOrder) {
  expect_issued(get("message=" + escaped(one_line(request_)) + "&operation=PKIOperation"));
}

TEST_F(scep_http_test, TakesTheMessageInTheBodyOfAPost) {
  expect_issued(post(request_));
}

TEST_F(scep_http_test, GivesItsCertificate) {
  std::string answer = get("operation=GetCACert&message=anything");
  EXPECT_NE(answer.find("\r\nContent-Type: application/x-x509-ca-cert\r\n"), std::string::npos);
  tools::cert_ptr own = tools::load_certificate(test_.lab_file("issuing-cert.pem"));
  EXPECT_EQ(body_of(answer), tools::cert_der(own.get()));
}

TEST_F(scep_http_test, TellsWhatItCan) {
  std::string answer = get("operation=GetCACaps");
  EXPECT_NE(answer.find("\r\nContent-Type: text/plain\r\n"), std::string::npos);
  for (const char *word : {"POSTPKIOperation\n", "SHA-256\n", "AES\n", "DES3\n", "SCEPStandard\n"})
    EXPECT_NE(body_of(answer).find(word), std::string::npos) << word;
}

TEST_F(scep_http_test, RefusesWhatIsNoOperation) {
  for (const char *query : {"", "operation=Nothing", "operation=", "message=AAAA"})
    expect_refused(get(query), "operation is none of GetCACaps, GetCACert and PKIOperation");
}

TEST_F(scep_http_test, RefusesWhatIsNoMessage) {
  expect_refused(get("operation=PKIOperation"), "the query's message is no base64");
  expect_refused(get_message("AAA"), "the query's message is no base64");
  expect_refused(get_message("AA=A"), "the query's message is no base64");
  expect_refused(get_message("AAAA"), "the message is no PKCS#7");
  expect_refused(post(""), "the message is no PKCS#7");
}

TEST_F(scep_http_test, RefusesAMessageOutsideAnyTransaction) {
  std::string answer = body_of(exchange(test_.lab().port(), "GET /ca-info HTTP/1.0\r\n\r\n"));
  expect_refused(post(answer), "the message has no transaction id or no sender nonce");
}

TEST_F(scep_http_test, AnswersAChangedMessageWithBadMessageCheck) {
  std::string changed = request_;
  changed.back() = static_cast<char>(changed.back() ^ 1);
  EXPECT_EQ(fail_info_of(post(changed)), "1");
}

TEST_F(scep_http_test, AnswersAMessageOfAnotherTypeWithBadRequest) {
  EXPECT_EQ(fail_info_of(post(tool_test::read_file(test_.message("0001-reply.der")))), "2");
}

TEST_F(scep_http_test, SurvivesEveryTruncation) {
  for (size_t length = 0; length < request_.size(); length += 37)
    EXPECT_TRUE(post(request_.substr(0, length)).starts_with("HTTP/1.0 400 ")) << length;
}

TEST_F(scep_http_test, LogsWhatWasAskedAndAnsweredWithoutTheMessage) {
  std::string log = test_.lab().end(SIGTERM).err;
  std::string line = log.substr(log.find("pkilab: GET /scep?operation=PKIOperation&message="));
  EXPECT_NE(line.find(" characters) -> 200 "), std::string::npos) << line;
  EXPECT_TRUE(line.ends_with(": SUCCESS\n")) << line;
  EXPECT_LT(line.size(), 250u);
}

TEST_F(scep_http_test, PollForARequestThatIsNotPendingIsBadCertId) {
  device waiting({"--scep-pending", "1"});
  waiting.prepare();
  tool_test::strings no_wait = {TOOL_PRELOAD SHORT_SLEEP, "ASAN_OPTIONS=verify_asan_link_order=0"};
  ASSERT_EQ(waiting.enroll({}, no_wait).exit_code, 0);
  EXPECT_EQ(fail_info_of(post(tool_test::read_file(waiting.message("0002-GetCertInitial.der")))),
            "4");
}

TEST_F(scep_http_test, IssuedCertificatesAreKeptBesideTheKeys) {
  tools::cert_ptr cert = tools::load_certificate(test_.cert_file());
  std::string serial = tools::serial_text(X509_get0_serialNumber(cert.get()));
  std::string path = test_.lab_file("issued/" + serial + ".pem");
  EXPECT_EQ(tool_test::read_file(path), tools::cert_pem(cert.get()));
}

}  // namespace
