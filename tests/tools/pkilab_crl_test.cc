// The CRL room as the openssl program meets it.
#include <gtest/gtest.h>
#include <signal.h>

#include "crl_client.h"
#include "device.h"
#include "lab_fixture.h"
#include "ocsp_client.h"
#include "tools/common/cert_text.h"
#include "tools/common/keys.h"

namespace {

using tool_test::crl_query;
using tool_test::device;
using tool_test::openssl;
using tool_test::result;
using tool_test::run;
using tool_test::strings;
using tool_test::the_lab;

// A certificate of the shared lab's, verified with `openssl verify` and what the lab publishes.
class openssl_crl_test : public testing::Test {
 protected:
  void SetUp() override {
    const pkilab::ca &keys = the_lab().lab.keys();
    cert_ = tool_test::issue_cert(keys, keys.issuing());
    file_ = home_.write("cert.pem", tools::cert_pem(cert_.get()));
  }

  // The CRL as a PEM file.
  std::string fetch(const std::string &query = "") {
    std::string der = home_.write("list.der", crl_query(the_lab().lab.port(), query).body());
    std::string pem = home_ / ("list" + std::to_string(count_++) + ".pem");
    EXPECT_EQ(openssl({"crl", "-inform", "DER", "-in", der, "-out", pem}).exit_code, 0);
    return pem;
  }
  result verify(const strings &lists, const strings &options = {}) {
    strings arguments = {"verify", "-crl_check", "-CAfile", the_lab().file("issuing-cert.pem")};
    for (const std::string &list : lists)
      arguments.insert(arguments.end(), {"-CRLfile", list});
    arguments.insert(arguments.end(), options.begin(), options.end());
    arguments.push_back(file_);
    return openssl(arguments);
  }
  void expect_good(const result &done) {
    EXPECT_EQ(done.exit_code, 0) << done.err;
    EXPECT_EQ(done.out, file_ + ": OK\n");
  }
  void expect_error(const result &done, const std::string &reason) {
    EXPECT_NE(done.exit_code, 0);
    EXPECT_NE(done.err.find(": " + reason + "\n"), std::string::npos) << done.err;
  }
  result revoke(const strings &options = {}) {
    strings arguments = {"revoke", "--dir", the_lab().file(""), file_};
    arguments.insert(arguments.end(), options.begin(), options.end());
    return run("pkilab", arguments);
  }
  std::string serial() const { return tools::serial_text(X509_get0_serialNumber(cert_.get())); }

  tool_test::folder home_;
  tools::cert_ptr cert_;
  std::string file_;
  int count_ = 0;
};

TEST_F(openssl_crl_test, ListVerifies) {
  result done = openssl(
      {"crl", "-in", fetch(), "-noout", "-verify", "-CAfile", the_lab().file("issuing-cert.pem")});
  EXPECT_EQ(done.exit_code, 0);
  EXPECT_EQ(done.err, "verify OK\n");
  done = openssl({"crl", "-in", fetch("?damaged-signature"), "-noout", "-verify", "-CAfile",
                  the_lab().file("issuing-cert.pem")});
  EXPECT_NE(done.err.find("verify failure\n"), std::string::npos) << done.err;
}

TEST_F(openssl_crl_test, WhatIsRevokedIsRevokedAtOnce) {
  expect_good(verify({fetch()}));
  ASSERT_EQ(revoke({"--reason", "keyCompromise", "--at", "2026-01-02T03:04:05Z"}).exit_code, 0);
  std::string list = fetch();
  expect_error(verify({list}), "certificate revoked");
  std::string text = openssl({"crl", "-in", list, "-noout", "-text"}).out;
  text = text.substr(text.find("Serial Number: " + serial()));
  EXPECT_NE(text.find("Revocation Date: Jan  2 03:04:05 2026 GMT"), std::string::npos) << text;
  EXPECT_NE(text.find("Key Compromise"), std::string::npos) << text;
}

TEST_F(openssl_crl_test, WhatIsUnrevokedIsGoodAgain) {
  ASSERT_EQ(revoke().exit_code, 0);
  expect_error(verify({fetch()}), "certificate revoked");
  ASSERT_EQ(run("pkilab", {"unrevoke", "--dir", the_lab().file(""), file_}).exit_code, 0);
  expect_good(verify({fetch()}));
}

TEST_F(openssl_crl_test, BadListsAreNotTaken) {
  expect_error(verify({fetch("?expired")}), "CRL has expired");
  expect_error(verify({fetch("?future")}), "CRL is not yet valid");
  expect_error(verify({fetch("?damaged-signature")}), "CRL signature failure");
  expect_error(verify({fetch("?signer=other-ca&no-akid")}), "CRL signature failure");
  expect_error(verify({fetch("?signer=stranger&no-akid")}), "CRL signature failure");
  expect_error(verify({fetch("?critical=1.2.3.4")}), "unhandled critical CRL extension");
  expect_error(verify({fetch("?only=ca")}), "different CRL scope");
  expect_error(verify({fetch("?signer=delegated")}), "unable to get certificate CRL");
}

TEST_F(openssl_crl_test, UnknownCriticalExtensionOfAnEntrySpoilsTheList) {
  ASSERT_EQ(revoke().exit_code, 0);
  expect_error(verify({fetch("?entry-critical=1.2.3.4")}), "unhandled critical CRL extension");
}

TEST_F(openssl_crl_test, ListOfAnotherKindOrReasonLeavesTheCertificateAlone) {
  expect_good(verify({fetch("?only=user")}, {"-extended_crl"}));
  ASSERT_EQ(revoke({"--reason", "superseded"}).exit_code, 0);
  expect_error(verify({fetch("?reasons=superseded")}, {"-extended_crl"}), "certificate revoked");
}

TEST_F(openssl_crl_test, DeltaRevokesWhatItsBaseDoesNot) {
  ASSERT_EQ(revoke().exit_code, 0);
  std::string base = fetch("?empty&number=5&freshest=/crl/issuing.crl?delta=5");
  std::string delta = fetch("?delta=5&number=6");
  std::string old_delta = fetch("?delta=9&number=10");
  strings use = {"-use_deltas", "-extended_crl"};
  expect_good(verify({base}, use));
  expect_error(verify({base, delta}, use), "certificate revoked");
  expect_good(verify({base, old_delta}, use));
}

TEST_F(openssl_crl_test, DeltaFreesWhatItsBaseHolds) {
  std::string base = fetch("?empty&number=5&freshest=/d&entry=" + serial() + ":certificateHold");
  std::string delta = fetch("?empty&delta=5&number=6&entry=" + serial() + ":removeFromCRL");
  strings use = {"-use_deltas", "-extended_crl"};
  expect_error(verify({base}, use), "certificate revoked");
  expect_good(verify({base, delta}, use));
}

TEST_F(openssl_crl_test, IndirectListOfADelegatedSignerIsTaken) {
  std::string list = fetch("?indirect&signer=delegated");
  std::string signer = the_lab().file("crl/issuing.pem");
  std::string made = home_ / "named.pem";
  ASSERT_EQ(run("pkilab", {"issue", "--dir", the_lab().file(""), "--new-key", home_ / "key.pem",
                           "--subject", "CN=named", "--crl", the_lab().lab.url("/crl/issuing.crl"),
                           "--crl-issuer", signer, "--out", made})
                .exit_code,
            0);
  file_ = made;
  strings options = {"-extended_crl", "-untrusted", signer};
  expect_good(verify({list}, options));
  ASSERT_EQ(revoke().exit_code, 0);
  expect_error(verify({fetch("?indirect&signer=delegated")}, options), "certificate revoked");
}

TEST_F(openssl_crl_test, CertificatesNameCrls) {
  std::string made = home_ / "named.pem";
  ASSERT_EQ(run("pkilab",
                {"issue", "--dir", the_lab().file(""), "--new-key", home_ / "key.pem", "--subject",
                 "CN=named", "--crl", "http://127.0.0.1:1/a?b,c", "--crl", "http://127.0.0.1:2/",
                 "--freshest-crl", "http://127.0.0.1:3/d", "--out", made})
                .exit_code,
            0);
  std::string text =
      openssl({"x509", "-in", made, "-noout", "-ext", "crlDistributionPoints,freshestCRL"}).out;
  std::erase(text, ' ');
  EXPECT_EQ(text,
            "X509v3CRLDistributionPoints:\nFullName:\nURI:http://127.0.0.1:1/a?b,c\nFullName:\n"
            "URI:http://127.0.0.1:2/\nX509v3FreshestCRL:\nFullName:\nURI:http://127.0.0.1:3/d\n");
}

// ---- what SCEP issued, and serve's own options ----

TEST(PkilabCrl, AnEnrolledCertificateNamesTheLabsCrlAndIsRevoked) {
  device test({"--crl-dp"});
  test.prepare();
  ASSERT_EQ(test.enroll().exit_code, 0);
  std::string file = test.cert_file();
  std::string shown = openssl({"x509", "-in", file, "-noout", "-ext", "crlDistributionPoints"}).out;
  EXPECT_NE(shown.find("URI:" + test.lab().url() + "/crl/issuing.crl\n"), std::string::npos)
      << shown;
  strings verify = {
      "verify", "-crl_check", "-crl_download", "-CAfile", test.lab_file("issuing-cert.pem"), file};
  EXPECT_EQ(openssl(verify).exit_code, 0);
  ASSERT_EQ(run("pkilab", {"revoke", "--dir", test.lab_file(""), file}).exit_code, 0);
  result done = openssl(verify);
  EXPECT_NE(done.err.find("certificate revoked"), std::string::npos) << done.err;
  std::string log = test.lab().end(SIGTERM).err;
  EXPECT_NE(log.find("pkilab: GET /crl/issuing.crl -> 200 "), std::string::npos) << log;
}

TEST(PkilabCrl, CertificatesNameTheCrlWithItsQuery) {
  device test({"--crl-dp", "entries=1000&reason-in-each"});
  test.prepare();
  ASSERT_EQ(test.enroll().exit_code, 0);
  std::string shown =
      openssl({"x509", "-in", test.cert_file(), "-noout", "-ext", "crlDistributionPoints"}).out;
  EXPECT_NE(shown.find("/crl/issuing.crl?entries=1000&reason-in-each\n"), std::string::npos)
      << shown;
}

TEST(PkilabCrl, OptionsOfTheCommandLineHoldUntilAQuerySaysOtherwise) {
  tool_test::lab_process lab(the_lab().file(""),
                             {"--crl-answer", "number=7", "--crl-answer", "empty"});
  EXPECT_EQ(crl_query(lab.port()).number(NID_crl_number), 7);
  EXPECT_EQ(crl_query(lab.port(), "", "root").number(NID_crl_number), 7);
  EXPECT_EQ(crl_query(lab.port(), "?number=8").number(NID_crl_number), 8);
}

TEST(PkilabCrl, LogSaysWhichListItWas) {
  tool_test::lab_process lab(the_lab().file(""));
  crl_query(lab.port(), "?empty");
  crl_query(lab.port(), "?empty&delta=1&entries=2&entry=3", "root");
  crl_query(lab.port(), "?empty&entry=3&signer=delegated", "additional");
  crl_query(lab.port(), "?no-crl");
  std::string log = lab.end(SIGTERM).err;
  for (const char *text : {", CRL of issuing, 0 entries\n", ", delta CRL of root, 3 entries\n",
                           ", CRL of additional, 1 entry\n", " -> 200 23, no CRL (as told)\n"})
    EXPECT_NE(log.find(text), std::string::npos) << log;
}

TEST(PkilabCrlUsage, UnknownWordsAreOneLineAndTwo) {
  tool_test::folder home;
  for (const strings &option :
       {strings{"--crl-answer", "nothing"}, strings{"--crl-answer", "only=bad"},
        strings{"--crl-answer", "only"}, strings{"--crl-answer", "indirect=1"},
        strings{"--crl-dp", "nothing"}}) {
    strings arguments = {"serve", "--dir", home / "lab"};
    arguments.insert(arguments.end(), option.begin(), option.end());
    result done = run("pkilab", arguments);
    EXPECT_EQ(done.exit_code, 2);
    EXPECT_TRUE(tool_test::is_one_line(done.err)) << done.err;
    EXPECT_NE(done.err.find(option[0] + ": "), std::string::npos) << done.err;
  }
}

TEST(PkilabCrlUsage, HelpNamesEveryOption) {
  std::string help = run("pkilab", {"serve", "--help"}).out;
  EXPECT_NE(help.find("--crl-answer"), std::string::npos);
  EXPECT_NE(help.find("--crl-dp"), std::string::npos);
  EXPECT_NE(help.find(pkilab::crl_option_list()), std::string::npos);
}

TEST(PkilabCrlUsage, TheManualNamesEveryOption) {
  std::string manual = tool_test::read_file(SOURCE_DIR "/docs/pkilab.md");
  std::string section = manual.substr(manual.find("\n## CRLs\n"));
  for (const std::string &name : pkilab::crl_option_names())
    EXPECT_NE(section.find("`" + name), std::string::npos) << name;
}

}  // namespace
