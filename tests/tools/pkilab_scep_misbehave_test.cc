// Every way in which the lab's SCEP room answers badly, and what becomes of an enrollment.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>

#include "device.h"
#include "tools/common/scep_message.h"
#include "tools/pkilab/scep_options.h"

namespace {

using tool_test::device;
using tool_test::result;
using tool_test::run;
using tool_test::strings;

struct outcome {
  const char *name;
  const char *text;           // of an enrollment
  bool status_reply_matters;  // does it spoil PENDING and FAILURE too?
};

constexpr outcome outcomes[] = {
    {"wrong-transaction-id", "INVALID SCEP RSP (59)", true},
    {"wrong-nonce", "INVALID SCEP RSP (59)", true},
    {"no-nonce", "INVALID SCEP RSP (59)", true},
    {"stranger-signs", "INVALID SCEP RSP (59)", true},
    {"impostor-signs", "INVALID SCEP RSP (59)", true},
    {"stranger-envelope", "INVALID SCEP RSP (59)", false},
    {"no-certificates", "INVALID SCEP RSP (59)", false},
    {"other-certificate", "KEY MISMATCH (65)", false},
    {"no-status", "INVALID SCEP RSP (59)", true},
    {"wrong-type", "INVALID SCEP RSP (59)", true},
    {"wrong-key", "KEY MISMATCH (65)", false},
    {"no-message", "INVALID SCEP RSP (59)", true},
    {"http-404", "HTTP ERROR (47)", true},
    {"http-500", "HTTP ERROR (47)", true},
};

std::string test_name(const testing::TestParamInfo<outcome> &named) {
  std::string name = named.param.name;
  std::replace(name.begin(), name.end(), '-', '_');
  return name;
}

class misdeed_test : public testing::TestWithParam<outcome> {
 protected:
  // The lab with the misbehaviour and `more`; the device enrolls, and has nothing for it.
  void expect_failure(const strings &more, const std::string &text) {
    strings options = {"--scep-misbehave", GetParam().name};
    options.insert(options.end(), more.begin(), more.end());
    device test(options);
    test.prepare();
    result done = test.enroll({"--polls", "0"});
    EXPECT_EQ(done.exit_code, 1);
    EXPECT_NE(done.err.find(text), std::string::npos) << done.err;
    EXPECT_TRUE(tool_test::is_one_line(done.err)) << done.err;
    EXPECT_TRUE(test.certs().empty());
  }
};

TEST_P(misdeed_test, IsRefusedAndNothingIsSaved) {
  expect_failure({}, GetParam().text);
}

TEST_P(misdeed_test, DecidesARefusal) {
  expect_failure({"--scep-refuse", "badRequest"},
                 GetParam().status_reply_matters ? GetParam().text : "SCEP REQ REJ (58)");
}

TEST_P(misdeed_test, DecidesPending) {
  expect_failure({"--scep-pending", "1"}, GetParam().status_reply_matters
                                              ? GetParam().text
                                              : "the CA has not issued the certificate yet");
}

INSTANTIATE_TEST_SUITE_P(ScepMisbehaviours, misdeed_test, testing::ValuesIn(outcomes), test_name);

TEST(ScepMisbehaviour, EveryOneIsTestedHere) {
  ASSERT_EQ(pkilab::misdeed_rows().size(), std::size(outcomes));
  for (size_t i = 0; i < std::size(outcomes); i++)
    EXPECT_EQ(pkilab::misdeed_rows()[i].name, outcomes[i].name);
}

// ---- what the bad answers say ----

tools::scep_outside reply_of(const strings &lab_options) {
  device test(lab_options);
  test.prepare();
  test.enroll();
  tools::pkcs7_ptr reply =
      tools::decode_pkcs7(tool_test::read_file(test.message("0001-reply.der")));
  return tools::read_outside(reply.get());
}

TEST(ScepMisbehaviour, SeveralCanBeHadAtOnce) {
  tools::scep_outside reply = reply_of({"--scep-misbehave", "no-nonce", "--scep-misbehave",
                                        "no-status", "--scep-misbehave", "wrong-type"});
  EXPECT_FALSE(reply.recipient_nonce);
  EXPECT_FALSE(reply.status);
  EXPECT_EQ(reply.type, "19");
}

TEST(ScepMisbehaviour, LeavesTheRestOfTheAnswerAsItIs) {
  tools::scep_outside reply = reply_of({"--scep-misbehave", "wrong-transaction-id"});
  EXPECT_EQ(reply.transaction_id, "0123456789ABCDEF0123456789ABCDEF");
  EXPECT_EQ(reply.type, "3");
  EXPECT_EQ(reply.status, "0");
  EXPECT_EQ(reply.recipient_nonce->size(), 16u);
}

// ---- refusals ----

class refusal_test : public testing::TestWithParam<int> {};

TEST_P(refusal_test, IsToldInTheLogAndNothingIsSaved) {
  std::string reason = tools::scep_fail_info_name(GetParam());
  device test({"--scep-refuse", reason});
  test.prepare();
  result done = test.enroll({"-v"});
  EXPECT_EQ(done.exit_code, 1);
  EXPECT_NE(done.err.find("\npkictl: cert-request rejected\npkictl: rejection-reason: " +
                          std::to_string(GetParam()) +
                          "\npkictl: cannot enroll device: SCEP REQ REJ (58): the CA rejected the"
                          " request: " +
                          reason + " (" + std::to_string(GetParam()) + ")\n"),
            std::string::npos)
      << done.err;
  EXPECT_TRUE(test.certs().empty());
  EXPECT_NE(test.lab().end(SIGTERM).err.find(": FAILURE " + reason + " (as told)\n"),
            std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(ScepRefusals, refusal_test, testing::Range(0, 5));

// ---- HTTP ----

TEST(ScepMisbehaviour, HttpMisbehavioursWorkOnScepToo) {
  device test;
  test.prepare();
  std::string url = test.lab().url();
  for (const auto &[path, text] :
       {std::pair{"status/503", "(47)"}, std::pair{"truncate-body", "(47)"},
        std::pair{"wrong-key", "(59)"}, std::pair{"reset", "(48)"},
        std::pair{"bad-status-line", "(47)"}}) {
    result made =
        tool_test::pkictl({"cainfo", "sign", "--scep-url", url + "/misbehave/" + path + "/scep",
                           "--scep-cert", test.lab_file("issuing-cert.pem"), "--key",
                           test.lab_file("doc-key.pem"), "--force", "--out", test.file("own.p7")});
    ASSERT_EQ(made.exit_code, 0) << made.err;
    tool_test::lab_process documents(test.lab_file(""), {"--document", test.file("own.p7")});
    ASSERT_EQ(test.pkictl({"provision", documents.url() + "/ca-info", "--doc-key",
                           test.lab_file("doc-key.pub.pem"), "--label", "office"})
                  .exit_code,
              0);
    result done = test.enroll();
    EXPECT_EQ(done.exit_code, 1);
    EXPECT_NE(done.err.find(text), std::string::npos) << path << ": " << done.err;
  }
}

// ---- the command line ----

TEST(PkilabScepUsage, HelpNamesEveryOptionAndMisbehaviour) {
  std::string help = run("pkilab", {"serve", "--help"}).out;
  for (const char *option : {"--scep-digest", "--scep-cipher", "--scep-pending", "--scep-refuse",
                             "--scep-misbehave", "--scep-save"})
    EXPECT_NE(help.find(option), std::string::npos) << option;
  EXPECT_NE(help.find(pkilab::misdeed_list()), std::string::npos);
}

TEST(PkilabScepUsage, UnknownNamesAreOneLineAndTwo) {
  tool_test::folder home;
  for (const strings &option :
       {strings{"--scep-misbehave", "nothing"}, strings{"--scep-refuse", "badLuck"},
        strings{"--scep-pending", "-1"}, strings{"--scep-pending", "x"}}) {
    strings arguments = {"serve", "--dir", home / "lab"};
    arguments.insert(arguments.end(), option.begin(), option.end());
    result done = run("pkilab", arguments);
    EXPECT_EQ(done.exit_code, 2);
    EXPECT_TRUE(tool_test::is_one_line(done.err)) << done.err;
    EXPECT_NE(done.err.find(option[0]), std::string::npos) << done.err;
  }
  EXPECT_NE(run("pkilab", {"serve", "--dir", home / "lab", "--scep-misbehave", "nothing"})
                .err.find("nothing not in {wrong-transaction-id,"),
            std::string::npos);
}

}  // namespace
