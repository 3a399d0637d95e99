// pkictl ca: the provisioned CAs, listed and removed; and what verify makes of them.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "device.h"
#include "state_fixture.h"
#include "support/certs.h"

namespace {

using nlohmann::json;
using tool_test::device;
using tool_test::result;
using tool_test::state_test;
using tool_test::strings;

void provision(const device &test, const std::string &label, const std::string &url) {
  result done = test.pkictl({"provision", url + "/ca-info", "--doc-key",
                             test.lab_file("doc-key.pub.pem"), "--label", label});
  ASSERT_EQ(done.exit_code, 0) << done.err;
}

TEST(PkictlCaList, PrintsWhatEachCaBrings) {
  device test;
  std::string url = test.lab().url();
  provision(test, "office", url);
  provision(test, "a", url);
  std::string rest = "  document          " + url +
                     "/ca-info\n"
                     "  issuer            CN=pkilab issuing CA, O=pkilab\n"
                     "  expires           Thu, 01 Jan 2037 00:00:00 GMT\n"
                     "  trusted roots     2\n"
                     "  additional        1\n"
                     "  enrollment        SCEP " +
                     url + "/scep\n  status            OCSP " + url + "/ocsp\n";
  result done = test.pkictl({"ca", "list"});
  EXPECT_EQ(done.exit_code, 0) << done.err;
  EXPECT_EQ(done.out, "a\n" + rest + "office\n" + rest);
  EXPECT_EQ(done.err, "");
}

TEST(PkictlCaList, PrintsTheCaAsProvisionDoesInJson) {
  device test;
  strings arguments = {"provision", test.lab().url() + "/ca-info", "--doc-key",
                       test.lab_file("doc-key.pub.pem"), "--json"};
  json provisioned = json::parse(test.pkictl(arguments).out)["ca"];
  json listed = json::parse(test.pkictl({"ca", "list", "--json"}).out);
  ASSERT_EQ(listed["cas"].size(), 1u);
  EXPECT_EQ(listed, (json{{"cas", json::array({provisioned})}}));
}

TEST(PkictlCaList, SaysWhatADocumentDoesNotName) {
  device test;
  tool_test::pkictl({"cainfo", "sign", "--issuer-name", "CN=own", "--key",
                     test.lab_file("doc-key.pem"), "--out", test.file("own.p7")});
  tool_test::lab_process documents(test.lab_file(""), {"--document", test.file("own.p7")});
  provision(test, "own", documents.url());
  EXPECT_EQ(test.pkictl({"ca", "list"}).out, "own\n  document          " + documents.url() +
                                                 "/ca-info\n"
                                                 "  issuer            CN=own\n"
                                                 "  trusted roots     none\n"
                                                 "  additional        none\n"
                                                 "  enrollment        none\n"
                                                 "  status            none\n");
}

TEST(PkictlCaList, NoCasAreSaidToBeNone) {
  state_test test;
  std::filesystem::create_directory(test.dir);
  EXPECT_EQ(test.pkictl({"ca", "list"}).out, "no CAs in " + test.dir + "\n");
  EXPECT_EQ(json::parse(test.pkictl({"ca", "list", "--json"}).out), (json{{"cas", json::array()}}));
}

TEST(PkictlCaRemove, TakesTheCaAwayAndLeavesTheRest) {
  device test;
  test.prepare();
  provision(test, "a", test.lab().url());
  result done = test.pkictl({"ca", "remove", "office"});
  EXPECT_EQ(done.exit_code, 0) << done.err;
  EXPECT_EQ(done.out, "removed office\n");
  pkictl::saved_state kept = tool_test::decoded(tool_test::read_file(test.state_file()));
  EXPECT_EQ(kept.cas.count("office"), 0u);
  EXPECT_EQ(kept.cas.count("a"), 1u);
  EXPECT_EQ(kept.keys.count("device"), 1u);
  EXPECT_EQ(json::parse(test.pkictl({"ca", "remove", "a", "--json"}).out),
            (json{{"removed", "a"}}));
}

TEST(PkictlCaRemove, CaThatIsNotThereFailsAndNothingIsWritten) {
  state_test test;
  result done = test.pkictl({"ca", "remove", "office"});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.err, "pkictl: there is no CA office in " + test.dir +
                          "; see 'pkictl ca list --state " + test.dir + "'\n");
  EXPECT_FALSE(tool_test::exists(test.dir));
}

TEST(PkictlCaRemove, LabelHasToBeOne) {
  state_test test;
  for (const char *label : {"../office", "", "a b"}) {
    result done = test.pkictl({"ca", "remove", label});
    EXPECT_EQ(done.exit_code, 2) << label;
    EXPECT_TRUE(tool_test::is_one_line(done.err)) << done.err;
  }
}

// A certificate below the lab's additional CA, which nothing but its document hands out.
struct deep_test : device {
  std::string cert = file("deep.pem");

  deep_test() {
    result done = tool_test::run(
        "pkilab", {"issue", "--dir", lab_file(""), "--ca", "additional", "--key",
                   lab_file("root-key.pem"), "--subject", "CN=deep", "--out", cert, "--force"});
    EXPECT_EQ(done.exit_code, 0) << done.err;
  }
};

TEST(PkictlVerifyAdditional, CertificatesOfTheDocumentCompleteChains) {
  deep_test test;
  provision(test, "office", test.lab().url());
  result done = test.pkictl({"verify", test.cert, "--json"});
  EXPECT_EQ(done.exit_code, 0) << done.err;
  json certs = json::parse(done.out)["certificates"];
  ASSERT_EQ(certs.size(), 3u);
  EXPECT_EQ(certs[1]["subject"], "CN=pkilab additional CA, O=pkilab");
  EXPECT_EQ(certs[1]["trusted"], false);
}

TEST(PkictlVerifyAdditional, TheyAreNotTrusted) {
  deep_test test;
  tool_test::pkictl({"cainfo", "sign", "--issuer-name", "CN=own", "--additional-cert",
                     test.lab_file("additional-cert.pem"), "--key", test.lab_file("doc-key.pem"),
                     "--out", test.file("own.p7")});
  tool_test::lab_process documents(test.lab_file(""), {"--document", test.file("own.p7")});
  provision(test, "own", documents.url());
  EXPECT_EQ(test.pkictl({"verify", test.cert}).exit_code, 2);  // nothing is trusted
  result done = test.pkictl({"verify", test.cert, "--trust", test.lab_file("issuing-cert.pem")});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_NE(done.err.find(" is rejected: "), std::string::npos) << done.err;
}

TEST(PkictlVerifyAdditional, AnotherKeyUnderTheIssuersNameIsTold) {
  deep_test test;
  provision(test, "office", test.lab().url());
  ASSERT_EQ(test.pkictl({"ca", "remove", "office"}).exit_code, 0);
  support::cert_options options;
  options.subject = support::make_name({{"O", "pkilab"}, {"CN", "pkilab additional CA"}});
  options.ca = true;
  options.extensions = {{"subjectKeyIdentifier", "hash"}};
  std::ofstream(test.file("old.pem")) << support::pem(support::make_cert(options));
  result done = test.pkictl({"verify", test.cert, "--trust", test.lab_file("issuing-cert.pem"),
                             "--chain", test.file("old.pem")});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_NE(done.err.find("the certificate of CN=pkilab additional CA, O=pkilab that is there has"
                          " another key; give the right one with --chain or --trust"),
            std::string::npos)
      << done.err;
}

TEST(PkictlVerifyAdditional, TheyLeaveWithTheirCa) {
  deep_test test;
  provision(test, "office", test.lab().url());
  ASSERT_EQ(test.pkictl({"ca", "remove", "office"}).exit_code, 0);
  strings arguments = {"verify", test.cert, "--trust", test.lab_file("root-cert.pem")};
  result done = test.pkictl(arguments);
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_NE(done.err.find("unable to get local issuer certificate"), std::string::npos) << done.err;
}

}  // namespace
