// docs/json.md names every member of what pkictl prints.
#include <gtest/gtest.h>

#include <set>

#include "device.h"
#include "run_tool.h"

namespace {

using nlohmann::json;
using tool_test::result;
using tool_test::strings;

void add_names(const json &value, std::set<std::string> *names) {
  if (value.is_object())
    for (const auto &[name, member] : value.items()) {
      names->insert(name);
      add_names(member, names);
    }
  if (value.is_array())
    for (const json &element : value)
      add_names(element, names);
}

void expect_told(const result &done) {
  static const std::string page = tool_test::read_file(SOURCE_DIR "/docs/json.md");
  json printed = json::parse(done.out, nullptr, false);
  ASSERT_TRUE(printed.is_object()) << done.out << done.err;
  std::set<std::string> names;
  add_names(printed, &names);
  for (const std::string &name : names)
    EXPECT_NE(page.find("`" + name + "`"), std::string::npos) << name << " in " << done.out;
}

class JsonDocument : public testing::Test {
 protected:
  void expect_told_by(strings arguments) const {
    arguments.insert(arguments.begin(), "--json");
    SCOPED_TRACE(testing::PrintToString(arguments));
    expect_told(owner.pkictl(arguments));
  }
  // The same of a command without --state.
  void expect_told_of(strings arguments) const {
    arguments.insert(arguments.begin(), "--json");
    SCOPED_TRACE(testing::PrintToString(arguments));
    expect_told(tool_test::pkictl(arguments, owner.environment()));
  }

  tool_test::device owner;
};

TEST_F(JsonDocument, TellsOfTheState) {
  owner.prepare();
  strings enroll = owner.enroll_arguments({"--json"});
  expect_told(owner.pkictl(enroll));
  expect_told_by({"ca", "list"});
  expect_told_by({"key", "list"});
  expect_told_by({"key", "generate", "other", "--bits", "1024"});
  expect_told_by({"key", "export", "device", "--public"});
  expect_told_by({"cert", "export", "device", "cert"});
  expect_told_by({"key", "remove", "device"});
  expect_told_by({"provision", owner.lab().url() + "/ca-info", "--doc-key",
                  owner.lab_file("doc-key.pub.pem"), "--label", "office"});
  expect_told_by({"ca", "remove", "office"});
}

TEST_F(JsonDocument, TellsOfCertificatesCrlsAndMessages) {
  owner.prepare();
  ASSERT_EQ(owner.enroll().exit_code, 0);
  std::string cert = owner.cert_file();
  std::string trust = owner.lab_file("issuing-cert.pem");
  std::string crl = owner.lab().url() + "/crl/issuing.crl";
  strings verify = {"verify", cert, "--trust", trust, "--ocsp", owner.lab().url() + "/ocsp",
                    "--crl",  crl,  "--cost"};
  expect_told_of(verify);
  expect_told_of({"verify", cert, "--trust", trust, "--crl", crl});
  tool_test::run("pkilab", {"revoke", "--dir", owner.lab_file(""), cert});
  expect_told_of({"verify", cert, "--trust", trust, "--crl", crl});
  expect_told_of({"crl", "show", crl, "--issuer", trust, "--cost"});
  for (const std::string &name : owner.messages())
    expect_told_of(
        {"scep", "decode", owner.message(name), "--key", owner.lab_file("issuing-key.pem")});
}

TEST_F(JsonDocument, TellsOfDocumentsAndCodes) {
  std::string file = owner.file("signed.p7");
  expect_told_of({"cainfo", "sign", "--key", owner.lab_file("doc-key.pem"), "--issuer-name",
                  "CN=Office CA", "--expires", "2037-01-01", "--out", file, "--despite-faults"});
  expect_told_of({"cainfo", "show", file});
  expect_told_of({"cainfo", "verify", file, "--doc-key", owner.lab_file("doc-key.pub.pem")});
  expect_told_of({"error", "47"});
  expect_told_of({"error", "NOTHING"});
}

}  // namespace
