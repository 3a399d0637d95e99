// The folder of pkictl's state: which commands want it to be there, and what may not stand there.
#include <gtest/gtest.h>

#include <filesystem>

#include "device.h"
#include "lab_fixture.h"
#include "state_fixture.h"

namespace {

using nlohmann::json;
using tool_test::exists;
using tool_test::result;
using tool_test::state_test;
using tool_test::strings;

struct reader {
  strings words;
  const char *maker;  // the command that its complaint names
  int exit_code = 1;
};

std::vector<reader> readers(const std::string &cert) {
  return {{{"key", "list"}, "key generate"},
          {{"key", "export", "a"}, "key generate"},
          {{"cert", "export", "a", "b"}, "enroll"},
          {{"cert", "find", "01", "--key", "a"}, "provision"},
          {{"ca", "list"}, "provision"},
          {{"state", "dump"}, "key generate"},
          {{"verify", cert}, "provision", 2},
          {{"verify", cert, "--trust", cert}, "provision", 2}};
}

std::vector<strings> writers() {
  std::string key = tool_test::the_lab().file("doc-key.pub.pem");
  return {{"key", "generate", "a"},
          {"key", "remove", "a"},
          {"ca", "remove", "a"},
          {"enroll", "--key", "a", "--subject", "CN=a"},
          {"provision", "http://127.0.0.1:1/ca-info", "--doc-key", key}};
}

std::string a_certificate() {
  return tool_test::the_lab().file("root-cert.pem");
}

TEST(PkictlStateFolder, ReaderOfOneThatIsNotThereFails) {
  state_test test;
  for (const reader &one : readers(a_certificate())) {
    result done = test.pkictl(one.words);
    EXPECT_EQ(done.exit_code, one.exit_code) << one.words[0] << " " << one.words[1];
    EXPECT_EQ(done.out, "");
    EXPECT_EQ(done.err, "pkictl: there is no folder " + test.dir + "; name the one that 'pkictl " +
                            one.maker + "' was given\n");
  }
  EXPECT_FALSE(exists(test.dir));
}

TEST(PkictlStateFolder, ReaderSaysItInJsonToo) {
  state_test test;
  json error = json::parse(test.pkictl({"ca", "list", "--json"}).out)["error"];
  EXPECT_TRUE(error["message"].get<std::string>().starts_with("there is no folder "));
}

TEST(PkictlStateFolder, OneThatIsThereMayBeEmpty) {
  state_test test;
  std::filesystem::create_directory(test.dir);
  EXPECT_EQ(test.pkictl({"key", "list"}).out, "no keys in " + test.dir + "\n");
  EXPECT_EQ(test.pkictl({"ca", "list"}).out, "no CAs in " + test.dir + "\n");
}

TEST(PkictlStateFolder, DefaultOneThatWasNeverMadeIsEmpty) {
  EXPECT_EQ(tool_test::pkictl({"key", "list"}, {"XDG_STATE_HOME=/nonexistent"}).out,
            "no keys in /nonexistent/pkictl\n");
  EXPECT_EQ(tool_test::pkictl({"ca", "list"}, {"XDG_STATE_HOME=/nonexistent"}).out,
            "no CAs in /nonexistent/pkictl\n");
}

TEST(PkictlStateFolder, StateFileInItsPlaceIsRefusedByEveryCommand) {
  state_test test;
  ASSERT_EQ(test.make_key("a").exit_code, 0);
  std::string before = test.octets();
  std::vector<reader> all = readers(a_certificate());
  for (const strings &words : writers())
    all.push_back({words, ""});
  for (reader &one : all) {
    one.words.insert(one.words.end(), {"--state", test.file});
    result done = tool_test::pkictl(one.words);
    EXPECT_EQ(done.exit_code, one.exit_code) << one.words[0] << " " << one.words[1];
    EXPECT_EQ(done.out, "");
    EXPECT_EQ(done.err, "pkictl: " + test.file +
                            " is no folder; give --state the folder that the file \"state\" is"
                            " in\n");
  }
  EXPECT_EQ(test.octets(), before);
}

TEST(PkictlStateFolder, FileInTheDefaultPlaceIsRefusedByEveryCommand) {
  tool_test::folder home;
  std::string place = home.write("pkictl", "something else");
  std::vector<reader> all = readers(a_certificate());
  for (const strings &words : writers())
    all.push_back({words, ""});
  for (const reader &one : all) {
    result done = tool_test::pkictl(one.words, {"XDG_STATE_HOME=" + (home / "")});
    EXPECT_EQ(done.exit_code, one.exit_code) << one.words[0] << " " << one.words[1];
    EXPECT_TRUE(done.err.ends_with("/pkictl is no folder; move it away, or give --state DIR\n"))
        << done.err;
  }
  EXPECT_EQ(tool_test::read_file(place), "something else");
}

TEST(PkictlStateFolder, DumpOfAFileLooksAtNoFolder) {
  state_test test;
  ASSERT_EQ(test.make_key("a").exit_code, 0);
  EXPECT_EQ(
      tool_test::pkictl({"state", "dump", test.file, "--state", test.home / "none"}).exit_code, 0);
}

TEST(PkictlStateFolder, HelpSaysThatARelativeXdgStateHomeIsIgnored) {
  EXPECT_NE(tool_test::pkictl({"--help"}).out.find("ignored unless it"), std::string::npos);
}

TEST(PkictlStateFolder, AnEmptyNameIsNotTheDefaultFolder) {
  tool_test::folder home;
  for (const strings &words :
       {strings{"ca", "list"}, strings{"key", "list"}, strings{"key", "generate", "device"}}) {
    strings arguments = words;
    arguments.insert(arguments.end(), {"--state", ""});
    tool_test::result done = tool_test::pkictl(arguments, {"XDG_STATE_HOME=" + (home / "")});
    EXPECT_EQ(done.exit_code, 2);
    EXPECT_NE(done.err.find("name a folder, or leave --state out"), std::string::npos) << done.err;
  }
  EXPECT_FALSE(tool_test::exists(home / "pkictl"));
}

}  // namespace
