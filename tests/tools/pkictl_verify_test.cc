#include <gtest/gtest.h>

#include "lab_fixture.h"
#include "raw_http.h"
#include "run_tool.h"

namespace {

using nlohmann::json;
using tool_test::folder;
using tool_test::pkictl;
using tool_test::result;
using tool_test::strings;
using tool_test::the_lab;

// The lab's own document.
const std::string &signed_document() {
  static const std::string document = tool_test::body_of(
      tool_test::exchange(the_lab().lab.port(), "GET /ca-info HTTP/1.0\r\n\r\n"));
  return document;
}

result verify(const std::string &file, const std::string &key = "doc-key.pub.pem",
              const strings &more = {}) {
  strings arguments = {"cainfo", "verify", file, "--doc-key", the_lab().file(key)};
  arguments.insert(arguments.end(), more.begin(), more.end());
  return pkictl(arguments);
}

TEST(PkictlVerify, GoodDocumentIsZero) {
  folder home;
  std::string file = home.write("doc", signed_document());
  result done = verify(file);
  EXPECT_EQ(done.exit_code, 0);
  EXPECT_EQ(done.out, file + ": good signature, good content\n");
  EXPECT_EQ(done.err, "");
}

TEST(PkictlVerify, GoodDocumentAsJson) {
  folder home;
  std::string file = home.write("doc", signed_document());
  result done = verify(file, "doc-key.pub.pem", {"--json"});
  EXPECT_EQ(done.exit_code, 0);
  EXPECT_EQ(json::parse(done.out),
            (json{{"file", file}, {"valid", true}, {"signature", "good"}, {"content", "good"}}));
}

TEST(PkictlVerify, KeyOfAStrangerIsOne) {
  folder home;
  std::string file = home.write("doc", signed_document());
  result done = verify(file, "root-cert.pem", {"--json"});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_TRUE(tool_test::is_one_line(done.err)) << done.err;
  json printed = json::parse(done.out);
  EXPECT_EQ(printed["valid"], false);
  EXPECT_EQ(printed["signature"], "bad");
  EXPECT_EQ(printed["content"], "not checked");
  EXPECT_EQ(printed["error"]["code"], 29);
  EXPECT_EQ("pkictl: " + printed["error"]["message"].get<std::string>() + "\n", done.err);
}

TEST(PkictlVerify, TruncatedFileIsOne) {
  folder home;
  result done = verify(home.write("doc", signed_document().substr(0, 1000)));
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_NE(done.err.find("P7 DECODE ERROR (20)"), std::string::npos) << done.err;
}

TEST(PkictlVerify, WellSignedNonsenseIsOne) {
  folder home;
  std::string xml =
      home.write("doc.xml", "<QRNPkiConfig><IssuerName>CN</IssuerName></QRNPkiConfig>");
  pkictl({"cainfo", "sign", xml, "--despite-faults", "--key", the_lab().file("doc-key.pem"),
          "--out", home / "doc"});
  result done = verify(home / "doc", "doc-key.pub.pem", {"--json"});
  EXPECT_EQ(done.exit_code, 1);
  json printed = json::parse(done.out);
  EXPECT_EQ(printed["signature"], "good");
  EXPECT_EQ(printed["content"], "bad");
  EXPECT_EQ(printed["error"]["code"], 54);
}

TEST(PkictlVerify, AttributeThatIsMissingIsNamed) {
  folder home;
  std::string xml = home.write("doc.xml",
                               "<QRNPkiConfig><CertReqMethod><SCEP/></CertReqMethod>"
                               "</QRNPkiConfig>");
  pkictl({"cainfo", "sign", xml, "--despite-faults", "--key", the_lab().file("doc-key.pem"),
          "--out", home / "doc"});
  std::string reason =
      ": a method lacks its url, or Digest or Cipher its alg: Error parsing ca-info document:"
      " attribute url not found for tag SCEP\n";
  result done = verify(home / "doc");
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_TRUE(done.err.ends_with(reason)) << done.err;
  done = pkictl({"cainfo", "show", xml});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_TRUE(done.err.ends_with(reason)) << done.err;
}

TEST(PkictlVerify, ElementThatDevicesPassOverIsNoted) {
  folder home;
  std::string xml = home.write("doc.xml", "<QRNPkiConfig><TrustedRoot/></QRNPkiConfig>");
  pkictl({"cainfo", "sign", xml, "--key", the_lab().file("doc-key.pem"), "--out", home / "doc"});
  result done = verify(home / "doc");
  EXPECT_EQ(done.exit_code, 0);
  EXPECT_TRUE(done.err.starts_with(
      "pkictl: note: Parsing ca-info document: ignoring unexpected tag 'TrustedRoot'; "))
      << done.err;
  EXPECT_TRUE(tool_test::is_one_line(done.err)) << done.err;
}

TEST(PkictlVerify, MissingFileIsOneLineAndAnErrorInJson) {
  folder home;
  result done = verify(home / "none", "doc-key.pub.pem", {"--json"});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.err, "pkictl: cannot read " + (home / "none") + ": No such file or directory\n");
  json error = json::parse(done.out)["error"];
  EXPECT_EQ("pkictl: " + error["message"].get<std::string>() + "\n", done.err);
  EXPECT_EQ(error["text"], error["message"]);
}

TEST(PkictlShow, WithoutAKeySaysThatNobodyCheckedTheSignature) {
  folder home;
  result done = pkictl({"cainfo", "show", home.write("doc", signed_document())});
  EXPECT_EQ(done.exit_code, 0) << done.err;
  EXPECT_TRUE(done.out.starts_with(
      "Signature: NOT CHECKED, so anybody may have written this; give --doc-key\n"))
      << done.out;
}

TEST(PkictlShow, WithTheKeySaysThatTheSignatureIsGood) {
  folder home;
  result done = pkictl({"cainfo", "show", home.write("doc", signed_document()), "--doc-key",
                        the_lab().file("doc-key.pub.pem")});
  EXPECT_EQ(done.exit_code, 0) << done.err;
  EXPECT_TRUE(done.out.starts_with("Signature: good\n")) << done.out;
}

TEST(PkictlShow, PrintsWhatTheDocumentSays) {
  folder home;
  result done = pkictl({"cainfo", "show", home.write("doc", signed_document())});
  for (const char *part :
       {"CN=pkilab issuing CA, O=pkilab", "/scep\n", "/ocsp\n", "SHA256", "DES-EDE3-CBC",
        "trusted roots     2\n", "CN=pkilab additional CA", "Thu, 01 Jan 2037 00:00:00 GMT"})
    EXPECT_NE(done.out.find(part), std::string::npos) << part << " in\n" << done.out;
}

TEST(PkictlShow, WithTheWrongKeyShowsNothing) {
  folder home;
  result done = pkictl({"cainfo", "show", home.write("doc", signed_document()), "--doc-key",
                        the_lab().file("root-cert.pem")});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.out, "");
  EXPECT_TRUE(tool_test::is_one_line(done.err)) << done.err;
}

TEST(PkictlShow, ReadsAnUnsignedDocument) {
  folder home;
  std::string xml =
      home.write("doc.xml", "\n<QRNPkiConfig><IssuerName>CN=a</IssuerName></QRNPkiConfig>");
  result done = pkictl({"cainfo", "show", xml});
  EXPECT_EQ(done.exit_code, 0) << done.err;
  EXPECT_TRUE(done.out.starts_with("Signature: NONE, this is an unsigned document\n")) << done.out;
  result checked = pkictl({"cainfo", "show", xml, "--doc-key", the_lab().file("doc-key.pub.pem")});
  EXPECT_EQ(checked.exit_code, 1);
}

TEST(PkictlShow, RefusesAFileThatIsNeither) {
  folder home;
  std::string file = home.write("doc", "neither");
  result done = pkictl({"cainfo", "show", file});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.err, "pkictl: " + file + " is neither a signed CA-info document nor XML\n");
}

TEST(PkictlShow, NamesDoNotDriveTheTerminal) {
  folder home;
  std::string xml = home.write("doc.xml",
                               "<QRNPkiConfig><CertStatusQueryMethod><OCSP url=\"http://a/\xC2\x9B"
                               "31m\"/></CertStatusQueryMethod></QRNPkiConfig>");
  result done = pkictl({"cainfo", "show", xml});
  EXPECT_EQ(done.exit_code, 0) << done.err;
  EXPECT_NE(done.out.find("http://a/?31m"), std::string::npos) << done.out;
}

}  // namespace
