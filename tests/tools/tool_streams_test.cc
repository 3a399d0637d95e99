// Standard streams that are closed or full.
#include <gtest/gtest.h>

#include <filesystem>

#include "device.h"
#include "lab_fixture.h"
#include "run_tool.h"
#include "verify_files.h"

namespace {

using tool_test::device;
using tool_test::result;
using tool_test::strings;

// The tool in a shell that redirects its streams.
result run_redirected(const std::string &tool, const strings &arguments,
                      const std::string &redirections) {
  strings words = {"-c", "tool=$1; shift; \"$tool\" \"$@\" " + redirections, "sh",
                   std::string(TOOL_DIR) + "/" + tool};
  words.insert(words.end(), arguments.begin(), arguments.end());
  return tool_test::run("/bin/sh", words);
}

class lost_output_test : public testing::TestWithParam<const char *> {
 protected:
  static void expect_lost(const std::string &tool, const strings &arguments,
                          const std::string &end = "\n") {
    result done = run_redirected(tool, arguments, GetParam());
    EXPECT_EQ(done.exit_code, 1);
    EXPECT_TRUE(done.err.starts_with(tool + ": cannot write to standard output: ")) << done.err;
    EXPECT_TRUE(done.err.ends_with(end)) << done.err;
    EXPECT_TRUE(tool_test::is_one_line(done.err)) << done.err;
    EXPECT_EQ(done.out, "");
  }
};

TEST_P(lost_output_test, OfHelpAndVersionIsAFailure) {
  for (const char *tool : {"pkictl", "pkilab"})
    for (const char *option : {"--help", "--version"})
      expect_lost(tool, {option});
  expect_lost("pkictl", {"verify", "--help"});
}

TEST_P(lost_output_test, OfACommandIsAFailure) {
  device test;
  test.prepare();
  ASSERT_EQ(test.enroll().exit_code, 0);
  expect_lost("pkictl", {"error", "1"});
  expect_lost("pkictl", {"error", "1", "--json"});
  expect_lost("pkictl", {"key", "list", "--state", test.state()});
  expect_lost("pkictl", {"key", "export", "device", "--state", test.state()});
  expect_lost("pkictl", {"cert", "export", "device", "cert", "--state", test.state()});
}

// There 1 is an answer.
TEST_P(lost_output_test, OfAVerdictIsNoVerdict) {
  tool_test::verify_files files;
  std::filesystem::create_directory(files.path("empty"));
  result done = run_redirected("pkictl",
                               {"verify", files.path("root.pem"), "--trust", files.path("root.pem"),
                                "--state", files.path("empty")},
                               GetParam());
  EXPECT_EQ(done.exit_code, 2);
  EXPECT_TRUE(done.err.starts_with("pkictl: cannot write to standard output: ")) << done.err;
}

TEST_P(lost_output_test, OfTheLabsCommandsIsAFailure) {
  tool_test::folder home;
  expect_lost("pkilab",
              {"issue", "--dir", tool_test::the_lab().home / "lab", "--new-key", home / "key.pem",
               "--subject", "CN=x", "--out", home / "cert.pem"},
              "; all else was done\n");
  EXPECT_TRUE(tool_test::exists(home / "cert.pem"));
  for (const char *command : {"revoke", "unrevoke"})
    expect_lost("pkilab", {command, "--dir", tool_test::the_lab().home / "lab", home / "cert.pem"},
                "; all else was done\n");
}

INSTANTIATE_TEST_SUITE_P(ToolStreams, lost_output_test, testing::Values(">&-", ">/dev/full"));

TEST(ToolStreams, ClosedOutputDoesNoHarmWhereNothingIsPrinted) {
  result done = run_redirected("pkictl", {"error", "--unknown"}, ">&-");
  EXPECT_EQ(done.exit_code, 2);
  EXPECT_TRUE(tool_test::is_one_line(done.err)) << done.err;
}

TEST(ToolStreams, AllOfThemMayBeClosed) {
  EXPECT_EQ(run_redirected("pkictl", {"error", "1"}, "0<&- 1>&- 2>&-").exit_code, 1);
  EXPECT_EQ(run_redirected("pkictl", {"error", "1"}, "0<&- 2>&-").exit_code, 0);
}

}  // namespace
