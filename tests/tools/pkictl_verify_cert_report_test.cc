// What pkictl verify says on the way to its verdict.
#include <gtest/gtest.h>

#include "device.h"
#include "tools/common/cert_text.h"
#include "verify_files.h"
#include "without_times.h"

namespace {

using nlohmann::json;
using tool_test::delegate_serial;
using tool_test::leaf_serial;
using tool_test::result;
using tool_test::strings;
using tool_test::verify_files;
using tool_test::without_times;

json report(const result &done) {
  return json::parse(done.out);
}

// The names of a certificate's steps, in order.
strings step_names(const json &cert) {
  strings names;
  for (const json &step : cert["steps"])
    names.push_back(step["name"]);
  return names;
}

json last_step(const json &cert) {
  return cert["steps"].back();
}

// How long something took is different every time, and so are the days.
TEST(PkictlVerifyCertReport, ShowsTheWholeWayAsATree) {
  verify_files files;
  result done = files.verify();
  std::string url = files.url();
  EXPECT_EQ(without_times(done.out), R"(good, internet flavour
  2  CN=root: accepted (trusted)
      valid     TIME to TIME
      passed    OpenSSL
      passed    time of the check
      passed    readable extensions
      passed    path length
  1  CN=inter: accepted
      valid     TIME to TIME
      passed    OpenSSL
      passed    time of the check
      passed    readable extensions
      passed    path length
      passed    critical extensions
      passed    key usage of an issuer
      passed    basic constraints of an issuer
      passed    status
        status of CN=inter: ok, until TIME
          asked )" + url + R"(: ok in N ms, until TIME
  0  CN=leaf: accepted
      valid     TIME to TIME
      passed    OpenSSL
      passed    time of the check
      passed    readable extensions
      passed    path length
      passed    critical extensions
      passed    status
        status of CN=leaf: ok, until TIME
          asked )" + url + R"(: ok in N ms, until TIME
)");
}

TEST(PkictlVerifyCertReport, ShowsWhyASourceGaveNoAnswer) {
  verify_files files;
  files.delegate = files.issue("stranger", 9, nullptr);
  result done = files.verify();
  EXPECT_EQ(done.exit_code, 1);
  size_t from = done.out.find("  0  CN=leaf");
  ASSERT_NE(from, std::string::npos) << done.out;
  EXPECT_EQ(without_times(done.out.substr(from)), R"(  0  CN=leaf: rejected
      valid     TIME to TIME
      passed    OpenSSL
      passed    time of the check
      passed    readable extensions
      passed    path length
      passed    critical extensions
      failed    status
        status of CN=leaf: unknown, until TIME
          asked )" + files.url() + R"(: no answer in N ms
            log: ocsp-response signer (/CN=stranger) has no ocsp-signing extended key-usage - discarding
            log: no ocsp-response signer certs were trusted
          log: No cert-status information found for cert '/CN=leaf'
)");
}

TEST(PkictlVerifyCertReport, ShowsTheCheckOfAResponderBelowItsAnswer) {
  verify_files files;
  files.delegate = files.issue_delegate(files.inter);
  result done = files.verify();
  EXPECT_EQ(done.exit_code, 0) << done.err;
  std::string url = files.url();
  std::string shown = without_times(done.out);
  EXPECT_TRUE(shown.ends_with(R"(
        status of CN=leaf: ok, until TIME
          asked )" + url + R"(: ok in N ms, until TIME
            status of CN=delegate: ok, until TIME
              asked )" + url + R"(: ok in N ms, until TIME
)")) << shown;
}

TEST(PkictlVerifyCertReport, SaysWhatTheCacheAnswered) {
  verify_files files;
  files.delegate = files.issue_delegate(files.inter);
  files.status[leaf_serial] = V_OCSP_CERTSTATUS_UNKNOWN;
  // Two sources, whose answers the same responder signs.
  std::string url = "OCSP;URI:" + files.url();
  files.save("leaf.pem", files.issue("leaf", leaf_serial, files.inter,
                                     {{"authorityInfoAccess", url + "," + url}}));
  json sources =
      last_step(report(files.verify({"--json"}))["certificates"][2])["checks"][0]["sources"];
  ASSERT_EQ(sources.size(), 2u);
  EXPECT_EQ(sources[0]["checks"][0]["from"], "source");
  EXPECT_EQ(sources[1]["checks"][0]["from"], "cache");
  EXPECT_EQ(sources[1]["checks"][0]["status"], "ok");
  EXPECT_EQ(sources[1]["checks"][0]["valid_until"], sources[0]["checks"][0]["valid_until"]);
}

TEST(PkictlVerifyCertReport, TextNamesTheCache) {
  verify_files files;
  files.delegate = files.issue_delegate(files.inter);
  files.status[leaf_serial] = V_OCSP_CERTSTATUS_UNKNOWN;
  std::string url = "OCSP;URI:" + files.url();
  files.save("leaf.pem", files.issue("leaf", leaf_serial, files.inter,
                                     {{"authorityInfoAccess", url + "," + url}}));
  std::string shown = without_times(files.verify().out);
  EXPECT_NE(shown.find("status of CN=delegate: ok, from the cache, until TIME\n"),
            std::string::npos)
      << shown;
}

TEST(PkictlVerifyCertReport, RevokedResponderIsShownWithWhatFollows) {
  verify_files files;
  files.delegate = files.issue_delegate(files.inter);
  files.status[delegate_serial] = V_OCSP_CERTSTATUS_REVOKED;
  json source =
      last_step(report(files.verify({"--json"}))["certificates"][2])["checks"][0]["sources"][0];
  EXPECT_EQ(source["answer"], nullptr);
  EXPECT_EQ(source["checks"][0]["status"], "revoked");
  EXPECT_EQ(source["log"], (json{"ocsp-response signer's cert (/CN=delegate) was revoked - "
                                 "rejecting it",
                                 "no ocsp-response signer certs were trusted"}));
}

TEST(PkictlVerifyCertReport, AnswerThatDoesNotSayHowLongItHoldsIsNone) {
  verify_files files;
  files.with_next_update = false;
  result done = files.verify();
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_NE(done.out.find("asked " + files.url() + ": no answer"), std::string::npos) << done.out;
}

TEST(PkictlVerifyCertReport, SaysThatNoSourceIsKnown) {
  verify_files files;
  files.save("leaf.pem", files.issue("leaf", leaf_serial, files.inter));
  result done = files.verify();
  EXPECT_TRUE(
      done.out.ends_with("status of CN=leaf: ok, but NOBODY WAS ASKED whether it is revoked\n"))
      << done.out;
}

TEST(PkictlVerifyCertReport, NamesTheIssuerWhoseCertificateIsMissing) {
  verify_files files;
  result done = files.pkictl({"verify", files.path("leaf.pem"), "--trust", files.path("root.pem")});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_NE(done.err.find(": the certificate of CN=inter is missing; give it with --chain or"
                          " --trust\n"),
            std::string::npos)
      << done.err;
}

TEST(PkictlVerifyCertReport, JsonDescribesTheCertificates) {
  verify_files files;
  json all = report(files.verify({"--json"}));
  EXPECT_EQ(all["file"], files.path("leaf.pem"));
  EXPECT_EQ(all["flavour"], "internet");
  EXPECT_EQ(all["error"], nullptr);
  ASSERT_EQ(all["certificates"].size(), 3u);
  json root = all["certificates"][0];
  EXPECT_EQ(root["depth"], 2);
  EXPECT_EQ(root["subject"], "CN=root");
  EXPECT_EQ(root["trusted"], true);
  EXPECT_EQ(root["verdict"], "accepted");
  EXPECT_EQ(root["not_after"], tools::time_text(X509_get0_notAfter(files.root.get())));
  EXPECT_EQ(all["certificates"][1]["trusted"], false);
}

TEST(PkictlVerifyCertReport, JsonListsTheRules) {
  verify_files files;
  json certs = report(files.verify({"--json"}))["certificates"];
  EXPECT_EQ(step_names(certs[0]),
            (strings{"OpenSSL", "time of the check", "readable extensions", "path length"}));
  EXPECT_EQ(step_names(certs[1]),
            (strings{"OpenSSL", "time of the check", "readable extensions", "path length",
                     "critical extensions", "key usage of an issuer",
                     "basic constraints of an issuer", "status"}));
  EXPECT_EQ(step_names(certs[2]), (strings{"OpenSSL", "time of the check", "readable extensions",
                                           "path length", "critical extensions", "status"}));
}

TEST(PkictlVerifyCertReport, JsonDescribesTheSources) {
  verify_files files;
  json check = last_step(report(files.verify({"--json"}))["certificates"][2])["checks"][0];
  EXPECT_EQ(check["certificate"], "CN=leaf");
  EXPECT_EQ(check["serial"], "03");
  EXPECT_EQ(check["status"], "ok");
  EXPECT_EQ(check["from"], "source");
  json source = check["sources"][0];
  EXPECT_EQ(source["name"], files.url());
  EXPECT_EQ(source["answer"], "ok");
  EXPECT_TRUE(source["milliseconds"].is_number_unsigned());
  EXPECT_EQ(source["valid_until"], check["valid_until"]);
  EXPECT_EQ(source["checks"], json::array());
}

TEST(PkictlVerifyCertReport, LogLineOfARuleStandsBelowIt) {
  verify_files files;
  files.save("inter.pem", files.issue("inter", tool_test::inter_serial, files.root,
                                      {{"basicConstraints", "critical,CA:TRUE"},
                                       {"keyUsage", "critical,keyCertSign"}}));
  json step = last_step(report(files.verify({"--json"}))["certificates"][1]);
  EXPECT_EQ(step["name"], "key usage of an issuer");
  EXPECT_EQ(step["outcome"], "failed");
  EXPECT_EQ(step["log"], json{"Certificate '/CN=inter' is an issuer but the crl-signing key-usage "
                              "bit is not set - rejecting it"});
}

TEST(PkictlVerifyCertReport, ControlCharactersOfACertificateDoNotReachTheTerminal) {
  verify_files files;
  files.save("leaf.pem", files.issue("le\x1b[2Jaf", leaf_serial, files.inter));
  result done = files.verify({"--flavour", "local"});
  EXPECT_EQ(done.exit_code, 0) << done.err;
  EXPECT_EQ(done.out.find('\x1b'), std::string::npos);
}

TEST(PkictlVerifyCertReport, VerboseStillShowsEveryLineOfTheLog) {
  verify_files files;
  result done = files.verify({"-v"});
  EXPECT_NE(done.err.find("Checking status for cert '/CN=leaf'"), std::string::npos) << done.err;
  EXPECT_NE(done.err.find("ocsp-response was accepted"), std::string::npos) << done.err;
}

// The whole device: its CA's document names the roots and the responder.
TEST(PkictlVerifyCertState, EnrolledCertificateIsGoodUntilItIsRevoked) {
  tool_test::device device;
  device.prepare();
  ASSERT_EQ(device.enroll().exit_code, 0);
  std::string file = device.cert_file();
  result done = device.pkictl({"verify", file});
  EXPECT_EQ(done.exit_code, 0) << done.out << done.err;
  EXPECT_NE(done.out.find("asked " + device.lab().url() + "/ocsp: ok"), std::string::npos)
      << done.out;
  result revoked = tool_test::run("pkilab", {"revoke", "--dir", device.lab_file(""), file});
  ASSERT_EQ(revoked.exit_code, 0) << revoked.err;
  done = device.pkictl({"verify", file});
  EXPECT_EQ(done.exit_code, 1) << done.out;
  EXPECT_NE(done.err.find("its status is revoked"), std::string::npos) << done.err;
}

}  // namespace
