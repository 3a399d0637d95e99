// pkilab issue, revoke and unrevoke.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "device.h"
#include "lab_fixture.h"
#include "ocsp_client.h"
#include "tools/common/cert_text.h"
#include "tools/common/files.h"
#include "tools/common/keys.h"
#include "tools/pkilab/revocations.h"

namespace {

using tool_test::openssl;
using tool_test::result;
using tool_test::run;
using tool_test::strings;
using tool_test::the_lab;

class issue_test : public testing::Test {
 protected:
  result issue(const strings &options) {
    strings arguments = {"issue", "--dir", the_lab().file(""), "--force", "-o", home_ / "cert.pem"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    return run("pkilab", arguments);
  }
  tools::cert_ptr issue_well(strings options) {
    if (std::find(options.begin(), options.end(), "--csr") == options.end())
      options.insert(options.end(), {"--key", the_lab().file("root-key.pem"), "--subject",
                                     "CN=server, O=Example"});
    result done = issue(options);
    EXPECT_EQ(done.exit_code, 0) << done.err;
    return tools::load_certificate(home_ / "cert.pem");
  }
  void expect_usage(const strings &options, const std::string &text) {
    result done = issue(options);
    EXPECT_EQ(done.exit_code, 2);
    EXPECT_TRUE(tool_test::is_one_line(done.err)) << done.err;
    EXPECT_NE(done.err.find(text), std::string::npos) << done.err;
    EXPECT_FALSE(tool_test::exists(home_ / "cert.pem"));
  }
  result issue_with_key(const std::string &out, const strings &force) {
    strings arguments = {"issue", "--dir", the_lab().file(""), "--new-key", home_ / "key.pem",
                         "--out", out,     "--subject",        "CN=x"};
    arguments.insert(arguments.end(), force.begin(), force.end());
    return run("pkilab", arguments);
  }
  static size_t issued_so_far() { return tools::list_folder(the_lab().file("issued")).size(); }
  std::string shown(const char *extension) {
    return openssl({"x509", "-in", home_ / "cert.pem", "-noout", "-ext", extension}).out;
  }

  tool_test::folder home_;
};

TEST_F(issue_test, MakesACertificateForAKey) {
  tools::cert_ptr cert = issue_well({});
  EXPECT_EQ(tools::name_text(X509_get_subject_name(cert.get())), "CN=server, O=Example");
  EXPECT_EQ(X509_verify(cert.get(), the_lab().lab.keys().issuing().key.get()), 1);
  EXPECT_EQ(EVP_PKEY_eq(X509_get0_pubkey(cert.get()), the_lab().lab.keys().root().key.get()), 1);
  std::string serial = tools::serial_text(X509_get0_serialNumber(cert.get()));
  EXPECT_EQ(tool_test::read_file(the_lab().file("issued/" + serial + ".pem")),
            tools::cert_pem(cert.get()));
}

TEST_F(issue_test, SaysWhatItIssued) {
  result done = issue({"--key", the_lab().file("doc-key.pub.pem"), "--subject", "CN=server"});
  tools::cert_ptr cert = tools::load_certificate(home_ / "cert.pem");
  EXPECT_EQ(done.out,
            "issued " + tools::serial_text(X509_get0_serialNumber(cert.get())) + ": CN=server\n");
  EXPECT_EQ(done.err, "");
}

TEST_F(issue_test, MakesAKey) {
  result done = issue({"--new-key", home_ / "key.pem", "--subject", "CN=server"});
  ASSERT_EQ(done.exit_code, 0) << done.err;
  EXPECT_EQ(tool_test::mode_of(home_ / "key.pem"), 0600u);
  EXPECT_EQ(X509_check_private_key(tools::load_certificate(home_ / "cert.pem").get(),
                                   tools::load_private_key(home_ / "key.pem").get()),
            1);
}

// What is there may be the only copy of a key.
TEST_F(issue_test, LeavesFilesThatAreThereUnlessForced) {
  std::string key = home_.write("key.pem", "mine");
  std::string cert = home_ / "new.pem";
  strings arguments = {"issue", "--dir", the_lab().file(""), "--new-key", key,
                       "--out", cert,    "--subject",        "CN=x"};
  result done = run("pkilab", arguments);
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.err, "pkilab: " + key + " is there already; take another name, or --force it\n");
  EXPECT_EQ(tool_test::read_file(key), "mine");
  EXPECT_FALSE(tool_test::exists(cert));
  arguments.emplace_back("--force");
  EXPECT_EQ(run("pkilab", arguments).exit_code, 0);
  done = run("pkilab", {"issue", "--dir", the_lab().file(""), "--key", key, "--out", cert,
                        "--subject", "CN=x"});
  EXPECT_EQ(done.err, "pkilab: " + cert + " is there already; take another name, or --force it\n");
  EXPECT_EQ(X509_check_private_key(tools::load_certificate(cert).get(),
                                   tools::load_private_key(key).get()),
            1);
}

TEST_F(issue_test, KeyAndCertificateNeedFilesOfTheirOwn) {
  expect_usage({"--new-key", home_ / "cert.pem", "--subject", "CN=x"}, "--out is the same file as");
  expect_usage({"--new-key", home_ / "./cert.pem", "--subject", "CN=x"}, "is the same file as");
  std::string key = home_.write("cert.pem", tool_test::read_file(the_lab().file("root-key.pem")));
  result done = issue({"--key", key, "--subject", "CN=x"});
  EXPECT_EQ(done.exit_code, 2);
  EXPECT_EQ(tool_test::read_file(key), tool_test::read_file(the_lab().file("root-key.pem")));
}

TEST_F(issue_test, CertificateThatCannotBeWrittenLeavesNoKeyBehind) {
  size_t issued = issued_so_far();
  for (const strings &force : {strings{}, strings{"--force"}})
    for (const std::string &out : {home_ / "none/cert.pem", std::string("/dev/full"), home_ / ""}) {
      result done = issue_with_key(out, force);
      EXPECT_EQ(done.exit_code, 1);
      EXPECT_TRUE(tool_test::is_one_line(done.err)) << done.err;
      EXPECT_EQ(tools::list_folder(home_ / ""), strings{}) << out;
      EXPECT_EQ(issued_so_far(), issued) << out;
    }
}

// Its certificate may be in use.
TEST_F(issue_test, CertificateThatCannotBeWrittenLeavesTheOldKey) {
  home_.write("key.pem", "old");
  size_t issued = issued_so_far();
  for (const std::string &out : {home_ / "none/cert.pem", std::string("/dev/full"), home_ / ""}) {
    EXPECT_EQ(issue_with_key(out, {"--force"}).exit_code, 1);
    EXPECT_EQ(tool_test::read_file(home_ / "key.pem"), "old") << out;
    EXPECT_EQ(tools::list_folder(home_ / ""), strings{"key.pem"}) << out;
    EXPECT_EQ(issued_so_far(), issued) << out;
  }
}

TEST_F(issue_test, FilesThatCannotBeWrittenMakeNoLab) {
  result done = run("pkilab", {"issue", "--dir", home_ / "a/lab", "--new-key", home_ / "key.pem",
                               "--out", home_ / "none/cert.pem", "--subject", "CN=x"});
  EXPECT_EQ(done.err,
            "pkilab: cannot write " + (home_ / "none/cert.pem") + ": No such file or directory\n");
  EXPECT_EQ(tools::list_folder(home_ / ""), strings{});
}

TEST_F(issue_test, FilesMayGoIntoANewLab) {
  result done =
      run("pkilab", {"issue", "--dir", home_ / "a/lab", "--new-key", home_ / "a/lab/key.pem",
                     "--out", home_ / "a/cert.pem", "--subject", "CN=x"});
  EXPECT_EQ(done.exit_code, 0) << done.err;
  EXPECT_EQ(tools::list_folder(home_ / "a"), (strings{"cert.pem", "lab"}));
}

TEST_F(issue_test, ReplacedFilesLeaveNothingBeside) {
  for (const strings &force : {strings{}, strings{"--force"}})
    ASSERT_EQ(issue_with_key(home_ / "cert.pem", force).exit_code, 0);
  EXPECT_EQ(tools::list_folder(home_ / ""), (strings{"cert.pem", "key.pem"}));
  EXPECT_EQ(tool_test::mode_of(home_ / "key.pem"), 0600u);
  EXPECT_EQ(tool_test::mode_of(home_ / "cert.pem"), 0644u);
}

TEST_F(issue_test, SaysThatItMadeALab) {
  strings arguments = {
      "issue", "--dir",     home_ / "typo", "--key", the_lab().file("root-key.pem"),
      "--out", home_ / "a", "--subject",    "CN=x"};
  EXPECT_EQ(run("pkilab", arguments).err, "pkilab: made a new lab in " + (home_ / "typo") + "\n");
  arguments.emplace_back("--force");
  EXPECT_EQ(run("pkilab", arguments).err, "");
}

TEST_F(issue_test, TakesNameAndKeyFromARequest) {
  ASSERT_EQ(openssl({"req", "-new", "-key", the_lab().file("root-key.pem"), "-subj",
                     "/O=Example/CN=asked", "-out", home_ / "asked.csr"})
                .exit_code,
            0);
  tools::cert_ptr cert = issue_well({"--csr", home_ / "asked.csr"});
  EXPECT_EQ(tools::name_text(X509_get_subject_name(cert.get())), "CN=asked, O=Example");
  EXPECT_EQ(EVP_PKEY_eq(X509_get0_pubkey(cert.get()), the_lab().lab.keys().root().key.get()), 1);
  cert = issue_well({"--csr", home_ / "asked.csr", "--subject", "CN=other"});
  EXPECT_EQ(tools::name_text(X509_get_subject_name(cert.get())), "CN=other");
}

TEST_F(issue_test, NamesResponders) {
  issue_well({"--ocsp", "http://127.0.0.1:1/ocsp?a=b,c", "--ocsp", "http://127.0.0.1:2/"});
  EXPECT_EQ(openssl({"x509", "-in", home_ / "cert.pem", "-noout", "-ocsp_uri"}).out,
            "http://127.0.0.1:1/ocsp?a=b,c\nhttp://127.0.0.1:2/\n");
}

TEST_F(issue_test, NamesHosts) {
  issue_well({"--alt-name", "DNS:localhost", "--alt-name", "IP:127.0.0.1"});
  EXPECT_NE(shown("subjectAltName").find("DNS:localhost, IP Address:127.0.0.1"), std::string::npos);
  std::filesystem::remove(home_ / "cert.pem");
  expect_usage(
      {"--key", the_lab().file("root-key.pem"), "--subject", "CN=x", "--alt-name", "nonsense"},
      "cannot read the names nonsense; write them as in DNS:localhost");
}

TEST_F(issue_test, TimesCanBeGiven) {
  tools::cert_ptr cert =
      issue_well({"--not-before", "2020-01-01", "--not-after", "2021-02-03T04:05:06Z"});
  EXPECT_EQ(tools::time_text(X509_get0_notBefore(cert.get())), "2020-01-01 00:00:00Z");
  EXPECT_EQ(tools::time_text(X509_get0_notAfter(cert.get())), "2021-02-03 04:05:06Z");
  cert = issue_well({"--days", "3"});
  int days = 0;
  int seconds = 0;
  ASSERT_EQ(ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notAfter(cert.get())), 1);
  EXPECT_EQ(days * 86400 + (seconds + 600) / 1200 * 1200, 3 * 86400);
}

TEST_F(issue_test, EachCaCanIssue) {
  const pkilab::ca &keys = the_lab().lab.keys();
  EXPECT_EQ(X509_verify(issue_well({"--ca", "root"}).get(), keys.root().key.get()), 1);
  EXPECT_EQ(X509_verify(issue_well({"--ca", "additional"}).get(), keys.additional().key.get()), 1);
}

TEST_F(issue_test, WhatAnyCaIssuedIsGoodUntilItIsRevoked) {
  const pkilab::ca &keys = the_lab().lab.keys();
  tools::cert_ptr cert = issue_well({"--ca", "additional"});
  auto status = [&] {
    return tool_test::ocsp_query(the_lab().lab.port(), cert.get(), keys.additional().cert.get())
        .find()
        .status;
  };
  EXPECT_EQ(status(), V_OCSP_CERTSTATUS_GOOD);
  ASSERT_EQ(run("pkilab", {"revoke", "--dir", the_lab().file(""), home_ / "cert.pem"}).exit_code,
            0);
  EXPECT_EQ(status(), V_OCSP_CERTSTATUS_REVOKED);
}

TEST_F(issue_test, WrongUsageIsTwo) {
  std::string key = the_lab().file("root-key.pem");
  expect_usage({"--subject", "CN=x"}, "give one of --csr, --key and --new-key");
  expect_usage({"--key", key, "--new-key", home_ / "k", "--subject", "CN=x"}, "give one of");
  expect_usage({"--key", key}, "give --subject");
  expect_usage({"--key", key, "--subject", "x"}, "--subject x is no name");
  expect_usage({"--key", key, "--subject", "CN=x, O=Example, Inc."},
               "a value with a comma stands in double quotes, as in O=\"Example, Inc.\"");
  expect_usage({"--key", key, "--subject", "cn=x"},
               "--subject cn=x is no name; the letter case of a key counts; write the subject as");
  expect_usage({"--key", key, "--subject", "CN=x", "--not-after", "2020-01-01"},
               "the certificate would end before it begins");
  expect_usage({"--key", key, "--subject", "CN=x", "--not-after", "soon"},
               "--not-after soon is no time");
  expect_usage({"--key", key, "--subject", "CN=x", "--not-after", "2026-02-30"}, "is no time");
  expect_usage({"--key", key, "--subject", "CN=x", "--ca", "other"}, "--ca");
  expect_usage({"--key", key, "--subject", "CN=x", "--days", "0"}, "--days");
  expect_usage({"--key", key, "--subject", "CN=x", "--days", "3", "--not-after", "2035-01-01"},
               "--days excludes --not-after");
}

TEST_F(issue_test, FilesThatHoldSomethingElseAreRefused) {
  home_.write("rubbish", "rubbish");
  for (const strings &options :
       {strings{"--csr", home_ / "rubbish"}, strings{"--csr", home_ / "missing"},
        strings{"--key", home_ / "rubbish", "--subject", "CN=x"}}) {
    result done = issue(options);
    EXPECT_EQ(done.exit_code, 1);
    EXPECT_TRUE(tool_test::is_one_line(done.err)) << done.err;
  }
}

// ---- revoke ----

TEST_F(issue_test, PipeForTheKeyIsNotRemovedWhenTheCertificateCannotBeWritten) {
  std::string pipe = home_ / "pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  int reader = open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  result done = run("pkilab", {"issue", "--dir", the_lab().file(""), "--new-key", pipe, "--subject",
                               "CN=x", "--out", home_ / "none/cert.pem"});
  close(reader);
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_TRUE(std::filesystem::is_fifo(pipe));
}

TEST_F(issue_test, LabsOwnFilesAreNoOutput) {
  for (const char *name : {"issuing-key.pem", "doc-key.pub.pem", "root-cert.pem"}) {
    std::string own = the_lab().file(name);
    std::string content = tool_test::read_file(own);
    for (const strings &options :
         {strings{"--new-key", home_ / "key.pem", "--out", own}, strings{"--new-key", own}}) {
      strings arguments = {"issue", "--dir", the_lab().file(""), "--force", "--subject", "CN=x"};
      arguments.insert(arguments.end(), options.begin(), options.end());
      if (options.size() == 2)
        arguments.insert(arguments.end(), {"--out", home_ / "cert.pem"});
      result done = run("pkilab", arguments);
      EXPECT_EQ(done.exit_code, 2);
      EXPECT_NE(done.err.find(" is the lab's own; give what is made another name"),
                std::string::npos)
          << done.err;
      EXPECT_EQ(tool_test::read_file(own), content);
    }
  }
}

TEST_F(issue_test, UrlThatNoDeviceAsksIsToldAndPutIn) {
  result done = issue({"--key", the_lab().file("root-key.pem"), "--subject", "CN=server", "--ocsp",
                       "foo", "--crl", "https://x", "--crl", "HTTP://ca/crl"});
  EXPECT_EQ(done.exit_code, 0);
  EXPECT_EQ(done.err,
            "pkilab: warning: --ocsp foo: devices ask http URLs only\n"
            "pkilab: warning: --crl https://x: devices ask http URLs only\n");
  EXPECT_NE(shown("crlDistributionPoints").find("https://x"), std::string::npos);
}

class revoke_test : public issue_test {
 protected:
  void SetUp() override {
    serial_ = tools::serial_text(X509_get0_serialNumber(issue_well({}).get()));
  }
  result call(const char *command, const strings &options) {
    strings arguments = {command, "--dir", the_lab().file("")};
    arguments.insert(arguments.end(), options.begin(), options.end());
    return run("pkilab", arguments);
  }
  std::string state() { return the_lab().file("revoked/" + serial_ + ".txt"); }
  void expect_failure(const result &done, int code, const std::string &text) {
    EXPECT_EQ(done.exit_code, code);
    EXPECT_TRUE(tool_test::is_one_line(done.err)) << done.err;
    EXPECT_NE(done.err.find(text), std::string::npos) << done.err;
  }

  std::string serial_;
};

TEST_F(revoke_test, FolderThatCannotBeUsedIsNotCalledEmpty) {
  std::string file = home_.write("file", "");
  for (const char *command : {"revoke", "unrevoke"}) {
    result done = run("pkilab", {command, "--dir", file, home_ / "cert.pem"});
    expect_failure(done, 1, "pkilab: cannot use the folder " + file + ": Not a directory\n");
    done = run("pkilab", {command, "--dir", home_ / "none", home_ / "cert.pem"});
    expect_failure(done, 1, "pkilab: there is no lab in " + (home_ / "none") + "; pkilab serve");
  }
}

TEST_F(revoke_test, TakesACertificateOrItsSerialNumber) {
  result done = call("revoke", {home_ / "cert.pem"});
  EXPECT_EQ(done.exit_code, 0) << done.err;
  EXPECT_EQ(done.out, "revoked " + serial_ + "\n");
  EXPECT_TRUE(tool_test::exists(state()));
  done = call("unrevoke", {"--serial", serial_});
  EXPECT_EQ(done.out, "unrevoked " + serial_ + "\n");
  EXPECT_FALSE(tool_test::exists(state()));
  EXPECT_EQ(call("revoke", {"--serial", serial_}).exit_code, 0);
  EXPECT_EQ(call("unrevoke", {home_ / "cert.pem"}).exit_code, 0);
}

TEST_F(revoke_test, KeepsTimeAndReason) {
  ASSERT_EQ(
      call("revoke", {home_ / "cert.pem", "--reason", "superseded", "--at", "2026-01-02T03:04:05Z"})
          .exit_code,
      0);
  EXPECT_EQ(tool_test::read_file(state()), "1767323045 superseded\n");
}

TEST_F(revoke_test, TwiceIsRefusedAndChangesNothing) {
  ASSERT_EQ(call("revoke", {home_ / "cert.pem", "--reason", "superseded"}).exit_code, 0);
  std::string before = tool_test::read_file(state());
  expect_failure(call("revoke", {home_ / "cert.pem", "--reason", "keyCompromise"}), 1,
                 serial_ + " is revoked already");
  EXPECT_EQ(tool_test::read_file(state()), before);
  EXPECT_EQ(call("unrevoke", {home_ / "cert.pem"}).exit_code, 0);
  expect_failure(call("unrevoke", {home_ / "cert.pem"}), 1, serial_ + " is not revoked");
}

TEST_F(revoke_test, WhatTheLabDidNotIssueIsRefused) {
  expect_failure(call("revoke", {"--serial", "4711"}), 1,
                 "the lab issued nothing with the serial number 4711");
  tool_test::folder other;
  ASSERT_EQ(run("pkilab", {"issue", "--dir", other / "lab", "--key", the_lab().file("root-key.pem"),
                           "--subject", "CN=x", "--out", other / "cert.pem"})
                .exit_code,
            0);
  expect_failure(call("revoke", {other / "cert.pem"}), 1, " did not issue " + (other / "cert.pem"));
}

TEST_F(revoke_test, FolderWithoutALabIsRefusedAndStaysEmpty) {
  result done = run("pkilab", {"revoke", "--dir", home_ / "none", "--serial", "1"});
  expect_failure(done, 1, "there is no lab in " + (home_ / "none"));
  EXPECT_FALSE(tool_test::exists(home_ / "none"));
}

TEST_F(revoke_test, WrongUsageIsTwo) {
  expect_failure(call("revoke", {}), 2, "give either a certificate's file or --serial");
  expect_failure(call("revoke", {home_ / "cert.pem", "--serial", serial_}), 2, "give either");
  expect_failure(call("revoke", {"--serial", "xyz"}), 2, "'xyz' is no serial number");
  expect_failure(call("revoke", {home_ / "cert.pem", "--reason", "boredom"}), 2, "--reason");
  expect_failure(call("revoke", {home_ / "cert.pem", "--at", "once"}), 2, "--at once is no time");
}

TEST_F(revoke_test, DamagedStateIsTold) {
  tools::cert_ptr cert = tools::load_certificate(home_ / "cert.pem");
  ASSERT_EQ(call("revoke", {home_ / "cert.pem"}).exit_code, 0);
  the_lab().home.write("lab/revoked/" + serial_ + ".txt", "rubbish");
  tool_test::ocsp_query answer(the_lab().lab.port(), cert.get(),
                               the_lab().lab.keys().issuing().cert.get());
  EXPECT_TRUE(answer.http().starts_with("HTTP/1.0 500 "));
  EXPECT_NE(answer.http().find(" is damaged; remove it, and revoke again"), std::string::npos);
  EXPECT_EQ(unlink(state().c_str()), 0);  // the lab is shared
}

TEST_F(revoke_test, EveryReasonIsInTheHelpAndTaken) {
  std::string help = run("pkilab", {"revoke", "--help"}).out;
  for (const std::string &reason : pkilab::revocation_reasons()) {
    if (reason.empty())
      continue;
    EXPECT_NE(help.find("  " + reason + "\n"), std::string::npos) << reason;
    EXPECT_EQ(call("revoke", {home_ / "cert.pem", "--reason", reason}).exit_code, 0) << reason;
    EXPECT_EQ(call("unrevoke", {home_ / "cert.pem"}).exit_code, 0);
  }
}

}  // namespace
