// Enrollments that the CA keeps waiting. Nothing here waits: the sleep is a fake, or ended by a
// signal.
#include <gtest/gtest.h>
#include <signal.h>

#include <sstream>

#include "device.h"

namespace {

using tool_test::device;
using tool_test::result;
using tool_test::strings;

const strings no_wait = {TOOL_PRELOAD SHORT_SLEEP, "ASAN_OPTIONS=verify_asan_link_order=0"};

strings sleep_ended_by(int signal_number) {
  strings environment = no_wait;
  environment.push_back("SLEEP_SIGNAL=" + std::to_string(signal_number));
  return environment;
}

const std::string not_yet = "pkictl: still pending: the CA has not issued the certificate yet";

TEST(PkictlEnrollPending, PollsEvery600SecondsUntilTheCertificateIsThere) {
  device test({"--scep-pending", "3"});
  test.prepare();
  result done = test.enroll({}, no_wait);
  EXPECT_EQ(done.exit_code, 0) << done.err;
  EXPECT_EQ(done.err, "sleep 600\nsleep 600\nsleep 600\n");
  EXPECT_EQ(test.messages(),
            (strings{"0001-PKCSReq.der", "0001-reply.der", "0002-GetCertInitial.der",
                     "0002-reply.der", "0003-GetCertInitial.der", "0003-reply.der",
                     "0004-GetCertInitial.der", "0004-reply.der"}));
}

TEST(PkictlEnrollPending, PollLimitEndsIt) {
  device test({"--scep-pending", "5"});
  test.prepare();
  result done = test.enroll({"--polls", "2"}, no_wait);
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.err,
            "sleep 600\nsleep 600\n" + not_yet + ", and 2 polls are over; enroll again to go on\n");
  EXPECT_TRUE(test.certs().empty());
}

TEST(PkictlEnrollPending, LimitOfNoPollsEndsItWithoutASleep) {
  device test({"--scep-pending", "5"});
  test.prepare();
  result done = test.enroll({"--polls", "0", "--json"}, no_wait);
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.err, not_yet + "; enroll again to go on\n");
  nlohmann::json printed = nlohmann::json::parse(done.out);
  EXPECT_EQ(printed["status"], "pending");
  EXPECT_EQ(printed["error"]["code"], 52);
}

TEST(PkictlEnrollPending, EnrollingAgainGoesOnWithTheTransaction) {
  device test({"--scep-pending", "2"});
  test.prepare();
  EXPECT_EQ(test.enroll({"--polls", "0"}).exit_code, 1);
  EXPECT_EQ(test.enroll({"--polls", "0"}).exit_code, 1);
  EXPECT_EQ(test.enroll({"--polls", "0"}).exit_code, 0);
}

TEST(PkictlEnrollPending, LimitDoesNotMatterWhenTheCaIssuesAtOnce) {
  device test;
  test.prepare();
  EXPECT_EQ(test.enroll({"--polls", "0", "--timeout", "100"}).exit_code, 0);
}

TEST(PkictlEnrollPending, InterruptInTheSleepEndsIt) {
  device test({"--scep-pending", "5"});
  test.prepare();
  for (int number : {SIGINT, SIGTERM}) {
    result done = test.enroll({}, sleep_ended_by(number));
    EXPECT_EQ(done.exit_code, 1);
    EXPECT_EQ(done.err, "sleep 600\n" + not_yet +
                            ", and the enrollment was interrupted; enroll again to go on\n");
  }
}

TEST(PkictlEnrollPending, RealInterruptEndsARealSleep) {
  device test({"--scep-pending", "5"});
  test.prepare();
  strings arguments = test.enroll_arguments({"--state", test.state()});
  tool_test::background_pkictl enrolling(arguments, test.environment());
  test.lab().wait_for_log(": PENDING");
  result done = enrolling.end(SIGINT);
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.err, not_yet + ", and the enrollment was interrupted; enroll again to go on\n");
}

TEST(PkictlEnrollPending, WaitThatTakesSecondsIsTold) {
  device test({"--scep-pending", "5"});
  test.prepare();
  strings environment = sleep_ended_by(SIGINT);
  environment.emplace_back("SLEEP_COMMAND=sleep 4");
  result done = test.enroll({}, environment);
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.err,
            "sleep 600\npkictl: still waiting for the CA; while it says PENDING it is asked again"
            " every 600 s; Ctrl-C ends it\n" +
                not_yet + ", and the enrollment was interrupted; enroll again to go on\n");
}

TEST(PkictlEnrollPending, TimeLimitInTheSleepEndsIt) {
  device test({"--scep-pending", "5"});
  test.prepare();
  result done = test.enroll({"--timeout", "1000"}, sleep_ended_by(SIGALRM));
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_EQ(done.err,
            "sleep 600\n" + not_yet + ", and 1000 seconds are over; enroll again to go on\n");
}

TEST(PkictlEnrollPending, RefusalAfterPendingIsARefusal) {
  device test({"--scep-pending", "1", "--scep-refuse", "badTime"});
  test.prepare();
  result done = test.enroll({"--json"}, no_wait);
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_NE(done.err.find("SCEP REQ REJ (58): the CA rejected the request: badTime (3)\n"),
            std::string::npos)
      << done.err;
  nlohmann::json printed = nlohmann::json::parse(done.out);
  EXPECT_EQ(printed["status"], "rejected");
  EXPECT_EQ(printed["error"]["code"], 58);
  EXPECT_EQ(printed["error"]["failure_info"], "badTime (3)");
}

TEST(PkictlEnrollPending, HelpTellsTheSpecialLimits) {
  std::string help = tool_test::pkictl({"enroll", "--help"}).out;
  std::string words;  // however its lines are broken
  std::istringstream text(help);
  for (std::string word; text >> word;)
    words += word + " ";
  EXPECT_NE(words.find("0: at the first PENDING, without a poll. By default the command polls until"
                       " the CA decides"),
            std::string::npos)
      << help;
}

TEST(PkictlEnrollPending, HelpTellsHowToTellPendingFromRejected) {
  std::string help = tool_test::pkictl({"enroll", "--help"}).out;
  for (const char *status : {"\"issued\"", "\"pending\"", "\"rejected\""})
    EXPECT_NE(help.find(status), std::string::npos) << help;
}

TEST(PkictlEnrollPending, LimitsThatAreNoneAreWrongUsage) {
  for (const strings &options : {strings{"--polls", "-1"}, strings{"--polls", "x"},
                                 strings{"--timeout", "0"}, strings{"--timeout", "9999999999"}}) {
    strings arguments = {"enroll", "--key", "device"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    EXPECT_EQ(tool_test::pkictl(arguments).exit_code, 2);
  }
}

}  // namespace
