#include <gtest/gtest.h>

#include "crl_lab.h"
#include "support/test_server.h"
#include "tools/pkilab/crl_entries.h"

namespace {

using nlohmann::json;
using tool_test::crl_lab;
using tool_test::is_one_line;
using tool_test::pkictl;
using tool_test::result;
using tool_test::strings;

class PkictlCrlFind : public testing::Test {
 protected:
  static void SetUpTestSuite() { lab_ = std::make_unique<crl_lab>(); }
  static void TearDownTestSuite() { lab_.reset(); }

  static const crl_lab &lab() { return *lab_; }
  static result find(const std::string &source, const strings &more) {
    strings arguments = {"crl", "find", source};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return pkictl(arguments);
  }
  static json find_json(const std::string &source, strings more, int exit_code) {
    more.push_back("--json");
    result done = find(source, more);
    EXPECT_EQ(done.exit_code, exit_code) << done.err;
    return json::parse(done.out);
  }
  static void expect_refused(const result &done, const std::string &reason) {
    EXPECT_EQ(done.exit_code, 2);
    EXPECT_EQ(done.out, "");
    EXPECT_TRUE(is_one_line(done.err)) << done.err;
    EXPECT_NE(done.err.find(reason), std::string::npos) << done.err;
  }

  static inline std::unique_ptr<crl_lab> lab_;
};

TEST_F(PkictlCrlFind, NotListedIsZero) {
  result done = find(lab().crl_url("empty&entries=5"), {"--serial", "123"});
  EXPECT_EQ(done.exit_code, 0) << done.err;
  EXPECT_TRUE(done.out.starts_with("not listed\n  serial            0123\nCRL\n")) << done.out;
  EXPECT_EQ(done.err, "");
}

TEST_F(PkictlCrlFind, ListedIsOne) {
  result done = find(lab().crl_url("empty&entries=5&entry=0123:superseded"), {"--serial", "123"});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.err, "");
  EXPECT_TRUE(done.out.starts_with("listed\n  serial            0123\n  since             20"))
      << done.out;
  EXPECT_NE(done.out.find("\n  reason            superseded\n"
                          "  certificate of    CN=pkilab issuing CA, O=pkilab\nCRL\n"),
            std::string::npos)
      << done.out;
  EXPECT_NE(done.out.find("\n  entries           6\n"), std::string::npos) << done.out;
}

TEST_F(PkictlCrlFind, EveryFormOfASerialNumber) {
  std::string url = lab().crl_url("empty&entry=0123AB");
  for (const char *serial : {"123ab", "0123AB", "0x123ab", "0X0123AB", "01:23:AB", "01:23:ab",
                             "dec:74667", "dec:0074667"})
    EXPECT_EQ(find(url, {"--serial", serial}).exit_code, 1) << serial;
  for (const char *serial : {"74667", "0x74667", "123", "dec:74668"})
    EXPECT_EQ(find(url, {"--serial", serial}).exit_code, 0) << serial;
}

TEST_F(PkictlCrlFind, WhatIsNoSerialNumber) {
  for (const char *serial : {"0x", ":", "12 3", "1.5", "0xg", "xyz", "dec:", "dec:1A", "dec:1:2"})
    expect_refused(find(lab().crl_url("empty"), {"--serial", serial}),
                   "is no serial number; write it in hexadecimal as in 10C4, 0x10C4 or 10:C4,"
                   " or in decimal as in dec:4292");
  expect_refused(find(lab().crl_url("empty"), {"--serial", std::string(200, '1')}),
                 "is no serial number");
}

TEST_F(PkictlCrlFind, Json) {
  json found = find_json(lab().crl_url("empty&entry=05:keyCompromise"),
                         {"--serial", "5", "--issuer", lab().file("issuing-cert.pem")}, 1);
  EXPECT_EQ(found["serial"], "05");
  ASSERT_EQ(found["listed"].size(), 1u);
  EXPECT_EQ(found["listed"][0]["serial"], "05");
  EXPECT_EQ(found["listed"][0]["reason"], "keyCompromise");
  EXPECT_EQ(found["listed"][0]["issuer"], "CN=pkilab issuing CA, O=pkilab");
  EXPECT_TRUE(found["listed"][0]["revoked_at"].get<std::string>().starts_with("20"));
  EXPECT_EQ(found["signature"], "good");
  EXPECT_EQ(found["entries"], 1);
  EXPECT_EQ(find_json(lab().crl_url("empty"), {"--serial", "5"}, 0)["listed"], json::array());
}

TEST_F(PkictlCrlFind, EntryWithoutAReason) {
  json found = find_json(lab().crl_url("empty&entry=05"), {"--serial", "5"}, 1);
  EXPECT_EQ(found["listed"][0]["reason"], nullptr);
  std::string text = find(lab().crl_url("empty&entry=05"), {"--serial", "5"}).out;
  EXPECT_NE(text.find("\n  reason            none given\n"), std::string::npos) << text;
}

TEST_F(PkictlCrlFind, EntryThatADeltaTakesBackIsListedAsSuch) {
  json found = find_json(lab().crl_url("empty&delta=1&number=2&entry=05:removeFromCRL"),
                         {"--serial", "5"}, 1);
  EXPECT_EQ(found["listed"][0]["reason"], "removeFromCRL");
}

TEST_F(PkictlCrlFind, CertificateFromAFile) {
  crl_lab own;
  crl_lab::issued cert = own.issue({.crls = {}});
  EXPECT_EQ(find(own.crl_url(), {"--cert", cert.file}).exit_code, 0);
  own.revoke(cert.file);
  json found = find_json(own.crl_url("entries=100"), {"--cert", cert.file}, 1);
  EXPECT_EQ(found["serial"], cert.serial);
  EXPECT_EQ(found["listed"][0]["reason"], "keyCompromise");
  for (const std::string &file : {own.save_der("pkcs7"), own.save_pem("entries=100")})
    EXPECT_EQ(find(file, {"--cert", cert.file}).exit_code, 1) << file;
}

TEST_F(PkictlCrlFind, CrlOfAnotherIssuerIsRefused) {
  expect_refused(find(lab().crl_url("empty", "root"), {"--cert", lab().file("issuing-cert.pem")}),
                 "this CRL is by CN=pkilab root CA, O=pkilab, and the certificate by CN=pkilab "
                 "issuing CA, O=pkilab; give the CRL of the certificate's issuer");
}

TEST_F(PkictlCrlFind, IndirectListSpeaksForOtherIssuers) {
  crl_lab own;
  crl_lab::issued cert = own.issue({.crls = {}});
  std::string url = own.crl_url("indirect&entries=3", "root");
  EXPECT_EQ(find_json(url, {"--cert", cert.file}, 0)["entries"], 3);
  own.revoke(cert.file, "superseded");
  json found = find_json(url, {"--cert", cert.file}, 1);
  EXPECT_EQ(found["listed"][0]["issuer"], "CN=pkilab issuing CA, O=pkilab");
  EXPECT_EQ(found["listed"][0]["reason"], "superseded");
  EXPECT_GT(found["critical_entries"], 0);
  EXPECT_EQ(find(own.crl_url("indirect"), {"--serial", cert.serial}).exit_code, 1);
}

TEST_F(PkictlCrlFind, ListWithoutAGoodSignatureSaysNothing) {
  expect_refused(find(lab().crl_url("empty&damaged-signature"),
                      {"--serial", "5", "--issuer", lab().file("issuing-cert.pem")}),
                 "has no good signature");
  json failed = find_json(lab().crl_url("empty&damaged-signature"),
                          {"--serial", "5", "--issuer", lab().file("issuing-cert.pem")}, 2);
  std::string message = failed["error"]["message"];
  EXPECT_NE(message.find(" has no good signature"), std::string::npos) << message;
}

TEST_F(PkictlCrlFind, CostIsToldOnRequest) {
  std::string file = lab().save_der("empty");
  EXPECT_EQ(find(file, {"--serial", "5"}).out.find("KiB"), std::string::npos);
  EXPECT_NE(find(file, {"--serial", "5", "--cost"}).out.find(" KiB of it came with the CRL\n"),
            std::string::npos);
  EXPECT_FALSE(find_json(file, {"--serial", "5"}, 0).contains("cost"));
  EXPECT_GT(find_json(file, {"--serial", "5", "--cost"}, 0)["cost"]["seconds"], 0.0);
}

TEST_F(PkictlCrlFind, ServerThatIsNotThereIsNamedWithTheReason) {
  std::string nobody = "127.0.0.1:" + std::to_string(support::unused_port());
  expect_refused(find("http://" + nobody + "/crl", {"--serial", "5"}),
                 "Error connecting to " + nobody + ": Connection refused\n");
}

TEST_F(PkictlCrlFind, WhatCannotBeReadIsTwo) {
  expect_refused(find(lab().home() / "none", {"--serial", "5"}), "No such file or directory");
  expect_refused(find(lab().crl_url("no-crl"), {"--serial", "5"}), "is no CRL");
  expect_refused(find(lab().crl_url("empty"), {"--cert", lab().home() / "none"}), "none");
  json failed = find_json(lab().home().write("cut.crl", "\x30\x20"), {"--serial", "5"}, 2);
  EXPECT_EQ(failed["error"]["code"], 15);
}

TEST_F(PkictlCrlFind, OneCertificateHasToBeNamed) {
  expect_refused(find(lab().crl_url("empty"), {}), "give either --serial or --cert");
  expect_refused(
      find(lab().crl_url("empty"), {"--serial", "5", "--cert", lab().file("issuing-cert.pem")}),
      "give either --serial or --cert");
}

TEST_F(PkictlCrlFind, HelpTellsTheExitCodes) {
  result done = pkictl({"crl", "find", "--help"});
  EXPECT_EQ(done.exit_code, 0);
  EXPECT_NE(done.out.find("Exit codes: 0 not listed, 1 listed, 2 "), std::string::npos);
}

TEST_F(PkictlCrlFind, LastOfAMillion) {
  std::string last = pkilab::generated_serial(999999);
  std::string url = lab().crl_url("empty&entries=1000000&reason-in-each");
  strings which = {"--serial", "0x" + last, "--issuer", lab().file("issuing-cert.pem")};
  json found = find_json(url, which, 1);
  EXPECT_EQ(found["entries"], 1000000);
  EXPECT_EQ(found["signature"], "good");
  EXPECT_EQ(found["listed"][0]["serial"], last);
}

}  // namespace
