#include <gtest/gtest.h>
#include <libpki/error.h>

#include "run_tool.h"

namespace {

using tool_test::pkictl;
using tool_test::result;

const char *const http_error =
    "47 PKI_HTTP_ERROR: HTTP ERROR\n"
    "No connection to the server, or what it answers cannot be used; the log tells.\n";

TEST(PkictlError, PrintsNameTextAndMeaning) {
  result done = pkictl({"error", "47"});
  EXPECT_EQ(done.exit_code, 0);
  EXPECT_EQ(done.out, http_error);
  EXPECT_EQ(done.err, "");
}

TEST(PkictlError, PrintsJson) {
  result done = pkictl({"error", "0", "--json"});
  EXPECT_EQ(done.exit_code, 0);
  EXPECT_EQ(
      nlohmann::json::parse(done.out),
      (nlohmann::json{{"code", 0}, {"name", "PKI_OK"}, {"text", "Ok"}, {"meaning", "Success."}}));
}

TEST(PkictlError, KnowsEveryCodeOfTheLibrary) {
  for (unsigned code = PKI_OK; code <= PKI_OCSP_ERROR; code++) {
    result done = pkictl({"error", std::to_string(code)});
    EXPECT_EQ(done.exit_code, 0);
    size_t text = done.out.find(": " + std::string(pki_strerror(code)) + "\n");
    EXPECT_NE(text, std::string::npos) << done.out;
    EXPECT_TRUE(done.out.ends_with(".\n")) << done.out;
  }
}

TEST(PkictlError, FindsACodeByItsName) {
  for (const char *name : {"PKI_HTTP_ERROR", "HTTP_ERROR", "http_error", "pki_Http_Error"})
    EXPECT_EQ(pkictl({"error", name}).out, http_error) << name;
}

TEST(PkictlError, UnknownNumberIsWrongUsage) {
  result done = pkictl({"error", "88"});
  EXPECT_EQ(done.exit_code, 2);
  EXPECT_EQ(done.out, "");
  EXPECT_EQ(done.err, "pkictl: unknown status 88: the library's codes are 0 to 87\n");
}

TEST(PkictlError, UnknownNameIsLikeAnUnknownNumber) {
  result done = pkictl({"error", "abc"});
  EXPECT_EQ(done.exit_code, 2);
  EXPECT_EQ(done.out, "");
  EXPECT_EQ(done.err,
            "pkictl: there is no code 'abc'; give a number, or a name as in PKI_HTTP_ERROR\n");
}

TEST(PkictlError, NegativeNumberIsNoCode) {
  EXPECT_EQ(pkictl({"error", "-1"}).exit_code, 2);
}

TEST(PkictlError, NothingIsWrongUsage) {
  EXPECT_EQ(pkictl({"error"}).exit_code, 2);
}

TEST(PkictlUsage, HelpIsEverywhere) {
  for (const tool_test::strings &command :
       {tool_test::strings{}, tool_test::strings{"cainfo"}, tool_test::strings{"cainfo", "sign"},
        tool_test::strings{"cainfo", "verify"}, tool_test::strings{"cainfo", "show"},
        tool_test::strings{"provision"}, tool_test::strings{"error"}, tool_test::strings{"key"},
        tool_test::strings{"key", "generate"}, tool_test::strings{"key", "list"},
        tool_test::strings{"key", "remove"}, tool_test::strings{"enroll"},
        tool_test::strings{"scep"}, tool_test::strings{"scep", "decode"},
        tool_test::strings{"cert"}, tool_test::strings{"cert", "find"}}) {
    tool_test::strings arguments = command;
    arguments.push_back("--help");
    result done = pkictl(arguments);
    EXPECT_EQ(done.exit_code, 0);
    EXPECT_NE(done.out.find("Usage: "), std::string::npos);
    EXPECT_EQ(done.err, "");
  }
}

TEST(PkictlUsage, HelpEndsWithWhereToStart) {
  for (const char *tool : {"pkictl", "pkilab"}) {
    std::string help = tool_test::run(tool, {"--help"}).out;
    size_t last = help.rfind("\nStart with /");
    ASSERT_NE(last, std::string::npos) << help;
    EXPECT_TRUE(help.substr(last).find("/docs/quick-start.md\n") != std::string::npos) << help;
  }
}

TEST(PkictlUsage, VersionIsOneLine) {
  result done = pkictl({"--version"});
  EXPECT_EQ(done.exit_code, 0);
  EXPECT_EQ(done.out, "pkictl 0.1.0\n");
}

TEST(PkictlUsage, MistakesAreOneLineAndTwo) {
  for (const tool_test::strings &arguments :
       {tool_test::strings{}, tool_test::strings{"nothing"}, tool_test::strings{"cainfo"},
        tool_test::strings{"provision"}, tool_test::strings{"error", "1", "2"},
        tool_test::strings{"cainfo", "verify", "file"}, tool_test::strings{"--unknown"},
        tool_test::strings{"key"}, tool_test::strings{"key", "generate"},
        tool_test::strings{"enroll"}, tool_test::strings{"scep"}, tool_test::strings{"cert"},
        tool_test::strings{"cert", "find", "01"}, tool_test::strings{"scep", "decode"}}) {
    result done = pkictl(arguments);
    EXPECT_EQ(done.exit_code, 2);
    EXPECT_EQ(done.out, "");
    EXPECT_TRUE(tool_test::is_one_line(done.err)) << done.err;
    EXPECT_NE(done.err.find("--help'"), std::string::npos) << done.err;
  }
}

TEST(PkictlUsage, OptionInFrontOfItsCommandIsToldItsPlace) {
  result done = pkictl({"--state", "folder", "ca", "list"});
  EXPECT_EQ(done.exit_code, 2);
  EXPECT_EQ(done.err,
            "pkictl: --state stands behind its command: 'pkictl ca list --state ...'; see 'pkictl"
            " ca list --help'\n");
}

TEST(PkictlUsage, MistakesAreInJsonTooWhereItWasAskedFor) {
  for (const tool_test::strings &arguments :
       {tool_test::strings{"--json"}, tool_test::strings{"nothing", "--json"},
        tool_test::strings{"--json", "provision"},
        tool_test::strings{"cainfo", "verify", "file", "--json"},
        tool_test::strings{"error", "--unknown", "--json"},
        tool_test::strings{"key", "generate", "x", "--json", "--bits", "no"},
        tool_test::strings{"key", "generate", "a/b", "--json"},
        tool_test::strings{"provision", "https://127.0.0.1/", "--doc-key", "file", "--json"},
        tool_test::strings{"crl", "find", "file", "--json"}}) {
    result done = pkictl(arguments);
    EXPECT_EQ(done.exit_code, 2);
    EXPECT_TRUE(tool_test::is_one_line(done.err)) << done.err;
    nlohmann::json error = nlohmann::json::parse(done.out)["error"];
    EXPECT_EQ("pkictl: " + error["message"].get<std::string>() + "\n", done.err);
    EXPECT_EQ(error["text"], error["message"]);
  }
}

TEST(PkictlUsage, WordBehindTheEndOfOptionsAsksForNoJson) {
  result done = pkictl({"error", "--", "1", "--json"});
  EXPECT_EQ(done.exit_code, 2);
  EXPECT_EQ(done.out, "");
}

TEST(PkictlUsage, UnknownWordsAreNamed) {
  EXPECT_EQ(pkictl({"nothing"}).err, "pkictl: 'nothing' is not known here; see 'pkictl --help'\n");
  EXPECT_EQ(pkictl({"provision", "url", "--dockey", "f"}).err,
            "pkictl: '--dockey' is not known here; see 'pkictl provision --help'\n");
}

TEST(PkictlUsage, MistakeNamesTheCommandsOwnHelp) {
  EXPECT_NE(pkictl({"cainfo", "verify", "file"}).err.find("'pkictl cainfo verify --help'"),
            std::string::npos);
}

}  // namespace
