#include <gtest/gtest.h>

#include "device.h"
#include "tools/common/cert_text.h"
#include "tools/common/keys.h"

namespace {

using nlohmann::json;
using tool_test::device;
using tool_test::result;
using tool_test::strings;

result find(const device &test, const std::string &serial, const strings &options = {}) {
  strings arguments = {"cert", "find", serial, "--ca", "office", "--key", "device"};
  arguments.insert(arguments.end(), options.begin(), options.end());
  return test.pkictl(arguments);
}

std::string serial_of(const std::string &file) {
  return tools::serial_text(X509_get0_serialNumber(tools::load_certificate(file).get()));
}

TEST(PkictlCertFind, FindsWhatWasIssuedAndSavesIt) {
  device test;
  test.prepare();
  ASSERT_EQ(test.enroll().exit_code, 0);
  std::string issued = test.cert_file();
  result done = find(test, serial_of(issued), {"--out", test.file("found.pem"), "--json"});
  ASSERT_EQ(done.exit_code, 0) << done.err;
  json printed = json::parse(done.out);
  EXPECT_EQ(printed["certificate"]["subject"], "CN=device, O=Example");
  EXPECT_EQ(printed["file"], test.file("found.pem"));
  EXPECT_FALSE(printed.contains("pem"));
  EXPECT_EQ(tool_test::read_file(test.file("found.pem")), tool_test::read_file(issued));
  EXPECT_EQ(tool_test::mode_of(test.file("found.pem")), 0644u);
}

TEST(PkictlCertFind, JsonHasThePemWhereNoFileReceivesIt) {
  device test;
  test.prepare();
  ASSERT_EQ(test.enroll().exit_code, 0);
  std::string issued = test.cert_file();
  json printed = json::parse(find(test, serial_of(issued), {"--json"}).out);
  EXPECT_EQ(printed["pem"], tool_test::read_file(issued));
  EXPECT_FALSE(printed.contains("file"));
}

TEST(PkictlCertFind, FileThatIsThereIsReplacedOnlyByForce) {
  device test;
  test.prepare();
  ASSERT_EQ(test.enroll().exit_code, 0);
  std::string serial = serial_of(test.cert_file());
  std::string out = test.home().write("found.pem", "old");
  result done = find(test, serial, {"-o", out});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.err, "pkictl: " + out + " is there already; take another name, or --force it\n");
  EXPECT_EQ(tool_test::read_file(out), "old");
  EXPECT_EQ(test.messages().size(), 2u);  // the CA was not asked
  EXPECT_EQ(find(test, serial, {"-o", out, "--force"}).exit_code, 0);
  EXPECT_EQ(tool_test::read_file(out), tool_test::read_file(test.cert_file()));
}

TEST(PkictlCertFind, PrintsItForAPerson) {
  device test;
  test.prepare();
  ASSERT_EQ(test.enroll().exit_code, 0);
  std::string pem = tool_test::read_file(test.cert_file());
  result done = find(test, serial_of(test.cert_file()));
  EXPECT_TRUE(done.out.starts_with("found\n  certificate       CN=device, O=Example\n"))
      << done.out;
  EXPECT_TRUE(done.out.ends_with("\n" + pem)) << done.out;
  done = find(test, serial_of(test.cert_file()), {"-o", test.file("found.pem")});
  EXPECT_TRUE(done.out.starts_with("found\n")) << done.out;
  EXPECT_TRUE(done.out.ends_with("\nsaved " + test.file("found.pem") + "\n")) << done.out;
  EXPECT_EQ(done.out.find("BEGIN"), std::string::npos) << done.out;
}

TEST(PkictlCertFind, LabKeepsCertificatesWhenItIsStartedAgain) {
  device first;
  first.prepare();
  ASSERT_EQ(first.enroll().exit_code, 0);
  device second;
  second.prepare();
  EXPECT_EQ(find(second, serial_of(first.cert_file())).exit_code, 0);
}

TEST(PkictlCertFind, IssuerCanBeNamed) {
  device test;
  test.prepare();
  result done = find(test, serial_of(test.lab_file("additional-cert.pem")),
                     {"--issuer", "CN=pkilab root CA, O=pkilab", "--json"});
  ASSERT_EQ(done.exit_code, 0) << done.err;
  EXPECT_EQ(json::parse(done.out)["certificate"]["subject"], "CN=pkilab additional CA, O=pkilab");
}

TEST(PkictlCertFind, UnknownSerialNumberIsARefusal) {
  device test;
  test.prepare();
  result done = find(test, "0815", {"--json"});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.err,
            "pkictl: cannot find the certificate: SCEP REQ REJ (58): the CA has none, or refuses:"
            " badCertId (4)\n");
  json printed = json::parse(done.out);
  EXPECT_EQ(printed["status"], "rejected");
  EXPECT_EQ(printed["error"]["code"], 58);
  EXPECT_EQ(printed["error"]["failure_info"], "badCertId (4)");
}

TEST(PkictlCertFind, SerialNumberHasToBeHexadecimal) {
  device test;
  test.prepare();
  for (const std::string &serial : {std::string("xyz"), std::string("-1"), std::string(129, '1')})
    EXPECT_EQ(find(test, serial).exit_code, 2) << serial;
}

TEST(PkictlCertFind, IssuerHasToBeAName) {
  device test;
  test.prepare();
  result done = find(test, "01", {"--issuer", "nonsense"});
  EXPECT_EQ(done.exit_code, 2);
  EXPECT_NE(done.err.find("(54)"), std::string::npos) << done.err;
}

TEST(PkictlCertFind, KeyOfAnIssuerThatNobodyKnowsIsNamed) {
  device test;
  test.prepare();
  result done = find(test, "01", {"--issuer", "cn=x"});
  EXPECT_EQ(done.exit_code, 2);
  EXPECT_NE(done.err.find("DN UNKNOWN KEY (53): Unknown key `cn' in name 'cn=x'; the letter case of"
                          " a key counts; write the issuer name as in CN=Example CA"),
            std::string::npos)
      << done.err;
}

TEST(PkictlCertFind, AnswerOfNoUseIsToldWithTheLibrarysReason) {
  device test({"--scep-misbehave", "no-message"});
  test.prepare();
  result done = find(test, "01", {"--json"});
  EXPECT_TRUE(done.err.ends_with(" this request: failed to decode scep response\n")) << done.err;
  std::string message = json::parse(done.out)["error"]["message"];
  EXPECT_EQ("pkictl: " + message + "\n", done.err);
}

TEST(PkictlCertFind, CaHasToOfferIt) {
  device test;
  test.prepare();
  tool_test::pkictl({"cainfo", "sign", "--issuer-name", "CN=own", "--key",
                     test.lab_file("doc-key.pem"), "--out", test.file("own.p7")});
  tool_test::lab_process documents(test.lab_file(""), {"--document", test.file("own.p7")});
  test.pkictl({"provision", documents.url() + "/ca-info", "--doc-key",
               test.lab_file("doc-key.pub.pem"), "--label", "office"});
  result done = find(test, "01");
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.err, "pkictl: the CA's document names no SCEP look-up\n");
}

struct bad_answer {
  const char *misdeed;
  const char *text;
};

class bad_look_up_test : public testing::TestWithParam<bad_answer> {};

TEST_P(bad_look_up_test, IsRefused) {
  device good;
  good.prepare();
  result enrolled = good.enroll({"-v"});
  ASSERT_EQ(enrolled.exit_code, 0) << enrolled.err;
  device test({"--scep-misbehave", GetParam().misdeed});
  test.prepare();
  result done = find(test, serial_of(good.cert_file()), {"--out", test.file("found.pem")});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_NE(done.err.find(GetParam().text), std::string::npos) << done.err;
  EXPECT_EQ(done.err.find("-v "), std::string::npos) << done.err;
  EXPECT_FALSE(tool_test::exists(test.file("found.pem")));
}

INSTANTIATE_TEST_SUITE_P(
    Answers, bad_look_up_test,
    testing::Values(bad_answer{"wrong-transaction-id", "(59)"}, bad_answer{"wrong-nonce", "(59)"},
                    bad_answer{"stranger-signs", "(59)"}, bad_answer{"impostor-signs", "(59)"},
                    bad_answer{"stranger-envelope", "(59)"}, bad_answer{"no-certificates", "(59)"},
                    bad_answer{"other-certificate", "another certificate than the one asked for"},
                    bad_answer{"http-500", "(47)"}));

TEST(PkictlCertFind, ForcedRefusalIsARefusal) {
  device test({"--scep-refuse", "badCertId"});
  test.prepare();
  EXPECT_NE(find(test, "01").err.find("(58)"), std::string::npos);
}

}  // namespace
