// What holds for the help of every command.
#include <gtest/gtest.h>

#include <sstream>

#include "run_tool.h"

namespace {

using tool_test::run;
using tool_test::strings;

strings lines_of(const std::string &text) {
  strings lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    lines.push_back(line);
  return lines;
}

strings subcommands_of(const std::string &help) {
  strings names;
  bool listed = false;
  for (const std::string &line : lines_of(help)) {
    if (listed && line.starts_with("  ") && line[2] != ' ')
      names.push_back(line.substr(2, line.find(' ', 2) - 2));
    listed = line == "Subcommands:" || (listed && !line.empty());
  }
  return names;
}

// The help of the command that `words` name and of those below it; returns how many.
int expect_narrow(const std::string &tool, const strings &words) {
  strings arguments = words;
  arguments.push_back("--help");
  std::string help = run(tool, arguments).out;
  for (const std::string &line : lines_of(help))
    EXPECT_LE(line.size(), 80u) << line;
  int count = 1;
  for (const std::string &name : subcommands_of(help)) {
    strings below = words;
    below.push_back(name);
    count += expect_narrow(tool, below);
  }
  return count;
}

TEST(ToolHelp, AWordThatIsNoCommandIsNotHiddenByHelp) {
  tool_test::result done = run("pkictl", {"key", "make", "--help"});
  EXPECT_EQ(done.exit_code, 2);
  EXPECT_EQ(done.out, "");
  EXPECT_EQ(done.err, "pkictl: 'make' is not known here; see 'pkictl key --help'\n");
}

TEST(ToolHelp, IsAtMost80ColumnsWideEverywhere) {
  EXPECT_GT(expect_narrow("pkictl", {}), 15);
  EXPECT_GT(expect_narrow("pkilab", {}), 4);
}

TEST(ToolHelp, LongDescriptionGoesOnInItsColumn) {
  std::string help = run("pkictl", {"verify", "--help"}).out;
  std::string indent(30, ' ');
  EXPECT_NE(
      help.find(
          "  --chain FILE                A file of further, untrusted certificates; may be\n" +
          indent + "given again\n"),
      std::string::npos)
      << help;
}

TEST(ToolHelp, ShortDescriptionStandsBesideItsName) {
  std::string help = run("pkictl", {"--help"}).out;
  EXPECT_NE(help.find("\n  cainfo                      Sign, verify and show CA-info documents\n"),
            std::string::npos)
      << help;
  EXPECT_NE(help.find("\n  --json                      Print JSON\n"), std::string::npos) << help;
}

TEST(ToolHelp, CommandsWhoseOneIsAnAnswerAreNamed) {
  std::string help = run("pkictl", {"--help"}).out;
  EXPECT_NE(help.find("Exit codes: 0 done, 1 failed, 2 wrong usage. Of verify 1 is a rejected\n"
                      "certificate and of crl find a listed one, and all failures are 2.\n"),
            std::string::npos)
      << help;
}

TEST(ToolHelp, ValueThatIsNoNumberIsToldSo) {
  for (const char *word : {"abc", "12x", ""})
    EXPECT_EQ(run("pkictl", {"key", "generate", "x", "--bits", word}).err,
              "pkictl: --bits: " + std::string(word) +
                  " is no whole number; see 'pkictl key generate --help'\n");
  EXPECT_EQ(run("pkilab", {"serve", "--dir", "x", "--port", "http"}).err,
            "pkilab: --port: http is no whole number; see 'pkilab serve --help'\n");
  EXPECT_EQ(
      run("pkictl", {"key", "generate", "x", "--bits", "17"}).err,
      "pkictl: --bits: Value 17 not in range 512 to 16384; see 'pkictl key generate --help'\n");
}

}  // namespace
