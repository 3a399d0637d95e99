// The OCSP room as OpenSSL's own client meets it.
#include <gtest/gtest.h>
#include <signal.h>

#include "device.h"
#include "lab_fixture.h"
#include "ocsp_client.h"
#include "tools/common/cert_text.h"
#include "tools/common/keys.h"

namespace {

using tool_test::device;
using tool_test::openssl;
using tool_test::result;
using tool_test::run;
using tool_test::strings;
using tool_test::the_lab;

// A certificate of the shared lab's, asked about with `openssl ocsp`.
class openssl_ocsp_test : public testing::Test {
 protected:
  void SetUp() override {
    const pkilab::ca &keys = the_lab().lab.keys();
    cert_ = tool_test::issue_cert(keys, keys.issuing());
    file_ = home_.write("cert.pem", tools::cert_pem(cert_.get()));
  }

  result ask(const std::string &query = "", const strings &options = {}) {
    strings arguments = {"ocsp",
                         "-issuer",
                         the_lab().file("issuing-cert.pem"),
                         "-cert",
                         file_,
                         "-url",
                         the_lab().lab.url("/ocsp") + query,
                         "-CAfile",
                         the_lab().file("issuing-cert.pem")};
    arguments.insert(arguments.end(), options.begin(), options.end());
    return openssl(arguments);
  }
  void expect_verified(const result &done, const std::string &status) {
    EXPECT_EQ(done.exit_code, 0) << done.err;
    EXPECT_NE(done.err.find("Response verify OK"), std::string::npos) << done.err;
    EXPECT_NE(done.out.find("cert.pem: " + status + "\n"), std::string::npos) << done.out;
  }
  void expect_distrust(const result &done, const std::string &reason) {
    EXPECT_NE(done.err.find("Response Verify Failure"), std::string::npos) << done.err;
    EXPECT_NE(done.err.find(reason), std::string::npos) << done.err;
  }
  result revoke(const strings &options = {}) {
    strings arguments = {"revoke", "--dir", the_lab().file(""), file_};
    arguments.insert(arguments.end(), options.begin(), options.end());
    return run("pkilab", arguments);
  }

  tool_test::folder home_;
  tools::cert_ptr cert_;
  std::string file_;
};

TEST_F(openssl_ocsp_test, WhatTheLabIssuedIsGood) {
  expect_verified(ask(), "good");
}

TEST_F(openssl_ocsp_test, WhatIsRevokedIsRevokedAtOnce) {
  expect_verified(ask(), "good");
  ASSERT_EQ(revoke({"--reason", "keyCompromise", "--at", "2026-01-02T03:04:05Z"}).exit_code, 0);
  result done = ask();
  expect_verified(done, "revoked");
  EXPECT_NE(done.out.find("Reason: keyCompromise\n"), std::string::npos) << done.out;
  EXPECT_NE(done.out.find("Revocation Time: Jan  2 03:04:05 2026 GMT\n"), std::string::npos)
      << done.out;
}

TEST_F(openssl_ocsp_test, WhatIsUnrevokedIsGoodAgain) {
  ASSERT_EQ(revoke().exit_code, 0);
  expect_verified(ask(), "revoked");
  ASSERT_EQ(run("pkilab", {"unrevoke", "--dir", the_lab().file(""), file_}).exit_code, 0);
  expect_verified(ask(), "good");
}

TEST_F(openssl_ocsp_test, WhatTheLabNeverIssuedIsUnknown) {
  result done =
      openssl({"ocsp", "-issuer", the_lab().file("issuing-cert.pem"), "-serial", "4711", "-url",
               the_lab().lab.url("/ocsp"), "-CAfile", the_lab().file("issuing-cert.pem")});
  EXPECT_NE(done.err.find("Response verify OK"), std::string::npos) << done.err;
  EXPECT_NE(done.out.find("4711: unknown\n"), std::string::npos) << done.out;
}

TEST_F(openssl_ocsp_test, AnswersForSeveralCertificatesAtOnce) {
  result done = ask("", {"-serial", "4711"});
  expect_verified(done, "good");
  EXPECT_NE(done.out.find("4711: unknown\n"), std::string::npos) << done.out;
}

TEST_F(openssl_ocsp_test, TakesEveryDigestInACertificateId) {
  result done =
      openssl({"ocsp", "-sha256", "-issuer", the_lab().file("issuing-cert.pem"), "-cert", file_,
               "-url", the_lab().lab.url("/ocsp"), "-CAfile", the_lab().file("issuing-cert.pem")});
  expect_verified(done, "good");
}

TEST_F(openssl_ocsp_test, NamesTheResponderByNameAndByKeyHash) {
  result by_name = ask("?id=name", {"-resp_text"});
  expect_verified(by_name, "good");
  EXPECT_NE(by_name.out.find("Responder Id: O = pkilab, CN = pkilab issuing CA\n"),
            std::string::npos)
      << by_name.out;
  result by_key = ask("?id=key", {"-resp_text"});
  expect_verified(by_key, "good");
  EXPECT_NE(by_key.out.find("Responder Id: "), std::string::npos);
  EXPECT_EQ(by_key.out.find("Responder Id: O = "), std::string::npos) << by_key.out;
}

TEST_F(openssl_ocsp_test, ADelegatedResponderIsTrusted) {
  for (const char *query : {"?signer=delegated", "?signer=delegated&id=key",
                            "?signer=delegated&no-nocheck", "?signer=delegated&signer-aia="})
    expect_verified(ask(query), "good");
}

TEST_F(openssl_ocsp_test, OtherResponders) {
  expect_distrust(ask("?signer=delegated&no-eku"), "missing ocspsigning usage");
  expect_distrust(ask("?signer=delegated&expired"), "certificate has expired");
  expect_distrust(ask("?signer=delegated&not-yet-valid"), "certificate is not yet valid");
  expect_distrust(ask("?signer=stranger"), "self-signed certificate");
  expect_distrust(ask("?signer=other-ca"), "unable to get local issuer certificate");
  expect_distrust(
      ask("?signer=impostor&no-cert", {"-verify_other", the_lab().file("issuing-cert.pem")}),
      "signature failure");
  expect_distrust(ask("?damaged-signature"), "signature failure");
  expect_distrust(ask("?signer=delegated&no-cert"), "signer certificate not found");
  expect_distrust(ask("?id=other-name"), "signer certificate not found");
}

TEST_F(openssl_ocsp_test, ADelegatedRespondersCertificateCanBeGivenToTheClient) {
  expect_verified(ask("?signer=delegated"), "good");
  expect_verified(
      ask("?signer=delegated&no-cert", {"-verify_other", the_lab().file("ocsp/issuing.pem")}),
      "good");
}

TEST_F(openssl_ocsp_test, Nonces) {
  EXPECT_EQ(ask("?nonce=mirror").err, "Response verify OK\n");
  EXPECT_EQ(ask("?nonce=none").err, "WARNING: no nonce in response\nResponse verify OK\n");
  result wrong = ask("?nonce=wrong");
  EXPECT_EQ(wrong.exit_code, 1);
  EXPECT_EQ(wrong.err, "Nonce Verify error\n");
  EXPECT_EQ(ask("", {"-no_nonce"}).err, "Response verify OK\n");
}

TEST_F(openssl_ocsp_test, AnswersForAResponderToo) {
  expect_verified(ask("?signer=delegated"), "good");
  file_ = the_lab().file("ocsp/issuing.pem");
  EXPECT_NE(ask().out.find("issuing.pem: good\n"), std::string::npos);
}

TEST_F(openssl_ocsp_test, AnswersForTheAdditionalCaWithTheRootsKey) {
  result done = openssl({"ocsp", "-issuer", the_lab().file("root-cert.pem"), "-cert",
                         the_lab().file("additional-cert.pem"), "-url", the_lab().lab.url("/ocsp"),
                         "-CAfile", the_lab().file("root-cert.pem")});
  EXPECT_EQ(done.err, "Response verify OK\n");
  EXPECT_NE(done.out.find("additional-cert.pem: good\n"), std::string::npos) << done.out;
}

// ---- what SCEP issued, and serve's own options ----

TEST(PkilabOcsp, AnEnrolledCertificateNamesTheLabsResponderAndIsRevoked) {
  device test({"--ocsp-aia"});
  test.prepare();
  ASSERT_EQ(test.enroll().exit_code, 0);
  std::string file = test.cert_file();
  result shown = openssl({"x509", "-in", file, "-noout", "-ocsp_uri"});
  EXPECT_EQ(shown.out, test.lab().url() + "/ocsp\n");
  strings ask = {"ocsp",
                 "-issuer",
                 test.lab_file("issuing-cert.pem"),
                 "-cert",
                 file,
                 "-url",
                 test.lab().url() + "/ocsp",
                 "-CAfile",
                 test.lab_file("issuing-cert.pem")};
  EXPECT_NE(openssl(ask).out.find("cert.pem: good\n"), std::string::npos);
  ASSERT_EQ(run("pkilab", {"revoke", "--dir", test.lab_file(""), file}).exit_code, 0);
  EXPECT_NE(openssl(ask).out.find("cert.pem: revoked\n"), std::string::npos);
  std::string serial =
      tools::serial_text(X509_get0_serialNumber(tools::load_certificate(file).get()));
  std::string log = test.lab().end(SIGTERM).err;
  EXPECT_NE(log.find("pkilab: POST /ocsp -> 200 "), std::string::npos) << log;
  EXPECT_NE(log.find(", " + serial + " good\n"), std::string::npos) << log;
  EXPECT_NE(log.find(", " + serial + " revoked\n"), std::string::npos) << log;
}

TEST(PkilabOcsp, TheUrlInCertificatesCanHaveAQuery) {
  device test({"--ocsp-aia", "status=revoked&signer=delegated"});
  test.prepare();
  ASSERT_EQ(test.enroll().exit_code, 0);
  result shown = openssl({"x509", "-in", test.cert_file(), "-noout", "-ocsp_uri"});
  EXPECT_EQ(shown.out, test.lab().url() + "/ocsp?status=revoked&signer=delegated\n");
}

TEST(PkilabOcsp, CertificatesNameNoResponderUnlessToldTo) {
  device test;
  test.prepare();
  ASSERT_EQ(test.enroll().exit_code, 0);
  result shown = openssl({"x509", "-in", test.cert_file(), "-noout", "-ocsp_uri"});
  EXPECT_EQ(shown.out, "");
}

TEST(PkilabOcsp, OptionsOfTheCommandLineHoldUntilAQuerySaysOtherwise) {
  tool_test::lab_process lab(the_lab().file(""),
                             {"--ocsp-answer", "status=revoked", "--ocsp-answer", "id=key"});
  auto ask = [&lab](const std::string &query) {
    return openssl({"ocsp", "-issuer", the_lab().file("issuing-cert.pem"), "-serial", "4711",
                    "-url", lab.url() + "/ocsp" + query, "-CAfile",
                    the_lab().file("issuing-cert.pem")})
        .out;
  };
  EXPECT_NE(ask("").find("4711: revoked\n"), std::string::npos);
  EXPECT_NE(ask("?status=good").find("4711: good\n"), std::string::npos);
}

TEST(PkilabOcspUsage, UnknownWordsAreOneLineAndTwo) {
  tool_test::folder home;
  for (const strings &option :
       {strings{"--ocsp-answer", "nothing"}, strings{"--ocsp-answer", "status=bad"},
        strings{"--ocsp-answer", "status"}, strings{"--ocsp-answer", "no-cert=1"},
        strings{"--ocsp-aia", "nothing"}}) {
    strings arguments = {"serve", "--dir", home / "lab"};
    arguments.insert(arguments.end(), option.begin(), option.end());
    result done = run("pkilab", arguments);
    EXPECT_EQ(done.exit_code, 2);
    EXPECT_TRUE(tool_test::is_one_line(done.err)) << done.err;
    EXPECT_NE(done.err.find(option[0] + ": "), std::string::npos) << done.err;
  }
}

TEST(PkilabOcspUsage, HelpNamesEveryOption) {
  std::string help = run("pkilab", {"serve", "--help"}).out;
  EXPECT_NE(help.find("--ocsp-answer"), std::string::npos);
  EXPECT_NE(help.find("--ocsp-aia"), std::string::npos);
  EXPECT_NE(help.find(pkilab::ocsp_option_list()), std::string::npos);
}

TEST(PkilabOcspUsage, TheManualNamesEveryOption) {
  std::string manual = tool_test::read_file(SOURCE_DIR "/docs/pkilab.md");
  for (const std::string &name : pkilab::ocsp_option_names())
    EXPECT_NE(manual.find("`" + name), std::string::npos) << name;
}

}  // namespace
