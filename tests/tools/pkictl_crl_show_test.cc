#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <regex>

#include "crl_lab.h"
#include "support/test_server.h"

namespace {

using nlohmann::json;
using tool_test::crl_lab;
using tool_test::is_one_line;
using tool_test::pkictl;
using tool_test::result;
using tool_test::strings;

class PkictlCrlShow : public testing::Test {
 protected:
  static void SetUpTestSuite() { lab_ = std::make_unique<crl_lab>(); }
  static void TearDownTestSuite() { lab_.reset(); }

  static const crl_lab &lab() { return *lab_; }
  static json show(const std::string &source, const strings &more = {}, int exit_code = 0) {
    strings arguments = {"crl", "show", source, "--json"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    result done = pkictl(arguments);
    EXPECT_EQ(done.exit_code, exit_code) << done.err;
    return json::parse(done.out);
  }
  static void expect_refused(const std::string &source, const std::string &reason) {
    result done = pkictl({"crl", "show", source});
    EXPECT_EQ(done.exit_code, 1);
    EXPECT_EQ(done.out, "");
    EXPECT_TRUE(is_one_line(done.err)) << done.err;
    EXPECT_NE(done.err.find(reason), std::string::npos) << done.err;
  }
  static void expect_line(const std::string &text, const std::string &name,
                          const std::string &value) {
    std::string line = "  " + name;
    line.resize(std::max<size_t>(line.size() + 1, 20), ' ');
    EXPECT_NE(text.find("\n" + line + value), std::string::npos) << name << " in\n" << text;
  }

  static inline std::unique_ptr<crl_lab> lab_;
};

TEST_F(PkictlCrlShow, FileOfDer) {
  std::string file = lab().save_der("empty&number=7&entries=5");
  strings arguments = {"crl", "show", file, "--issuer", lab().file("issuing-cert.pem")};
  result done = pkictl(arguments);
  EXPECT_EQ(done.exit_code, 0) << done.err;
  EXPECT_EQ(done.err, "");
  EXPECT_TRUE(done.out.starts_with("CRL\n")) << done.out;
  expect_line(done.out, "issuer", "CN=pkilab issuing CA, O=pkilab\n");
  expect_line(done.out, "number", "7\n");
  expect_line(done.out, "algorithm", "RSA-SHA256\n");
  expect_line(done.out, "signature", "good, by CN=pkilab issuing CA, O=pkilab\n");
  expect_line(done.out, "entries", "5\n");
  expect_line(done.out, "size", std::to_string(std::filesystem::file_size(file)) + " octets\n");
  EXPECT_TRUE(done.out.ends_with(" octets\n")) << done.out;
  arguments.emplace_back("--cost");
  std::string with_cost = pkictl(arguments).out;
  EXPECT_TRUE(with_cost.starts_with(done.out)) << with_cost;
  EXPECT_TRUE(std::regex_match(
      with_cost.substr(done.out.size()),
      std::regex("  time +[0-9.]+ s, [0-9.]+ MB/s\n"
                 "  memory +[0-9]+ KiB at the most, of the whole process; [0-9]+ KiB of"
                 " it came with the CRL\n")))
      << with_cost;
}

TEST_F(PkictlCrlShow, Json) {
  std::string file = lab().save_der("empty&number=7&entries=5");
  json shown = show(file);
  EXPECT_EQ(shown["source"], file);
  EXPECT_EQ(shown["crl"]["issuer"], "CN=pkilab issuing CA, O=pkilab");
  EXPECT_EQ(shown["crl"]["number"], "7");
  EXPECT_EQ(shown["crl"]["delta_of"], nullptr);
  EXPECT_EQ(shown["crl"]["scope"], nullptr);
  EXPECT_EQ(shown["crl"]["freshest_crl"], nullptr);
  EXPECT_EQ(shown["crl"]["expired"], false);
  EXPECT_EQ(shown["crl"]["future"], false);
  EXPECT_EQ(shown["crl"]["unknown_extensions"], json::array());
  EXPECT_EQ(shown["signature"], "not checked");
  EXPECT_EQ(shown["signer"], nullptr);
  EXPECT_EQ(shown["entries"], 5);
  EXPECT_EQ(shown["critical_entries"], 0);
  EXPECT_EQ(shown["octets"], std::filesystem::file_size(file));
  EXPECT_FALSE(shown.contains("cost"));
}

TEST_F(PkictlCrlShow, CostIsInJsonOnRequest) {
  json cost = show(lab().save_der("empty&entries=5"), {"--cost"})["cost"];
  EXPECT_GT(cost["seconds"], 0.0);
  EXPECT_GT(cost["octets_per_second"], 0.0);
  EXPECT_GT(cost["peak_memory_kib"], 1000);
  EXPECT_GE(cost["crl_memory_kib"], 0);
  EXPECT_LT(cost["crl_memory_kib"], cost["peak_memory_kib"]);
}

TEST_F(PkictlCrlShow, FileOfPem) {
  for (const char *query : {"empty", "empty&entries=1000"}) {
    std::string file = lab().save_pem(query);
    json shown = show(file, {"--issuer", lab().file("issuing-cert.pem")});
    EXPECT_EQ(shown["signature"], "good");
    EXPECT_EQ(shown["entries"], std::string(query) == "empty" ? 0 : 1000);
    EXPECT_LT(shown["octets"], std::filesystem::file_size(file));
  }
}

TEST_F(PkictlCrlShow, PemBehindTextAndOtherObjects) {
  std::string pem = tool_test::read_file(lab().save_pem("empty&entries=300"));
  std::string other = tool_test::read_file(lab().file("issuing-cert.pem"));
  for (const std::string &before :
       {std::string("a comment\n"), other, std::string(20000, 'x') + "\n-----BEGIN ",
        std::string(4090, '\n'), std::string("-----BEGIN X509 CRLS-----\n")}) {
    std::string file = lab().home().write("before.pem", before + pem + other);
    EXPECT_EQ(show(file)["entries"], 300);
  }
}

TEST_F(PkictlCrlShow, PemWithCarriageReturnsOrInOneLine) {
  std::string pem = tool_test::read_file(lab().save_pem("empty&entries=300"));
  std::string with_returns, in_one_line;
  size_t body = pem.find('\n') + 1;
  size_t end = pem.find("-----END");
  for (size_t at = 0; at < pem.size(); at++) {
    with_returns += pem[at] == '\n' ? "\r\n" : std::string(1, pem[at]);
    if (at < body || at >= end || pem[at] != '\n')
      in_one_line += pem[at];
  }
  EXPECT_EQ(show(lab().home().write("dos.pem", with_returns))["entries"], 300);
  EXPECT_EQ(show(lab().home().write("long.pem", in_one_line))["entries"], 300);
}

TEST_F(PkictlCrlShow, Url) {
  for (const char *query : {"empty&entries=1000", "empty&entries=1000&no-length",
                            "empty&entries=1000&pkcs7", "empty&entries=1000&pkcs7-certs"}) {
    json shown = show(lab().crl_url(query), {"--issuer", lab().file("issuing-cert.pem")});
    EXPECT_EQ(shown["entries"], 1000) << query;
    EXPECT_EQ(shown["signature"], "good") << query;
  }
}

TEST_F(PkictlCrlShow, Pkcs7InPem) {
  std::string der = lab().save_der("empty&entries=3&pkcs7");
  ASSERT_EQ(tool_test::run("/usr/bin/openssl",
                           {"pkcs7", "-inform", "DER", "-in", der, "-out", der + ".pem"})
                .exit_code,
            0);
  EXPECT_EQ(show(der + ".pem")["entries"], 3);
}

TEST_F(PkictlCrlShow, DeltaAndScope) {
  json shown = show(lab().crl_url("empty&delta=5&number=6"));
  EXPECT_EQ(shown["crl"]["delta_of"], "5");
  json scope =
      show(lab().crl_url("empty&indirect&reasons=keyCompromise,AACompromise&only=user"
                         "&idp-name=/crl/x"))["crl"]["scope"];
  EXPECT_EQ(scope["only"], json({"user"}));
  EXPECT_EQ(scope["reasons"], json({"keyCompromise", "AACompromise"}));
  EXPECT_EQ(scope["indirect"], true);
  ASSERT_EQ(scope["distribution_point"].size(), 1u);
  EXPECT_TRUE(scope["distribution_point"][0].get<std::string>().ends_with("/crl/x"));
  scope = show(lab().crl_url("empty&idp-relative&only=ca"))["crl"]["scope"];
  EXPECT_EQ(scope["only"], json({"ca"}));
  EXPECT_EQ(scope["distribution_point"], json({"relative to the issuer's name"}));
  EXPECT_EQ(scope["reasons"], nullptr);
}

TEST_F(PkictlCrlShow, DeltaAndScopeAsText) {
  std::string text = pkictl({"crl", "show",
                             lab().crl_url("empty&delta=5&number=6&reasons=superseded&only=ca"
                                           "&idp-name=/crl/x&indirect&freshest=/crl/d")})
                         .out;
  expect_line(text, "delta CRL of", "5\n");
  expect_line(text, "distribution point", "http://127.0.0.1:");
  expect_line(text, "only for", "ca certificates\n");
  expect_line(text, "reasons", "superseded\n");
  expect_line(text, "indirect", "yes");
  expect_line(text, "its delta CRL", "http://127.0.0.1:");
  expect_line(text, "signature", "NOT CHECKED");
}

TEST_F(PkictlCrlShow, UnknownExtensionsAndWhetherTheyAreCritical) {
  std::string url = lab().crl_url("empty&critical=1.2.3.4");
  json shown = show(url);
  EXPECT_EQ(shown["crl"]["unknown_extensions"], (json{{{"oid", "1.2.3.4"}, {"critical", true}}}));
  expect_line(pkictl({"crl", "show", url}).out, "unknown", "1.2.3.4, critical");
  url = lab().crl_url("empty&entry=5&entry=6&entry-critical=1.2.3.4");
  EXPECT_EQ(show(url)["critical_entries"], 2);
  expect_line(pkictl({"crl", "show", url}).out, "entries",
              "2, of them with an unknown critical extension: 2;");
}

TEST_F(PkictlCrlShow, DatesThatDoNotHoldAreMarked) {
  EXPECT_EQ(show(lab().crl_url("empty&expired"))["crl"]["expired"], true);
  EXPECT_EQ(show(lab().crl_url("empty&future"))["crl"]["future"], true);
  EXPECT_EQ(show(lab().crl_url("empty&no-next-update"))["crl"]["next_update"], nullptr);
  std::string text = pkictl({"crl", "show", lab().crl_url("empty&expired")}).out;
  EXPECT_NE(text.find("Z (in the past)\n"), std::string::npos) << text;
}

TEST_F(PkictlCrlShow, BadSignatureIsOne) {
  std::string stranger = lab().file("root-cert.pem");
  json shown = show(lab().crl_url("empty"), {"--issuer", stranger}, 1);
  EXPECT_EQ(shown["signature"], "bad");
  EXPECT_EQ(shown["signer"], "CN=pkilab root CA, O=pkilab");
  std::string message = shown["error"]["message"];
  EXPECT_NE(message.find(" has no good signature"), std::string::npos) << message;
  result done = pkictl({"crl", "show", lab().crl_url("empty&damaged-signature"), "--issuer",
                        lab().file("issuing-cert.pem")});
  EXPECT_EQ(done.exit_code, 1);
  expect_line(done.out, "signature", "BAD, not by CN=pkilab issuing CA, O=pkilab\n");
  EXPECT_TRUE(is_one_line(done.err)) << done.err;
  EXPECT_NE(done.err.find("has no good signature"), std::string::npos) << done.err;
}

TEST_F(PkictlCrlShow, FilesThatCannotBeUsed) {
  const auto &home = lab().home();
  std::string der = tool_test::read_file(lab().save_der("empty&entries=100"));
  std::string pem = tool_test::read_file(lab().save_pem("empty&entries=100"));
  expect_refused(home / "none", ": No such file or directory");
  expect_refused(lab().file(""), ": Is a directory");
  expect_refused(home.write("empty.crl", ""), " is empty");
  expect_refused(home.write("text.crl", "some text\n"), " is no CRL, neither DER nor PEM");
  expect_refused(lab().file("issuing-cert.pem"), " is no CRL, neither DER nor PEM");
  expect_refused(home.write("cut.crl", der.substr(0, 1000)),
                 "ASN1 DECODE ERROR (15): this is no CRL, or it is damaged");
  expect_refused(home.write("cut.pem", pem.substr(0, 1000)), "in the middle of a CRL");
  pem[500] = '!';
  expect_refused(home.write("bad.pem", pem), "there is no base64");
  der[der.find("\x30\x0d\x06\x09")] = '\0';
  expect_refused(home.write("bad.crl", der), "ASN1 DECODE ERROR (15)");
}

TEST_F(PkictlCrlShow, ServersThatCannotBeUsed) {
  std::string nobody = "127.0.0.1:" + std::to_string(support::unused_port());
  expect_refused("http://" + nobody + "/",
                 ": HTTP ERROR (47): Error connecting to " + nobody + ": Connection refused\n");
  expect_refused(lab().crl_url("http-status=404"), "the server answered 404; check the URL\n");
  expect_refused(lab().crl_url("no-crl"), "is no CRL");
  support::test_server cut(
      {support::raw("HTTP/1.0 200 OK\r\nContent-Length: 1000\r\n\r\n" +
                    tool_test::read_file(lab().save_der("empty")).substr(0, 90))});
  expect_refused(cut.url("/crl"), "ends after 90 octets, in the middle of a CRL");
}

TEST_F(PkictlCrlShow, UrlThatIsNotHttpIsWrongUsage) {
  for (const char *url : {"https://127.0.0.1/", "file:///tmp/ca.crl"}) {
    result done = pkictl({"crl", "show", url});
    EXPECT_EQ(done.exit_code, 2);
    EXPECT_EQ(done.err, "pkictl: SOURCE \"" + std::string(url) +
                            "\" is no URL that can be asked; give one that begins with"
                            " http://\n");
  }
  EXPECT_EQ(pkictl({"crl", "find", "https://127.0.0.1/", "--serial", "01"}).exit_code, 2);
}

TEST_F(PkictlCrlShow, FailureIsInJsonToo) {
  std::string file = lab().home().write("cut.crl", "\x30\x20");
  json shown = show(file, {}, 1);
  EXPECT_EQ(shown["error"]["code"], 15);
}

TEST_F(PkictlCrlShow, MillionEntriesTakeNoMoreMemoryThanTen) {
  long few = show(lab().crl_url("empty&entries=10"), {"--cost"})["cost"]["peak_memory_kib"];
  json many = show(lab().crl_url("empty&entries=1000000"),
                   {"--cost", "--issuer", lab().file("issuing-cert.pem")});
  EXPECT_EQ(many["entries"], 1000000);
  EXPECT_EQ(many["signature"], "good");
  // The list has 39 MB; a sanitizer's own memory comes and goes by a few.
  EXPECT_LT(many["cost"]["peak_memory_kib"].get<long>(), few + 4096);
}

// What the tool writes to a terminal that is its standard error.
std::string terminal_output(const std::string &source) {
  int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  EXPECT_EQ(grantpt(terminal), 0);
  EXPECT_EQ(unlockpt(terminal), 0);
  std::string other_end = ptsname(terminal);
  int keep_open = open(other_end.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, other_end.c_str(), O_RDWR | O_NOCTTY, 0);
  std::string program = std::filesystem::path(TOOL_DIR) / "pkictl";
  std::string words[] = {program, "crl", "show", source};
  char *arguments[] = {words[0].data(), words[1].data(), words[2].data(), words[3].data(), nullptr};
  pid_t pid = -1;
  EXPECT_EQ(posix_spawn(&pid, program.c_str(), &actions, nullptr, arguments, environ), 0);
  posix_spawn_file_actions_destroy(&actions);
  int status = -1;
  waitpid(pid, &status, 0);
  EXPECT_EQ(status, 0);
  fcntl(terminal, F_SETFL, O_NONBLOCK);
  std::string shown;
  char part[4096];
  for (ssize_t got; (got = read(terminal, part, sizeof part)) > 0;)
    shown.append(part, static_cast<size_t>(got));
  close(keep_open);
  close(terminal);
  return shown;
}

TEST_F(PkictlCrlShow, ProgressOnATerminalOnly) {
  std::string file = lab().save_der("empty&entries=1000");
  std::string shown = terminal_output(file);
  EXPECT_NE(shown.find("\r["), std::string::npos) << shown;
  EXPECT_NE(shown.find("#] 100 %"), std::string::npos) << shown;
  EXPECT_NE(shown.find(" MB/s"), std::string::npos) << shown;
  EXPECT_TRUE(shown.ends_with(" \r")) << "the line is wiped";
  EXPECT_EQ(pkictl({"crl", "show", file}).err, "");
}

TEST_F(PkictlCrlShow, ProgressWithoutAKnownLengthHasNoPercents) {
  std::string shown = terminal_output(lab().crl_url("empty&entries=1000&no-length"));
  EXPECT_NE(shown.find(" MB"), std::string::npos) << shown;
  EXPECT_EQ(shown.find('%'), std::string::npos) << shown;
}

}  // namespace
