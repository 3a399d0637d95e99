#include <gtest/gtest.h>

#include "lab_fixture.h"
#include "run_tool.h"
#include "support/certs.h"
#include "support/test_server.h"

namespace {

using nlohmann::json;
using tool_test::folder;
using tool_test::pkictl;
using tool_test::result;
using tool_test::strings;
using tool_test::the_lab;

struct board {
  folder home;
  board() { home.write("serialnumber", "SN-0042\n"); }
  strings environment() const { return {"BOARD_INFO_DIR=" + (home / "")}; }
};

result provision(const std::string &url, const strings &more = {}, strings environment = {}) {
  board device;
  strings arguments = {"provision", url, "--doc-key", the_lab().file("doc-key.pub.pem")};
  arguments.insert(arguments.end(), more.begin(), more.end());
  strings whole = device.environment();
  whole.insert(whole.end(), environment.begin(), environment.end());
  return pkictl(arguments, whole);
}

TEST(PkictlProvision, PrintsWhatEnteredTheStore) {
  std::string url = the_lab().lab.url("/ca-info");
  result done = provision(url, {"--label", "office", "--json"});
  ASSERT_EQ(done.exit_code, 0) << done.err;
  EXPECT_EQ(done.err, "");
  json ca = json::parse(done.out)["ca"];
  EXPECT_EQ(ca["label"], "office");
  EXPECT_EQ(ca["url"], url);
  EXPECT_EQ(ca["issuer"], "CN=pkilab issuing CA, O=pkilab");
  EXPECT_EQ(ca["expires"], "Thu, 01 Jan 2037 00:00:00 GMT");
  EXPECT_EQ(ca["cert_req_methods"].size(), 1u);
  EXPECT_EQ(ca["cert_lookup_methods"].size(), 1u);
  EXPECT_EQ(ca["cert_status_methods"].size(), 1u);
  EXPECT_EQ(ca["trusted_roots"].size(), 2u);
  EXPECT_EQ(ca["additional_certs"].size(), 1u);
}

TEST(PkictlProvision, PrintsItForAPerson) {
  result done = provision(the_lab().lab.url("/ca-info"));
  ASSERT_EQ(done.exit_code, 0) << done.err;
  for (const char *part :
       {"  label             ca\n", "  trusted roots     2\n", "  additional        1\n"})
    EXPECT_NE(done.out.find(part), std::string::npos) << done.out;
}

TEST(PkictlProvision, TakesTheKeyFromACertificate) {
  folder home;
  EVP_PKEY *key = the_lab().lab.keys().document_key();
  support::cert_options options;
  options.public_key = support::key(key, [](EVP_PKEY *) {});  // the lab's own
  std::string cert = home.write("cert.pem", support::pem(support::make_cert(options)));
  result done = pkictl({"provision", the_lab().lab.url("/ca-info"), "--doc-key", cert},
                       board().environment());
  EXPECT_EQ(done.exit_code, 0) << done.err;
}

TEST(PkictlProvision, FailureIsOneLineAndAnErrorInJson) {
  result done = provision(the_lab().lab.url("/misbehave/truncate-body/ca-info"), {"--json"});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_TRUE(tool_test::is_one_line(done.err)) << done.err;
  json error = json::parse(done.out)["error"];
  EXPECT_EQ("pkictl: " + error["message"].get<std::string>() + "\n", done.err);
  error.erase("message");
  EXPECT_EQ(error, (json{{"code", 47}, {"name", "PKI_HTTP_ERROR"}, {"text", "HTTP ERROR"}}));
}

TEST(PkictlProvision, FailureWithoutJsonPrintsNothing) {
  result done = provision(the_lab().lab.url("/misbehave/wrong-key/ca-info"));
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.out, "");
}

TEST(PkictlProvision, SaysWhereTheSerialNumberIsMissing) {
  result done = pkictl(
      {"provision", the_lab().lab.url("/ca-info"), "--doc-key", the_lab().file("doc-key.pub.pem")},
      {"BOARD_INFO_DIR=/nonexistent"});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_NE(done.err.find("FLASH ERROR (78): cannot read /nonexistent/serialnumber: No such file or"
                          " directory; put it there, or name another folder in BOARD_INFO_DIR\n"),
            std::string::npos)
      << done.err;
}

TEST(PkictlProvision, SaysWhatIsWrongWithTheSerialNumber) {
  board device;
  strings arguments = {"provision", the_lab().lab.url("/ca-info"), "--doc-key",
                       the_lab().file("doc-key.pub.pem")};
  std::string file = device.home.write("serialnumber", "SN 42\n");
  EXPECT_NE(pkictl(arguments, {"BOARD_INFO_DIR=" + (device.home / ".")})
                .err.find("/serialnumber has a character that is not allowed"),
            std::string::npos);
  device.home.write("serialnumber", "");
  EXPECT_NE(pkictl(arguments, {"BOARD_INFO_DIR=" + (device.home / ".")})
                .err.find("/serialnumber is empty\n"),
            std::string::npos);
}

TEST(PkictlProvision, HttpErrorSaysWhichOfManyItIs) {
  for (const auto &[path, reason] : std::vector<std::pair<std::string, std::string>>{
           {"/misbehave/truncate-body/ca-info", "truncated http response: got "},
           {"/misbehave/no-length/ca-info", "Won't buffer http response"},
           {"/misbehave/redirect-https/ca-info",
            "Invalid or unsupported url in redirect: https://"},
           {"/misbehave/redirect-loop/ca-info",
            "the server answered 302: its redirects were too many, or could not be followed;"
            " check the URL\n"},
           {"/nothing", "the server answered 404; check the URL\n"}}) {
    result done = provision(the_lab().lab.url(path));
    EXPECT_EQ(done.exit_code, 1);
    EXPECT_NE(done.err.find("HTTP ERROR (47): "), std::string::npos) << done.err;
    EXPECT_NE(done.err.find(reason), std::string::npos) << done.err;
    EXPECT_TRUE(tool_test::is_one_line(done.err)) << done.err;
  }
}

TEST(PkictlProvision, HeadThatIsTooLongIsSaidToBe) {
  for (const char *name : {"endless-headers", "long-header"}) {
    result done = provision(the_lab().lab.url("/misbehave/" + std::string(name) + "/ca-info"));
    EXPECT_EQ(done.exit_code, 1);
    EXPECT_TRUE(
        done.err.ends_with(" (48): Error reading http header line: Invalid argument: a line of the"
                           " answer's head, or all of it, is too long\n"))
        << done.err;
  }
}

TEST(PkictlProvision, UrlThatIsNotHttpIsWrongUsage) {
  for (const char *url : {"https://127.0.0.1/ca-info", "ca-info.p7", "http://"}) {
    result done = provision(url);
    EXPECT_EQ(done.exit_code, 2);
    EXPECT_EQ(done.err, "pkictl: URL \"" + std::string(url) +
                            "\" is no URL that can be asked; give one that begins with"
                            " http://\n");
  }
}

TEST(PkictlProvision, AnswerThatIsNoMessageMayBeAWebPage) {
  support::test_server server({support::ok("<html></html>", "text/html")});
  result done = provision(server.url("/ca-info"));
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_TRUE(
      done.err.ends_with("P7 DECODE ERROR (20): the answer is no whole PKCS#7 message;"
                         " check the URL: this may be a web page\n"))
      << done.err;
}

TEST(PkictlProvision, NobodyListeningIsAFailure) {
  result done =
      provision("http://127.0.0.1:" + std::to_string(support::unused_port()) + "/ca-info");
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_NE(done.err.find("HTTP ERROR (47): Error connecting to 127.0.0.1:"), std::string::npos)
      << done.err;
  EXPECT_TRUE(done.err.ends_with(": Connection refused\n")) << done.err;
}

TEST(PkictlProvision, VerboseShowsTheLibrarysLogOnStderr) {
  result quiet = provision(the_lab().lab.url("/ca-info"));
  EXPECT_EQ(quiet.err, "");
  result done = provision(the_lab().lab.url("/ca-info"), {"-v", "--json"});
  ASSERT_EQ(done.exit_code, 0);
  EXPECT_TRUE(done.err.starts_with("pkictl: pki initialized\n")) << done.err;
  EXPECT_NO_THROW(json::parse(done.out));
}

// Whatever shares the process may write to standard output; the reader of --json never sees it.
class noisy_test : public testing::TestWithParam<bool> {};

TEST_P(noisy_test, WhatTheBoardPrintsStaysOutOfTheOutput) {
  strings options = GetParam() ? strings{"--json"} : strings{};
  result done = provision(the_lab().lab.url("/ca-info"), options,
                          {TOOL_PRELOAD NOISY_BOARD, "ASAN_OPTIONS=verify_asan_link_order=0"});
  ASSERT_EQ(done.exit_code, 0) << done.err;
  EXPECT_EQ(done.out.find("reading the serial number"), std::string::npos);
  EXPECT_NE(done.err.find("reading the serial number\n"), std::string::npos) << done.err;
  EXPECT_EQ(json::accept(done.out), GetParam()) << done.out;
}

INSTANTIATE_TEST_SUITE_P(TextAndJson, noisy_test, testing::Bool());

}  // namespace
