// pkictl verify: verdicts, and what it makes of its arguments. The tree has tests of its own.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "verify_files.h"

namespace {

using nlohmann::json;
using tool_test::inter_serial;
using tool_test::leaf_serial;
using tool_test::result;
using tool_test::strings;
using tool_test::verify_files;

constexpr int unable_to_get_crl = 3;
constexpr int has_expired = 10;
constexpr int unable_to_get_local_issuer = 20;
constexpr int is_revoked = 23;

int error_number(const result &done) {
  json error = json::parse(done.out)["error"];
  return error.is_null() ? 0 : error["number"].get<int>();
}

TEST(PkictlVerifyCert, GoodCertificateGivesZeroAndNoComplaint) {
  verify_files files;
  result done = files.verify({"--json"});
  EXPECT_EQ(done.exit_code, 0) << done.err;
  EXPECT_EQ(done.err, "");
  EXPECT_EQ(json::parse(done.out)["verdict"], "good");
  EXPECT_EQ(files.questions(), 2u);
}

TEST(PkictlVerifyCert, CertificateMayBeDer) {
  verify_files files;
  std::string file = files.path("leaf.der");
  std::ofstream(file, std::ios::binary) << support::der(files.leaf);
  EXPECT_EQ(files.verify_file(file).exit_code, 0);
}

TEST(PkictlVerifyCert, ChainMayStandInOneFileBesideOtherCertificates) {
  verify_files files;
  std::string file = files.path("bundle.pem");
  std::ofstream(file) << support::pem(files.leaf) << support::pem(files.inter);
  result done = files.pkictl(
      {"verify", files.path("leaf.pem"), "--chain", file, "--trust", files.path("root.pem")});
  EXPECT_EQ(done.exit_code, 0) << done.err;
}

TEST(PkictlVerifyCert, RevokedCertificateIsRejected) {
  verify_files files;
  files.status[leaf_serial] = V_OCSP_CERTSTATUS_REVOKED;
  result done = files.verify({"--json"});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(error_number(done), is_revoked);
  EXPECT_EQ(done.err, "pkictl: " + files.path("leaf.pem") +
                          " is rejected: certificate 0: its status is revoked\n");
}

TEST(PkictlVerifyCert, RevokedIntermediateIsRejectedBeforeTheRestIsLookedAt) {
  verify_files files;
  files.status[inter_serial] = V_OCSP_CERTSTATUS_REVOKED;
  result done = files.verify({"--json"});
  EXPECT_EQ(done.exit_code, 1);
  json certs = json::parse(done.out)["certificates"];
  EXPECT_EQ(certs[1]["verdict"], "rejected");
  EXPECT_EQ(certs[2]["verdict"], "not judged");
  EXPECT_EQ(files.questions(), 1u);
}

TEST(PkictlVerifyCert, UnknownStatusIsRejected) {
  verify_files files;
  files.status[leaf_serial] = V_OCSP_CERTSTATUS_UNKNOWN;
  result done = files.verify({"--json"});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(error_number(done), unable_to_get_crl);
}

TEST(PkictlVerifyCert, LocalFlavourAsksNobody) {
  verify_files files;
  files.status[leaf_serial] = V_OCSP_CERTSTATUS_REVOKED;
  EXPECT_EQ(files.verify({"--flavour", "local"}).exit_code, 0);
  EXPECT_EQ(files.questions(), 0u);
}

TEST(PkictlVerifyCert, ExpiredCertificateIsRejectedByTheInternetFlavour) {
  verify_files files;
  files.save("leaf.pem", files.issue_expired("leaf", leaf_serial, files.inter));
  result done = files.verify({"--json"});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(error_number(done), has_expired);
  EXPECT_EQ("pkictl: " + json::parse(done.out)["error"]["message"].get<std::string>() + "\n",
            done.err);
}

TEST(PkictlVerifyCert, ExpiredCertificateIsForgivenByTheLocalFlavour) {
  verify_files files;
  files.save("leaf.pem", files.issue_expired("leaf", leaf_serial, files.inter));
  result done = files.verify({"--json", "--flavour", "local"});
  EXPECT_EQ(done.exit_code, 0);
  EXPECT_EQ(error_number(done), has_expired);
  json steps = json::parse(done.out)["certificates"][2]["steps"];
  EXPECT_EQ(steps[0]["outcome"], "forgiven");
  EXPECT_EQ(steps[0]["error"]["text"], "certificate has expired");
}

TEST(PkictlVerifyCert, MissingIssuerIsRejected) {
  verify_files files;
  result done =
      files.pkictl({"--json", "verify", files.path("leaf.pem"), "--trust", files.path("root.pem")});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(error_number(done), unable_to_get_local_issuer);
}

TEST(PkictlVerifyCert, RootThatNobodyTrustsIsToBeTrustedFirst) {
  verify_files files;
  std::string other = files.save("other.pem", files.issue("other", 9, nullptr, {}, true));
  result done = files.pkictl({"verify", files.path("root.pem"), "--trust", other});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_TRUE(
      done.err.ends_with("certificate 0: self-signed certificate (18): CN=root is not"
                         " trusted; give it with --trust\n"))
      << done.err;
  done = files.pkictl({"verify", files.path("leaf.pem"), "--chain", files.path("inter.pem"),
                       "--chain", files.path("root.pem"), "--trust", other});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_TRUE(done.err.ends_with(" (19): CN=root is not trusted; give it with --trust\n"))
      << done.err;
}

TEST(PkictlVerifyCert, WhatOpensslRefusesIsTheReasonGiven) {
  verify_files files;
  files.save("leaf.pem",
             files.issue("leaf", leaf_serial, files.inter, {{"1.2.3.4", "critical,DER:05:00"}}));
  result done = files.verify();
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_NE(done.err.find("certificate 0: unhandled critical extension (34)\n"), std::string::npos)
      << done.err;
}

// OpenSSL knows certificatePolicies, the library does not.
TEST(PkictlVerifyCert, CriticalExtensionThatTheLibraryDoesNotKnowIsTheReasonGiven) {
  verify_files files;
  files.save("leaf.pem",
             files.issue("leaf", leaf_serial, files.inter,
                         {{"certificatePolicies", "critical,DER:30:07:30:05:06:03:2A:03:04"}}));
  result done = files.verify();
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_NE(done.err.find("certificate 0: Found unknown/unsupported critical extension 'X509v3 "
                          "Certificate Policies' in cert '/CN=leaf'\n"),
            std::string::npos)
      << done.err;
}

TEST(PkictlVerifyCert, RuleThatFailsIsTheReasonGiven) {
  verify_files files;
  files.save("inter.pem", files.issue("inter", inter_serial, files.root,
                                      {{"basicConstraints", "critical,CA:TRUE"},
                                       {"keyUsage", "critical,keyCertSign"}}));
  result done = files.verify();
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_NE(done.err.find("certificate 1: Certificate '/CN=inter' is an issuer but the crl-signing "
                          "key-usage bit is not set - rejecting it\n"),
            std::string::npos)
      << done.err;
}

TEST(PkictlVerifyCert, ResponderOfTheCommandLineIsAskedAboutCertificatesThatNameNone) {
  verify_files files;
  files.save("leaf.pem", files.issue("leaf", leaf_serial, files.inter));
  files.status[leaf_serial] = V_OCSP_CERTSTATUS_REVOKED;
  EXPECT_EQ(files.verify().exit_code, 0);
  EXPECT_EQ(files.verify({"--ocsp", files.url()}).exit_code, 1);
}

TEST(PkictlVerifyCert, SignatureOfTheSignerOfTheCommandLineCounts) {
  verify_files files;
  files.save("leaf.pem", files.issue("leaf", leaf_serial, files.inter));
  files.delegate = files.issue("stranger", 9, nullptr);
  std::string file = files.save("stranger.pem", files.delegate);
  EXPECT_EQ(files.verify({"--ocsp", files.url()}).exit_code, 1);
  result done = files.verify({"--ocsp", files.url(), "--ocsp-signer", file});
  EXPECT_EQ(done.exit_code, 0) << done.out;
}

// What is wrong with the input: exit code 2, one line that names it, nothing on standard output.
void expect_refused(const result &done, const std::string &text) {
  EXPECT_EQ(done.exit_code, 2);
  EXPECT_EQ(done.out, "");
  EXPECT_TRUE(tool_test::is_one_line(done.err)) << done.err;
  EXPECT_NE(done.err.find(text), std::string::npos) << done.err;
}

TEST(PkictlVerifyCertInput, MissingFileIsNamed) {
  verify_files files;
  expect_refused(files.verify_file(files.path("absent.pem")), files.path("absent.pem"));
}

TEST(PkictlVerifyCertInput, FileThatIsNoCertificateIsNamed) {
  verify_files files;
  std::string key = files.key_file("leaf");
  expect_refused(files.verify_file(key), key + " holds no readable certificate (PEM or DER)");
}

TEST(PkictlVerifyCertInput, DamagedChainFileIsNamed) {
  verify_files files;
  std::string file = files.path("inter.pem");
  std::ofstream(file) << support::pem(files.inter).substr(0, 200);
  expect_refused(files.verify(), file + " holds no readable certificate (PEM or DER)");
}

TEST(PkictlVerifyCertInput, MissingTrustFileIsNamed) {
  verify_files files;
  expect_refused(files.verify({"--trust", files.path("absent.pem")}), files.path("absent.pem"));
}

TEST(PkictlVerifyCertInput, SeveralCertificatesInTheFirstFileAreRefused) {
  verify_files files;
  std::string file = files.path("two.pem");
  std::ofstream(file) << support::pem(files.leaf) << support::pem(files.inter);
  expect_refused(files.verify_file(file),
                 file +
                     " holds several certificates where one is wanted; put the"
                     " rest into a file for --chain\n");
}

TEST(PkictlVerifyCertInput, NothingTrustedIsSaidWithWhatToDo) {
  verify_files files;
  expect_refused(files.pkictl({"verify", files.path("leaf.pem")}),
                 "nothing is trusted: give --trust FILE, or provision a CA");
}

TEST(PkictlVerifyCertInput, MissingStateFolderIsNamed) {
  verify_files files;
  expect_refused(files.pkictl({"verify", files.path("leaf.pem"), "--state", files.path("absent")}),
                 "there is no folder " + files.path("absent"));
}

TEST(PkictlVerifyCertInput, MissingStateFolderIsNamedWhereSomethingIsTrustedToo) {
  verify_files files;
  expect_refused(files.verify({"--state", files.path("absent")}),
                 "there is no folder " + files.path("absent") +
                     "; name the one that 'pkictl provision' was given");
  EXPECT_EQ(files.questions(), 0u);
}

TEST(PkictlVerifyCertInput, StateThatIsAFileIsNoEmptyState) {
  verify_files files;
  expect_refused(files.verify({"--state", files.path("root.pem")}),
                 files.path("root.pem") + " is no folder");
}

TEST(PkictlVerifyCertInput, FolderWithoutAStateIsAnEmptyOne) {
  verify_files files;
  std::filesystem::create_directory(files.path("no-cas"));
  EXPECT_EQ(files.verify({"--state", files.path("no-cas")}).exit_code, 0);
}

TEST(PkictlVerifyCertInput, CertificateBehindAFilesOptionIsTheOneToJudge) {
  verify_files files;
  result done = files.pkictl({"verify", "--chain", files.path("inter.pem"), "--trust",
                              files.path("root.pem"), files.path("leaf.pem"), "--json"});
  EXPECT_EQ(done.exit_code, 0) << done.err;
  EXPECT_EQ(json::parse(done.out)["file"], files.path("leaf.pem"));
}

TEST(PkictlVerifyCertInput, FilesOptionsMayBeGivenAgain) {
  verify_files files;
  result done = files.pkictl({"verify", files.path("leaf.pem"), "--chain", files.path("root.pem"),
                              "--chain", files.path("inter.pem"), "--trust",
                              files.path("inter.pem"), "--trust", files.path("root.pem")});
  EXPECT_EQ(done.exit_code, 0) << done.err;
}

TEST(PkictlVerifyCertInput, ResponderWithoutHttpIsRefused) {
  verify_files files;
  for (const char *url : {"https://x/y", "x", "", "http://"}) {
    expect_refused(files.verify({"--ocsp", url}),
                   "--ocsp \"" + std::string(url) +
                       "\" is no URL that can be asked; give one that begins with http://\n");
  }
}

TEST(PkictlVerifyCertInput, DamagedStateIsNamed) {
  verify_files files;
  std::filesystem::create_directories(files.path("state/pkictl"));
  std::string file = files.path("state/pkictl/state");
  std::ofstream(file) << "nothing of use\n";
  expect_refused(files.verify(), file + " is damaged");
}

TEST(PkictlVerifyCertInput, OtherFlavourIsRefused) {
  verify_files files;
  expect_refused(files.verify({"--flavour", "vanilla"}), "--flavour");
}

TEST(PkictlVerifyCertInput, SignerWithoutResponderIsRefused) {
  verify_files files;
  expect_refused(files.verify({"--ocsp-signer", files.path("root.pem")}), "--ocsp");
}

TEST(PkictlVerifyCertInput, ReasonIsGivenAsJsonToo) {
  verify_files files;
  result done = files.verify_file(files.path("absent.pem"), {"--json"});
  EXPECT_EQ(done.exit_code, 2);
  std::string text = json::parse(done.out)["error"]["text"];
  EXPECT_EQ("pkictl: " + json::parse(done.out)["error"]["message"].get<std::string>() + "\n",
            done.err);
  EXPECT_NE(text.find(files.path("absent.pem")), std::string::npos) << text;
}

}  // namespace
