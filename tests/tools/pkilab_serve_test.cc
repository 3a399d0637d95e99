#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "run_tool.h"
#include "support/certs.h"

namespace {

using tool_test::lab_process;
using tool_test::result;
using tool_test::run;

TEST(PkilabServe, TellsItsUrlOnOneLineAndInTheReadyFile) {
  tool_test::folder home;
  lab_process lab(home / "lab");
  EXPECT_TRUE(lab.url().starts_with("http://127.0.0.1:")) << lab.url();
  result done = lab.end(SIGTERM);
  EXPECT_EQ(done.out, "pkilab is ready: " + lab.url() + "/ca-info\n");
}

TEST(PkilabServe, EndsCleanlyOnSigterm) {
  tool_test::folder home;
  lab_process lab(home / "lab");
  result done = lab.end(SIGTERM);
  EXPECT_EQ(done.exit_code, 0);
  EXPECT_EQ(done.err, "");
}

TEST(PkilabServe, EndsCleanlyOnSigint) {
  tool_test::folder home;
  lab_process lab(home / "lab");
  EXPECT_EQ(lab.end(SIGINT).exit_code, 0);
}

TEST(PkilabServe, LogsTheQueryOfEachRequest) {
  tool_test::folder home;
  home.write("serialnumber", "SN-0007\n");
  lab_process lab(home / "lab");
  result provisioned = tool_test::pkictl(
      {"provision", lab.url() + "/ca-info", "--doc-key", home / "lab/doc-key.pub.pem"},
      {"BOARD_INFO_DIR=" + (home / "")});
  EXPECT_EQ(provisioned.exit_code, 0) << provisioned.err;
  result done = lab.end(SIGTERM);
  EXPECT_TRUE(done.err.starts_with("pkilab: GET /ca-info?serial=SN-0007 -> 200 ")) << done.err;
}

TEST(PkilabServe, QuietSaysNothingWhereAFileSaysIt) {
  tool_test::folder home;
  lab_process lab(home / "lab", {"--quiet"});
  EXPECT_EQ(lab.end(SIGTERM).out, "");
}

TEST(PkilabServe, AlgorithmThatOpenSslDoesNotKnowIsTold) {
  tool_test::folder home;
  lab_process lab(home / "lab", {"--scep-digest", "FOO", "--scep-cipher", "none"});
  EXPECT_EQ(lab.end(SIGTERM).err,
            "pkilab: warning: OpenSSL knows no digest FOO; devices take their default instead\n");
}

TEST(PkilabServe, ReadyFileIsNoDevice) {
  tool_test::folder home;
  std::string pipe = home / "pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  result done = run("pkilab", {"serve", "--dir", home / "lab", "--ready-file", pipe});
  EXPECT_EQ(done.exit_code, 2);
  EXPECT_EQ(done.err, "pkilab: --ready-file " + pipe +
                          " is no file; give the name of one that may be made\n");
  EXPECT_TRUE(std::filesystem::is_fifo(pipe));
}

TEST(PkilabServe, EndsWhereNobodyCanLearnItsUrl) {
  tool_test::folder home;
  result done = run("/bin/sh", {"-c", "exec \"$1\" serve --port 0 --dir \"$2\" >/dev/full", "sh",
                                std::string(TOOL_DIR) + "/pkilab", home / "lab"});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.err, "pkilab: cannot write to standard output: No space left on device\n");
}

TEST(PkilabServe, QuietLogsNothing) {
  tool_test::folder home;
  home.write("serialnumber", "SN-0007\n");
  lab_process lab(home / "lab", {"--quiet"});
  tool_test::pkictl(
      {"provision", lab.url() + "/ca-info", "--doc-key", home / "lab/doc-key.pub.pem"},
      {"BOARD_INFO_DIR=" + (home / "")});
  EXPECT_EQ(lab.end(SIGTERM).err, "");
}

// Devices do not read the body of such an answer.
TEST(PkilabServe, WhyItFailsToAnswerIsLoggedThoughItIsQuiet) {
  tool_test::folder home;
  home.write("serialnumber", "SN-0007\n");
  std::string folder = home / "document";
  std::filesystem::create_directory(folder);
  for (const char *option : {"--scep-pending=0", "--quiet"}) {
    lab_process lab(home / "lab", {"--document", folder, option});
    tool_test::pkictl(
        {"provision", lab.url() + "/ca-info", "--doc-key", home / "lab/doc-key.pub.pem"},
        {"BOARD_INFO_DIR=" + (home / "")});
    std::string log = lab.end(SIGTERM).err;
    EXPECT_TRUE(tool_test::is_one_line(log)) << log;
    EXPECT_TRUE(log.starts_with("pkilab: GET /ca-info?serial=SN-0007 -> 500 ")) << log;
    EXPECT_TRUE(log.ends_with(", cannot read " + folder + ": Is a directory\n")) << log;
  }
}

// Whoever waits for the file must not meet that of an earlier lab.
TEST(PkilabServe, ReadyFileIsThereOnlyWhileItServes) {
  for (int number : {SIGTERM, SIGINT}) {
    tool_test::folder home;
    std::string ready = home / "lab.ready";
    lab_process lab(home / "lab");
    EXPECT_EQ(tool_test::read_file(ready), lab.url() + "\n");
    EXPECT_EQ(lab.end(number).exit_code, 0);
    EXPECT_NE(access(ready.c_str(), F_OK), 0);
  }
}

TEST(PkilabServe, StaleReadyFileIsRemovedBeforeAnythingElse) {
  tool_test::folder home;
  std::string ready = home.write("ready", "http://127.0.0.1:1\n");
  std::string lab = home.write("lab", "no folder");
  EXPECT_EQ(run("pkilab", {"serve", "--dir", lab, "--ready-file", ready}).exit_code, 1);
  EXPECT_NE(access(ready.c_str(), F_OK), 0);
}

TEST(PkilabServe, ReadyFileOfAnotherLabStays) {
  tool_test::folder home;
  std::string ready = home / "lab.ready";
  lab_process lab(home / "lab");
  home.write("lab.ready", "http://127.0.0.1:1\n");
  lab.end(SIGTERM);
  EXPECT_EQ(tool_test::read_file(ready), "http://127.0.0.1:1\n");
}

TEST(PkilabServe, BindTakesOnlyNumericAddressesAndSaysNothingElse) {
  tool_test::folder home;
  result done = run("pkilab", {"serve", "--dir", home / "lab", "--bind", "localhost"});
  EXPECT_EQ(done.exit_code, 2);
  EXPECT_EQ(done.err,
            "pkilab: cannot listen on localhost: give a numeric address, as in 127.0.0.1, and a"
            " port from 0 to 65535\n");
  EXPECT_NE(access((home / "lab").c_str(), F_OK), 0);
}

TEST(PkilabServe, MakesNoKeysWhereItsPortIsTaken) {
  tool_test::folder home;
  lab_process first(home / "first");
  std::string port = first.url().substr(first.url().rfind(':') + 1);
  result done = run("pkilab", {"serve", "--dir", home / "lab", "--port", port});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.err, "pkilab: cannot listen on 127.0.0.1 port " + port +
                          ": Address already in use; choose another port, or 0 for any free one\n");
  EXPECT_NE(access((home / "lab").c_str(), F_OK), 0);
}

TEST(PkilabServe, UnknownAnswerNamesTheHelpOnce) {
  tool_test::folder home;
  result done = run("pkilab", {"serve", "--dir", home / "lab", "--ocsp-answer", "foo"});
  EXPECT_EQ(done.exit_code, 2);
  EXPECT_TRUE(done.err.ends_with("there is no OCSP option 'foo'; pkilab serve --help lists them\n"))
      << done.err;
}

TEST(PkilabServe, ServesAGivenDocumentOnceItIsThere) {
  tool_test::folder home;
  home.write("serialnumber", "SN-0007\n");
  lab_process lab(home / "lab", {"--document", home / "own.p7", "--quiet"});
  tool_test::strings provision = {"provision", lab.url() + "/ca-info", "--doc-key",
                                  home / "lab/doc-key.pub.pem", "--json"};
  tool_test::strings board = {"BOARD_INFO_DIR=" + (home / "")};
  EXPECT_EQ(tool_test::pkictl(provision, board).exit_code, 1);
  result made = tool_test::pkictl({"cainfo", "sign", "--issuer-name", "CN=own", "--key",
                                   home / "lab/doc-key.pem", "--out", home / "own.p7"});
  ASSERT_EQ(made.exit_code, 0) << made.err;
  result provisioned = tool_test::pkictl(provision, board);
  ASSERT_EQ(provisioned.exit_code, 0) << provisioned.err;
  EXPECT_EQ(nlohmann::json::parse(provisioned.out)["ca"]["issuer"], "CN=own");
}

TEST(PkilabServe, DocumentThatIsNotThereIsWarnedAboutAndNamedInTheLog) {
  tool_test::folder home;
  home.write("serialnumber", "SN-0007\n");
  std::string file = home / "none.p7";
  lab_process lab(home / "lab", {"--document", file});
  tool_test::pkictl(
      {"provision", lab.url() + "/ca-info", "--doc-key", home / "lab/doc-key.pub.pem"},
      {"BOARD_INFO_DIR=" + (home / "")});
  std::string log = lab.end(SIGTERM).err;
  EXPECT_TRUE(log.starts_with("pkilab: warning: there is no " + file +
                              " yet; /ca-info answers 404 until it is there\n"))
      << log;
  EXPECT_NE(log.find("pkilab: GET /ca-info?serial=SN-0007 -> 404 "), std::string::npos) << log;
  EXPECT_TRUE(log.ends_with(", there is no " + file + "\n")) << log;
}

TEST(PkilabServe, DocumentThatIsThereIsNotWarnedAbout) {
  tool_test::folder home;
  lab_process lab(home / "lab", {"--document", home.write("own.p7", "octets")});
  EXPECT_EQ(lab.end(SIGTERM).err, "");
}

TEST(PkilabServe, WarnsBeforeItLeavesTheLoopback) {
  tool_test::folder home;
  // An address of nobody's (RFC 5737), so that nothing is opened to a network.
  result done = run("pkilab", {"serve", "--dir", home / "lab", "--bind", "192.0.2.1"});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_TRUE(done.err.starts_with("pkilab: warning: 192.0.2.1 can be reached from other"))
      << done.err;
}

TEST(PkilabServe, PortIsNoAdviceWhereTheAddressIsAnotherMachines) {
  tool_test::folder home;
  result done = run("pkilab", {"serve", "--dir", home / "lab", "--bind", "192.0.2.1"});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_TRUE(
      done.err.ends_with("pkilab: cannot listen on 192.0.2.1 port 0: Cannot assign requested"
                         " address; give an address of this machine\n"))
      << done.err;
}

TEST(PkilabServe, WrongUsageIsTwo) {
  tool_test::folder home;
  for (const tool_test::strings &arguments :
       {tool_test::strings{}, tool_test::strings{"serve"},
        tool_test::strings{"serve", "--dir", home / "lab", "--port", "70000"},
        tool_test::strings{"serve", "--dir", home / "lab", "more"}}) {
    result done = run("pkilab", arguments);
    EXPECT_EQ(done.exit_code, 2);
    EXPECT_TRUE(tool_test::is_one_line(done.err)) << done.err;
    EXPECT_EQ(done.out, "");
  }
}

TEST(PkilabServe, HelpListsTheMisbehaviours) {
  result done = run("pkilab", {"serve", "--help"});
  EXPECT_EQ(done.exit_code, 0);
  EXPECT_NE(done.out.find("/misbehave/truncate-body/..."), std::string::npos);
  EXPECT_EQ(run("pkilab", {"--version"}).out, "pkilab 0.1.0\n");
}

}  // namespace
